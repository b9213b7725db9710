#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace kelvaron::host {

// What the phone-only mode changed in the user's sound routing, to be put back.
struct AudioRouting {
  std::string previousDefaultSink;
  // The private output's module, for a person who puts things back by hand.
  std::optional<std::uint32_t> moduleIndex;
  // Playback stream → the output it played on before it was moved.
  std::map<std::uint32_t, std::string> streamSinks;
  friend bool operator==(const AudioRouting&, const AudioRouting&) = default;
};

// A small JSON note of an `AudioRouting`, kept while the routing is changed so that a host that
// dies before putting it back does so at its next start.
class AudioRoutingFile {
 public:
  explicit AudioRoutingFile(std::filesystem::path path) : path_(std::move(path)) {}

  // $XDG_STATE_HOME/tovu-host/audio-routing.json, else ~/.local/state/tovu-host/….
  static std::filesystem::path defaultLocation();

  const std::filesystem::path& path() const { return path_; }
  // Nothing when no note is kept. A note that does not parse counts as none and is moved aside
  // (to "….bad") rather than overwritten later.
  std::optional<AudioRouting> load() const;
  // Owner-only, replaced in one step. Throws std::runtime_error.
  void save(const AudioRouting& routing) const;
  void remove() const;

 private:
  std::filesystem::path path_;
};

}  // namespace kelvaron::host
