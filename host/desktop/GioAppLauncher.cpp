#include "host/desktop/GioAppLauncher.hpp"

#include <gio/gdesktopappinfo.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "host/desktop/GObjectOwned.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace {

const Logger& log() {
  static const Logger logger("io.dovka.tovu.host", "launch");
  return logger;
}

// Alive and not yet a zombie: the state letter of /proc/PID/stat follows the name in parentheses.
bool isAlive(std::int32_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) return false;
  const auto close = line.rfind(')');
  return close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z';
}

// Starts the entry at `path`; the process started, when GIO spawned one itself.
std::optional<std::int32_t> launchEntry(const std::string& path, const std::string& displayName,
                                        const std::string& startupID) {
  const Owned<GDesktopAppInfo> entry(g_desktop_app_info_new_from_filename(path.c_str()));
  if (!entry) throw LaunchFailure("App not found");
  const Owned<GAppLaunchContext> context(g_app_launch_context_new());
  if (!displayName.empty())
    g_app_launch_context_setenv(context.get(), "DISPLAY", displayName.c_str());
  g_app_launch_context_setenv(context.get(), "DESKTOP_STARTUP_ID", startupID.c_str());
  GPid pid = 0;
  const auto onSpawned = [](GDesktopAppInfo*, GPid spawned, gpointer into) {
    *static_cast<GPid*>(into) = spawned;
  };
  GError* error = nullptr;
  // Without G_SPAWN_DO_NOT_REAP_CHILD GLib leaves the child to init: no zombie of ours.
  if (!g_desktop_app_info_launch_uris_as_manager(entry.get(), nullptr, context.get(),
                                                 G_SPAWN_SEARCH_PATH, nullptr, nullptr, onSpawned,
                                                 &pid, &error)) {
    log().error("cannot open %s: %s", path.c_str(), error ? error->message : "no reason given");
    if (error) g_error_free(error);
    throw LaunchFailure("Couldn’t open the app");
  }
  if (pid > 0) return std::int32_t(pid);
  return std::nullopt;
}

}  // namespace

GioAppLauncher::GioAppLauncher(const Executor& executor,
                               std::shared_ptr<InstalledAppsProviding> installed,
                               std::shared_ptr<AppProviding> running, std::string displayName)
    : strand_(makeStrand(executor)),
      installed_(std::move(installed)),
      running_(std::move(running)),
      displayName_(std::move(displayName)) {}

asio::awaitable<std::optional<std::int32_t>> GioAppLauncher::runningPID(std::string bundleID) {
  const std::vector<AppInfo> apps = co_await running_->apps();
  const auto listed = std::ranges::find(apps, bundleID, &AppInfo::bundleID);
  if (listed != apps.end()) co_return listed->pid;
  auto started = runOn(strand_, [this, bundleID] { return startedPID(bundleID); });
  co_return co_await std::move(started);
}

std::optional<std::int32_t> GioAppLauncher::startedPID(const std::string& bundleID) {
  const auto found = started_.find(bundleID);
  if (found == started_.end()) return std::nullopt;
  if (isAlive(found->second)) return found->second;
  started_.erase(found);
  return std::nullopt;
}

asio::awaitable<void> GioAppLauncher::open(std::string bundleID) {
  const std::optional<std::string> path = co_await installed_->entryPath(bundleID);
  if (!path) throw LaunchFailure("App not found");
  auto launching = runOn(strand_, [this, bundleID, path = *path] {
    const std::string startupID =
        "tovu-host-" + std::to_string(getpid()) + "-" + std::to_string(++launches_);
    if (const auto pid = launchEntry(path, displayName_, startupID)) started_[bundleID] = *pid;
    log().info("opened %s", bundleID.c_str());
  });
  co_await std::move(launching);
}

}  // namespace kelvaron::host
