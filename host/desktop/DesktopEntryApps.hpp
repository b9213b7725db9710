#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "host/desktop/InstalledApps.hpp"
#include "kit/async/Task.hpp"

namespace kelvaron::host {

// The installed applications as the desktop's menus show them: the desktop entries of the
// `applications` folders under $XDG_DATA_HOME and each of $XDG_DATA_DIRS, the first folder winning
// for an ID (the file's path under the folder, '/' made '-', without ".desktop"). An entry that is
// hidden, not to be displayed, or not for this desktop ($XDG_CURRENT_DESKTOP) claims its ID but is
// not listed. Icons are looked up in the freedesktop icon themes under the same data folders and
// rendered at 128 pixels.
//
// The folders are listed and the files read here rather than through GIO's list of applications:
// GIO keeps its list for the life of the process and refreshes it only from a main loop we do not
// run, so a fresh read is the one way to see a new entry at once, and what is read is bounded.
//
// A request answers from the last scan while it is younger than `refreshInterval` and no folder's
// modification time moved; else it scans again first. A folder missing counts as such: appearing
// moves it. Files that cannot be read, are too large, or are malformed are skipped and logged once.
class DesktopEntryApps : public InstalledAppsProviding {
 public:
  // Scans and renders on a strand of `executor` (the host hands it a thread pool). The folders
  // are those of the environment at construction.
  explicit DesktopEntryApps(
      const Executor& executor,
      std::chrono::duration<double> refreshInterval = std::chrono::seconds(60));
  // The data folders given, first winning (each holding `applications` and `icons`).
  DesktopEntryApps(const Executor& executor, std::vector<std::string> dataFolders,
                   std::chrono::duration<double> refreshInterval);
  ~DesktopEntryApps() override;
  DesktopEntryApps(const DesktopEntryApps&) = delete;
  DesktopEntryApps& operator=(const DesktopEntryApps&) = delete;

  asio::awaitable<std::vector<InstalledApp>> apps() override;
  asio::awaitable<std::optional<Data>> icon(std::string bundleID) override;
  asio::awaitable<std::optional<std::string>> entryPath(std::string bundleID) override;

  // The data folders of the environment: $XDG_DATA_HOME (else ~/.local/share), then each of
  // $XDG_DATA_DIRS (else /usr/local/share and /usr/share).
  static std::vector<std::string> environmentDataFolders();

  // How many scans ran: for tests of the refresh rule.
  std::size_t scanCount() const;

 private:
  struct Core;
  std::shared_ptr<Core> core_;
};

}  // namespace kelvaron::host
