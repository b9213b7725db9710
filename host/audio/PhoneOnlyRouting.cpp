#include "host/audio/PhoneOnlyRouting.hpp"

#include <pulse/subscribe.h>

#include <algorithm>
#include <vector>

#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace {

const Logger& log() {
  static const Logger logger("io.dovka.tovu.host", "audio");
  return logger;
}

constexpr const char* kSinkName = PhoneOnlyRouting::kSinkName;

// The private output mixes what the speakers would have, at their rate and channel layout, so
// that moving a sound there changes nothing but where it goes.
std::string privateSinkArguments(const PulseSink& speakers) {
  char channelMap[PA_CHANNEL_MAP_SNPRINT_MAX];
  pa_channel_map_snprint(channelMap, sizeof channelMap, &speakers.channelMap);
  return std::string("sink_name=") + kSinkName +
         " sink_properties=\"device.description='Tovu Host audio'\" format=float32" +
         " rate=" + std::to_string(speakers.samples.rate) +
         " channels=" + std::to_string(speakers.samples.channels) + " channel_map=" + channelMap;
}

bool usable(const std::vector<PulseSink>& sinks, const std::string& name) {
  return name != kSinkName && findSink(sinks, name);
}

// The noted default when it still exists, else the current one unless it is the private output,
// else the first other output; empty when there is none.
std::string defaultToRestore(const std::vector<PulseSink>& sinks, const std::string& current,
                             const AudioRouting* saved) {
  if (saved && usable(sinks, saved->previousDefaultSink)) return saved->previousDefaultSink;
  if (usable(sinks, current)) return current;
  const auto other =
      std::ranges::find_if(sinks, [](const auto& sink) { return sink.name != kSinkName; });
  return other == sinks.end() ? std::string() : other->name;
}

std::vector<PulseStream> playingOn(PulseConnection& pulse, const PulseSink& sink) {
  std::vector<PulseStream> streams = pulse.playbackStreams();
  std::erase_if(streams, [&](const auto& stream) { return stream.sink != sink.index; });
  return streams;
}

// The sounds noted on an output other than `target` go back to it, if it still exists.
void returnPinnedSounds(PulseConnection& pulse, const std::vector<PulseSink>& sinks,
                        const PulseSink& privateSink, const AudioRouting& saved,
                        const std::string& target) {
  for (const PulseStream& stream : playingOn(pulse, privateSink)) {
    const auto noted = saved.streamSinks.find(stream.index);
    if (noted == saved.streamSinks.end() || noted->second == target) continue;
    if (usable(sinks, noted->second)) pulse.moveStream(stream.index, noted->second);
  }
}

// A sound moved to an output other than the default stays pinned to it, and one moved to the
// default follows the default from then on. So the sounds that played elsewhere go back first,
// while the private output is still the default; then the default goes back, taking the others
// with it; what still plays on the private output goes to the default before it is removed.
void putBackRouting(PulseConnection& pulse, const AudioRouting* saved) {
  const auto sinks = pulse.sinks();
  const PulseSink* privateSink = findSink(sinks, kSinkName);
  const std::string target = defaultToRestore(sinks, pulse.defaultSinkName(), saved);
  if (privateSink && saved) returnPinnedSounds(pulse, sinks, *privateSink, *saved, target);
  if (!target.empty()) pulse.setDefaultSink(target);
  if (!privateSink) return;
  if (!target.empty()) {
    for (const PulseStream& stream : playingOn(pulse, *privateSink)) {
      pulse.moveStream(stream.index, target);
    }
  }
  pulse.unloadModule(privateSink->ownerModule);
}

}  // namespace

PhoneOnlyRouting::PhoneOnlyRouting(PulseConnection& pulse, AudioRoutingFile file)
    : pulse_(pulse), file_(std::move(file)) {
  const auto locked = pulse_.lock();
  try {
    divert();
  } catch (...) {
    putBack();
    throw;
  }
}

PhoneOnlyRouting::~PhoneOnlyRouting() {
  const auto locked = pulse_.lock();
  putBack();
}

void PhoneOnlyRouting::divert() {
  auto sinks = pulse_.sinks();
  const std::string speakers = pulse_.defaultSinkName();
  const PulseSink* current = findSink(sinks, speakers);
  if (!current || speakers == kSinkName) {
    throw AudioCaptureError::failed("Audio capture: no default output");
  }
  routing_.previousDefaultSink = speakers;
  record(pulse_.playbackStreams(), sinks);
  save();
  routing_.moduleIndex = pulse_.loadNullSink(privateSinkArguments(*current));
  save();
  pulse_.setDefaultSink(kSinkName);
  sinks = pulse_.sinks();
  const PulseSink* made = findSink(sinks, kSinkName);
  if (!made) throw AudioCaptureError::failed("Audio capture: its private output did not appear");
  sink_ = *made;
  follow(sinks);
}

// Sounds that follow the default went with it; the others, and those that began meanwhile, are
// moved here, and sounds that begin from now on are watched for.
void PhoneOnlyRouting::follow(const std::vector<PulseSink>& sinks) {
  pa_context_set_subscribe_callback(pulse_.context(), &PhoneOnlyRouting::streamEvent, this);
  pulse_.subscribe(PA_SUBSCRIPTION_MASK_SINK_INPUT);
  const auto streams = pulse_.playbackStreams();
  record(streams, sinks);
  save();
  for (const PulseStream& stream : streams) {
    if (stream.sink != sink_.index) pulse_.moveStream(stream.index, kSinkName);
  }
}

void PhoneOnlyRouting::record(const std::vector<PulseStream>& streams,
                              const std::vector<PulseSink>& sinks) {
  for (const PulseStream& stream : streams) {
    const PulseSink* sink = findSink(sinks, stream.sink);
    if (sink && sink->index != sink_.index) routing_.streamSinks.emplace(stream.index, sink->name);
  }
}

void PhoneOnlyRouting::save() {
  try {
    file_.save(routing_);
    noted_ = true;
  } catch (const std::exception& failure) {
    throw AudioCaptureError::failed(
        std::string("Audio capture: cannot keep a note of the sound routing (") + failure.what() +
        ")");
  }
}

void PhoneOnlyRouting::putBack() {
  restoring_ = true;
  pa_context_set_subscribe_callback(pulse_.context(), nullptr, nullptr);
  if (!noted_) return;
  try {
    putBackRouting(pulse_, &routing_);
    file_.remove();
  } catch (const AudioCaptureError& failure) {
    log().error("The sound routing was not put back (%s); the next start does it from %s",
                failure.what(), file_.path().c_str());
  }
}

void PhoneOnlyRouting::restoreLeftovers(PulseConnection& pulse, const AudioRoutingFile& file) {
  const auto locked = pulse.lock();
  const std::optional<AudioRouting> saved = file.load();
  if (!saved && !findSink(pulse.sinks(), kSinkName)) return;
  log().info("Putting back the sound routing that an earlier run left");
  putBackRouting(pulse, saved ? &*saved : nullptr);
  file.remove();
}

// On the event thread, as are the two below. A new sound on another output is moved only once
// that output's name is noted.
void PhoneOnlyRouting::streamEvent(pa_context* context, pa_subscription_event_type_t type,
                                   std::uint32_t stream, void* data) {
  auto& self = *static_cast<PhoneOnlyRouting*>(data);
  const auto facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
  const auto kind = type & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
  if (self.restoring_ || facility != PA_SUBSCRIPTION_EVENT_SINK_INPUT) return;
  if (kind == PA_SUBSCRIPTION_EVENT_REMOVE) return self.forget(stream);
  if (kind != PA_SUBSCRIPTION_EVENT_NEW) return;
  if (pa_operation* asked = pa_context_get_sink_input_info(context, stream, &newStream, data)) {
    pa_operation_unref(asked);
  }
}

void PhoneOnlyRouting::newStream(pa_context* context, const pa_sink_input_info* info, int eol,
                                 void* data) {
  auto& self = *static_cast<PhoneOnlyRouting*>(data);
  if (eol != 0 || !info || self.restoring_ || info->sink == self.sink_.index) return;
  self.awaitingSinkName_.emplace(info->sink, info->index);
  if (pa_operation* asked =
          pa_context_get_sink_info_by_index(context, info->sink, &pinnedSink, data)) {
    pa_operation_unref(asked);
  }
}

void PhoneOnlyRouting::pinnedSink(pa_context* context, const pa_sink_info* info, int eol,
                                  void* data) {
  auto& self = *static_cast<PhoneOnlyRouting*>(data);
  if (eol != 0 || !info || self.restoring_) return;
  const auto [first, last] = self.awaitingSinkName_.equal_range(info->index);
  std::vector<std::uint32_t> streams;
  for (auto waiting = first; waiting != last; ++waiting) {
    streams.push_back(waiting->second);
    self.routing_.streamSinks.emplace(waiting->second, info->name);
  }
  self.awaitingSinkName_.erase(first, last);
  try {
    self.save();
  } catch (const AudioCaptureError& failure) {
    log().error("%s", failure.what());
  }
  for (const std::uint32_t stream : streams) {
    if (pa_operation* moved = pa_context_move_sink_input_by_index(context, stream, self.sink_.index,
                                                                  nullptr, nullptr)) {
      pa_operation_unref(moved);
    }
  }
}

void PhoneOnlyRouting::forget(std::uint32_t stream) {
  std::erase_if(awaitingSinkName_, [&](const auto& waiting) { return waiting.second == stream; });
  if (routing_.streamSinks.erase(stream) == 0) return;
  try {
    save();
  } catch (const AudioCaptureError& failure) {
    log().error("%s", failure.what());
  }
}

}  // namespace kelvaron::host
