// The computer's running applications and their windows as the client shows them: sent unasked
// while the client wants them, and only when something changed, so that a steady desktop costs
// no bytes; bringing one forward; small pictures of the windows the client shows.

#include <algorithm>

#include "host/desktop/AppListing.hpp"
#include "host/session/HostSession.hpp"

namespace kelvaron::host {

namespace {

constexpr std::size_t kMaxRecentApps = 64;
constexpr int kWindowThumbnailWidth = 320;

}  // namespace

// Publishing at once, then at every change signal and every poll: the poll catches what no
// signal announces, such as a title or a move.
asio::awaitable<void> HostSession::setAppListUpdates(bool enabled) {
  for (const Task& task : appTasks_) task.cancel();
  appTasks_.clear();
  lastAppList_.reset();
  lastRecentPIDs_.reset();
  if (!enabled || !env_.apps) co_return;
  co_await publishApps();
  appTasks_.push_back(Task::spawn(
      strand_, appChangeLoop(weak_from_this(), env_.apps->changes(), &HostSession::publishApps)));
  appTasks_.push_back(Task::spawn(
      strand_,
      appChangeLoop(weak_from_this(), env_.apps->recentChanges(), &HostSession::publishRecents)));
  appTasks_.push_back(Task::spawn(
      strand_,
      periodic(weak_from_this(), env_.sleep, env_.appPollInterval, &HostSession::publishApps)));
}

asio::awaitable<void> HostSession::appChangeLoop(std::weak_ptr<HostSession> weak,
                                                 ChangeStream changes,
                                                 asio::awaitable<void> (HostSession::*publish)()) {
  while (co_await changes->next()) {
    if (co_await isCancelled()) co_return;
    const auto self = weak.lock();
    if (!self) co_return;
    co_await (self.get()->*publish)();
  }
}

asio::awaitable<void> HostSession::publishApps() {
  std::vector<AppInfo> list = co_await env_.apps->apps();
  if (co_await isCancelled()) co_return;
  if (lastAppList_ == list) co_return;
  lastAppList_ = list;
  connection_->send(msg::appList{std::move(list)});
  co_await publishRecents();
}

asio::awaitable<void> HostSession::publishRecents() {
  std::vector<std::int32_t> pids = co_await env_.apps->recentPIDs();
  if (co_await isCancelled()) co_return;
  if (pids.size() > kMaxRecentApps) pids.resize(kMaxRecentApps);
  if (lastRecentPIDs_ == pids) co_return;
  lastRecentPIDs_ = pids;
  connection_->send(msg::recentApps{std::move(pids)});
}

asio::awaitable<void> HostSession::activateApp(const msg::activateApp& request) {
  if (!env_.windowControl || !env_.windowTracker) co_return;
  co_await env_.windowControl->activate(request.pid);
  if (!request.windowID) co_return;
  const std::optional<WindowRecord> window = co_await env_.windowTracker->window(*request.windowID);
  if (!window || window->pid != request.pid) co_return;
  const AppWindowRef ref = refOf(*window);
  co_await env_.windowControl->raise(request.pid, ref);
  if (!request.moveCursor || !current_ || !(window->frame.width > 0 && window->frame.height > 0)) {
    co_return;
  }
  const auto index = displayIndexOf(window->frame, displays_);
  if (index && displays_[*index].id == current_->id) moveCursorInto(window->frame);
}

// What the client has is sent again at once; then each window is read every interval and sent
// only when its picture changed.
void HostSession::setWindowThumbnails(const msg::windowThumbnails& request) {
  if (windowThumbTask_) windowThumbTask_->cancel();
  windowThumbTask_.reset();
  if (!request.enabled || !env_.windowThumbnails) {
    thumbWindowIDs_.clear();
    return;
  }
  thumbWindowIDs_ = request.windowIDs;
  std::erase_if(windowThumbCache_, [&](const auto& entry) {
    return std::ranges::find(thumbWindowIDs_, entry.first) == thumbWindowIDs_.end();
  });
  for (const std::uint32_t id : thumbWindowIDs_) {
    if (const auto cached = windowThumbCache_.find(id); cached != windowThumbCache_.end()) {
      connection_->send(msg::windowThumbnail{id, cached->second});
    }
  }
  windowThumbTask_ = Task::spawn(strand_, windowThumbnailLoop(weak_from_this(), thumbWindowIDs_));
}

asio::awaitable<void> HostSession::windowThumbnailLoop(std::weak_ptr<HostSession> weak,
                                                       std::vector<std::uint32_t> ids) {
  for (;;) {
    if (co_await isCancelled()) co_return;
    std::shared_ptr<WindowThumbnailProviding> provider;
    Sleeper sleep;
    std::chrono::duration<double> interval{};
    if (const auto self = weak.lock()) {
      provider = self->env_.windowThumbnails;
      sleep = self->env_.sleep;
      interval = self->env_.windowThumbnailInterval;
    } else {
      co_return;
    }
    auto pictures = provider->thumbnails(ids, kWindowThumbnailWidth);
    std::map<std::uint32_t, Data> images = co_await std::move(pictures);
    if (co_await isCancelled()) co_return;
    if (const auto self = weak.lock()) {
      for (const std::uint32_t id : ids) {
        const auto image = images.find(id);
        if (image == images.end()) continue;
        Data& cached = self->windowThumbCache_[id];
        if (cached == image->second) continue;
        cached = image->second;
        self->connection_->send(msg::windowThumbnail{id, cached});
      }
    } else {
      co_return;
    }
    co_await sleep(interval);
  }
}

void HostSession::stopAppWork() {
  for (const Task& task : appTasks_) task.cancel();
  appTasks_.clear();
  if (windowThumbTask_) windowThumbTask_->cancel();
  windowThumbTask_.reset();
  if (focusTask_) focusTask_->cancel();
  focusTask_.reset();
  if (launchCoordinator_) launchCoordinator_->stop();
  stopActions();
}

}  // namespace kelvaron::host
