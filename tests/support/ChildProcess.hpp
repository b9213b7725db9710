#pragma once

// Other programs for tests: commands run to their end with their output kept, and daemons that run
// for the life of an object and are always stopped and reaped.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace kelvaron::test {

namespace detail {

// argv for exec, pointing into `arguments`, which must outlive it.
inline std::vector<char*> execArguments(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  return argv;
}

// Exit status as a shell gives it: the code, or 128 plus the signal.
inline int exitStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return 128 + WTERMSIG(status);
}

// Forks a child that sends its stdout and stderr to `output`, runs `prepare` (system calls only:
// the parent may have threads), and execs argv; 127 if anything of that fails.
inline pid_t spawn(const std::vector<std::string>& arguments, int output,
                   const std::function<bool()>& prepare) {
  const auto argv = execArguments(arguments);
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  ::dup2(output, STDOUT_FILENO);
  ::dup2(output, STDERR_FILENO);
  ::close(output);
  if (!prepare || prepare()) ::execvp(argv[0], argv.data());
  ::_exit(127);
}

}  // namespace detail

struct CommandResult {
  int status = -1;  // 127: could not be run
  std::string output;
  bool succeeded() const { return status == 0; }
};

// Runs a command (found on PATH) to its end, with stdout and stderr together.
inline CommandResult runCommand(const std::vector<std::string>& arguments) {
  int pipe[2];
  if (::pipe2(pipe, O_CLOEXEC) != 0) return {};
  const pid_t pid = detail::spawn(arguments, pipe[1], {});
  ::close(pipe[1]);
  CommandResult result;
  char buffer[4096];
  ssize_t count;
  while ((count = ::read(pipe[0], buffer, sizeof buffer)) > 0) result.output.append(buffer, count);
  ::close(pipe[0]);
  int status = 0;
  if (pid > 0 && ::waitpid(pid, &status, 0) == pid) result.status = detail::exitStatus(status);
  return result;
}

// A program that runs until the object goes: then it is asked to stop (SIGTERM), killed if it has
// not stopped after five seconds, and reaped.
class ChildProcess {
 public:
  // `prepare` runs in the child before exec (system calls only); when it returns false the child
  // exits with 127. The program's output goes to `logFile`.
  ChildProcess(const std::vector<std::string>& arguments, const std::filesystem::path& logFile,
               const std::function<bool()>& prepare = {}) {
    const int log = ::open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (log < 0) return;
    pid_ = detail::spawn(arguments, log, prepare);
    ::close(log);
  }
  ~ChildProcess() { stop(); }
  pid_t pid() const { return pid_; }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // True until the program has exited.
  bool running() {
    if (pid_ <= 0) return false;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == 0) return true;
    pid_ = -1;
    return false;
  }

  void stop() {
    if (!running()) return;
    ::kill(pid_, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (running() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
};

// The port a server says it listens on ("… port N") in its `log`, once it has; 0 if it ends or
// says nothing within five seconds.
inline std::uint16_t announcedPort(ChildProcess& server, const std::filesystem::path& log) {
  for (int i = 0; i < 100 && server.running(); ++i) {
    std::ifstream in(log);
    std::uint16_t port = 0;
    for (std::string word; in >> word;) {
      if (word == "port") in >> port;
    }
    if (port != 0) return port;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return 0;
}

}  // namespace kelvaron::test
