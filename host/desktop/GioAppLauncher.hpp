#pragma once

#include <map>
#include <memory>
#include <string>

#include "host/desktop/InstalledApps.hpp"
#include "host/desktop/LaunchCoordinator.hpp"

namespace kelvaron::host {

// Opens installed applications through GIO from their desktop entries, as a desktop's launcher
// does (the entry's command, or D-Bus activation where the entry asks for it), with a
// startup-notification ID of our own in DESKTOP_STARTUP_ID. An application runs while the window
// system lists a process of its ID, or while the process started here lives.
class GioAppLauncher : public AppLaunching {
 public:
  // Spawns on a strand of `executor`. `displayName`: the X display the applications go to; empty
  // keeps this process's $DISPLAY.
  GioAppLauncher(const Executor& executor, std::shared_ptr<InstalledAppsProviding> installed,
                 std::shared_ptr<AppProviding> running, std::string displayName);

  asio::awaitable<std::optional<std::int32_t>> runningPID(std::string bundleID) override;
  asio::awaitable<void> open(std::string bundleID) override;

 private:
  std::optional<std::int32_t> startedPID(const std::string& bundleID);

  Executor strand_;
  std::shared_ptr<InstalledAppsProviding> installed_;
  std::shared_ptr<AppProviding> running_;
  const std::string displayName_;
  std::map<std::string, std::int32_t> started_;  // on the strand
  int launches_ = 0;                             // on the strand
};

}  // namespace kelvaron::host
