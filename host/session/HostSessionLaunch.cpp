// Opening applications for the device and quitting them. The launch coordinator shares the
// session's strand; what it does with a window that came is the session's own focus mode or
// bringing forward.

#include "host/session/HostSession.hpp"

namespace kelvaron::host {

namespace {

constexpr HIDUsage kKeyN{0x11};
// Linux applications open a new window with Ctrl+N, where a Mac's use the command key.
constexpr ModifierFlags kControl{0x02};
// The window manager activates on its own time: the key must reach the activated application.
constexpr std::chrono::milliseconds kActivationSettle{150};

}  // namespace

LaunchCoordinator* HostSession::launchCoordinator() {
  if (!env_.launcher || !env_.windowTracker || !env_.windowControl) return nullptr;
  if (launchCoordinator_) return launchCoordinator_.get();
  const std::weak_ptr<HostSession> weak = weak_from_this();
  LaunchActions actions{[weak](std::int32_t pid, std::uint32_t windowID, bool focus) {
                          return revealLaunched(weak, pid, windowID, focus);
                        },
                        [weak](std::int32_t pid) { return askForNewWindow(weak, pid); }};
  const auto send = [weak](LaunchStatus status) {
    if (const auto self = weak.lock())
      self->connection_->send(msg::launchStatus{std::move(status)});
  };
  LaunchClock clock{uptimeSeconds, env_.sleep};
  launchCoordinator_ = std::make_shared<LaunchCoordinator>(
      strand_, LaunchCoordinator::Parts{env_.launcher, env_.windowTracker, std::move(clock),
                                        std::move(actions), send, env_.launchTimeout.count()});
  return launchCoordinator_.get();
}

void HostSession::launchApp(const msg::launchApp& request) {
  if (LaunchCoordinator* coordinator = launchCoordinator()) {
    coordinator->launch(request.bundleID, request.focus);
  }
}

asio::awaitable<void> HostSession::launchControl(const msg::launchControl& request) {
  LaunchCoordinator* coordinator = launchCoordinator();
  if (!coordinator) co_return;
  // Held for the await: a session's end meanwhile must not take the coordinator from under it.
  const std::shared_ptr<LaunchCoordinator> held = launchCoordinator_;
  co_await held->control(request.bundleID, request.action);
}

asio::awaitable<LaunchState> HostSession::revealLaunched(std::weak_ptr<HostSession> weak,
                                                         std::int32_t pid, std::uint32_t windowID,
                                                         bool focus) {
  const auto self = weak.lock();
  if (!self) co_return LaunchState::cancelled;
  if (focus) {
    const FocusRequest request{
        pid,         windowID, self->fitOnSwitch_, self->moveCursorOnSwitch_, SwitchOrigin::request,
        std::nullopt};
    co_await self->performFocus(request);
    co_return LaunchState::focused;
  }
  const msg::activateApp request{pid, windowID, self->moveCursorOnSwitch_};
  co_await self->activateApp(request);
  co_return LaunchState::broughtToFront;
}

asio::awaitable<void> HostSession::askForNewWindow(std::weak_ptr<HostSession> weak,
                                                   std::int32_t pid) {
  auto self = weak.lock();
  if (!self) co_return;
  co_await self->env_.windowControl->activate(pid);
  const Sleeper sleep = self->env_.sleep;
  self.reset();
  co_await sleep(kActivationSettle);
  self = weak.lock();
  if (!self) co_return;
  for (const bool down : {true, false}) {
    self->env_.injector->injectKey(self->inputOwner_, KeyEvent{kKeyN, down, kControl});
  }
}

asio::awaitable<void> HostSession::quitApp(std::int32_t pid) {
  if (pid < 1 || pid == env_.ownPID || !env_.windowControl) co_return;
  const bool asked = co_await env_.windowControl->closeAll(pid);
  log_.info("quit %d: %s", pid, asked ? "asked its windows to close" : "no application window");
}

}  // namespace kelvaron::host
