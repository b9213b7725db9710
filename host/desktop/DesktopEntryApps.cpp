#include "host/desktop/DesktopEntryApps.hpp"

#include <gio/gdesktopappinfo.h>
#include <gtk/gtk.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>

#include "host/desktop/GObjectOwned.hpp"
#include "host/video/PngImage.hpp"
#include "kit/async/Uptime.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace fs = std::filesystem;

namespace {

constexpr int kIconSize = 128;
// Far beyond any real entry or icon: what is larger is not read.
constexpr std::uintmax_t kMaxEntryBytes = 256 * 1024;
constexpr std::uintmax_t kMaxIconBytes = 8 * 1024 * 1024;
// Entries listed, files looked at, and how deep below an `applications` folder.
constexpr std::size_t kMaxApps = 4096;
constexpr std::size_t kMaxFilesSeen = 20000;
constexpr int kMaxDepth = 3;
constexpr std::size_t kMaxNameBytes = 256;
constexpr std::size_t kMaxLoggedProblems = 256;
constexpr std::string_view kSuffix = ".desktop";

struct KeyFileFree {
  void operator()(GKeyFile* file) const { g_key_file_free(file); }
};
struct GFree {
  void operator()(void* memory) const { g_free(memory); }
};
using GString_ = std::unique_ptr<char, GFree>;

// Cut at `limit` bytes, never inside a UTF-8 sequence.
std::string clippedUtf8(std::string text, std::size_t limit) {
  if (text.size() <= limit) return text;
  std::size_t end = limit;
  while (end > 0 && (std::uint8_t(text[end]) & 0xC0) == 0x80) --end;
  text.resize(end);
  return text;
}

bool lessByName(const std::string& a, const std::string& b) {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
    return lower(x) < lower(y);
  });
}

std::optional<std::string> readBounded(const fs::path& path) {
  std::error_code error;
  const std::uintmax_t size = fs::file_size(path, error);
  if (error || size > kMaxEntryBytes) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string bytes(std::size_t(size), '\0');
  in.read(bytes.data(), std::streamsize(size));
  bytes.resize(std::size_t(in.gcount()));
  return bytes;
}

// Straight RGBA rows from a pixbuf of 8-bit RGB or RGBA, whatever its row stride.
std::optional<Data> pngOf(GdkPixbuf* pixbuf) {
  if (gdk_pixbuf_get_colorspace(pixbuf) != GDK_COLORSPACE_RGB ||
      gdk_pixbuf_get_bits_per_sample(pixbuf) != 8) {
    return std::nullopt;
  }
  const int width = gdk_pixbuf_get_width(pixbuf), height = gdk_pixbuf_get_height(pixbuf);
  const int channels = gdk_pixbuf_get_n_channels(pixbuf);
  const bool alpha = gdk_pixbuf_get_has_alpha(pixbuf);
  if (width < 1 || height < 1 || channels != (alpha ? 4 : 3)) return std::nullopt;
  const int stride = gdk_pixbuf_get_rowstride(pixbuf);
  const guint8* pixels = gdk_pixbuf_read_pixels(pixbuf);
  std::vector<std::uint8_t> rgba(std::size_t(width) * std::size_t(height) * 4);
  for (int y = 0; y < height; ++y) {
    const guint8* row = pixels + std::size_t(y) * std::size_t(stride);
    std::uint8_t* out = rgba.data() + std::size_t(y) * std::size_t(width) * 4;
    for (int x = 0; x < width; ++x, row += channels, out += 4) {
      out[0] = row[0];
      out[1] = row[1];
      out[2] = row[2];
      out[3] = alpha ? row[3] : 0xFF;
    }
  }
  return encodePng(rgba.data(), width, height);
}

// The picture scaled to fit a square of the icon's size, in its middle.
Owned<GdkPixbuf> squared(GdkPixbuf* pixbuf) {
  const int width = gdk_pixbuf_get_width(pixbuf), height = gdk_pixbuf_get_height(pixbuf);
  if (width == kIconSize && height == kIconSize) {
    return Owned<GdkPixbuf>(GDK_PIXBUF(g_object_ref(pixbuf)));
  }
  const double scale = double(kIconSize) / double(std::max(width, height));
  const int fittedWidth = std::max(1, int(width * scale + 0.5));
  const int fittedHeight = std::max(1, int(height * scale + 0.5));
  Owned<GdkPixbuf> square(gdk_pixbuf_new(GDK_COLORSPACE_RGB, TRUE, 8, kIconSize, kIconSize));
  if (!square) return nullptr;
  gdk_pixbuf_fill(square.get(), 0);
  const int left = (kIconSize - fittedWidth) / 2, top = (kIconSize - fittedHeight) / 2;
  gdk_pixbuf_composite(pixbuf, square.get(), left, top, fittedWidth, fittedHeight, left, top, scale,
                       scale, GDK_INTERP_BILINEAR, 255);
  return square;
}

struct Entry {
  std::string bundleID, name, path, icon;
};

}  // namespace

// Everything but `scans` lives on `strand`.
struct DesktopEntryApps::Core {
  Core(const Executor& executor, std::vector<std::string> folders,
       std::chrono::duration<double> interval)
      : strand(makeStrand(executor)), dataFolders(std::move(folders)), refreshInterval(interval) {}

  using Signature = std::vector<std::optional<fs::file_time_type>>;

  Signature signatureNow() const {
    Signature present;
    for (const std::string& folder : dataFolders) {
      std::error_code error;
      const fs::file_time_type time = fs::last_write_time(fs::path(folder) / "applications", error);
      present.push_back(error ? std::nullopt : std::optional(time));
    }
    return present;
  }

  const std::vector<InstalledApp>& appsNow() {
    const double now = uptimeSeconds();
    Signature present = signatureNow();
    if (!scannedAt || now - *scannedAt >= refreshInterval.count() || present != signature) {
      scan();
      signature = std::move(present);
      scannedAt = now;
    }
    return apps;
  }

  void problem(const std::string& what) {
    if (logged.size() >= kMaxLoggedProblems || !logged.insert(what).second) return;
    log.error("Installed applications: %s", what.c_str());
  }

  void scan() {
    ++scans;
    // A theme keeps the listings of its folders: icons installed since are found by a new one,
    // made when an icon is next looked up.
    theme.reset();
    std::set<std::string> claimed;
    std::vector<Entry> entries;
    std::size_t seen = 0;
    for (const std::string& folder : dataFolders) {
      walk(fs::path(folder) / "applications", "", 0, claimed, entries, seen);
    }
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
      if (a.name != b.name) return lessByName(a.name, b.name);
      return a.bundleID < b.bundleID;
    });
    std::vector<InstalledApp> list;
    std::map<std::string, std::string> freshPaths;
    std::map<std::string, IconRecord> freshIcons;
    for (Entry& entry : entries) {
      IconRecord record;
      // An icon that was not found is looked for again: it may have been installed since.
      if (const auto known = icons.find(entry.bundleID); known != icons.end() &&
                                                         known->second.source == entry.icon &&
                                                         !known->second.png.empty()) {
        record = std::move(known->second);
      } else {
        record.source = entry.icon;
        record.png = render(entry.icon, entry.path);
      }
      list.push_back({entry.bundleID, entry.name, iconHashOf(record.png)});
      freshPaths[entry.bundleID] = std::move(entry.path);
      freshIcons[entry.bundleID] = std::move(record);
    }
    apps = std::move(list);
    paths = std::move(freshPaths);
    icons = std::move(freshIcons);
  }

  // Names in sorted order; subfolders give IDs prefixed with their names and '-'. Folders reached
  // through links are not entered, so no loop of links is followed.
  void walk(const fs::path& folder, const std::string& prefix, int depth,
            std::set<std::string>& claimed, std::vector<Entry>& entries, std::size_t& seen) {
    std::error_code error;
    fs::directory_iterator it(folder, error);
    if (error) return;
    std::vector<fs::directory_entry> children;
    // A failed step ends the iterator, and with it the listing of this folder.
    for (; it != fs::directory_iterator() && seen < kMaxFilesSeen; it.increment(error), ++seen) {
      children.push_back(*it);
    }
    if (seen >= kMaxFilesSeen) problem("too many files under " + folder.string());
    std::sort(children.begin(), children.end(), [](const auto& a, const auto& b) {
      return a.path().filename() < b.path().filename();
    });
    for (const fs::directory_entry& child : children) {
      const std::string name = child.path().filename().string();
      std::error_code statError;
      if (child.is_symlink(statError) == false && child.is_directory(statError)) {
        if (depth + 1 < kMaxDepth) {
          walk(child.path(), prefix + name + "-", depth + 1, claimed, entries, seen);
        }
        continue;
      }
      if (!name.ends_with(kSuffix) || name.size() == kSuffix.size()) continue;
      const std::string id = prefix + name.substr(0, name.size() - kSuffix.size());
      if (claimed.contains(id)) continue;
      if (entries.size() >= kMaxApps) {
        problem("more than " + std::to_string(kMaxApps) + " applications; the rest are left out");
        return;
      }
      read(child.path(), id, claimed, entries);
    }
  }

  void read(const fs::path& path, const std::string& id, std::set<std::string>& claimed,
            std::vector<Entry>& entries) {
    const std::optional<std::string> bytes = readBounded(path);
    if (!bytes) {
      problem("cannot read " + path.string() + " (missing, unreadable or too large)");
      return;
    }
    std::unique_ptr<GKeyFile, KeyFileFree> keys(g_key_file_new());
    GError* error = nullptr;
    if (!g_key_file_load_from_data(keys.get(), bytes->data(), bytes->size(), G_KEY_FILE_NONE,
                                   &error)) {
      problem("malformed " + path.string() + ": " + (error ? error->message : "?"));
      g_clear_error(&error);
      return;
    }
    if (!g_key_file_has_group(keys.get(), G_KEY_FILE_DESKTOP_GROUP)) {
      problem("no desktop entry in " + path.string());
      return;
    }
    // From here the file is this ID's, even when it says not to show it.
    claimed.insert(id);
    if (g_key_file_get_boolean(keys.get(), G_KEY_FILE_DESKTOP_GROUP, G_KEY_FILE_DESKTOP_KEY_HIDDEN,
                               nullptr)) {
      return;
    }
    // Refuses other types and programs that are not installed (TryExec, Exec).
    Owned<GDesktopAppInfo> info(g_desktop_app_info_new_from_keyfile(keys.get()));
    if (!info || !g_app_info_should_show(G_APP_INFO(info.get()))) return;
    const char* name = g_app_info_get_name(G_APP_INFO(info.get()));
    if (!name || !*name) return;
    GString_ icon(g_key_file_get_string(keys.get(), G_KEY_FILE_DESKTOP_GROUP,
                                        G_KEY_FILE_DESKTOP_KEY_ICON, nullptr));
    entries.push_back({id, clippedUtf8(name, kMaxNameBytes), path.string(),
                       icon ? clippedUtf8(icon.get(), 4096) : std::string()});
  }

  GtkIconTheme* iconTheme() {
    if (theme) return theme.get();
    theme.reset(gtk_icon_theme_new());
    // The same folders as the entries, in the same order, and the two places of old.
    std::vector<std::string> places;
    if (const char* home = std::getenv("HOME")) places.push_back(std::string(home) + "/.icons");
    for (const std::string& folder : dataFolders) places.push_back(folder + "/icons");
    places.push_back("/usr/share/pixmaps");
    std::vector<const gchar*> raw;
    for (const std::string& place : places) raw.push_back(place.c_str());
    gtk_icon_theme_set_search_path(theme.get(), raw.data(), gint(raw.size()));
    return theme.get();
  }

  bool fileFits(const char* file, const std::string& entryPath) {
    std::error_code error;
    const std::uintmax_t size = fs::file_size(file, error);
    if (error || size > kMaxIconBytes) {
      problem("icon " + std::string(file) + " of " + entryPath + " is unreadable or too large");
      return false;
    }
    return true;
  }

  Data render(const std::string& icon, const std::string& entryPath) {
    if (icon.empty()) return {};
    GError* error = nullptr;
    Owned<GdkPixbuf> pixbuf;
    if (icon.starts_with('/')) {
      if (!fileFits(icon.c_str(), entryPath)) return {};
      pixbuf.reset(gdk_pixbuf_new_from_file_at_size(icon.c_str(), kIconSize, kIconSize, &error));
    } else {
      std::string name = icon;
      for (const std::string_view extension : {".png", ".svg", ".xpm"}) {
        if (name.ends_with(extension)) name.resize(name.size() - extension.size());
      }
      Owned<GtkIconInfo> info(gtk_icon_theme_lookup_icon(iconTheme(), name.c_str(), kIconSize,
                                                         GTK_ICON_LOOKUP_FORCE_SIZE));
      if (!info) {
        problem("no icon \"" + icon + "\" for " + entryPath);
        return {};
      }
      const char* file = gtk_icon_info_get_filename(info.get());
      if (file && !fileFits(file, entryPath)) return {};
      pixbuf.reset(gtk_icon_info_load_icon(info.get(), &error));
    }
    if (!pixbuf) {
      problem("cannot load icon \"" + icon + "\" for " + entryPath + ": " +
              (error ? error->message : "?"));
      g_clear_error(&error);
      return {};
    }
    const Owned<GdkPixbuf> square = squared(pixbuf.get());
    std::optional<Data> png = square ? pngOf(square.get()) : std::nullopt;
    if (!png) problem("cannot encode icon \"" + icon + "\" for " + entryPath);
    return png.value_or(Data());
  }

  struct IconRecord {
    std::string source;  // the entry's Icon it was made from
    Data png;
  };

  const Executor strand;
  const std::vector<std::string> dataFolders;
  const std::chrono::duration<double> refreshInterval;
  std::atomic<std::size_t> scans{0};
  std::vector<InstalledApp> apps;
  std::map<std::string, std::string> paths;
  std::map<std::string, IconRecord> icons;
  Signature signature;
  std::optional<double> scannedAt;
  Owned<GtkIconTheme> theme;
  std::set<std::string> logged;
  Logger log{"io.dovka.tovu.host", "apps"};
};

DesktopEntryApps::DesktopEntryApps(const Executor& executor,
                                   std::chrono::duration<double> refreshInterval)
    : DesktopEntryApps(executor, environmentDataFolders(), refreshInterval) {}

DesktopEntryApps::DesktopEntryApps(const Executor& executor, std::vector<std::string> dataFolders,
                                   std::chrono::duration<double> refreshInterval)
    : core_(std::make_shared<Core>(executor, std::move(dataFolders), refreshInterval)) {}

DesktopEntryApps::~DesktopEntryApps() = default;

std::vector<std::string> DesktopEntryApps::environmentDataFolders() {
  std::vector<std::string> folders;
  const char* dataHome = std::getenv("XDG_DATA_HOME");
  if (dataHome && *dataHome == '/') {
    folders.emplace_back(dataHome);
  } else if (const char* home = std::getenv("HOME"); home && *home == '/') {
    folders.push_back(std::string(home) + "/.local/share");
  }
  const char* dataDirs = std::getenv("XDG_DATA_DIRS");
  const std::string_view dirs =
      dataDirs && *dataDirs ? std::string_view(dataDirs) : "/usr/local/share:/usr/share";
  std::size_t start = 0;
  while (start <= dirs.size()) {
    const std::size_t end = std::min(dirs.find(':', start), dirs.size());
    const std::string_view dir = dirs.substr(start, end - start);
    // Relative entries are not honoured by the desktop either.
    if (dir.starts_with('/') && std::ranges::find(folders, dir) == folders.end()) {
      folders.emplace_back(dir);
    }
    start = end + 1;
  }
  return folders;
}

std::size_t DesktopEntryApps::scanCount() const { return core_->scans.load(); }

asio::awaitable<std::vector<InstalledApp>> DesktopEntryApps::apps() {
  return runOn(core_->strand, [core = core_] { return core->appsNow(); });
}

asio::awaitable<std::optional<Data>> DesktopEntryApps::icon(std::string bundleID) {
  return runOn(core_->strand, [core = core_, id = std::move(bundleID)]() -> std::optional<Data> {
    const auto found = core->icons.find(id);
    if (found == core->icons.end() || found->second.png.empty()) return std::nullopt;
    return found->second.png;
  });
}

asio::awaitable<std::optional<std::string>> DesktopEntryApps::entryPath(std::string bundleID) {
  return runOn(core_->strand,
               [core = core_, id = std::move(bundleID)]() -> std::optional<std::string> {
                 core->appsNow();  // a launch may come before any list
                 const auto found = core->paths.find(id);
                 if (found == core->paths.end()) return std::nullopt;
                 return found->second;
               });
}

}  // namespace kelvaron::host
