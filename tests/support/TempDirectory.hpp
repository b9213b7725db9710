#pragma once

#include <filesystem>
#include <random>
#include <string>

namespace kelvaron::test {

// A fresh folder under the system's temporary folder, removed with the object.
class TempDirectory {
 public:
  TempDirectory() {
    std::random_device random;
    path_ = std::filesystem::temp_directory_path() / ("tovu-test-" + std::to_string(random()));
    std::filesystem::create_directories(path_);
  }
  // The folder `path`, emptied of anything an earlier run left there.
  explicit TempDirectory(std::filesystem::path path) : path_(std::move(path)) {
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

}  // namespace kelvaron::test
