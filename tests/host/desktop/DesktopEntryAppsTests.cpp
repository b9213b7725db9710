#include "host/desktop/DesktopEntryApps.hpp"

#include <gtest/gtest.h>
#include <png.h>

#include <asio/thread_pool.hpp>
#include <cstdlib>
#include <fstream>

#include "host/video/PngImage.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron::host {
namespace {

using namespace test;
namespace fs = std::filesystem;

template <class T>
T await(asio::awaitable<T> work) {
  std::optional<T> result;
  runAsync([&](asio::io_context&) -> asio::awaitable<void> { result = co_await std::move(work); });
  return std::move(*result);
}

void write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

std::string entry(const std::string& name, const std::string& icon, const std::string& more = "") {
  return "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=true\nIcon=" + icon + "\n" +
         more;
}

// A PNG of one colour.
std::string solidPng(int width, int height, std::array<std::uint8_t, 4> colour) {
  std::vector<std::uint8_t> rgba;
  for (int i = 0; i < width * height; ++i) rgba.insert(rgba.end(), colour.begin(), colour.end());
  const std::optional<Data> png = encodePng(rgba.data(), width, height);
  return png ? std::string(png->begin(), png->end()) : std::string();
}

struct Picture {
  std::uint32_t width = 0, height = 0;
  std::vector<std::uint8_t> rgba;
  std::array<std::uint8_t, 4> at(std::uint32_t x, std::uint32_t y) const {
    const std::uint8_t* p = &rgba[(std::size_t(y) * width + x) * 4];
    return {p[0], p[1], p[2], p[3]};
  }
};

std::optional<Picture> decode(const Data& bytes) {
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_memory(&png, bytes.data(), bytes.size())) return std::nullopt;
  png.format = PNG_FORMAT_RGBA;
  Picture picture{png.width, png.height, std::vector<std::uint8_t>(PNG_IMAGE_SIZE(png))};
  if (!png_image_finish_read(&png, nullptr, picture.rgba.data(), 0, nullptr)) return std::nullopt;
  return picture;
}

// Entries in a private $XDG_DATA_HOME and $XDG_DATA_DIRS, with a small hicolor theme. The folders
// are read from the environment when the object is made, but GLib reads $XDG_CURRENT_DESKTOP and
// finds the MIME database through the data folders once per process: both are set before anything
// of GLib runs, and this program holds no other test.
TEST(DesktopEntryApps, ListsWhatTheDesktopShowsWithIconsAndRescansWhenAFolderChanges) {
  TempDirectory root;
  const fs::path home = root / "home", first = root / "first", second = root / "second";
  setenv("XDG_DATA_HOME", home.c_str(), 1);
  setenv("XDG_DATA_DIRS", (first.string() + ":" + second.string()).c_str(), 1);
  setenv("XDG_CURRENT_DESKTOP", "GNOME", 1);
  // gdk-pixbuf tells image formats apart through the MIME database, found in the data folders.
  if (!fs::exists("/usr/share/mime/mime.cache")) GTEST_SKIP() << "no MIME database in /usr/share";
  fs::create_directories(second);
  fs::create_directory_symlink("/usr/share/mime", second / "mime");

  write(home / "applications/org.example.Editor.desktop", entry("Editor", "tovu-test-red"));
  write(first / "applications/org.example.Editor.desktop", entry("System Editor", "tovu-test-red"));
  write(home / "applications/org.example.Gone.desktop", "[Desktop Entry]\nHidden=true\n");
  write(first / "applications/org.example.Gone.desktop", entry("Gone", "tovu-test-red"));
  write(first / "applications/org.example.Drawing.desktop", entry("drawing", "tovu-test-blue"));
  write(first / "applications/org.example.Lost.desktop", entry("Lost", "tovu-no-such-icon"));
  write(first / "applications/tools/viewer.desktop",
        entry("Viewer", (first / "wide.png").string()));
  write(first / "wide.png", solidPng(64, 32, {0, 255, 0, 255}));
  write(first / "applications/org.example.Quiet.desktop", entry("Quiet", "", "NoDisplay=true\n"));
  write(first / "applications/org.example.Kde.desktop", entry("Kde", "", "OnlyShowIn=KDE;\n"));
  write(first / "applications/org.example.Broken.desktop", "[Desktop Entry\nName=Broken\n");
  write(first / "applications/org.example.Huge.desktop",
        entry("Huge", "", "Comment=" + std::string(400 * 1024, 'x') + "\n"));
  const fs::path theme = second / "icons/hicolor";
  write(theme / "index.theme",
        "[Icon Theme]\nName=Hicolor\nDirectories=48x48/apps,scalable/apps\n\n"
        "[48x48/apps]\nSize=48\nType=Fixed\n\n"
        "[scalable/apps]\nSize=64\nMinSize=16\nMaxSize=512\nType=Scalable\n");
  write(theme / "48x48/apps/tovu-test-red.png", solidPng(48, 48, {255, 0, 0, 255}));
  write(theme / "scalable/apps/tovu-test-blue.svg",
        "<svg xmlns='http://www.w3.org/2000/svg' width='64' height='64'>"
        "<rect width='64' height='64' fill='#0000ff'/></svg>");

  asio::thread_pool pool(1);
  DesktopEntryApps apps(pool.get_executor());
  const std::vector<InstalledApp> list = await(apps.apps());
  std::vector<std::pair<std::string, std::string>> named;
  for (const InstalledApp& app : list) named.emplace_back(app.bundleID, app.name);
  EXPECT_EQ(named,
            (std::vector<std::pair<std::string, std::string>>{{"org.example.Drawing", "drawing"},
                                                              {"org.example.Editor", "Editor"},
                                                              {"org.example.Lost", "Lost"},
                                                              {"tools-viewer", "Viewer"}}));
  EXPECT_EQ(await(apps.entryPath("org.example.Editor")),
            (home / "applications/org.example.Editor.desktop").string());
  EXPECT_EQ(await(apps.entryPath("org.example.Gone")), std::nullopt);

  // The PNG scaled up, the SVG rendered, the wide picture centred on a clear square.
  const std::map<std::string, std::array<std::uint8_t, 4>> centres = {
      {"org.example.Editor", {255, 0, 0, 255}},
      {"org.example.Drawing", {0, 0, 255, 255}},
      {"tools-viewer", {0, 255, 0, 255}}};
  for (const InstalledApp& app : list) {
    const std::optional<Data> png = await(apps.icon(app.bundleID));
    if (!centres.contains(app.bundleID)) {
      EXPECT_TRUE(!png && app.iconHash == 0) << app.bundleID;
      continue;
    }
    ASSERT_TRUE(png) << app.bundleID;
    EXPECT_EQ(app.iconHash, iconHashOf(*png));
    const std::optional<Picture> picture = decode(*png);
    ASSERT_TRUE(picture) << app.bundleID;
    ASSERT_EQ(std::pair(picture->width, picture->height), std::pair(128u, 128u)) << app.bundleID;
    EXPECT_EQ(picture->at(64, 64), centres.at(app.bundleID)) << app.bundleID;
    if (app.bundleID == "tools-viewer") {
      EXPECT_EQ(picture->at(64, 4)[3], 0);
    }
  }
  // FNV-1a, 64 bits, of "a".
  EXPECT_EQ(iconHashOf(Data{'a'}), 0xaf63dc4c8601ec8cull);

  // Unchanged folders within the interval: the same answer without a scan. A folder that was
  // missing and now holds an entry is noticed at once.
  EXPECT_EQ(await(apps.apps()), list);
  EXPECT_EQ(apps.scanCount(), 1u);
  write(second / "applications/org.example.New.desktop", entry("New", "tovu-test-red"));
  const std::vector<InstalledApp> grown = await(apps.apps());
  EXPECT_EQ(apps.scanCount(), 2u);
  ASSERT_EQ(grown.size(), list.size() + 1);
  EXPECT_EQ(grown[3].bundleID, "org.example.New");
  EXPECT_EQ(grown[3].iconHash, list[1].iconHash);
  // An entry added to a folder that was there moves its time too; its icon, installed after the
  // theme was first read, is found.
  write(theme / "48x48/apps/tovu-test-late.png", solidPng(48, 48, {0, 0, 0, 255}));
  write(home / "applications/org.example.Later.desktop", entry("Later", "tovu-test-late"));
  const std::vector<InstalledApp> later = await(apps.apps());
  ASSERT_EQ(later.size(), grown.size() + 1);
  EXPECT_EQ(apps.scanCount(), 3u);
  EXPECT_NE(std::ranges::find(later, "org.example.Later", &InstalledApp::bundleID)->iconHash, 0u);
  // Once the interval has passed, the next request scans again though nothing moved.
  DesktopEntryApps eager(pool.get_executor(), std::chrono::seconds(0));
  EXPECT_EQ(await(eager.apps()), await(eager.apps()));
  EXPECT_EQ(eager.scanCount(), 2u);
}

}  // namespace
}  // namespace kelvaron::host
