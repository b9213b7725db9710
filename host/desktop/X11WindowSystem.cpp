#include "host/desktop/X11WindowSystem.hpp"

#include <algorithm>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <cmath>

#include "host/desktop/AppListing.hpp"
#include "host/desktop/X11WindowCore.hpp"

namespace kelvaron::host {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kFrameTolerance = 3.0;  // points by which a remembered frame may be off
constexpr auto kResizeWait = std::chrono::milliseconds(500);
constexpr auto kResizePoll = std::chrono::milliseconds(20);

bool near(const Rect& a, const Rect& b) {
  return std::abs(a.x - b.x) < kFrameTolerance && std::abs(a.y - b.y) < kFrameTolerance &&
         std::abs(a.width - b.width) < kFrameTolerance &&
         std::abs(a.height - b.height) < kFrameTolerance;
}

// The window `ref` names: by its id while that is still the process's window; else by title and
// frame, by frame alone, or by a title that is not empty, in that order.
const X11Window* find(const std::vector<X11Window>& windows, std::int32_t pid,
                      const AppWindowRef& ref) {
  const auto first = [&](auto&& matches) -> const X11Window* {
    for (const X11Window& window : windows) {
      if (window.record.pid == pid && matches(window.record)) return &window;
    }
    return nullptr;
  };
  if (const auto* byID = first([&](const WindowRecord& w) { return w.id == ref.id; })) return byID;
  if (const auto* both = first([&](const WindowRecord& w) {
        return w.title == ref.title && near(w.frame, ref.frame);
      })) {
    return both;
  }
  if (const auto* byFrame =
          first([&](const WindowRecord& w) { return near(w.frame, ref.frame); })) {
    return byFrame;
  }
  if (ref.title.empty()) return nullptr;
  return first([&](const WindowRecord& w) { return w.title == ref.title; });
}

// Asks the window manager to make `window` the active one, as a pager does for a person's click:
// EWMH window managers raise it and take it out of its minimised state.
void requestActivation(X11WindowCore& core, xcb_window_t window, xcb_window_t active) {
  auto& ewmh = core.reader->ewmh();
  xcb_ewmh_request_change_active_window(&ewmh, core.reader->screenNumber(), window,
                                        XCB_EWMH_CLIENT_SOURCE_TYPE_OTHER, XCB_CURRENT_TIME,
                                        active);
  xcb_flush(core.link.connection()->get());
}

std::vector<AppInfo> listApps(X11WindowCore& core) {
  const auto snapshot = core.snapshot(false);
  if (!snapshot) return {};
  AppListInput input;
  input.displays = snapshot->desktop.displays;
  std::vector<std::int32_t> order;  // processes in the order of their front-most windows
  std::map<std::int32_t, std::vector<const X11Window*>> byProcess;
  std::int32_t frontmost = 0;
  for (const X11Window& window : snapshot->windows) {
    const std::int32_t pid = window.record.pid;
    if (!byProcess.contains(pid)) order.push_back(pid);
    byProcess[pid].push_back(&window);
    // X11 always knows which windows are minimised: every process has its answer.
    auto& minimized = input.minimized[pid];
    if (window.record.isMinimized) minimized.insert(window.record.id);
    if (window.record.id == snapshot->desktop.active) frontmost = pid;
    input.windows.push_back(window.record);
  }
  for (const std::int32_t pid : order) {
    const auto& windows = byProcess[pid];
    const AppIdentity& identity = core.process(*windows.front()).identity;
    const auto has = [&windows](auto&& test) { return std::ranges::any_of(windows, test); };
    input.apps.push_back({
        .pid = pid,
        .bundleID = identity.bundleID,
        .name = identity.name,
        .isRegular = has([](const X11Window* w) { return w->record.layer == kNormalLayer; }),
        .isFrontmost = pid == frontmost,
        .isHidden = !has([](const X11Window* w) { return !w->record.isMinimized; }),
        .bundlePath = identity.bundlePath,
        .executablePath = identity.executablePath,
    });
    if (auto icon = core.iconOf(pid, windows)) input.icons[identity.bundleID] = std::move(*icon);
  }
  core.settle();
  return assembleAppList(input);
}

// The frame `window` has once its client area is `client`, its decorations as they were.
Rect frameAround(const X11Window& window, const Rect& client) {
  const Rect& frame = window.record.frame;
  return {frame.x + (client.x - window.client.x), frame.y + (client.y - window.client.y),
          frame.width + (client.width - window.client.width),
          frame.height + (client.height - window.client.height)};
}

asio::awaitable<std::optional<Rect>> resizeWindow(std::shared_ptr<X11WindowCore> core,
                                                  std::int32_t pid, AppWindowRef ref, Rect frame) {
  const auto snapshot = core->snapshot(false);
  if (!snapshot) co_return std::nullopt;
  const X11Window* found = find(snapshot->windows, pid, ref);
  if (!found || !found->hints.resizable()) co_return std::nullopt;
  const X11Window window = *found;

  // The frame's corner and the client's size, as a ConfigureRequest with north-west gravity has
  // them: the window manager puts its frame's corner there. (With static gravity openbox counts
  // the border the client had before it was framed, a pixel with Xt's programs.)
  const Rect& now = window.record.frame;
  const auto [width, height] =
      window.hints.clamp(int(std::lround(frame.width - (now.width - window.client.width))),
                         int(std::lround(frame.height - (now.height - window.client.height))));
  const Rect wanted{std::round(window.client.x + frame.x - now.x),
                    std::round(window.client.y + frame.y - now.y), double(width), double(height)};
  if (wanted == window.client) co_return now;
  const double left = std::round(frame.x + snapshot->desktop.originX);
  const double top = std::round(frame.y + snapshot->desktop.originY);
  xcb_ewmh_request_moveresize_window(
      &core->reader->ewmh(), core->reader->screenNumber(), window.record.id, XCB_GRAVITY_NORTH_WEST,
      XCB_EWMH_CLIENT_SOURCE_TYPE_OTHER,
      xcb_ewmh_moveresize_window_opt_flags_t(
          XCB_EWMH_MOVERESIZE_WINDOW_X | XCB_EWMH_MOVERESIZE_WINDOW_Y |
          XCB_EWMH_MOVERESIZE_WINDOW_WIDTH | XCB_EWMH_MOVERESIZE_WINDOW_HEIGHT),
      std::uint32_t(std::int32_t(left)), std::uint32_t(std::int32_t(top)), std::uint32_t(width),
      std::uint32_t(height));
  xcb_flush(core->link.connection()->get());

  // Until the window has the size asked for, or has moved and stays where the window manager
  // put it, or the time is up.
  const auto generation = core->generation;
  const auto deadline = Clock::now() + kResizeWait;
  asio::steady_timer pause(core->strand);
  std::optional<Rect> last;
  while (true) {
    pause.expires_after(kResizePoll);
    co_await pause.async_wait(asio::use_awaitable);
    if (core->generation != generation || !core->reader) co_return std::nullopt;
    const auto area = core->reader->clientArea(window.record.id);
    core->settle();
    if (!area) co_return std::nullopt;  // gone
    const bool settled = last && *area == *last && *area != window.client;
    if (*area == wanted || settled) co_return frameAround(window, *area);
    // A window manager that did nothing in all that time refused.
    if (Clock::now() >= deadline) {
      if (*area == window.client) co_return std::nullopt;
      co_return frameAround(window, *area);
    }
    last = area;
  }
}

std::optional<Rect> visibleFrameOf(X11WindowCore& core, std::uint32_t displayID) {
  if (!core.ensureConnected()) return std::nullopt;
  const X11Desktop desktop = core.reader->desktop();
  const auto display = std::ranges::find(desktop.displays, displayID, &DisplayInfo::id);
  if (display == desktop.displays.end()) return std::nullopt;
  const auto area = core.reader->workArea(desktop);
  core.settle();
  const Rect whole{display->frame.x, display->frame.y, display->frame.width, display->frame.height};
  if (!area) return whole;
  const double left = std::max(whole.x, area->x), top = std::max(whole.y, area->y);
  const double right = std::min(whole.x + whole.width, area->x + area->width);
  const double bottom = std::min(whole.y + whole.height, area->y + area->height);
  // A work area that misses the display (a stale one after a change of monitors) says nothing.
  if (right <= left || bottom <= top) return whole;
  return Rect{left, top, right - left, bottom - top};
}

}  // namespace

X11WindowSystem::X11WindowSystem(const Executor& executor, std::string displayName)
    : core_(std::make_shared<X11WindowCore>(executor, std::move(displayName))) {
  asio::post(core_->strand, [core = core_] { core->ensureConnected(); });
}

X11WindowSystem::~X11WindowSystem() = default;

asio::awaitable<std::vector<AppInfo>> X11WindowSystem::apps() {
  auto work = runOn(core_->strand, [core = core_] { return listApps(*core); });
  co_return co_await std::move(work);
}

ChangeStream X11WindowSystem::changes() { return core_->appChanges.subscribe(); }

asio::awaitable<std::vector<std::int32_t>> X11WindowSystem::recentPIDs() {
  auto work = runOn(core_->strand, [core = core_] {
    if (core->ensureConnected()) core->settle();  // the activations that came meanwhile
    return core->recent.pids();
  });
  co_return co_await std::move(work);
}

ChangeStream X11WindowSystem::recentChanges() { return core_->recent.changes(); }

asio::awaitable<void> X11WindowSystem::activate(std::int32_t pid) {
  auto work = runOn(core_->strand, [core = core_, pid] {
    const auto snapshot = core->snapshot(false);
    if (!snapshot) return;
    // Its front-most window that a person works in, else its front-most one.
    const X11Window* target = nullptr;
    for (const X11Window& window : snapshot->windows) {
      if (window.record.pid != pid) continue;
      if (!target) target = &window;
      if (window.record.isOnScreen && window.record.layer == kNormalLayer) {
        target = &window;
        break;
      }
    }
    if (target) requestActivation(*core, target->record.id, snapshot->desktop.active);
  });
  co_await std::move(work);
}

asio::awaitable<bool> X11WindowSystem::raise(std::int32_t pid, AppWindowRef window) {
  auto work = runOn(core_->strand, [core = core_, pid, ref = std::move(window)] {
    const auto snapshot = core->snapshot(false);
    if (!snapshot) return false;
    const X11Window* target = find(snapshot->windows, pid, ref);
    if (!target) return false;
    requestActivation(*core, target->record.id, snapshot->desktop.active);
    // For a window manager that activates without raising.
    xcb_ewmh_request_restack_window(&core->reader->ewmh(), core->reader->screenNumber(),
                                    target->record.id, XCB_NONE, XCB_STACK_MODE_ABOVE);
    xcb_flush(core->link.connection()->get());
    return true;
  });
  co_return co_await std::move(work);
}

asio::awaitable<std::optional<Rect>> X11WindowSystem::resize(std::int32_t pid, AppWindowRef window,
                                                             Rect frame) {
  auto work = asio::co_spawn(core_->strand, resizeWindow(core_, pid, std::move(window), frame),
                             asio::use_awaitable);
  co_return co_await std::move(work);
}

asio::awaitable<bool> X11WindowSystem::closeAll(std::int32_t pid) {
  auto work = runOn(core_->strand, [core = core_, pid] {
    const auto snapshot = core->snapshot(false);
    if (!snapshot) return false;
    bool regular = false;
    for (const X11Window& window : snapshot->windows) {
      regular = regular || (window.record.pid == pid && window.record.layer == kNormalLayer);
    }
    if (!regular) return false;
    for (const X11Window& window : snapshot->windows) {
      if (window.record.pid != pid) continue;
      xcb_ewmh_request_close_window(&core->reader->ewmh(), core->reader->screenNumber(),
                                    window.record.id, XCB_CURRENT_TIME,
                                    XCB_EWMH_CLIENT_SOURCE_TYPE_OTHER);
    }
    xcb_flush(core->link.connection()->get());
    return true;
  });
  co_return co_await std::move(work);
}

asio::awaitable<std::optional<WindowRecord>> X11WindowSystem::window(std::uint32_t id) {
  auto work = runOn(core_->strand, [core = core_, id]() -> std::optional<WindowRecord> {
    const auto snapshot = core->snapshot(false);
    if (!snapshot) return std::nullopt;
    const auto found =
        std::ranges::find(snapshot->windows, id, [](const X11Window& w) { return w.record.id; });
    if (found == snapshot->windows.end()) return std::nullopt;
    return found->record;
  });
  co_return co_await std::move(work);
}

asio::awaitable<std::vector<WindowRecord>> X11WindowSystem::windows(std::int32_t pid) {
  auto work = runOn(core_->strand, [core = core_, pid] {
    std::vector<WindowRecord> found;
    const auto snapshot = core->snapshot(false);
    if (!snapshot) return found;
    for (const X11Window& window : snapshot->windows) {
      const WindowRecord& record = window.record;
      if (record.pid == pid && record.layer == kNormalLayer &&
          record.frame.width >= kMinListedWidth && record.frame.height >= kMinListedHeight) {
        found.push_back(record);
      }
    }
    return found;
  });
  co_return co_await std::move(work);
}

asio::awaitable<std::optional<Rect>> X11WindowSystem::visibleFrame(std::uint32_t displayID) {
  auto work =
      runOn(core_->strand, [core = core_, displayID] { return visibleFrameOf(*core, displayID); });
  co_return co_await std::move(work);
}

}  // namespace kelvaron::host
