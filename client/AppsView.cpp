#include "client/AppsView.hpp"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <ostream>

namespace kelvaron::client {

namespace {

constexpr std::size_t kIconsPerRequest = 24;

// A window's ID written in decimal; nothing for anything else.
std::optional<std::uint32_t> windowNumber(const std::string& text) {
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// An application's ID as a file name: nothing that leaves the folder or hides the file.
std::string iconFileName(const std::string& bundleID) {
  std::string name;
  for (const char c : bundleID) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '-' || c == '_';
    name += plain ? c : '_';
  }
  if (name.empty() || name.front() == '.') name.insert(name.begin(), '_');
  return name.substr(0, 200) + ".png";
}

const char* describe(LaunchState state) {
  switch (state) {
    case LaunchState::launching:
      return "launching";
    case LaunchState::focused:
      return "shown alone";
    case LaunchState::broughtToFront:
      return "brought to the front";
    case LaunchState::noWindow:
      return "no window yet";
    case LaunchState::failed:
      return "failed";
    case LaunchState::cancelled:
      return "cancelled";
  }
  return "?";
}

const char* describe(LaunchAction action) {
  switch (action) {
    case LaunchAction::cancel:
      return "cancel";
    case LaunchAction::newWindow:
      return "ask for a new window";
    case LaunchAction::keepWaiting:
      return "keep waiting";
  }
  return "?";
}

}  // namespace

AppsView::AppsView(Connection& connection, AppsOptions options, std::ostream& out)
    : connection_(connection), options_(std::move(options)), out_(out) {}

void AppsView::greeted() {
  if (options_.listApps || !options_.focus.empty() || options_.quit) {
    connection_.send(msg::setAppListUpdates{true});
  }
  if (options_.listInstalled) connection_.send(msg::requestInstalledApps{});
  if (!options_.launch.empty())
    connection_.send(msg::launchApp{options_.launch, options_.launchAlone});
}

bool AppsView::handle(const Message& message) {
  if (const auto* apps = std::get_if<msg::appList>(&message)) {
    appList(apps->apps);
  } else if (const auto* installed = std::get_if<msg::installedApps>(&message)) {
    installedApps(installed->apps);
  } else if (const auto* icon = std::get_if<msg::appIcon>(&message)) {
    appIcon(*icon);
  } else if (const auto* launch = std::get_if<msg::launchStatus>(&message)) {
    launchStatus(launch->status);
  } else {
    return false;
  }
  return true;
}

bool AppsView::done() const {
  if (!options_.errand) return false;
  const bool listed = !options_.listApps || listed_;
  const bool installed = !options_.listInstalled || (installedListed_ && iconsAwaited_ == 0);
  const bool launched = options_.launch.empty() || launchEnded_;
  const bool quit = !options_.quit || quitEnded_;
  return failure_ || (listed && installed && launched && quit);
}

std::optional<std::string> AppsView::failure() const {
  if (failure_) return failure_;
  if (options_.quit && quitAsked_ && !quitEnded_) {
    return "process " + std::to_string(*options_.quit) +
           " still has windows (it may be asking about unsaved work)";
  }
  return std::nullopt;
}

void AppsView::appList(const std::vector<AppInfo>& apps) {
  listed_ = true;
  if (options_.listApps) {
    for (const AppInfo& app : apps) {
      out_ << "App " << app.pid << " " << app.name << " (" << app.bundleID << ")"
           << (app.isFrontmost ? " in front" : "") << std::endl;
      for (const WindowInfo& w : app.windows) {
        out_ << "  window " << w.id << " \"" << w.title << "\" " << w.frame.x << "," << w.frame.y
             << " " << w.frame.width << "x" << w.frame.height << " on display " << w.displayID
             << (w.isMinimized  ? ", minimised"
                 : w.isOnScreen ? ""
                                : ", off screen")
             << std::endl;
      }
    }
  }
  if (!options_.focus.empty() && !focusAsked_) askForFocus(apps);
  if (options_.quit) watchQuit(apps);
}

// A number names a window; anything else an application, whose first window on screen is taken.
void AppsView::askForFocus(const std::vector<AppInfo>& apps) {
  const std::optional<std::uint32_t> number = windowNumber(options_.focus);
  for (const AppInfo& app : apps) {
    const bool named = app.name == options_.focus || app.bundleID == options_.focus;
    for (const WindowInfo& w : app.windows) {
      if ((number && w.id == *number) || (!number && named && w.isOnScreen)) {
        connection_.send(msg::focus{app.pid, w.id, options_.fit, true});
        focusAsked_ = true;
        return;
      }
    }
  }
  out_ << "No window of the host matches " << options_.focus << std::endl;
}

// Asked once the application is seen in the list; done when a later list no longer shows it.
void AppsView::watchQuit(const std::vector<AppInfo>& apps) {
  const std::int32_t pid = *options_.quit;
  const bool listed = std::ranges::find(apps, pid, &AppInfo::pid) != apps.end();
  if (!quitAsked_) {
    if (!listed) {
      failure_ = "no application of the host runs as process " + std::to_string(pid);
      return;
    }
    connection_.send(msg::quitApp{pid});
    quitAsked_ = true;
    out_ << "Asked process " << pid << " to quit" << std::endl;
  } else if (!listed && !quitEnded_) {
    quitEnded_ = true;
    out_ << "Process " << pid << " has no windows left" << std::endl;
  }
}

// Every application is printed; the icons of those that have one are asked for, as many as the
// host answers per request each time.
void AppsView::installedApps(const std::vector<InstalledApp>& apps) {
  installedListed_ = true;
  out_ << "Installed: " << apps.size() << " applications" << std::endl;
  std::vector<std::string> wanted;
  for (const InstalledApp& app : apps) {
    out_ << "Installed " << app.bundleID << " \"" << app.name << "\" icon " << std::hex
         << app.iconHash << std::dec << std::endl;
    iconHashes_[app.bundleID] = app.iconHash;
    if (app.iconHash != 0) wanted.push_back(app.bundleID);
  }
  iconsAwaited_ += wanted.size();
  for (std::size_t start = 0; start < wanted.size(); start += kIconsPerRequest) {
    const auto end =
        wanted.begin() + std::ptrdiff_t(std::min(wanted.size(), start + kIconsPerRequest));
    connection_.send(msg::requestAppIcons{{wanted.begin() + std::ptrdiff_t(start), end}});
  }
}

void AppsView::appIcon(const msg::appIcon& icon) {
  if (iconsAwaited_ > 0) --iconsAwaited_;
  const auto listed = iconHashes_.find(icon.bundleID);
  const bool matches = listed != iconHashes_.end() && listed->second == iconHashOf(icon.png);
  out_ << "Icon " << icon.bundleID << ": " << icon.png.size() << " bytes"
       << (matches ? "" : ", not the one listed") << std::endl;
  if (options_.saveIcons.empty()) return;
  std::ofstream(options_.saveIcons / iconFileName(icon.bundleID), std::ios::binary)
      .write(reinterpret_cast<const char*>(icon.png.data()), std::streamsize(icon.png.size()));
}

void AppsView::launchStatus(const LaunchStatus& status) {
  out_ << "Launch " << status.bundleID << ": " << describe(status.state) << " after "
       << status.elapsedMs << " ms" << (status.detail.empty() ? "" : ": " + status.detail)
       << std::endl;
  switch (status.state) {
    case LaunchState::launching:
      return;
    case LaunchState::noWindow:
      if (options_.onNoWindow) {
        out_ << "Answered: " << describe(*options_.onNoWindow) << std::endl;
        connection_.send(msg::launchControl{status.bundleID, *options_.onNoWindow});
        return;
      }
      break;
    case LaunchState::failed:
      failure_ = "could not open " + status.bundleID + ": " + status.detail;
      break;
    default:
      break;
  }
  launchEnded_ = true;
}

}  // namespace kelvaron::client
