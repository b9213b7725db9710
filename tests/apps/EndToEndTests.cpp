// tovu-host and tovu-client as separate processes, over real QUIC on the loopback interface, with
// the host serving a virtual display of its own.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include <png.h>

#include "kit/transport/QUICConnection.hpp"
#include "kit/wire/FileTransfer.hpp"
#include "kit/wire/WireWriter.hpp"
#include "tests/support/AccessibilityBus.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/AudioSignals.hpp"
#include "tests/support/BusObject.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/CoordinatorProcess.hpp"
#include "tests/support/InputRecorder.hpp"
#include "tests/support/NatNetwork.hpp"
#include "tests/support/NetworkNamespace.hpp"
#include "tests/support/PulseAudioServer.hpp"
#include "tests/support/RelayProcess.hpp"
#include "tests/support/ScreenPainter.hpp"
#include "tests/support/TempDirectory.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::string readFile(const fs::path& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Waits until `file` holds `text` `nth` times; the word that follows the last, or nothing after
// `timeout`.
std::optional<std::string> waitFor(const fs::path& file, const std::string& text, int nth = 1,
                                   std::chrono::seconds timeout = 60s) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    const std::string content = readFile(file);
    std::size_t at = 0;
    for (int seen = 0; (at = content.find(text, at)) != std::string::npos;) {
      at += text.size();
      if (++seen == nth) return content.substr(at, content.find_first_of(" \n", at) - at);
    }
    std::this_thread::sleep_for(100ms);
  }
  return std::nullopt;
}

// The colour at (x, y) of a PNG file, or nothing if it cannot be read.
std::optional<std::uint32_t> colourAt(const fs::path& file, int x, int y) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, file.c_str())) return std::nullopt;
  image.format = PNG_FORMAT_RGB;
  std::vector<std::uint8_t> pixels(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) return std::nullopt;
  const std::uint8_t* p = &pixels[(std::size_t(y) * image.width + std::size_t(x)) * 3];
  return std::uint32_t(p[0]) << 16 | std::uint32_t(p[1]) << 8 | p[2];
}

bool near(std::uint32_t a, std::uint32_t b);

// How many pixels of a PNG file are near `colour`, and how many it has; nothing if it cannot be
// read.
std::optional<std::pair<std::size_t, std::size_t>> countNear(const fs::path& file,
                                                             std::uint32_t colour) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, file.c_str())) return std::nullopt;
  image.format = PNG_FORMAT_RGB;
  std::vector<std::uint8_t> pixels(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) return std::nullopt;
  std::size_t found = 0;
  for (std::size_t i = 0; i + 2 < pixels.size(); i += 3) {
    found += near(
        std::uint32_t(pixels[i]) << 16 | std::uint32_t(pixels[i + 1]) << 8 | pixels[i + 2], colour);
  }
  return std::pair(found, pixels.size() / 3);
}

bool near(std::uint32_t a, std::uint32_t b) {
  return std::ranges::all_of(std::array{16, 8, 0}, [&](int shift) {
    return std::abs(int((a >> shift) & 0xff) - int((b >> shift) & 0xff)) <= 24;
  });
}

// A person's tools on the X display `display`.
CommandResult onDisplay(const std::string& display, const std::string& command) {
  return runCommand({"sh", "-c", "DISPLAY=" + display + " " + command});
}
// Copies `file` to the display's clipboard; xclip serves it in the background.
void copy(const std::string& display, const fs::path& file) {
  onDisplay(display, "xclip -selection clipboard -i '" + file.string() + "' >/dev/null 2>&1");
}
std::string paste(const std::string& display) {
  return onDisplay(display, "timeout 5 xclip -o -selection clipboard").output;
}
fs::path writeText(const fs::path& file, const std::string& text) {
  std::ofstream(file, std::ios::binary) << text;
  return file;
}

// A device: a home of its own for the client's identity and paired hosts, and a desktop of its own
// where one is given.
struct Device {
  TempDirectory home;
  std::string name;
  std::string display;
  std::string netns;  // the network namespace it is in; the test's own when empty

  std::vector<std::string> command(std::vector<std::string> arguments) const {
    std::vector<std::string> all = {"env", "XDG_DATA_HOME=" + home.path().string(),
                                    "DISPLAY=" + display, TOVU_CLIENT};
    if (!netns.empty()) all.insert(all.begin(), {"ip", "netns", "exec", netns});
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
  // The ID of the first host this device paired with.
  std::string host() const {
    const std::string listed = run({"hosts"}).output;
    return listed.substr(0, listed.find(' '));
  }
  // Connects to that host at `address` for `seconds`, with `options` of the connect command.
  std::vector<std::string> connect(const std::string& address, const std::string& seconds,
                                   const std::vector<std::string>& options = {}) const {
    std::vector<std::string> command = {"connect", host(),      "--address",
                                        address,   "--seconds", seconds};
    command.insert(command.end(), options.begin(), options.end());
    return command;
  }
};

class Host {
 public:
  // `confirm`: pairing by code comparison, answered through `answer`. `arguments` follow the
  // host's own; `environment` holds the host's variables of its own ("NAME=value").
  // `netns`: the network namespace the host runs in, the test's own when empty; `before`: host
  // commands run there first, with the same home ("remote enable …").
  explicit Host(bool confirm = false, std::vector<std::string> arguments = {"--no-advertise"},
                std::vector<std::string> environment = {}, std::string netns = {},
                const std::vector<std::vector<std::string>>& before = {}) {
    std::vector<std::string> command = {"env", "XDG_DATA_HOME=" + home_.path().string(),
                                        "XDG_CONFIG_HOME=" + home_.path().string()};
    if (!netns.empty()) command.insert(command.begin(), {"ip", "netns", "exec", netns});
    command.insert(command.end(), environment.begin(), environment.end());
    command.push_back(TOVU_HOST);
    for (const auto& words : before) {
      std::vector<std::string> step = command;
      step.insert(step.end(), words.begin(), words.end());
      setup_ += runCommand(step).output;
    }
    command.insert(command.end(), {"--virtual-display", "800x600", "--pair"});
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::function<bool()> prepare;
    if (confirm) {
      command.push_back("--confirm");
      ::mkfifo(answers().c_str(), 0600);
      // Read and write, so that opening it waits for nobody.
      prepare = [fifo = answers().string()] {
        const int fd = ::open(fifo.c_str(), O_RDWR);
        return fd >= 0 && ::dup2(fd, STDIN_FILENO) == STDIN_FILENO;
      };
    }
    process_ = std::make_unique<ChildProcess>(command, log(), prepare);
    display_ = waitFor(log(), "virtual display ").value_or("");
    port_ = waitFor(log(), "listening on UDP port ").value_or("");
  }

  bool up() const { return !display_.empty() && !port_.empty(); }
  std::string why() const { return "the host did not come up:\n" + setup_ + readFile(log()); }
  const std::string& display() const { return display_; }
  const std::string& port() const { return port_; }
  std::string address() const { return "127.0.0.1:" + port_; }
  // The n-th pairing link the host printed.
  std::string link(int nth = 1) const {
    return waitFor(log(), "with this link:\n", nth).value_or("");
  }
  fs::path log() const { return home_.path() / "host.log"; }
  // Where files from the device land, a folder per transfer.
  fs::path inbox() const { return home_.path() / "tovu-host" / "Inbox"; }
  // The host's resident memory in KiB, from the kernel's status of its process.
  long residentKiB() const {
    std::ifstream status("/proc/" + std::to_string(process_->pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
    }
    return -1;
  }
  // Ends the host as a crash would: nothing of its own clean-up runs.
  void crash() const { ::kill(process_->pid(), SIGKILL); }
  // A line typed at the host's terminal.
  void answer(const std::string& line) const { std::ofstream(answers()) << line << std::endl; }

 private:
  fs::path answers() const { return home_.path() / "answers"; }

  TempDirectory home_;
  std::unique_ptr<ChildProcess> process_;
  std::string display_, port_;
  std::string setup_;  // what the commands before it said
};

#define HOST_OR_SKIP(host) \
  if (!(host).up()) GTEST_SKIP() << (host).why()

// Programs on the host's screen under openbox, as on a person's desktop; `problem` says which one
// did not show. Each program is named by its command, which is also its window class.
struct Desktop {
  Desktop(const std::string& display, const fs::path& logs,
          const std::vector<std::vector<std::string>>& programs) {
    const auto start = [&](const std::vector<std::string>& command) {
      std::vector<std::string> line = {"env", "DISPLAY=" + display};
      line.insert(line.end(), command.begin(), command.end());
      running.push_back(std::make_unique<ChildProcess>(line, logs / (command[0] + ".log")));
    };
    start({"openbox", "--sm-disable"});
    if (!windowManagerRuns(display)) {
      problem = "openbox did not start: " + readFile(logs / "openbox.log");
      return;
    }
    for (const auto& program : programs) start(program);
    for (const auto& program : programs) {
      if (!onDisplay(display, "timeout 10 xdotool search --sync --class " + program[0])
               .succeeded()) {
        problem = "no " + program[0] + " under openbox: " + readFile(logs / "openbox.log");
        return;
      }
    }
  }
  std::vector<std::unique_ptr<ChildProcess>> running;
  std::string problem;
};

TEST(EndToEnd, PairsByTokenStreamsTypesAndSignsInBySignatureAlone) {
  Host host;
  HOST_OR_SKIP(host);
  const Device ann{{}, "Ann's iPad"};

  // A client pinned to another certificate is refused before it says a word, and says so in
  // words that fit this host.
  std::string forged = host.link();
  const std::size_t fp = forged.find("fp=") + 3;
  forged.replace(fp, forged.find('&', fp) - fp, "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
  const auto refused = ann.run({"pair", forged, "--address", host.address()});
  EXPECT_FALSE(refused.succeeded());
  EXPECT_NE(refused.output.find("is not the one of this link"), std::string::npos)
      << refused.output;

  const auto paired = ann.run({"pair", host.link(), "--address", host.address()});
  ASSERT_TRUE(paired.succeeded()) << paired.output;

  // The second time by signature alone, with the picture decoded and a text typed into a window.
  // Painted first: the window that records the keys keeps what lay under it (no background).
  ScreenPainter painter(host.display());
  painter.fill(0xd02020, 0, 0, 400, 300);
  painter.fill(0x20b040, 400, 300, 400, 300);
  InputRecorder window(host.display());
  const fs::path frame = ann.home.path() / "frame.png";
  const auto streamed = ann.run(
      ann.connect(host.address(), "3", {"--save-frame", frame.string(), "--type", "hello, tovu"}));
  ASSERT_TRUE(streamed.succeeded()) << streamed.output;
  EXPECT_NE(streamed.output.find("profile HEVC"), std::string::npos) << streamed.output;
  const auto topLeft = colourAt(frame, 200, 150), bottomRight = colourAt(frame, 600, 450);
  ASSERT_TRUE(topLeft && bottomRight) << "no picture saved";
  EXPECT_TRUE(near(*topLeft, 0xd02020)) << std::hex << *topLeft;
  EXPECT_TRUE(near(*bottomRight, 0x20b040)) << std::hex << *bottomRight;
  EXPECT_EQ(InputRecorder::typed(window.take()), "hello, tovu");
}

// A host on a network of its own, without avahi-daemon and with the port it asks for taken: it
// comes up on another port and says why, says once that discovery is off and claims no
// advertising, and its pairing link carries an address that a client dials without being told.
TEST(EndToEnd, AHostWithoutDiscoveryOrItsPortIsPairedThroughTheAddressInItsLink) {
  NetworkNamespace network;
  if (!network.problem().empty()) GTEST_SKIP() << network.problem();
  NetworkNamespace::addEthernet("tovu0", "tovu1", "10.77.0.1/24");
  asio::io_context io;
  const asio::ip::udp::socket taken(io, {asio::ip::udp::v4(), 0});
  const std::string asked = std::to_string(taken.local_endpoint().port());
  const TempDirectory nowhere;
  Host host(false, {"--port", asked},
            {"DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + (nowhere.path() / "bus").string()});
  if (host.display().empty()) GTEST_SKIP() << host.why();
  ASSERT_TRUE(host.up()) << host.why();

  const std::string log = readFile(host.log());
  EXPECT_NE(host.port(), asked);
  EXPECT_NE(
      log.find("listening on UDP port " + host.port() + " (port " + asked + " could not be used: "),
      std::string::npos)
      << log;
  const std::string off =
      "Discovery on the local network is off: avahi-daemon is not running (start it with: "
      "systemctl start avahi-daemon)";
  const std::size_t first = log.find(off);
  EXPECT_NE(first, std::string::npos) << log;
  EXPECT_EQ(log.find(off, first + 1), std::string::npos) << log;
  EXPECT_EQ(log.find("advertising"), std::string::npos) << log;

  const std::string link = host.link();
  EXPECT_NE(link.find("&a=10.77.0.1%3A" + host.port()), std::string::npos) << link;
  const Device ann{{}, "Ann's iPad"};
  const auto paired = ann.run({"pair", link});
  EXPECT_TRUE(paired.succeeded()) << paired.output;
}

TEST(EndToEnd, AStrangersHugeFramesBeforeHelloCostTheHostNothing) {
  Host host;
  HOST_OR_SKIP(host);
  const long before = host.residentKiB();
  // Three frames of the largest length the wire allows, on the three streams a client writes
  // messages on, before it has proved anything.
  Data huge(4 + 0x4000000, 0x5a);
  huge[0] = 0x04, huge[1] = huge[2] = huge[3] = 0;
  huge[4] = msg::ping::code;
  auto opening = [&](std::uint8_t preamble) { return concat({Data{preamble}, huge}); };
  runAsync(
      [&](asio::io_context& io) -> asio::awaitable<void> {
        const auto port = std::uint16_t(std::stoi(host.address().substr(10)));
        const auto stranger = QUICConnection::dial(
            io.get_executor(), {asio::ip::make_address("127.0.0.1"), port}, ServerTrust::unpinned(),
            {}, {opening(1), opening(2), {3}, {4}, opening(5)});
        ConnectionState last;
        while (auto state = co_await nextWithin(stranger->states(), 30s)) last = *state;
        EXPECT_EQ(last.kind, ConnectionState::Kind::failed);
        EXPECT_TRUE(last.failure.starts_with("closed by peer: protocol error: ")) << last.failure;
      },
      60s);
  std::this_thread::sleep_for(500ms);
  EXPECT_LT(host.residentKiB() - before, 8 * 1024) << "before: " << before << " KiB";
}

TEST(EndToEnd, ASecondDeviceTakesOverAndAKilledClientLeavesTheHostReady) {
  Host host;
  HOST_OR_SKIP(host);
  const Device ann{{}, "Ann's iPad"}, bob{{}, "Bob's iPhone"};
  ASSERT_TRUE(ann.run({"pair", host.link(1), "--address", host.address()}).succeeded());
  ASSERT_TRUE(bob.run({"pair", host.link(2), "--address", host.address()}).succeeded());

  const fs::path annLog = ann.home.path() / "connect.log";
  auto watching = ann.start(ann.connect(host.address(), "20"), annLog);
  ASSERT_TRUE(waitFor(annLog, "Connected to", 1, 30s)) << readFile(annLog);
  const auto takeover = bob.run(bob.connect(host.address(), "2"));
  EXPECT_TRUE(takeover.succeeded()) << takeover.output;
  EXPECT_TRUE(waitFor(annLog, "Replaced by Bob's iPhone", 1, 10s)) << readFile(annLog);

  // A client killed mid-stream: the host frees its session and serves the next one.
  const fs::path bobLog = bob.home.path() / "connect.log";
  auto killed = bob.start(bob.connect(host.address(), "30"), bobLog);
  ASSERT_TRUE(waitFor(bobLog, "Connected to", 1, 30s)) << readFile(bobLog);
  ::kill(killed->pid(), SIGKILL);
  const auto next = ann.run(ann.connect(host.address(), "2"));
  EXPECT_TRUE(next.succeeded()) << next.output;
}

TEST(EndToEnd, TheHostsSoundIsHeardOnTheDeviceAndAHostKilledInPhoneOnlyModeGivesItBack) {
  const PulseAudioServer sound;
  SKIP_WITHOUT_PULSEAUDIO(sound);
  const TempDirectory state;
  const std::vector<std::string> environment = {"PULSE_SERVER=" + sound.address(),
                                                "XDG_STATE_HOME=" + state.path().string()};
  Host host(false, {"--no-advertise"}, environment);
  HOST_OR_SKIP(host);
  const Device ann{{}, "Ann's iPad"};
  ASSERT_TRUE(ann.run({"pair", host.link(), "--address", host.address()}).succeeded());
  // A tone at -12 dBFS, playing all along.
  const auto player = sound.play(writeToneWAV(state.path(), 60, 1000, 0.25));

  const fs::path heard = ann.home.path() / "heard.wav";
  const auto listened = ann.run(ann.connect(host.address(), "4", {"--audio-out", heard.string()}));
  ASSERT_TRUE(listened.succeeded()) << listened.output;
  EXPECT_NE(listened.output.find("Audio playing"), std::string::npos) << listened.output;
  EXPECT_NE(listened.output.find(" 0 decode errors"), std::string::npos) << listened.output;
  const auto samples = readFirstChannelOfWAV(heard);
  ASSERT_GT(samples.size(), 48000u * 2) << listened.output;
  const std::span<const float> steady = std::span(samples).subspan(24000, 48000);
  EXPECT_NEAR(toneFrequency(steady), 1000, 5);
  EXPECT_NEAR(toneLevel(steady), -12.04, 1);

  // Phone-only: the computer's own output goes quiet while the device listens, and a host that
  // dies then leaves it so until the next one starts.
  const fs::path log = ann.home.path() / "phone-only.log";
  auto listening = ann.start(
      ann.connect(host.address(), "30", {"--phone-only", "--audio-out", "/dev/null"}), log);
  ASSERT_TRUE(waitFor(log, "Audio playing", 1, 30s)) << readFile(log) << readFile(host.log());
  EXPECT_EQ(sound.defaultSink(), "tovu_host_audio");
  host.crash();
  listening.reset();
  EXPECT_EQ(sound.defaultSink(), "tovu_host_audio");
  const Host next(false, {"--no-advertise"}, environment);
  ASSERT_TRUE(next.up()) << next.why();
  EXPECT_EQ(sound.defaultSink(), "test_out");
  EXPECT_EQ(sound.pactl({"list", "short", "sinks"}).output.find("tovu_host_audio"),
            std::string::npos);
}

TEST(EndToEnd, PairsByComparingCodesThatThePersonAtTheHostConfirms) {
  Host host(true);
  HOST_OR_SKIP(host);
  const Device ann{{}, "Ann's iPad"};
  const fs::path log = ann.home.path() / "pair.log";
  auto pairing = ann.start({"pair", "--compare", "any", "--address", host.address()}, log);
  const auto hostCode = waitFor(host.log(), "showing the code ");
  const auto clientCode = waitFor(log, "Code: ");
  ASSERT_TRUE(hostCode && clientCode) << readFile(host.log()) << readFile(log);
  EXPECT_EQ(hostCode->substr(0, 6), *clientCode);
  host.answer("y");
  EXPECT_TRUE(waitFor(log, "Paired with ", 1, 30s)) << readFile(log);
  const auto streamed = ann.run(ann.connect(host.address(), "1"));
  EXPECT_TRUE(streamed.succeeded()) << streamed.output;
}

}  // namespace
}  // namespace kelvaron::test

namespace kelvaron::test {
namespace {

// With openbox and an xterm on the host's screen, and a second monitor that becomes the main one.
TEST(EndToEnd, TheCursorMovesByOthersAndPicturesOfTheOtherDisplayReachTheDevice) {
  Host host;
  HOST_OR_SKIP(host);
  const Device ann{{}, "Ann's iPad"};
  ASSERT_TRUE(ann.run({"pair", host.link(), "--address", host.address()}).succeeded());
  const fs::path work = ann.home.path();
  const Desktop desktop(host.display(), work, {{"xterm", "-geometry", "40x10+0+0"}});
  if (!desktop.problem.empty()) GTEST_SKIP() << desktop.problem;
  ScreenPainter painter(host.display());
  ASSERT_TRUE(painter.setMonitor("TOVU-RIGHT", 400, 0, 400, 600, true));

  const fs::path cursor = work / "cursor", thumbnails = work / "thumbnails";
  const fs::path log = work / "connect.log";
  auto watching = ann.start(
      ann.connect(host.address(), "6",
                  {"--save-cursor", cursor.string(), "--save-thumbnails", thumbnails.string()}),
      log);
  auto streamed = waitFor(log, "Stream: display ", 1, 30s);
  ASSERT_TRUE(streamed) << readFile(log);
  streamed->pop_back();  // the comma after the ID
  // Over the root's right half, then over the terminal's text.
  onDisplay(host.display(), "xdotool mousemove 700 450");
  ASSERT_TRUE(waitFor(cursor / "cursor.log", "state 0 " + *streamed + " 0.75 0.75", 1, 10s))
      << readFile(cursor / "cursor.log");
  onDisplay(host.display(), "xdotool mousemove 60 40");
  ASSERT_TRUE(waitFor(log, " cursor positions and ", 1, 20s)) << readFile(log);

  std::set<std::string> shapes;
  for (const auto& entry : fs::directory_iterator(cursor)) {
    if (entry.path().extension() != ".png") continue;
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    EXPECT_TRUE(png_image_begin_read_from_file(&image, entry.path().c_str())) << entry.path();
    png_image_free(&image);
    shapes.insert(entry.path().stem());
  }
  EXPECT_GE(shapes.size(), 2u) << "the root's arrow and the terminal's text cursor";
  int pictures = 0;
  for (const auto& entry : fs::directory_iterator(thumbnails)) {
    EXPECT_FALSE(entry.path().filename().string().starts_with("display-" + *streamed + "-"));
    ++pictures;
  }
  EXPECT_GE(pictures, 3) << "about one a second of the other display, for 6 s";
}

// Focus mode from the device: the terminal's window alone, found by its application's name, with
// what the device types going into it, and not a pixel of another application's window raised
// over it. The device lists the installed applications on the way.
TEST(EndToEnd, FocusStreamsOneWindowWhichTheDeviceTypesInto) {
  Host host;
  HOST_OR_SKIP(host);
  const Device ann{{}, "Ann's iPad"};
  ASSERT_TRUE(ann.run({"pair", host.link(), "--address", host.address()}).succeeded());
  const fs::path work = ann.home.path();
  const Desktop desktop(
      host.display(), work,
      {{"xterm", "-xrm", "*vt100.background: #202080", "-geometry", "50x12+20+20", "-e", "sh"},
       {"xlogo", "-bg", "#00ff00", "-geometry", "200x200+200+60"}});
  if (!desktop.problem.empty()) GTEST_SKIP() << desktop.problem;

  const fs::path log = work / "connect.log", picture = work / "focus.png";
  const fs::path typed = work / "typed";
  auto watching =
      ann.start(ann.connect(host.address(), "8",
                            {"--apps", "--installed", "--focus", "XTerm", "--type",
                             "touch " + typed.string() + "\n", "--save-frame", picture.string()}),
                log);
  ASSERT_TRUE(waitFor(log, "Stream mode: window ", 1, 30s)) << readFile(log);
  EXPECT_NE(readFile(log).find("App "), std::string::npos) << readFile(log);
  // The terminal's desktop entry is among the installed applications; icons match their hashes.
  EXPECT_NE(readFile(log).find("Installed debian-xterm \"XTerm\""), std::string::npos)
      << readFile(log);
  EXPECT_EQ(readFile(log).find("not the one listed"), std::string::npos) << readFile(log);
  // Over the streamed window, whose application stays in front.
  onDisplay(host.display(), "xdotool search --class xlogo windowraise");
  ASSERT_TRUE(waitFor(log, "Saved the last picture", 1, 30s)) << readFile(log);
  EXPECT_TRUE(fs::exists(typed)) << readFile(log);
  const auto background = countNear(picture, 0x202080);
  const auto green = countNear(picture, 0x00ff00);
  ASSERT_TRUE(background && green);
  EXPECT_GT(background->first, background->second / 2) << "the terminal's window fills the picture";
  EXPECT_EQ(green->first, 0u) << "pixels of the window over it";
}

// Launching from the device: a terminal of a desktop entry of the test's own opens and is brought
// to the front; launched again, it is shown at once, alone; an entry that never shows a window is
// given up after the host's time limit; and the terminal quits when asked.
TEST(EndToEnd, TheDeviceLaunchesAnApplicationAndQuitsIt) {
  TempDirectory data;
  const fs::path entries = data.path() / "applications";
  fs::create_directories(entries);
  std::ofstream(entries / "tovu-term.desktop")
      << "[Desktop Entry]\nType=Application\nName=Tovu Term\n"
         "Exec=xterm -class TovuTerm -geometry 60x15+40+40\nStartupWMClass=TovuTerm\n";
  std::ofstream(entries / "tovu-sleeper.desktop")
      << "[Desktop Entry]\nType=Application\nName=Sleeper\nExec=sleep 30\n";
  Host host(false, {"--no-advertise"}, {"XDG_DATA_DIRS=" + data.path().string() + ":/usr/share"});
  HOST_OR_SKIP(host);
  const Device ann{{}, "Ann's iPad"};
  ASSERT_TRUE(ann.run({"pair", host.link(), "--address", host.address()}).succeeded());
  const Desktop desktop(host.display(), ann.home.path(), {});
  if (!desktop.problem.empty()) GTEST_SKIP() << desktop.problem;
  const auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin() + 2, {"--address", host.address(), "--seconds", "40"});
    return ann.run(arguments);
  };

  const CommandResult opened = run({"launch", ann.host(), "tovu-term"});
  EXPECT_TRUE(opened.succeeded()) << opened.output;
  const auto brought = opened.output.find("Launch tovu-term: brought to the front after ");
  EXPECT_TRUE(brought != std::string::npos &&
              opened.output.find("Launch tovu-term: launching after ") < brought)
      << opened.output;
  const CommandResult again = run({"launch", ann.host(), "tovu-term", "--alone"});
  EXPECT_NE(again.output.find("Connected to"), std::string::npos) << again.output;
  EXPECT_EQ(again.output.find("launching"), std::string::npos) << again.output;
  EXPECT_NE(again.output.find("Launch tovu-term: shown alone after "), std::string::npos)
      << again.output;

  const CommandResult sleeper =
      run({"launch", ann.host(), "tovu-sleeper", "--on-no-window", "cancel"});
  EXPECT_NE(sleeper.output.find("Launch tovu-sleeper: no window yet after 15"), std::string::npos)
      << sleeper.output;
  EXPECT_NE(sleeper.output.find("Launch tovu-sleeper: cancelled after "), std::string::npos)
      << sleeper.output;

  const std::string listed = run({"apps", ann.host()}).output;
  const auto line = listed.find(" Tovu Term (tovu-term)");
  ASSERT_NE(line, std::string::npos) << listed;
  const std::string pid =
      listed.substr(listed.rfind("App ", line) + 4, line - listed.rfind("App ", line) - 4);
  const CommandResult quit = run({"quit", ann.host(), pid});
  EXPECT_TRUE(quit.succeeded()) << quit.output;
  EXPECT_NE(quit.output.find("Process " + pid + " has no windows left"), std::string::npos)
      << quit.output;
  EXPECT_FALSE(onDisplay(host.display(), "xdotool search --class TovuTerm").succeeded());
}

// A host whose desktop, under openbox, has a private session bus and accessibility bus, and Ann's
// iPad paired with it.
class AccessibleDesktop : public testing::Test {
 protected:
  void SetUp() override {
    SKIP_WITHOUT_ACCESSIBILITY_BUS(bus);
    host = std::make_unique<Host>(false, std::vector<std::string>{"--no-advertise"},
                                  bus.environment());
    HOST_OR_SKIP(*host);
    ASSERT_TRUE(ann.run({"pair", host->link(), "--address", host->address()}).succeeded());
    desktop =
        std::make_unique<Desktop>(host->display(), work, std::vector<std::vector<std::string>>{});
    if (!desktop->problem.empty()) GTEST_SKIP() << desktop->problem;
  }

  AccessibilityBus bus;
  std::unique_ptr<Host> host;
  const Device ann{{}, "Ann's iPad"};
  const fs::path work = ann.home.path();
  std::unique_ptr<Desktop> desktop;
};

// The keyboard's cue: the host tells which kind of text field has focus, and whether the device's
// tap put it there. The fields are a GTK program's, read through a private accessibility bus.
TEST_F(AccessibleDesktop, TheDeviceHearsWhichTextFieldHasFocusAndWhetherItsTapPutItThere) {
  ChildProcess fields(bus.withEnvironment({"DISPLAY=" + host->display(), TOVU_TEXT_FIELDS_APP}),
                      work / "fields.log");
  ASSERT_TRUE(waitFor(work / "fields.log", "ready")) << readFile(work / "fields.log");
  std::istringstream boxes(readFile(work / "fields.log"));
  std::map<std::string, std::array<double, 4>> box;
  for (std::string name; boxes >> name && name != "ready";) {
    auto& [x, y, width, height] = box[name];
    boxes >> x >> y >> width >> height;
  }
  const auto& [x, y, width, height] = box["password"];

  // The tap moves the focus from the entry to the password field; the Tab key on to the search.
  const fs::path log = work / "connect.log";
  auto watching = ann.start(ann.connect(host->address(), "10",
                                        {"--click", std::to_string(x + width / 2) + "," +
                                                        std::to_string(y + height / 2)}),
                            log);
  const std::string app = " app=tovu_text_fields_app ";
  EXPECT_TRUE(waitFor(log, "textFocus: text=yes kind=secure" + app + "byClick=yes", 1, 30s))
      << readFile(log);
  onDisplay(host->display(), "xdotool key Tab");
  EXPECT_TRUE(waitFor(log, "textFocus: text=yes kind=search" + app + "byClick=no", 1, 30s))
      << readFile(log);
}

// The front application's menu bar as the device's tree of actions, and its items pressed from
// there, by each way a program publishes it: GTK's exported menu model (with 2,000 items more),
// Qt 6's dbusmenu (with a menu registrar on the session bus), and a menu bar that only the
// accessibility tree shows.
TEST_F(AccessibleDesktop, TheDeviceSeesTheFrontMenusAndPressesTheirItems) {
  const auto registrar = menuRegistrar(bus.sessionAddress());
  ASSERT_TRUE(registrar->available()) << registrar->skipReason();

  const auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin() + 1, {ann.host(), "--address", host->address()});
    return ann.run(arguments);
  };
  std::vector<std::string> deepPath = {"File"};
  for (int i = 0; i < 1000; ++i) deepPath.push_back("Level " + std::to_string(i));
  const std::pair<std::vector<std::string>, std::string> presses[] = {
      {{"File", "Light"}, "Done"},
      {{"File", "Print"}, "Failed: Not available right now"},
      {{"Edit", "Paste"}, "Failed: Action not found"},
      {deepPath, "Failed: Action not found"},
  };
  std::vector<std::vector<std::string>> programs = {
      {"NO_AT_BRIDGE=1", TOVU_MENU_APP, "--items", "2000"}, {TOVU_MENU_APP, "--widgets"}};
#ifdef TOVU_QT_MENU_APP
  programs.push_back({"QT_ACCESSIBILITY=0", TOVU_QT_MENU_APP});
#endif
  for (std::vector<std::string>& program : programs) {
    SCOPED_TRACE(program[program.size() > 2 ? 1 : 0]);
    const fs::path activations = work / "activations";
    fs::remove(activations);
    program.insert(program.begin(),
                   {"DISPLAY=" + host->display(), "TOVU_MENU_LOG=" + activations.string()});
    ChildProcess app(bus.withEnvironment(program), work / "app.log");
    ASSERT_TRUE(waitFor(work / "app.log", "ready")) << readFile(work / "app.log");
    // Qt 6's first window sometimes stays unmapped under a window manager that has just started.
    onDisplay(host->display(), "timeout 10 xdotool search --sync --pid " +
                                   std::to_string(app.pid()) + " windowmap windowactivate");

    const CommandResult listed = run({"actions"});
    EXPECT_TRUE(listed.succeeded()) << listed.output;
    EXPECT_NE(listed.output.find("  File\n"
                                 "    New Window  Ctrl+N\n"
                                 "    ----\n"
                                 "    [x] Show Toolbar\n"
                                 "    ----\n"
                                 "    Light\n"
                                 "    (*) Dark\n"
                                 "    ----\n"
                                 "    Print  (disabled)\n"
                                 "    Quit  Ctrl+Q\n"
                                 "  Edit\n"
                                 "    Copy  Ctrl+C\n"
                                 "    Find Next  F3\n"
                                 "    Zoom\n"
                                 "      Zoom In  Ctrl++\n"
                                 "      Reset _Zoom  Ctrl+Shift+Backspace\n"),
              std::string::npos)
        << listed.output;
    if (program.back() == "2000") {
      EXPECT_NE(listed.output.find("generation 1: 42 menus\n"), std::string::npos);
      EXPECT_NE(listed.output.find("  Menu 40\n    Item 40.1\n"), std::string::npos);
      EXPECT_NE(listed.output.find("    Item 40.50\n"), std::string::npos);
    }
    for (const auto& [path, answer] : presses) {
      std::vector<std::string> arguments = {"action"};
      arguments.insert(arguments.end(), path.begin(), path.end());
      const CommandResult result = run(arguments);
      EXPECT_NE(result.output.find("\n" + answer + "\n"), std::string::npos) << result.output;
      EXPECT_EQ(result.succeeded(), answer == "Done") << result.output;
    }
    EXPECT_EQ(readFile(activations), "activated theme light\n");
  }
}

// The device's desktop is a second X server; xclip copies and pastes on each side.
TEST(EndToEnd, TheClipboardGoesEachWayOnceAndNeverBack) {
  Host host;
  HOST_OR_SKIP(host);
  const VirtualDisplay desk;
  SKIP_WITHOUT_DISPLAY(desk);
  const Device ann{{}, "Ann's iPad", desk.name()};
  ASSERT_TRUE(ann.run({"pair", host.link(), "--address", host.address()}).succeeded());
  const fs::path work = ann.home.path();
  const fs::path log = work / "connect.log";
  auto watching = ann.start(ann.connect(host.address(), "60", {"--clipboard"}), log);
  ASSERT_TRUE(waitFor(log, "Connected to", 1, 30s)) << readFile(log);

  const std::string greeting = "Grüße aus dem Studio – 東京 ✓";
  copy(host.display(), writeText(work / "greeting.txt", greeting));
  ASSERT_TRUE(waitFor(log, "Clipboard from the host: ", 1, 10s)) << readFile(log);
  EXPECT_EQ(paste(desk.name()), greeting);

  // 5 MB leaves the device's desktop in pieces (INCR); a message carries its first 64 KiB, cut
  // on a character.
  std::string big;
  for (int line = 0; big.size() < 5'000'000; ++line) big += std::to_string(line) + " äöü €\n";
  const std::string cut = big.substr(0, utf8PrefixLength(big, kMaxStringBytes));
  copy(desk.name(), writeText(work / "big.txt", big));
  EXPECT_EQ(waitFor(log, "Clipboard to the host: ", 1, 20s), std::to_string(cut.size()))
      << readFile(log);
  std::string pasted;
  for (int i = 0; i < 50 && pasted != cut; ++i) {
    pasted = paste(host.display());
    if (pasted != cut) std::this_thread::sleep_for(200ms);
  }
  EXPECT_TRUE(pasted == cut) << pasted.size() << " bytes pasted";

  // Copied after it on the host: had the big text come back, it would have come first.
  copy(host.display(), writeText(work / "done.txt", "done"));
  EXPECT_EQ(waitFor(log, "Clipboard from the host: ", 2, 10s), "4") << readFile(log);
  EXPECT_EQ(waitFor(log, "Clipboard to the host: ", 2, 1s), std::nullopt) << readFile(log);
}

// Files from the device: ten, the most one transfer carries, one of them 100 MB, land whole in the
// host's inbox, on its clipboard (URIs for a file manager, a space percent-encoded; paths for a
// text field) and in a notification (dunst on the private session bus). What the limits refuse
// is said before anything goes out; a send cut short by Ctrl-C, a second transfer while one runs
// (both started while the video streams) and a disk that fills up leave nothing behind.
TEST_F(AccessibleDesktop, FilesFromTheDeviceLandWholeOrNotAtAll) {
  ChildProcess dunst(bus.withEnvironment({"DISPLAY=" + host->display(), "dunst"}),
                     work / "dunst.log");
  if (!runCommand(bus.withEnvironment({"gdbus", "wait", "--session", "--timeout", "10",
                                       "org.freedesktop.Notifications"}))
           .succeeded()) {
    GTEST_SKIP() << "no notification service (Debian package dunst): "
                 << readFile(work / "dunst.log");
  }
  const auto randomFile = [&](const std::string& name, std::uint64_t bytes) {
    const fs::path file = work / name;
    runCommand({"sh", "-c",
                "head -c " + std::to_string(bytes) + " /dev/urandom > '" + file.string() + "'"});
    return file;
  };
  const fs::path big = randomFile("big 1.bin", FileTransferLimits::maxTotalBytes - 100);
  std::vector<fs::path> files = {big};
  for (int i = 1; i <= 9; ++i) {
    files.push_back(writeText(work / ("small " + std::to_string(i) + ".txt"), std::to_string(i)));
  }
  std::vector<std::string> send = {"send", ann.host(), "--address", host->address()};
  for (const fs::path& file : files) send.push_back(file.string());
  const CommandResult sent = ann.run(send);
  ASSERT_TRUE(sent.succeeded()) << sent.output;
  EXPECT_NE(sent.output.find(" bytes\nDone: 100 MB in "), std::string::npos) << sent.output;
  const std::vector<fs::path> folders(fs::directory_iterator(host->inbox()), {});
  ASSERT_EQ(folders.size(), 1u);
  const fs::path folder = folders[0];
  std::string uris, paths;
  for (const fs::path& file : files) {
    EXPECT_TRUE(runCommand({"cmp", file, folder / file.filename()}).succeeded()) << file;
    std::string name = file.filename().string();
    uris += "file://" + folder.string() + "/" + name.replace(name.find(' '), 1, "%20") + "\r\n";
    paths += (paths.empty() ? "" : "\n") + (folder / file.filename()).string();
  }
  // The clipboard and the notification follow the host's "done" by a moment.
  std::string listed, history;
  for (int i = 0;
       i < 50 && (listed != uris || history.find("Received 10 files") == std::string::npos); ++i) {
    if (i > 0) std::this_thread::sleep_for(100ms);
    listed = onDisplay(host->display(), "timeout 5 xclip -o -selection clipboard -t text/uri-list")
                 .output;
    runCommand(bus.withEnvironment({"dunstctl", "close-all"}));
    history = runCommand(bus.withEnvironment({"dunstctl", "history"})).output;
  }
  EXPECT_EQ(listed, uris);
  EXPECT_EQ(paste(host->display()), paths);
  EXPECT_NE(history.find("\"Received 10 files\""), std::string::npos) << history;
  EXPECT_NE(history.find("\"On the clipboard, and in " + folder.string() + "\""),
            std::string::npos);

  fs::resize_file(writeText(work / "huge.bin", ""), std::uint64_t(1) << 30);
  const CommandResult huge =
      ann.run({"send", ann.host(), "--address", host->address(), (work / "huge.bin").string()});
  EXPECT_NE(huge.output.find("Too large to send: 1024 MB (limit 100 MB)"), std::string::npos)
      << huge.output;
  send.push_back(writeText(work / "eleventh.txt", "11").string());
  const CommandResult many = ann.run(send);
  EXPECT_NE(many.output.find("Too many files: 11 (limit 10)"), std::string::npos) << many.output;

  // Ctrl-C half way: the client is held still once the host has part of the file.
  const auto cancelled =
      ann.start({"send", ann.host(), "--address", host->address(), big}, work / "cancelled.log");
  std::uintmax_t partial = 0;
  for (int i = 0; i < 20000 && partial == 0; ++i) {
    for (const auto& entry : fs::directory_iterator(host->inbox())) {
      std::error_code error;
      if (entry.path() != folder) partial = fs::file_size(entry.path() / big.filename(), error);
      if (error) partial = 0;
    }
    if (partial > 0) ::kill(cancelled->pid(), SIGSTOP);
    std::this_thread::sleep_for(1ms);
  }
  ASSERT_GT(partial, 0u) << readFile(work / "cancelled.log");
  ::kill(cancelled->pid(), SIGINT);
  ::kill(cancelled->pid(), SIGCONT);
  EXPECT_TRUE(waitFor(work / "cancelled.log", "Cancelled\n", 1, 10s))
      << readFile(work / "cancelled.log");
  const fs::path ten = randomFile("ten.bin", 10 << 20);
  const CommandResult both = ann.run(ann.connect(
      host->address(), "10", {"--send", ten.string(), "--send", files[1].string(), "--at-once"}));
  EXPECT_NE(both.output.find("small 1.txt: Rejected: Another transfer is in progress\n"),
            std::string::npos)
      << both.output;
  EXPECT_NE(both.output.find("ten.bin: Done: 10 MB in "), std::string::npos) << both.output;
  EXPECT_EQ(std::vector<fs::path>(fs::directory_iterator(host->inbox()), {}).size(), 2u);

  // The inbox on a disk of 1 MB.
  if (!runCommand({"mount", "-t", "tmpfs", "-o", "size=1m,mode=0700", "tmpfs", host->inbox()})
           .succeeded()) {
    GTEST_SKIP() << "cannot mount a tmpfs (needs root) for the full disk";
  }
  const std::shared_ptr<void> unmount(nullptr, [&](void*) {
    runCommand({"umount", "--lazy", host->inbox()});
  });
  const CommandResult full = ann.run({"send", ann.host(), "--address", host->address(), ten});
  EXPECT_NE(full.output.find("Failed: Couldn’t write the file on this computer\n"),
            std::string::npos)
      << full.output;
  EXPECT_TRUE(fs::is_empty(host->inbox()));
}

// Remote access as a person sets it up, over a small internet of namespaces: a coordinator and a
// relay on the public side, the host at home behind its router, enrolled with an invite. A device
// paired at the host's home is given a way through the relay; from another home, where the host
// cannot be reached, it connects through the relay by itself, sees the screen and types, and
// stays past the expiry of the host's first token, renewed under it. The host revoked at the
// coordinator loses remote access and says so; at home the device reaches it as before.
TEST(EndToEnd, ADeviceAwayFromHomeReachesTheHostThroughTheRelay) {
  const NatNetwork network(TOVU_NAT_NETWORK);
  if (!network.problem().empty()) GTEST_SKIP() << network.problem();
  const TempDirectory services;
  const RelayProcess relay(TOVU_RELAY, services.path(), 0, network.netns("public"));
  ASSERT_NE(relay.port(), 0) << readFile(services / "relay.log");
  // The coordinator signs with the key the relay trusts: the one file in `services`.
  const CoordinatorProcess coordinator(
      TOVU_COORDINATOR, services.path(),
      std::string("sin:") + NatNetwork::publicAddress + ":" + std::to_string(relay.port()), {},
      {"--token-minutes", "1"}, NatNetwork::publicAddress, network.netns("public"));
  ASSERT_NE(coordinator.port(), 0) << readFile(services / "coordinator.log");
  const std::string url = "https://" + std::string(NatNetwork::publicAddress) + ":" +
                          std::to_string(coordinator.port());
  // Typed by hand: lower case, spaces.
  std::string invite = coordinator.invite("family");
  for (char& c : invite) c = char(std::tolower(c));
  const Host host(false, {"--no-advertise"}, {}, network.netns("host"),
                  {{"remote", "enable", "--coordinator", url, "--invite", " " + invite + " ",
                    "--ca", coordinator.certificate().string()}});
  HOST_OR_SKIP(host);
  ASSERT_TRUE(waitFor(host.log(), "remote access: Ready · Singapore")) << readFile(host.log());

  Device ann{{}, "Ann's phone", {}, network.netns("host")};
  ASSERT_TRUE(ann.run({"pair", host.link(), "--address", host.address()}).succeeded());
  const auto atHome = ann.run(ann.connect(host.address(), "2"));
  EXPECT_NE(atHome.output.find("Remote access: reachable through the relay at 100.64.0.1:"),
            std::string::npos)
      << atHome.output;

  ann.netns = network.netns("client");
  // Made from the host's namespace, so that the display's name finds the host's X server even
  // where another of the same number serves this one.
  const auto window = [&] {
    const InNamespace home(network.netns("host"));
    return std::make_unique<InputRecorder>(host.display());
  }();
  // Tokens of a minute: the session outlives the first.
  const auto away = ann.run(ann.connect(host.address(), "65", {"--type", "from afar"}));
  ASSERT_TRUE(away.succeeded()) << away.output;
  EXPECT_NE(away.output.find("through the relay"), std::string::npos) << away.output;
  EXPECT_NE(away.output.find("First picture"), std::string::npos) << away.output;
  EXPECT_NE(away.output.find("[ 65s]"), std::string::npos) << "the session ended early";
  EXPECT_EQ(InputRecorder::typed(window->take()), "from afar") << away.output;
  EXPECT_TRUE(waitFor(host.log(), "token renewed", 2, 5s)) << readFile(host.log());

  const std::string hosts = coordinator.command({"hosts"}).output;
  const std::string key = hosts.substr(hosts.rfind("  ") + 2, 130);
  EXPECT_EQ(coordinator.command({"revoke", key}).output, "revoked 1 host\n");
  EXPECT_TRUE(
      waitFor(host.log(), "remote access: Remote access for this computer was removed", 1, 45s))
      << readFile(host.log());
  // At home, the device reaches the host as ever.
  ann.netns = network.netns("host");
  const auto backHome = ann.run(ann.connect(host.address(), "1"));
  EXPECT_NE(backHome.output.find("First picture"), std::string::npos) << backHome.output;
}

}  // namespace
}  // namespace kelvaron::test
