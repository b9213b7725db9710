#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace kelvaron::host {

// A virtual X server (Xvfb) with one screen of a given size, 24-bit, with RANDR, MIT-SHM, DAMAGE
// and XTEST, on a display number it picks itself: for a computer without a monitor, and for tests.
// It runs for the life of the object.
class XvfbServer {
 public:
  // Returns once the server accepts connections. Throws std::runtime_error with a text for a
  // person when it cannot start. Its output goes to `logFile`.
  XvfbServer(int width, int height, const std::filesystem::path& logFile = "/dev/null");
  // Asks it to stop (SIGTERM), kills it after five seconds, and reaps it.
  ~XvfbServer();
  XvfbServer(const XvfbServer&) = delete;
  XvfbServer& operator=(const XvfbServer&) = delete;

  // The display name to connect to, e.g. ":7".
  const std::string& name() const { return name_; }

 private:
  void stop();

  pid_t pid_ = -1;
  std::string name_;
};

}  // namespace kelvaron::host
