#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "host/desktop/WindowSystem.hpp"
#include "kit/async/Task.hpp"
#include "kit/async/Uptime.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// Why an application could not be opened, in words for the person who asked.
class LaunchFailure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Finding and opening applications by their IDs (desktop-file IDs).
class AppLaunching {
 public:
  virtual ~AppLaunching() = default;
  // A process of the application running now, if any.
  virtual asio::awaitable<std::optional<std::int32_t>> runningPID(std::string bundleID) = 0;
  // Starts it; throws LaunchFailure (or any other error) when it cannot.
  virtual asio::awaitable<void> open(std::string bundleID) = 0;
};

struct LaunchClock {
  std::function<double()> now = uptimeSeconds;
  Sleeper sleep = sleepFor;
};

// What is done with the window that came: shown alone or brought forward (the state to report),
// and how an application is asked for a new window.
struct LaunchActions {
  std::function<asio::awaitable<LaunchState>(std::int32_t pid, std::uint32_t windowID, bool focus)>
      reveal;
  std::function<asio::awaitable<void>(std::int32_t pid)> newWindow;
};

// Opening an application for the device and showing its window: a running application with a
// window is revealed at once; otherwise it is opened and watched until a usable window shows, or
// the time is up and the device chooses to wait on, ask for a new window, or give up. One launch
// at a time: a new one cancels the old. Every status goes to `send`.
//
// Not thread-safe: every call, and the watching, runs on the executor given (the session's).
class LaunchCoordinator : public std::enable_shared_from_this<LaunchCoordinator> {
 public:
  struct Parts {
    std::shared_ptr<AppLaunching> launcher;
    std::shared_ptr<WindowTracking> windows;
    LaunchClock clock;
    LaunchActions actions;
    std::function<void(LaunchStatus)> send;
    double timeout = 15;
    double pollInterval = 0.2;
  };

  LaunchCoordinator(Executor executor, Parts parts);
  ~LaunchCoordinator();
  LaunchCoordinator(const LaunchCoordinator&) = delete;
  LaunchCoordinator& operator=(const LaunchCoordinator&) = delete;

  void launch(std::string bundleID, bool focus);
  // Ignored unless `bundleID` is the one waited for.
  asio::awaitable<void> control(std::string bundleID, LaunchAction action);
  // Ends the watching without a word: for the session's end.
  void stop();

  // The smallest window that counts as the application's.
  static constexpr double kMinWidth = 100, kMinHeight = 60;

 private:
  struct Wait {
    int id = 0;
    std::string bundleID;
    bool focus = false;
    double startedAt = 0;
    Task task;
  };

  void restart(bool firstRun);
  asio::awaitable<void> watch(std::shared_ptr<LaunchCoordinator> keepAlive, int id,
                              std::string bundleID, bool firstRun);
  bool isCurrent(int id) const;
  // Its window to reveal, if one is there.
  asio::awaitable<std::optional<std::uint32_t>> usableWindow(std::int32_t pid);
  asio::awaitable<std::optional<std::string>> open(const std::string& bundleID);
  asio::awaitable<void> reveal(int id, std::int32_t pid, std::uint32_t windowID);
  void finish(LaunchState state, std::string detail = {});
  void sendStatus(LaunchState state, std::string detail = {});

  Executor executor_;
  Parts parts_;
  std::optional<Wait> wait_;
  int counter_ = 0;
};

}  // namespace kelvaron::host
