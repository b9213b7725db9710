#pragma once

#include <pulse/channelmap.h>
#include <pulse/context.h>
#include <pulse/def.h>
#include <pulse/sample.h>
#include <pulse/thread-mainloop.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/audio/AudioCapturing.hpp"

namespace kelvaron::host {

// An output of the sound server.
struct PulseSink {
  std::uint32_t index = PA_INVALID_INDEX;
  std::string name;
  std::string monitorSource;
  std::uint32_t ownerModule = PA_INVALID_INDEX;
  pa_sample_spec samples{};  // format, rate and channels
  pa_channel_map channelMap{};
};

// A playback stream (a sink input) and the output it plays on.
struct PulseStream {
  std::uint32_t index = PA_INVALID_INDEX;
  std::uint32_t sink = PA_INVALID_INDEX;
};

const PulseSink* findSink(const std::vector<PulseSink>& sinks, const std::string& name);
const PulseSink* findSink(const std::vector<PulseSink>& sinks, std::uint32_t index);

// A connection to the sound server whose events run on a thread of libpulse's threaded main loop.
// Requests wait for their answer and, like anything the event thread's callbacks also touch, are
// made with the lock held, taken once: waiting with it taken twice would stall the event thread.
class PulseConnection {
 public:
  class Lock {
   public:
    explicit Lock(pa_threaded_mainloop* loop) : loop_(loop) { pa_threaded_mainloop_lock(loop_); }
    ~Lock() { pa_threaded_mainloop_unlock(loop_); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    pa_threaded_mainloop* loop_;
  };

  // Called on the event thread, once, when the established connection ends.
  using LostCallback = std::function<void(const std::string& reason)>;

  // `server` empty: the user's own server, as libpulse finds it. Never starts a server. Throws
  // AudioCaptureError.
  PulseConnection(const std::string& server, LostCallback onLost);
  ~PulseConnection();
  PulseConnection(const PulseConnection&) = delete;
  PulseConnection& operator=(const PulseConnection&) = delete;

  [[nodiscard]] Lock lock() const { return Lock(loop_); }
  pa_context* context() const { return context_; }
  // Wakes the requests waiting for an answer; from a callback on the event thread.
  void signal() const { pa_threaded_mainloop_signal(loop_, 0); }
  // Waits, with the lock held, until `done` holds or the connection ends; false if it ended.
  bool waitUntil(const std::function<bool()>& done) const;
  // "Audio capture: <what> failed (<the server's last error>)", or a refusal of access.
  AudioCaptureError failure(const std::string& what) const;

  // Requests, with the lock held. Each throws AudioCaptureError naming what failed.
  std::string defaultSinkName();
  std::vector<PulseSink> sinks();
  std::vector<PulseStream> playbackStreams();
  // An output that plays nowhere; its module's index.
  std::uint32_t loadNullSink(const std::string& arguments);
  void unloadModule(std::uint32_t index);
  void setDefaultSink(const std::string& name);
  void subscribe(pa_subscription_mask_t mask);
  // False when the stream ended in the meantime.
  bool moveStream(std::uint32_t stream, const std::string& sink);

 private:
  static void stateChanged(pa_context* context, void* self);
  void connect(const std::string& server);
  void close();
  // Waits for `operation` to finish; throws with `what` when it could not.
  void await(pa_operation* operation, const std::string& what);
  void awaitSuccess(pa_operation* operation, const bool& succeeded, const std::string& what);

  pa_threaded_mainloop* loop_ = nullptr;
  pa_context* context_ = nullptr;
  LostCallback onLost_;
  bool established_ = false;
};

}  // namespace kelvaron::host
