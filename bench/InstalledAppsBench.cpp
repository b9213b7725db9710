// What the installed applications cost: ENTRIES desktop entries (300 by default), each with an
// SVG icon of its own in a hicolor theme, in a private data folder made here.
//  - The first answer: the folders listed, every entry read and every icon rendered at 128 px.
//  - A cached answer: no folder changed and the interval not over; p50 and p95 of 200.
//  - The answer after one entry was added (the folder's time moved): a full rescan, whose icons
//    come from the cache.
//
//   installed_apps_bench [ENTRIES]

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/thread_pool.hpp>
#include <asio/use_future.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "host/desktop/DesktopEntryApps.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron::host {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double milliseconds(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

void write(const fs::path& file, const std::string& text) {
  fs::create_directories(file.parent_path());
  std::ofstream(file) << text;
}

void writeEntry(const fs::path& data, int i) {
  const std::string id = "org.example.App" + std::to_string(i);
  write(data / "applications" / (id + ".desktop"),
        "[Desktop Entry]\nType=Application\nName=Application " + std::to_string(i) +
            "\nExec=true\nIcon=" + id + "\n");
  char colour[8];
  std::snprintf(colour, sizeof colour, "#%06x", (i * 2654435761u) & 0xffffff);
  write(data / "icons/hicolor/scalable/apps" / (id + ".svg"),
        "<svg xmlns='http://www.w3.org/2000/svg' width='64' height='64'><circle cx='32' cy='32' "
        "r='28' fill='" +
            std::string(colour) + "'/></svg>");
}

// Time of one answer, and how many applications it listed.
std::pair<double, std::size_t> timeAnswer(asio::thread_pool& pool, DesktopEntryApps& apps) {
  const auto started = Clock::now();
  auto answer = asio::co_spawn(pool, apps.apps(), asio::use_future);
  const std::size_t listed = answer.get().size();
  return {milliseconds(Clock::now() - started), listed};
}

int measure(int entries) {
  test::TempDirectory root;
  const fs::path data = root.path() / "data";
  write(data / "icons/hicolor/index.theme",
        "[Icon Theme]\nName=Hicolor\nDirectories=scalable/apps\n\n"
        "[scalable/apps]\nSize=64\nMinSize=16\nMaxSize=512\nType=Scalable\n");
  for (int i = 0; i < entries; ++i) writeEntry(data, i);
  // gdk-pixbuf finds the MIME database through the environment's data folders.
  setenv("XDG_DATA_DIRS", (data.string() + ":/usr/share").c_str(), 1);

  asio::thread_pool pool(1);
  DesktopEntryApps apps(pool.get_executor(), {data.string()}, std::chrono::seconds(60));
  const auto [first, listed] = timeAnswer(pool, apps);
  std::printf("first answer: %.1f ms for %zu applications\n", first, listed);

  std::vector<double> cached;
  for (int i = 0; i < 200; ++i) cached.push_back(timeAnswer(pool, apps).first);
  std::ranges::sort(cached);
  std::printf("cached answer: p50 %.3f ms, p95 %.3f ms\n", cached[100], cached[190]);

  writeEntry(data, entries);
  const auto [rescan, relisted] = timeAnswer(pool, apps);
  std::printf("after a new entry: %.1f ms for %zu applications (%zu scans)\n", rescan, relisted,
              apps.scanCount());
  return listed == std::size_t(entries) && relisted == listed + 1 ? 0 : 1;
}

}  // namespace
}  // namespace kelvaron::host

int main(int argc, char** argv) {
  return kelvaron::host::measure(argc > 1 ? std::stoi(argv[1]) : 300);
}
