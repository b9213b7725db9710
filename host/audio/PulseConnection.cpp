#include "host/audio/PulseConnection.hpp"

#include <pulse/error.h>
#include <pulse/introspect.h>
#include <pulse/subscribe.h>

#include <algorithm>

namespace kelvaron::host {

namespace {

// What a request's callback hands back, and whom it wakes.
template <typename Result>
struct Reply {
  const PulseConnection& connection;
  Result result{};
  bool succeeded = true;
};

PulseSink sinkFrom(const pa_sink_info& info) {
  return {info.index,
          info.name ? info.name : "",
          info.monitor_source_name ? info.monitor_source_name : "",
          info.owner_module,
          info.sample_spec,
          info.channel_map};
}

PulseStream streamFrom(const pa_sink_input_info& info) { return {info.index, info.sink}; }

// A list arrives one item per call, then a call with `eol` set (negative when the list failed).
template <typename Item, typename Info, Item (*convert)(const Info&)>
void collect(pa_context*, const Info* info, int eol, void* data) {
  auto& reply = *static_cast<Reply<std::vector<Item>>*>(data);
  if (eol < 0) reply.succeeded = false;
  if (eol == 0 && info) reply.result.push_back(convert(*info));
  reply.connection.signal();
}

void succeeded(pa_context*, int success, void* data) {
  auto& reply = *static_cast<Reply<bool>*>(data);
  reply.succeeded = success != 0;
  reply.connection.signal();
}

bool meansNoServer(int error) {
  return error == PA_ERR_CONNECTIONREFUSED || error == PA_ERR_INVALIDSERVER ||
         error == PA_ERR_TIMEOUT;
}

}  // namespace

const PulseSink* findSink(const std::vector<PulseSink>& sinks, const std::string& name) {
  const auto found = std::ranges::find(sinks, name, &PulseSink::name);
  return found == sinks.end() ? nullptr : &*found;
}

const PulseSink* findSink(const std::vector<PulseSink>& sinks, std::uint32_t index) {
  const auto found = std::ranges::find(sinks, index, &PulseSink::index);
  return found == sinks.end() ? nullptr : &*found;
}

PulseConnection::PulseConnection(const std::string& server, LostCallback onLost)
    : onLost_(std::move(onLost)) {
  try {
    connect(server);
  } catch (...) {
    close();
    throw;
  }
}

PulseConnection::~PulseConnection() { close(); }

void PulseConnection::connect(const std::string& server) {
  loop_ = pa_threaded_mainloop_new();
  if (!loop_) throw AudioCaptureError::failed("Audio capture: cannot start its event thread");
  context_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "Tovu Host");
  if (!context_) throw AudioCaptureError::failed("Audio capture: cannot make a connection");
  pa_context_set_state_callback(context_, &PulseConnection::stateChanged, this);
  // A host that finds no sound server must not start one on the user's behalf.
  const char* address = server.empty() ? nullptr : server.c_str();
  const bool started =
      pa_context_connect(context_, address, PA_CONTEXT_NOAUTOSPAWN, nullptr) == 0 &&
      pa_threaded_mainloop_start(loop_) == 0;
  const auto locked = lock();
  if (started && waitUntil([this] { return pa_context_get_state(context_) == PA_CONTEXT_READY; })) {
    established_ = true;
    return;
  }
  throw meansNoServer(pa_context_errno(context_))
      ? AudioCaptureError::failed("Audio capture is not available")
      : failure("connect");
}

void PulseConnection::close() {
  if (context_) {
    const auto locked = lock();
    pa_context_set_state_callback(context_, nullptr, nullptr);
    pa_context_disconnect(context_);
  }
  if (loop_) pa_threaded_mainloop_stop(loop_);
  if (context_) pa_context_unref(context_);
  if (loop_) pa_threaded_mainloop_free(loop_);
}

void PulseConnection::stateChanged(pa_context* context, void* data) {
  auto& self = *static_cast<PulseConnection*>(data);
  self.signal();
  if (PA_CONTEXT_IS_GOOD(pa_context_get_state(context)) || !self.established_) return;
  self.established_ = false;
  if (self.onLost_) self.onLost_(pa_strerror(pa_context_errno(context)));
}

bool PulseConnection::waitUntil(const std::function<bool()>& done) const {
  while (!done()) {
    if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context_))) return false;
    pa_threaded_mainloop_wait(loop_);
  }
  return true;
}

AudioCaptureError PulseConnection::failure(const std::string& what) const {
  const int error = pa_context_errno(context_);
  // A server of another user whose cookie this one lacks, or a sandbox's policy.
  if (error == PA_ERR_ACCESS) {
    return AudioCaptureError::permissionDenied(
        "Audio capture: the sound server does not allow this program to record its sound");
  }
  return AudioCaptureError::failed("Audio capture: " + what + " failed (" + pa_strerror(error) +
                                   ")");
}

void PulseConnection::await(pa_operation* operation, const std::string& what) {
  if (!operation) throw failure(what);
  while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING) {
    pa_threaded_mainloop_wait(loop_);
  }
  const bool done = pa_operation_get_state(operation) == PA_OPERATION_DONE;
  pa_operation_unref(operation);
  if (!done) throw failure(what);
}

void PulseConnection::awaitSuccess(pa_operation* operation, const bool& succeeded,
                                   const std::string& what) {
  await(operation, what);
  if (!succeeded) throw failure(what);
}

std::string PulseConnection::defaultSinkName() {
  Reply<std::string> reply{*this};
  const auto answered = [](pa_context*, const pa_server_info* info, void* data) {
    auto& answer = *static_cast<Reply<std::string>*>(data);
    if (info && info->default_sink_name) answer.result = info->default_sink_name;
    answer.connection.signal();
  };
  await(pa_context_get_server_info(context_, answered, &reply), "asking for the default output");
  return reply.result;
}

std::vector<PulseSink> PulseConnection::sinks() {
  Reply<std::vector<PulseSink>> reply{*this};
  awaitSuccess(
      pa_context_get_sink_info_list(context_, collect<PulseSink, pa_sink_info, sinkFrom>, &reply),
      reply.succeeded, "listing the outputs");
  return reply.result;
}

std::vector<PulseStream> PulseConnection::playbackStreams() {
  Reply<std::vector<PulseStream>> reply{*this};
  awaitSuccess(pa_context_get_sink_input_info_list(
                   context_, collect<PulseStream, pa_sink_input_info, streamFrom>, &reply),
               reply.succeeded, "listing the playing sounds");
  return reply.result;
}

std::uint32_t PulseConnection::loadNullSink(const std::string& arguments) {
  Reply<std::uint32_t> reply{*this, PA_INVALID_INDEX};
  const auto loaded = [](pa_context*, std::uint32_t index, void* data) {
    auto& answer = *static_cast<Reply<std::uint32_t>*>(data);
    answer.result = index;
    answer.connection.signal();
  };
  const std::string what = "making the private output";
  await(pa_context_load_module(context_, "module-null-sink", arguments.c_str(), loaded, &reply),
        what);
  if (reply.result == PA_INVALID_INDEX) throw failure(what);
  return reply.result;
}

void PulseConnection::unloadModule(std::uint32_t index) {
  Reply<bool> reply{*this};
  awaitSuccess(pa_context_unload_module(context_, index, succeeded, &reply), reply.succeeded,
               "removing the private output");
}

void PulseConnection::setDefaultSink(const std::string& name) {
  Reply<bool> reply{*this};
  awaitSuccess(pa_context_set_default_sink(context_, name.c_str(), succeeded, &reply),
               reply.succeeded, "choosing the default output");
}

void PulseConnection::subscribe(pa_subscription_mask_t mask) {
  Reply<bool> reply{*this};
  awaitSuccess(pa_context_subscribe(context_, mask, succeeded, &reply), reply.succeeded,
               "following new sounds");
}

bool PulseConnection::moveStream(std::uint32_t stream, const std::string& sink) {
  Reply<bool> reply{*this};
  await(pa_context_move_sink_input_by_name(context_, stream, sink.c_str(), succeeded, &reply),
        "moving a playing sound");
  if (reply.succeeded) return true;
  if (pa_context_errno(context_) == PA_ERR_NOENTITY) return false;
  throw failure("moving a playing sound");
}

}  // namespace kelvaron::host
