#include "host/x11/XvfbServer.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

namespace kelvaron::host {

namespace {

// The display number Xvfb writes to its -displayfd once it accepts connections; empty if it does
// not within ten seconds.
std::string readDisplayNumber(int fd) {
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

}  // namespace

XvfbServer::XvfbServer(int width, int height, const std::filesystem::path& logFile) {
  int ready[2];
  if (::pipe2(ready, O_CLOEXEC) != 0) throw std::runtime_error("Cannot start Xvfb: no pipe.");
  const int log = ::open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const std::string size = std::to_string(width) + "x" + std::to_string(height) + "x24";
  std::vector<std::string> arguments = {"Xvfb",     "-displayfd", "3",         "-screen",
                                        "0",        size,         "-nolisten", "tcp",
                                        "-noreset", "+extension", "RANDR"};
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    // Only system calls from here: the parent may have threads.
    if (log >= 0) {
      ::dup2(log, STDOUT_FILENO);
      ::dup2(log, STDERR_FILENO);
    }
    if (::dup2(ready[1], 3) == 3) ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  if (log >= 0) ::close(log);
  ::close(ready[1]);
  name_ = pid_ > 0 ? readDisplayNumber(ready[0]) : std::string();
  ::close(ready[0]);
  if (name_.empty()) {
    stop();
    throw std::runtime_error("Xvfb did not start (is the xvfb package installed?)");
  }
}

XvfbServer::~XvfbServer() { stop(); }

void XvfbServer::stop() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  int status = 0;
  for (int i = 0; i < 50; ++i) {
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
}

}  // namespace kelvaron::host
