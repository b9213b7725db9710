#include "host/desktop/AppIdentity.hpp"

#include <gio/gdesktopappinfo.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string_view>
#include <system_error>

#include "host/desktop/GObjectOwned.hpp"

namespace kelvaron::host {

namespace {

using DesktopEntry = Owned<GDesktopAppInfo>;

constexpr std::string_view kSuffix = ".desktop";

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

std::string_view withoutSuffix(std::string_view id) {
  if (id.ends_with(kSuffix)) id.remove_suffix(kSuffix.size());
  return id;
}

std::string_view text(const char* value) { return value ? std::string_view(value) : ""; }

// The entry for the window's class: by StartupWMClass, the class before the instance, then by the
// file's name.
DesktopEntry entryForClass(const WindowClassHints& hints) {
  const std::array<std::string_view, 2> names = {hints.className, hints.instance};
  GList* all = g_app_info_get_all();
  GDesktopAppInfo* best = nullptr;
  int bestRank = 4;  // lower is better
  for (GList* item = all; item; item = item->next) {
    if (!G_IS_DESKTOP_APP_INFO(item->data)) continue;
    auto* entry = G_DESKTOP_APP_INFO(item->data);
    const std::string_view wmClass = text(g_desktop_app_info_get_startup_wm_class(entry));
    const std::string_view id = withoutSuffix(text(g_app_info_get_id(G_APP_INFO(entry))));
    for (int i = 0; i < 2; ++i) {
      if (names[i].empty()) continue;
      const int rank = wmClass == names[i] ? i : equalIgnoringCase(id, names[i]) ? 2 + i : 4;
      if (rank < bestRank) best = entry, bestRank = rank;
    }
  }
  DesktopEntry found(best ? G_DESKTOP_APP_INFO(g_object_ref(best)) : nullptr);
  g_list_free_full(all, g_object_unref);
  return found;
}

std::string executableOf(std::int32_t pid) {
  std::error_code error;
  std::string path =
      std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", error).string();
  // An executable replaced since the start (an upgrade) is still the one that runs.
  constexpr std::string_view deleted = " (deleted)";
  if (std::string_view(path).ends_with(deleted)) path.resize(path.size() - deleted.size());
  return error ? std::string() : path;
}

}  // namespace

std::string processName(std::int32_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  std::getline(file, name);
  return name;
}

AppIdentity identifyApp(std::int32_t pid, const WindowClassHints& hints) {
  AppIdentity identity;
  identity.executablePath = executableOf(pid);
  DesktopEntry entry;
  if (!hints.gtkApplicationID.empty()) {
    std::string id(withoutSuffix(hints.gtkApplicationID));
    id += kSuffix;
    entry.reset(g_desktop_app_info_new(id.c_str()));
  }
  if (!entry && !(hints.className.empty() && hints.instance.empty())) {
    entry = entryForClass(hints);
  }
  identity.settled = entry || !hints.className.empty() || !hints.instance.empty();
  if (entry) {
    identity.bundleID = withoutSuffix(text(g_app_info_get_id(G_APP_INFO(entry.get()))));
    identity.name = text(g_app_info_get_name(G_APP_INFO(entry.get())));
    identity.bundlePath = text(g_desktop_app_info_get_filename(entry.get()));
  }
  std::string executable = std::filesystem::path(identity.executablePath).filename().string();
  if (executable.empty()) executable = processName(pid);
  if (identity.bundleID.empty()) identity.bundleID = executable;
  if (identity.name.empty())
    identity.name = !hints.className.empty() ? hints.className : executable;
  return identity;
}

}  // namespace kelvaron::host
