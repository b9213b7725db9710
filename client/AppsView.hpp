#pragma once

#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kit/transport/Connection.hpp"

namespace kelvaron::client {

// What a viewer asks of the host's applications.
struct AppsOptions {
  bool listApps = false;            // prints the host's applications and windows
  bool listInstalled = false;       // prints the host's installed applications, asks icons
  std::filesystem::path saveIcons;  // with `listInstalled`: each icon as DIR/<ID>.png
  std::string focus;   // a window's ID, or an application's name or ID: streams only that window
  bool fit = false;    // with `focus`: the window is first fitted to this screen
  std::string launch;  // an installed application's ID to open
  bool launchAlone = false;                // its window alone (focus mode)
  std::optional<LaunchAction> onNoWindow;  // the answer when no window comes in time
  std::optional<std::int32_t> quit;        // a process whose application to quit
  // The apps, launch and quit commands: the viewer leaves once the errand is done, with or
  // without a picture.
  bool errand = false;
};

// The host's applications for a person at a terminal: prints the lists and what becomes of a
// launch or a quit, and asks the host for what the options want.
class AppsView {
 public:
  AppsView(Connection& connection, AppsOptions options, std::ostream& out);

  // Once the host has greeted: the requests the options make.
  void greeted();
  // False for a message that is not about applications.
  bool handle(const Message& message);
  // The errand has its answer (always false without one).
  bool done() const;
  // Why the errand failed, if it did; asked when leaving.
  std::optional<std::string> failure() const;

 private:
  void appList(const std::vector<AppInfo>& apps);
  void askForFocus(const std::vector<AppInfo>& apps);
  void watchQuit(const std::vector<AppInfo>& apps);
  void installedApps(const std::vector<InstalledApp>& apps);
  void appIcon(const msg::appIcon& icon);
  void launchStatus(const LaunchStatus& status);

  Connection& connection_;
  const AppsOptions options_;
  std::ostream& out_;
  std::map<std::string, std::uint64_t> iconHashes_;  // of the installed applications, by ID
  std::size_t iconsAwaited_ = 0;
  bool listed_ = false, installedListed_ = false, focusAsked_ = false, quitAsked_ = false;
  bool launchEnded_ = false, quitEnded_ = false;
  std::optional<std::string> failure_;
};

}  // namespace kelvaron::client
