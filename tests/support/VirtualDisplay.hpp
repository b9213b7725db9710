#pragma once

// A real X server for tests: Xvfb on a display number it picks itself, with one screen of a given
// size (24-bit, so pixels are 32-bit BGRX), MIT-SHM, DAMAGE and RANDR. Tests that need it skip
// with the reason when it cannot start.

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/ChildProcess.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron::test {

class VirtualDisplay {
 public:
  explicit VirtualDisplay(int width = 1280, int height = 720) {
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) {
      reason_ = "cannot make a pipe for Xvfb";
      return;
    }
    const std::string size = std::to_string(width) + "x" + std::to_string(height) + "x24";
    // Xvfb writes its display number to fd 3 once it accepts connections.
    const int writeEnd = ready[1];
    server_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"Xvfb", "-displayfd", "3", "-screen", "0", size, "-nolisten",
                                 "tcp", "-noreset", "+extension", "RANDR"},
        logs_.path() / "xvfb.log", [writeEnd] { return ::dup2(writeEnd, 3) == 3; });
    ::close(ready[1]);
    name_ = readDisplayNumber(ready[0]);
    ::close(ready[0]);
    if (name_.empty()) {
      reason_ = "Xvfb did not start (is the xvfb package installed?)";
      server_.reset();
    }
  }

  bool available() const { return !name_.empty(); }
  const std::string& skipReason() const { return reason_; }
  // The display name to connect to, e.g. ":7".
  const std::string& name() const { return name_; }
  // Ends the server, as when an X session goes away under its clients.
  void stopServer() { server_.reset(); }

 private:
  static std::string readDisplayNumber(int fd) {
    std::string number;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      char c;
      if (::read(fd, &c, 1) != 1) return {};
      if (c == '\n') return number.empty() ? std::string() : ":" + number;
      number += c;
    }
    return {};
  }

  TempDirectory logs_;
  std::unique_ptr<ChildProcess> server_;
  std::string name_;
  std::string reason_;
};

#define SKIP_WITHOUT_DISPLAY(display) \
  if (!(display).available()) GTEST_SKIP() << (display).skipReason()

}  // namespace kelvaron::test
