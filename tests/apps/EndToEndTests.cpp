// tovu-host and tovu-client as separate processes, over real QUIC on the loopback interface, with
// the host serving a virtual display of its own.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "tests/support/ChildProcess.hpp"
#include "tests/support/InputRecorder.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::string readFile(const fs::path& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Waits until `file` holds a match of `pattern`; its first group, or nothing after `timeout`.
std::optional<std::string> waitForLine(const fs::path& file, const std::regex& pattern, int nth = 1,
                                       std::chrono::seconds timeout = 60s) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    const std::string text = readFile(file);
    int seen = 0;
    for (std::sregex_iterator it(text.begin(), text.end(), pattern), end; it != end; ++it) {
      if (++seen == nth) return (*it)[1].str();
    }
    std::this_thread::sleep_for(100ms);
  }
  return std::nullopt;
}

// A device: a home of its own for the client's identity and paired hosts.
struct Device {
  TempDirectory home;
  std::string name;

  std::vector<std::string> command(std::vector<std::string> arguments) const {
    std::vector<std::string> all = {"env", "XDG_DATA_HOME=" + home.path().string(), TOVU_CLIENT};
    all.insert(all.end(), arguments.begin(), arguments.end());
    all.insert(all.end(), {"--name", name});
    return all;
  }
  CommandResult run(std::vector<std::string> arguments) const {
    return runCommand(command(std::move(arguments)));
  }
  std::unique_ptr<ChildProcess> start(std::vector<std::string> arguments,
                                      const fs::path& log) const {
    return std::make_unique<ChildProcess>(command(std::move(arguments)), log);
  }
};

class Host {
 public:
  Host() {
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"env", "XDG_DATA_HOME=" + home_.path().string(),
                                 "XDG_CONFIG_HOME=" + home_.path().string(), TOVU_HOST,
                                 "--virtual-display", "800x600", "--pair", "--no-advertise"},
        log());
    display_ = waitForLine(log(), std::regex("virtual display (:[0-9]+)")).value_or("");
    port_ = waitForLine(log(), std::regex("listening on UDP port ([0-9]+)")).value_or("");
  }

  bool up() const { return !display_.empty() && !port_.empty(); }
  std::string why() const { return "the host did not come up:\n" + readFile(log()); }
  const std::string& display() const { return display_; }
  std::string address() const { return "127.0.0.1:" + port_; }
  // The n-th pairing link the host printed.
  std::string link(int nth = 1) const {
    return waitForLine(log(), std::regex("(tovu://pair\\S+)"), nth).value_or("");
  }
  fs::path log() const { return home_.path() / "host.log"; }

 private:
  TempDirectory home_;
  std::unique_ptr<ChildProcess> process_;
  std::string display_, port_;
};

#define HOST_OR_SKIP(host) \
  if (!(host).up()) GTEST_SKIP() << (host).why()

TEST(EndToEnd, PairsByTokenStreamsTypesAndSignsInBySignatureAlone) {
  Host host;
  HOST_OR_SKIP(host);
  const Device ann{{}, "Ann's iPad"};

  // A client pinned to another certificate is refused before it says a word.
  std::string forged = host.link();
  forged = std::regex_replace(forged, std::regex("fp=[^&]+"),
                              "fp=AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
  EXPECT_FALSE(ann.run({"pair", forged, "--address", host.address()}).succeeded());

  const auto paired = ann.run({"pair", host.link(), "--address", host.address()});
  ASSERT_TRUE(paired.succeeded()) << paired.output;

  // The second time by signature alone, with the picture decoded and a text typed into a window.
  InputRecorder window(host.display());
  const fs::path frame = ann.home.path() / "frame.png";
  const auto streamed = ann.run({"connect", "vm", "--address", host.address(), "--seconds", "3",
                                 "--save-frame", frame.string(), "--type", "hello, tovu"});
  ASSERT_TRUE(streamed.succeeded()) << streamed.output;
  EXPECT_NE(streamed.output.find("profile HEVC"), std::string::npos) << streamed.output;
  EXPECT_TRUE(fs::exists(frame) && fs::file_size(frame) > 0);
  EXPECT_EQ(InputRecorder::typed(window.take()), "hello, tovu");
}

TEST(EndToEnd, ASecondDeviceTakesOverAndAKilledClientLeavesTheHostReady) {
  Host host;
  HOST_OR_SKIP(host);
  const Device ann{{}, "Ann's iPad"}, bob{{}, "Bob's iPhone"};
  ASSERT_TRUE(ann.run({"pair", host.link(1), "--address", host.address()}).succeeded());
  ASSERT_TRUE(bob.run({"pair", host.link(2), "--address", host.address()}).succeeded());

  const fs::path annLog = ann.home.path() / "connect.log";
  auto watching = ann.start({"connect", "vm", "--address", host.address(), "--seconds", "20"},
                            annLog);
  ASSERT_TRUE(waitForLine(annLog, std::regex("(Connected to)"), 1, 30s)) << readFile(annLog);
  const auto takeover = bob.run({"connect", "vm", "--address", host.address(), "--seconds", "2"});
  EXPECT_TRUE(takeover.succeeded()) << takeover.output;
  EXPECT_TRUE(waitForLine(annLog, std::regex("Replaced by (Bob's iPhone)"), 1, 10s))
      << readFile(annLog);

  // A client killed mid-stream: the host frees its session and serves the next one.
  const fs::path bobLog = bob.home.path() / "connect.log";
  auto killed = bob.start({"connect", "vm", "--address", host.address(), "--seconds", "30"},
                          bobLog);
  ASSERT_TRUE(waitForLine(bobLog, std::regex("(Connected to)"), 1, 30s)) << readFile(bobLog);
  ::kill(killed->pid(), SIGKILL);
  const auto next = ann.run({"connect", "vm", "--address", host.address(), "--seconds", "2"});
  EXPECT_TRUE(next.succeeded()) << next.output;
}

}  // namespace
}  // namespace kelvaron::test
