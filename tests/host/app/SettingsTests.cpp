// The settings file: values that last, and a damaged file that is kept, not overwritten.

#include "host/app/Settings.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/TempDirectory.hpp"

namespace kelvaron::host {
namespace {

void writeText(const std::filesystem::path& file, const std::string& text) {
  std::ofstream(file) << text;
}

std::string readText(const std::filesystem::path& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), {}};
}

TEST(Settings, KeepsItsValuesAndItsHostID) {
  test::TempDirectory directory;
  const auto file = directory.path() / "tovu-host" / "settings.json";
  UUID id;
  {
    Settings settings(file);
    EXPECT_EQ(settings.flag("keepDisplayAwakeWhileConnected"), std::nullopt);
    settings.setFlag("keepDisplayAwakeWhileConnected", false);
    id = settings.hostID();
    EXPECT_EQ(settings.hostID(), id);
  }
  Settings again(file);
  EXPECT_EQ(again.flag("keepDisplayAwakeWhileConnected"), false);
  EXPECT_EQ(again.hostID(), id);

  // A host ID that is no UUID is made anew; values of the wrong type count as absent.
  writeText(file, R"({"hostID": "not a uuid", "keepDisplayAwakeWhileConnected": "yes"})");
  Settings odd(file);
  EXPECT_EQ(odd.flag("keepDisplayAwakeWhileConnected"), std::nullopt);
  EXPECT_NE(odd.hostID(), id);
}

TEST(Settings, ADamagedFileCountsAsNothingAndIsKeptAside) {
  test::TempDirectory directory;
  const auto file = directory.path() / "settings.json";
  for (const std::string& damaged :
       std::vector<std::string>{"{\"hostID\": ", "[1, 2]", std::string("\xff\xfe", 2)}) {
    writeText(file, damaged);
    Settings settings(file);
    EXPECT_EQ(settings.flag("keepDisplayAwakeWhileConnected"), std::nullopt);
    settings.setFlag("keepDisplayAwakeWhileConnected", true);
    EXPECT_EQ(readText(std::filesystem::path(file).concat(".bad")), damaged);
    EXPECT_EQ(Settings(file).flag("keepDisplayAwakeWhileConnected"), true);
    std::filesystem::remove(file);
  }
}

}  // namespace
}  // namespace kelvaron::host
