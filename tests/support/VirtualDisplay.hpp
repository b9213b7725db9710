#pragma once

// A real X server for tests (the host's own XvfbServer), skipped with the reason when it cannot
// start.

#include <memory>
#include <string>

#include "host/x11/XvfbServer.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron::test {

class VirtualDisplay {
 public:
  explicit VirtualDisplay(int width = 1280, int height = 720) {
    try {
      server_ = std::make_unique<host::XvfbServer>(width, height, logs_.path() / "xvfb.log");
      name_ = server_->name();
    } catch (const std::exception& failure) {
      reason_ = failure.what();
    }
  }

  bool available() const { return !name_.empty(); }
  const std::string& skipReason() const { return reason_; }
  // The display name to connect to, e.g. ":7".
  const std::string& name() const { return name_; }
  // Ends the server, as when an X session goes away under its clients.
  void stopServer() { server_.reset(); }

 private:
  TempDirectory logs_;
  std::unique_ptr<host::XvfbServer> server_;
  std::string name_;
  std::string reason_;
};

// Waits up to 10 s for a window manager to take the display `name`: a window mapped before it has
// would not be focused.
inline bool windowManagerRuns(const std::string& name) {
  return runCommand({"env", "DISPLAY=" + name, "timeout", "10", "sh", "-c",
                     "until xprop -root _NET_SUPPORTING_WM_CHECK | grep -q window; do sleep 0.05; "
                     "done"})
      .succeeded();
}

#define SKIP_WITHOUT_DISPLAY(display) \
  if (!(display).available()) GTEST_SKIP() << (display).skipReason()

}  // namespace kelvaron::test
