#pragma once

#include <vector>

#include "host/video/EncoderFactory.hpp"
#include "host/video/LibavHEVCEncoder.hpp"

namespace kelvaron::host {

// Finds out, once, which profiles this computer really encodes: for each profile, each encoder in
// turn (hardware first, libx265 last) encodes a test picture, and the first whose output passes
// the check serves that profile from then on. A profile no encoder passes is never offered.
class LibavEncoderFactory : public EncoderFactory {
 public:
  // Probes on the calling thread; takes a few hundred milliseconds.
  explicit LibavEncoderFactory(std::vector<LibavBackend> backends = defaultBackends(),
                               std::vector<CodecProfile> profiles = {std::begin(kProfiles),
                                                                     std::end(kProfiles)});

  std::vector<CodecProfile> supportedProfiles() const override;
  std::shared_ptr<VideoEncoder> makeEncoder(CodecProfile profile, std::int64_t bitsPerSecond,
                                            EncoderOutputHandler output) const override;
  // Which encoder serves `profile`, if any.
  const LibavBackend* backendFor(CodecProfile profile) const;

  static std::vector<LibavBackend> defaultBackends();

 private:
  static constexpr CodecProfile kProfiles[] = {CodecProfile::hevcMain, CodecProfile::hevcMain10,
                                               CodecProfile::hevcMain444,
                                               CodecProfile::hevcMain44410};

  std::vector<std::pair<CodecProfile, LibavBackend>> supported_;
};

// Whether `backend` produces `profile`: one test picture, its output checked.
bool probe(const LibavBackend& backend, CodecProfile profile);

}  // namespace kelvaron::host
