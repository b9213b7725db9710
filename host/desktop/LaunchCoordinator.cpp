#include "host/desktop/LaunchCoordinator.hpp"

#include <algorithm>
#include <limits>

namespace kelvaron::host {

namespace {

constexpr const char* kCouldNotOpen = "Couldn’t open the app";

std::uint32_t millisecondsSince(double start, double now) {
  const double ms = std::max(0.0, now - start) * 1000;
  return ms >= double(std::numeric_limits<std::uint32_t>::max())
             ? std::numeric_limits<std::uint32_t>::max()
             : std::uint32_t(ms);
}

}  // namespace

LaunchCoordinator::LaunchCoordinator(Executor executor, Parts parts)
    : executor_(std::move(executor)), parts_(std::move(parts)) {}

LaunchCoordinator::~LaunchCoordinator() { stop(); }

void LaunchCoordinator::stop() {
  if (wait_) wait_->task.cancel();
  wait_.reset();
}

void LaunchCoordinator::launch(std::string bundleID, bool focus) {
  if (wait_) {
    wait_->task.cancel();
    sendStatus(LaunchState::cancelled);
  }
  wait_ = Wait{++counter_, std::move(bundleID), focus, parts_.clock.now(), {}};
  restart(true);
}

asio::awaitable<void> LaunchCoordinator::control(std::string bundleID, LaunchAction action) {
  const auto waitedFor = [&] { return wait_ && wait_->bundleID == bundleID; };
  if (!waitedFor()) co_return;
  switch (action) {
    case LaunchAction::cancel:
      wait_->task.cancel();
      finish(LaunchState::cancelled);
      co_return;
    case LaunchAction::newWindow: {
      const std::optional<std::int32_t> pid = co_await parts_.launcher->runningPID(bundleID);
      if (pid) co_await parts_.actions.newWindow(*pid);
      if (waitedFor()) restart(false);
      co_return;
    }
    case LaunchAction::keepWaiting:
      // A fresh time limit; the time reported still counts from the launch.
      restart(false);
      co_return;
  }
}

// A new task with a new id: the old one, wherever it is suspended, finds itself outdated.
void LaunchCoordinator::restart(bool firstRun) {
  if (!wait_) return;
  wait_->task.cancel();
  const int id = ++counter_;
  wait_->id = id;
  // The watch may run to its end before the spawn returns (nothing it awaits suspends).
  Task task = Task::spawn(executor_, watch(shared_from_this(), id, wait_->bundleID, firstRun));
  if (wait_ && wait_->id == id) wait_->task = std::move(task);
}

// Every end of a watch (a restart, a new launch, a cancel, a stop) moves or clears the id.
bool LaunchCoordinator::isCurrent(int id) const { return wait_ && wait_->id == id; }

// Each step, after every suspension, first makes sure it still watches the launch in progress.
asio::awaitable<void> LaunchCoordinator::watch(
    [[maybe_unused]] std::shared_ptr<LaunchCoordinator> keepAlive, int id, std::string bundleID,
    bool firstRun) {
  if (!isCurrent(id)) co_return;
  if (firstRun) {
    const std::optional<std::int32_t> running = co_await parts_.launcher->runningPID(bundleID);
    if (!isCurrent(id)) co_return;
    if (running) {
      const std::optional<std::uint32_t> window = co_await usableWindow(*running);
      if (!isCurrent(id)) co_return;
      if (window) co_return co_await reveal(id, *running, *window);
    }
    sendStatus(LaunchState::launching);
    const std::optional<std::string> failure = co_await open(bundleID);
    if (!isCurrent(id)) co_return;
    if (failure) co_return finish(LaunchState::failed, *failure);
  }
  const double deadline = parts_.clock.now() + parts_.timeout;
  for (;;) {
    const std::optional<std::int32_t> pid = co_await parts_.launcher->runningPID(bundleID);
    if (!isCurrent(id)) co_return;
    if (pid) {
      const std::optional<std::uint32_t> window = co_await usableWindow(*pid);
      if (!isCurrent(id)) co_return;
      if (window) co_return co_await reveal(id, *pid, *window);
    }
    // Parked: the wait stays for the device's choice.
    if (parts_.clock.now() >= deadline) co_return sendStatus(LaunchState::noWindow);
    co_await parts_.clock.sleep(std::chrono::duration<double>(parts_.pollInterval));
    if (!isCurrent(id)) co_return;
  }
}

asio::awaitable<std::optional<std::uint32_t>> LaunchCoordinator::usableWindow(std::int32_t pid) {
  const std::vector<WindowRecord> windows = co_await parts_.windows->windows(pid);
  for (const WindowRecord& window : windows) {
    if (window.isOnScreen && window.layer == kNormalLayer && window.frame.width >= kMinWidth &&
        window.frame.height >= kMinHeight) {
      co_return window.id;
    }
  }
  co_return std::nullopt;
}

// The reason it could not be opened; nothing when it was.
asio::awaitable<std::optional<std::string>> LaunchCoordinator::open(const std::string& bundleID) {
  std::optional<std::string> failure;
  try {
    co_await parts_.launcher->open(bundleID);
  } catch (const LaunchFailure& e) {
    failure = e.what();
  } catch (const std::exception&) {
    failure = kCouldNotOpen;
  }
  co_return failure;
}

asio::awaitable<void> LaunchCoordinator::reveal(int id, std::int32_t pid, std::uint32_t windowID) {
  const LaunchState state = co_await parts_.actions.reveal(pid, windowID, wait_->focus);
  if (wait_ && wait_->id == id) finish(state);
}

void LaunchCoordinator::finish(LaunchState state, std::string detail) {
  sendStatus(state, std::move(detail));
  wait_.reset();
}

void LaunchCoordinator::sendStatus(LaunchState state, std::string detail) {
  parts_.send({wait_->bundleID, state, millisecondsSince(wait_->startedAt, parts_.clock.now()),
               std::move(detail)});
}

}  // namespace kelvaron::host
