#pragma once

#include <pulse/introspect.h>

#include <cstdint>
#include <map>

#include "host/audio/AudioRoutingFile.hpp"
#include "host/audio/PulseConnection.hpp"

namespace kelvaron::host {

// The phone-only mode: every playback stream goes to a private output that no speaker plays, and
// the capture records that output's monitor. The private output becomes the default, so that new
// sounds go there too, and a sound that a program pins to another output is moved after it. What
// is changed is noted on disk before it changes, so that a host that dies before putting the
// routing back has it put back at its next start.
class PhoneOnlyRouting {
 public:
  static constexpr const char* kSinkName = "tovu_host_audio";

  // Takes the connection's lock. Throws AudioCaptureError, with what it did undone.
  PhoneOnlyRouting(PulseConnection& pulse, AudioRoutingFile file);
  // Puts the routing back; what cannot be put back now, the note puts back at the next start.
  ~PhoneOnlyRouting();
  PhoneOnlyRouting(const PhoneOnlyRouting&) = delete;
  PhoneOnlyRouting& operator=(const PhoneOnlyRouting&) = delete;

  const PulseSink& sink() const { return sink_; }

  // Puts back what a run that ended without doing so left: as the note says when it parses, else
  // only the private output, found by its name, is taken away. Takes the connection's lock.
  // Throws AudioCaptureError.
  static void restoreLeftovers(PulseConnection& pulse, const AudioRoutingFile& file);

 private:
  static void streamEvent(pa_context* context, pa_subscription_event_type_t type,
                          std::uint32_t stream, void* self);
  static void newStream(pa_context* context, const pa_sink_input_info* info, int eol, void* self);
  static void pinnedSink(pa_context* context, const pa_sink_info* info, int eol, void* self);

  void divert();
  void follow(const std::vector<PulseSink>& sinks);
  void record(const std::vector<PulseStream>& streams, const std::vector<PulseSink>& sinks);
  void forget(std::uint32_t stream);
  void save();
  void putBack();

  PulseConnection& pulse_;
  const AudioRoutingFile file_;
  // With the connection's lock held: the event thread follows new sounds.
  AudioRouting routing_;
  PulseSink sink_;
  bool noted_ = false;
  bool restoring_ = false;
  // Sounds that began on another output, by that output, until its name is known.
  std::multimap<std::uint32_t, std::uint32_t> awaitingSinkName_;
};

}  // namespace kelvaron::host
