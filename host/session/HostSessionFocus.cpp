// Focus mode: the stream shows one application's window, cropped to a surface around it, and the
// client's absolute pointer spans that surface. A window may first be fitted to the client's
// screen; every fit is undone when the session ends. Meanwhile the session follows the computer's
// focus: a new standard window becomes the focused one, a popup widens the surface.

#include <algorithm>

#include "host/desktop/AppListing.hpp"
#include "host/session/FocusGeometry.hpp"
#include "host/session/HostSession.hpp"
#include "kit/async/Uptime.hpp"
#include "kit/crypto/AuthCrypto.hpp"

namespace kelvaron::host {

namespace {

const std::string kCannotResize = "Can\u2019t resize this window";
const std::string kNoLongerAvailable = "That window is no longer available";
const std::string kWindowClosed = "The window was closed";
const std::string kNothingToGoBackTo = "Nothing to go back to";
const std::string kCropNotice =
    "Focus mode shows the screen around the window: this X server cannot show one application "
    "alone (no Composite)";
constexpr int kOnScreenPolls = 12;
constexpr std::chrono::milliseconds kOnScreenPollInterval{100};
constexpr PixelSize kDefaultOutput{1878, 1222};

// A coroutine of its own, whose frame keeps copies of what it needs, for the registry, which may
// run it after the session is gone.
asio::awaitable<void> resizeBack(std::shared_ptr<WindowControlling> control, std::int32_t pid,
                                 AppWindowRef original) {
  co_await control->resize(pid, original, original.frame);
}

std::optional<DisplayInfo> displayOf(const Rect& frame, const std::vector<DisplayInfo>& displays) {
  const auto index = displayIndexOf(frame, displays);
  if (!index) return std::nullopt;
  return displays[*index];
}

}  // namespace

asio::awaitable<void> HostSession::handleFocus(const msg::focus& request) {
  moveCursorOnSwitch_ = request.moveCursor;
  fitOnSwitch_ = request.fit;
  // Named, as every argument of a class type below: GCC 12 mishandles temporaries in a co_await.
  const FocusRequest focus{request.pid,        request.windowID,      request.fit,
                           request.moveCursor, SwitchOrigin::request, {}};
  co_await performFocus(focus);
}

// A failure leaves the stream as it was, or on the desktop when the attempt already changed it;
// either way the client is told the window is gone.
asio::awaitable<void> HostSession::performFocus(FocusRequest request) {
  if (!client_ || displays_.empty() || !env_.windowTracker || !env_.windowControl) co_return;
  const std::optional<FocusSession> before = focus_;
  const std::optional<std::string> failure = co_await switchFocus(request);
  if (!failure) co_return;
  log_.error("focus: %s", failure->c_str());
  // A window that cannot be followed is not tried again at every look.
  debouncer_.reset();
  followIgnoreUntil_ = uptimeSeconds() + env_.followGrace.count();
  const std::optional<std::string> none;
  if (focus_ != before) co_await unfocus(none);
  sendStreamMode(kNoLongerAvailable, std::nullopt);
}

// Another switch, an unfocus or the end of the session that comes while this one waits supersedes
// it: it then stops, with nothing to report.
asio::awaitable<std::optional<std::string>> HostSession::switchFocus(const FocusRequest& request) {
  const std::uint64_t epoch = ++focusEpoch_;
  const auto superseded = [&] { return focusEpoch_ != epoch; };
  const std::string id = std::to_string(request.windowID);
  if (request.origin == SwitchOrigin::request) backStack_.clear();
  const std::optional<std::uint32_t> desktopDisplayID = focus_ && focus_->desktopDisplayID
                                                            ? focus_->desktopDisplayID
                                                        : current_ ? std::optional(current_->id)
                                                                   : std::nullopt;
  std::optional<WindowRecord> window = co_await env_.windowTracker->window(request.windowID);
  if (superseded()) co_return std::nullopt;
  if (!window || window->pid != request.pid) co_return "window " + id + " not found";
  if (request.origin != SwitchOrigin::follow) {
    co_await env_.windowControl->activate(request.pid);
    const AppWindowRef ref = refOf(*window);
    co_await env_.windowControl->raise(request.pid, ref);
    if (superseded()) co_return std::nullopt;
  }
  if (!window->isOnScreen) {
    window = co_await windowOnScreen(request.windowID);
    if (superseded()) co_return std::nullopt;
    if (!window) co_return "window " + id + " did not come on screen";
  }
  Fit fit{false, window->frame, std::nullopt};
  if (request.wantsFit) {
    fit = co_await applyFit(*window, focusOutputSize());
    if (superseded()) co_return std::nullopt;
    if (request.origin == SwitchOrigin::follow) fit.notice.reset();
  }
  const std::optional<DisplayInfo> display = displayOf(fit.frame, displays_);
  if (!display) co_return "window " + id + " is on no display";
  if (request.moveCursor && fit.frame.width > 0 && fit.frame.height > 0) moveCursorInto(fit.frame);

  std::string appName = request.appName.value_or("");
  if (!request.appName && lastAppList_) {
    const auto app = std::ranges::find(*lastAppList_, request.pid, &AppInfo::pid);
    if (app != lastAppList_->end()) appName = app->name;
  }
  if (appName.empty() && !request.appName) appName = window->ownerName;
  focus_ = FocusSession{request.pid,
                        request.windowID,
                        window->title,
                        request.wantsFit,
                        *display,
                        fit.frame,
                        surfaceBase(*display, fit.frame),
                        desktopDisplayID,
                        fit.applied,
                        appName,
                        std::nullopt};
  scope_ = scope::app{request.pid, focus_->base};
  backStack_.remove(request.windowID);
  debouncer_.reset();
  followIgnoreUntil_ = uptimeSeconds() + env_.followGrace.count();

  std::optional<FocusFollowInfo> follow;
  const bool announced = request.origin == SwitchOrigin::follow ||
                         (request.origin == SwitchOrigin::fallback && !backStack_.empty());
  if (announced) {
    follow =
        FocusFollowInfo{FocusFollowInfo::Kind::window, appName, window->title, !backStack_.empty()};
  }
  log_.info("focus pid=%d window=%u fit=%d on display %u", request.pid, request.windowID,
            int(fit.applied), display->id);
  co_await applyFocusCapture(*display, true);
  if (superseded()) co_return std::nullopt;
  sendStreamMode(fit.notice, follow);
  restartFocusLoop();
  co_return std::nullopt;
}

// A window being raised or un-minimised may take a moment to show.
asio::awaitable<std::optional<WindowRecord>> HostSession::windowOnScreen(std::uint32_t windowID) {
  for (int poll = 0; poll < kOnScreenPolls; ++poll) {
    co_await env_.sleep(kOnScreenPollInterval);
    auto window = co_await env_.windowTracker->window(windowID);
    if (window && window->isOnScreen) co_return window;
  }
  co_return std::nullopt;
}

PixelSize HostSession::focusOutputSize() const {
  if (viewport_) return {viewport_->outputWidth, viewport_->outputHeight};
  if (client_) return {client_->screenPixelWidth, client_->screenPixelHeight};
  return kDefaultOutput;
}

// The capture switch for the focused surface: the whole surface, at the client's size.
asio::awaitable<void> HostSession::applyFocusCapture(const DisplayInfo& display, bool resetSource) {
  const PixelSize output = focusOutputSize();
  Viewport viewport{.displayID = display.id,
                    .sourceRect = {0, 0, 1, 1},
                    .outputWidth = output.width,
                    .outputHeight = output.height};
  if (!resetSource && viewport_) viewport.sourceRect = viewport_->sourceRect;
  co_await applySource(display, viewport);
  if (resetSource) requestKeyframe();
  const bool cropsScreen = focus_ && capture_ && !capture_->isolatesApps();
  if (cropsScreen && !focusNotice_) log_.error("focus: %s", kCropNotice.c_str());
  focusNotice_.reset();
  if (cropsScreen) focusNotice_ = HostStatusValue{HostState::ok, kCropNotice};
  publishHostStatus(false);
}

// ---- Fits ----

asio::awaitable<HostSession::Fit> HostSession::applyFit(const WindowRecord& window,
                                                        PixelSize output) {
  const std::optional<DisplayInfo> display = displayOf(window.frame, displays_);
  if (!display) co_return Fit{false, window.frame, kCannotResize};
  const std::optional<Rect> visibleFrame = co_await env_.windowTracker->visibleFrame(display->id);
  const DisplayFrame& f = display->frame;
  const Rect visible = visibleFrame.value_or(Rect{f.x, f.y, f.width, f.height});
  const Rect wanted = fitFrame(window.frame, visible, *display, output);
  // The way back is kept before the resize, which an ending session may leave half done.
  const bool fittedBefore = fitted_.contains(window.id);
  if (!fittedBefore) {
    const AppWindowRef original = refOf(window);
    const UUID registryID = AuthCrypto::randomUUID();
    env_.fitRegistry->add(registryID, [control = env_.windowControl, pid = window.pid, original] {
      return resizeBack(control, pid, original);
    });
    fitted_[window.id] = FittedWindow{window.pid, original, registryID};
  }
  const AppWindowRef ref = refOf(window);
  const std::optional<Rect> frame = co_await env_.windowControl->resize(window.pid, ref, wanted);
  if (!frame) {
    log_.error("fit: the window manager refused to resize window %u", window.id);
    if (!fittedBefore) forgetFit(window.id);
    co_return Fit{false, window.frame, kCannotResize};
  }
  co_return Fit{true, *frame, std::nullopt};
}

asio::awaitable<void> HostSession::restoreFit(std::uint32_t windowID) {
  const auto entry = fitted_.find(windowID);
  if (entry == fitted_.end()) co_return;
  const FittedWindow fitted = entry->second;
  fitted_.erase(entry);
  env_.fitRegistry->remove(fitted.registryID);
  const std::optional<WindowRecord> window = co_await env_.windowTracker->window(windowID);
  if (!window) co_return;
  const AppWindowRef now{windowID, window->title, window->frame};
  const auto restored = co_await env_.windowControl->resize(fitted.pid, now, fitted.original.frame);
  if (!restored) log_.error("fit: could not restore window %u", windowID);
}

void HostSession::forgetFit(std::uint32_t windowID) {
  const auto entry = fitted_.find(windowID);
  if (entry == fitted_.end()) return;
  env_.fitRegistry->remove(entry->second.registryID);
  fitted_.erase(entry);
}

// Also the fits that a switch still under way adds meanwhile.
asio::awaitable<void> HostSession::restoreAllFits() {
  while (!fitted_.empty()) co_await restoreFit(fitted_.begin()->first);
}

// ---- Leaving focus mode ----

asio::awaitable<void> HostSession::unfocus(std::optional<std::string> notice) {
  if (!focus_) co_return;
  ++focusEpoch_;
  if (focusTask_) focusTask_->cancel();
  focusTask_.reset();
  const std::optional<std::uint32_t> desktopDisplayID = focus_->desktopDisplayID;
  focus_.reset();
  focusNotice_.reset();
  publishHostStatus(false);
  backStack_.clear();
  debouncer_.reset();
  scope_ = scope::display{};
  if (!client_ || displays_.empty()) co_return;
  auto target = std::ranges::find(displays_, desktopDisplayID,
                                  [](const DisplayInfo& d) { return std::optional(d.id); });
  if (target == displays_.end() && current_) {
    target = std::ranges::find(displays_, current_->id, &DisplayInfo::id);
  }
  const DisplayInfo display = target != displays_.end() ? *target : mainOrFirst(displays_);
  log_.info("unfocus -> display %u", display.id);
  co_await applySource(display, defaultViewport(display, *client_));
  requestKeyframe();
  sendStreamMode(notice, std::nullopt);
}

void HostSession::sendStreamMode(std::optional<std::string> notice,
                                 std::optional<FocusFollowInfo> follow) {
  if (!focus_) {
    connection_->send(
        msg::streamMode{{streammode::desktop{}, false, std::move(notice), {0, 0, 1, 1}, {}}});
    return;
  }
  const DisplayFrame& frame = focus_->display.frame;
  const double width = std::max(double(frame.width), 1.0);
  const double height = std::max(double(frame.height), 1.0);
  const Rect& base = focus_->base;
  if (!follow && focus_->popup) {
    follow = FocusFollowInfo{FocusFollowInfo::Kind::popup, focus_->popup->appName,
                             focus_->popup->title, false};
  }
  connection_->send(msg::streamMode{{streammode::focus{focus_->pid, focus_->windowID},
                                     focus_->fitApplied,
                                     std::move(notice),
                                     {float(base.x / width), float(base.y / height),
                                      float(base.width / width), float(base.height / height)},
                                     std::move(follow)}});
}

// ---- The pointer in focus mode ----

// The client's 0…1 coordinates span the focused surface.
std::optional<DisplayInfo> HostSession::focusedPointerDisplay() const {
  if (!focus_) return std::nullopt;
  DisplayInfo display = focus_->display;
  display.frame = {float(focus_->base.x + display.frame.x), float(focus_->base.y + display.frame.y),
                   float(focus_->base.width), float(focus_->base.height)};
  return display;
}

// Into the middle of `frame`, unless the pointer is already in it.
void HostSession::moveCursorInto(const Rect& frame) {
  const auto position = env_.injector->currentPointerPosition();
  if (position && position->x >= frame.x && position->x < frame.x + frame.width &&
      position->y >= frame.y && position->y < frame.y + frame.height) {
    return;
  }
  DisplayInfo target;
  target.frame = {float(frame.x), float(frame.y), float(frame.width), float(frame.height)};
  env_.injector->injectPointer(inputOwner_, pointer::moveAbsolute{0, 0.5f, 0.5f}, target);
  publishCursor({});
}

// ---- Following the computer's focus ----

void HostSession::restartFocusLoop() {
  if (focusTask_) focusTask_->cancel();
  focusTask_ =
      Task::spawn(strand_, focusLoop(weak_from_this(), env_.sleep, env_.focusPollInterval));
}

asio::awaitable<void> HostSession::focusLoop(std::weak_ptr<HostSession> weak, Sleeper sleep,
                                             std::chrono::duration<double> interval) {
  for (;;) {
    if (co_await isCancelled()) co_return;
    co_await sleep(interval);
    if (co_await isCancelled()) co_return;
    const auto self = weak.lock();
    if (!self || !self->focus_) co_return;
    co_await self->followFocus();
    if (co_await isCancelled()) co_return;
    if (self->focus_) co_await self->refreshFocus(false, false);
  }
}

asio::awaitable<void> HostSession::followFocus() {
  if (!focus_ || !env_.focusObserver) co_return;
  const double now = uptimeSeconds();
  if (now < followIgnoreUntil_) co_return;
  const FocusedWindow streamed{focus_->pid, focus_->windowID, focus_->windowFrame};
  const std::uint64_t epoch = focusEpoch_;
  const std::vector<DisplayInfo> displays = displays_;
  const FocusObservation observation = co_await env_.focusObserver->observe(streamed, displays);
  // What was seen in front of another window, or before a switch settled, says nothing now.
  if (!focus_ || focusEpoch_ != epoch || uptimeSeconds() < followIgnoreUntil_) co_return;
  const FollowTarget target = classify(observation, streamed, env_.ownPID, displays_);
  debouncer_.delay = env_.focusDebounce.count();
  const std::optional<FollowKey> committed = debouncer_.offer(keyOf(target), now);
  if (!committed && focus_->popup) {
    const std::optional<ObservedWindow> none;
    co_await changePopup(none);
    co_return;
  }
  if (!committed) co_return;
  const auto* window = std::get_if<follow::window>(&target);
  if (committed->kind == FollowKey::Kind::window && window && window->target.windowID) {
    backStack_.push({focus_->pid, focus_->windowID, focus_->title, focus_->appName});
    log_.info("following the computer's focus to window %u", *window->target.windowID);
    const FocusRequest request{window->target.pid,   *window->target.windowID,
                               focus_->wantsFit,     moveCursorOnSwitch_,
                               SwitchOrigin::follow, window->target.appName};
    co_await performFocus(request);
    co_return;
  }
  const auto* popup = std::get_if<follow::popup>(&target);
  if (committed->kind == FollowKey::Kind::popup && popup && focus_->popup != popup->target) {
    const std::optional<ObservedWindow> shown = popup->target;
    co_await changePopup(shown);
  }
}

asio::awaitable<void> HostSession::changePopup(std::optional<ObservedWindow> popup) {
  const auto& old = focus_->popup;
  const bool changed =
      old.has_value() != popup.has_value() || (old && popup && old->windowID != popup->windowID);
  focus_->popup = popup;
  log_.info("popup %s", popup ? ("shown: " + popup->appName).c_str() : "closed");
  co_await refreshFocus(true, changed);
}

// The focused window's place, kept up with: a move or resize moves the surface, a popup widens it,
// a closed window ends focus or falls back to another of its application.
asio::awaitable<void> HostSession::refreshFocus(bool forced, bool popupChanged) {
  const std::uint64_t epoch = focusEpoch_;
  const std::optional<WindowRecord> window = co_await env_.windowTracker->window(focus_->windowID);
  if (!focus_ || focusEpoch_ != epoch) co_return;
  if (!window) {
    co_await focusWindowClosed();
    co_return;
  }
  DisplayInfo display = focus_->display;
  Rect base = focus_->base;
  if (const auto found = displayOf(window->frame, displays_)) {
    display = *found;
    base = surfaceBase(display, window->frame);
    const bool popupOnDisplay =
        focus_->popup && displayOf(focus_->popup->frame, displays_) == found;
    if (popupOnDisplay) base = surfaceWithPopup(display, window->frame, focus_->popup->frame);
  }
  const CaptureScope scope = scope::app{focus_->pid, base};
  if (!forced && window->frame == focus_->windowFrame && display == focus_->display &&
      base == focus_->base && scope_ == scope) {
    co_return;
  }
  focus_->windowFrame = window->frame;
  focus_->display = display;
  focus_->base = base;
  scope_ = scope;
  co_await applyFocusCapture(display, popupChanged);
  sendStreamMode(std::nullopt, std::nullopt);
}

asio::awaitable<void> HostSession::focusWindowClosed() {
  const std::uint32_t closed = focus_->windowID;
  const std::uint64_t epoch = focusEpoch_;
  const std::vector<WindowRecord> windows = co_await env_.windowTracker->windows(focus_->pid);
  if (!focus_ || focusEpoch_ != epoch) co_return;
  const auto next = std::ranges::find_if(
      windows, [&](const WindowRecord& w) { return w.id != closed && w.isOnScreen; });
  forgetFit(closed);
  if (next == windows.end()) {
    log_.info("focused window closed; leaving focus mode");
    const std::optional<std::string> notice = kWindowClosed;
    co_await unfocus(notice);
    co_return;
  }
  log_.info("focused window closed; falling back to %u", next->id);
  const FocusRequest request{
      focus_->pid,    next->id, focus_->wantsFit, moveCursorOnSwitch_, SwitchOrigin::fallback,
      focus_->appName};
  co_await performFocus(request);
}

asio::awaitable<void> HostSession::focusBack() {
  if (!focus_) co_return;
  const std::uint64_t epoch = focusEpoch_;
  while (const std::optional<BackEntry> entry = backStack_.pop()) {
    const std::optional<WindowRecord> window = co_await env_.windowTracker->window(entry->windowID);
    if (!focus_ || focusEpoch_ != epoch) co_return;
    if (window && window->pid == entry->pid && window->isOnScreen) {
      const FocusRequest request{entry->pid,          entry->windowID,    focus_->wantsFit,
                                 moveCursorOnSwitch_, SwitchOrigin::back, entry->appName};
      co_await performFocus(request);
      co_return;
    }
  }
  sendStreamMode(kNothingToGoBackTo, std::nullopt);
}

}  // namespace kelvaron::host
