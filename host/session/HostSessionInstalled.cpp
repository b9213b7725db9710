// The computer's installed applications for the device's launcher, and their icons on request.
// Scanning the folders or rendering icons can take a while, so neither holds up the messages that
// follow.

#include <optional>
#include <string>
#include <vector>

#include "host/session/HostSession.hpp"

namespace kelvaron::host {

namespace {

// Icons answered per request; the device asks for more in later ones.
constexpr std::size_t kMaxIconsPerRequest = 24;

}  // namespace

void HostSession::sendInstalledApps() {
  if (!env_.installedApps) return;
  Task::spawn(strand_, installedAppsAnswer(weak_from_this(), env_.installedApps));
}

void HostSession::sendAppIcons(std::vector<std::string> bundleIDs) {
  if (!env_.installedApps || bundleIDs.empty()) return;
  if (bundleIDs.size() > kMaxIconsPerRequest) bundleIDs.resize(kMaxIconsPerRequest);
  Task::spawn(strand_, appIconsAnswer(weak_from_this(), env_.installedApps, std::move(bundleIDs)));
}

asio::awaitable<void> HostSession::installedAppsAnswer(
    std::weak_ptr<HostSession> weak, std::shared_ptr<InstalledAppsProviding> provider) {
  auto listing = provider->apps();
  std::vector<InstalledApp> list = co_await std::move(listing);
  if (co_await isCancelled()) co_return;
  const auto self = weak.lock();
  if (!self) co_return;
  self->connection_->send(msg::installedApps{std::move(list)});
}

asio::awaitable<void> HostSession::appIconsAnswer(std::weak_ptr<HostSession> weak,
                                                  std::shared_ptr<InstalledAppsProviding> provider,
                                                  std::vector<std::string> bundleIDs) {
  for (std::string& id : bundleIDs) {
    auto reading = provider->icon(id);
    std::optional<Data> png = co_await std::move(reading);
    if (co_await isCancelled()) co_return;
    if (!png) continue;
    const auto self = weak.lock();
    if (!self) co_return;
    self->connection_->send(msg::appIcon{std::move(id), std::move(*png)});
  }
}

}  // namespace kelvaron::host
