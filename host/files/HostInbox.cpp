#include "host/files/HostInbox.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace kelvaron::host {

namespace fs = std::filesystem;

namespace {

fs::path homeFolder() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_dir) return entry->pw_dir;
  return fs::temp_directory_path();
}

}  // namespace

fs::path HostInbox::defaultRoot() {
  fs::path data;
  // A relative XDG_DATA_HOME is invalid and ignored, as the base directory rules say.
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg == '/') {
    data = xdg;
  } else {
    data = homeFolder() / ".local" / "share";
  }
  return data / "tovu-host" / "Inbox";
}

void HostInbox::makeRoot() const {
  // A link to a folder serves: the person may keep the inbox elsewhere.
  if (fs::is_directory(root_)) return;
  if (root_.has_parent_path()) fs::create_directories(root_.parent_path());
  if (fs::create_directory(root_)) {
    fs::permissions(root_, fs::perms::owner_all, fs::perm_options::replace);
  } else if (!fs::is_directory(root_)) {
    throw fs::filesystem_error("not a folder", root_,
                               std::make_error_code(std::errc::not_a_directory));
  }
}

std::vector<fs::path> HostInbox::prune(fs::file_time_type now, const std::set<std::string>& keep,
                                       std::chrono::seconds maxAge) const {
  std::vector<fs::path> removed;
  std::error_code error;
  fs::directory_iterator entries(root_, error);
  if (error) return removed;
  for (const fs::directory_entry& entry : entries) {
    std::error_code entryError;
    if (!entry.is_directory(entryError) || entry.is_symlink(entryError)) continue;
    if (keep.contains(entry.path().filename().string())) continue;
    const fs::file_time_type modified = fs::last_write_time(entry.path(), entryError);
    if (entryError || now - modified <= maxAge) continue;
    fs::remove_all(entry.path(), entryError);
    removed.push_back(entry.path());
  }
  return removed;
}

}  // namespace kelvaron::host
