#pragma once

// A private PulseAudio server for tests, on a socket of its own, with two null outputs: "test_out",
// the default, whose rate and channels a test chooses, and "test_other". Skipped with the reason
// when it cannot start.

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <numbers>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron::test {

// Polls `condition` every 20 ms until it holds or `seconds` pass; whether it held.
inline bool eventually(const std::function<bool()>& condition, double seconds = 5) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// A tone of `amplitude` (1 = full scale) in both channels, as a 16-bit stereo WAV file at 48 kHz.
inline std::filesystem::path writeToneWAV(const std::filesystem::path& folder, double seconds,
                                          double hz, double amplitude) {
  constexpr std::uint32_t kRate = 48000;
  std::vector<std::int16_t> samples;
  for (std::uint32_t frame = 0; frame < seconds * kRate; ++frame) {
    const double phase = 2 * std::numbers::pi * hz * frame / kRate;
    const auto value = static_cast<std::int16_t>(std::lround(amplitude * 32767 * std::sin(phase)));
    samples.insert(samples.end(), {value, value});
  }
  const auto bytes = static_cast<std::uint32_t>(samples.size() * sizeof(std::int16_t));
  const struct {
    char riff[4]{'R', 'I', 'F', 'F'};
    std::uint32_t size;
    char format[8]{'W', 'A', 'V', 'E', 'f', 'm', 't', ' '};
    std::uint32_t formatSize = 16;
    std::uint16_t pcm = 1, channels = 2;
    std::uint32_t rate = kRate, bytesPerSecond = kRate * 4;
    std::uint16_t bytesPerFrame = 4, bits = 16;
    char data[4]{'d', 'a', 't', 'a'};
    std::uint32_t dataSize;
  } header{.size = 36 + bytes, .dataSize = bytes};
  static_assert(sizeof header == 44);
  const auto path = folder / ("tone-" + std::to_string(int(hz)) + "-" +
                              std::to_string(int(seconds * 1000)) + "ms.wav");
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(&header), sizeof header);
  out.write(reinterpret_cast<const char*>(samples.data()), bytes);
  return path;
}

// The first channel of a 16-bit PCM WAV file with the plain 44-byte header, 1 = full scale.
inline std::vector<float> readFirstChannelOfWAV(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
  std::vector<float> samples;
  if (bytes.size() < 44) return samples;
  const int channels = static_cast<unsigned char>(bytes[22]);
  for (std::size_t at = 44; channels > 0 && at + 2 * channels <= bytes.size(); at += 2 * channels) {
    std::int16_t value;
    std::memcpy(&value, &bytes[at], 2);
    samples.push_back(float(value) / 32768.0f);
  }
  return samples;
}

class PulseAudioServer {
 public:
  explicit PulseAudioServer(int rate = 48000, int channels = 2) {
    std::ofstream(directory_ / "pa.pa")
        << "load-module module-native-protocol-unix socket=" << socket() << " auth-anonymous=1\n"
        << "load-module module-null-sink sink_name=test_out rate=" << rate
        << " channels=" << channels << "\n"
        << "load-module module-null-sink sink_name=test_other\n"
        << "set-default-sink test_out\n";
    startServer();
  }

  // Starts the server anew, on the same socket, as when the user's sound server comes back.
  void startServer() {
    const auto log = directory_ / "pulseaudio.log";
    server_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"env", home(), "XDG_RUNTIME_DIR=" + directory_.path().string(),
                                 "pulseaudio", "-n", "-F", (directory_ / "pa.pa").string(),
                                 "--daemonize=no", "--exit-idle-time=-1", "--disable-shm=yes"},
        log);
    reason_.clear();
    if (!eventually([&] { return !server_->running() || pactl({"info"}).succeeded(); })) {
      reason_ = "PulseAudio did not answer within 5 s";
    } else if (!server_->running()) {
      std::ifstream in(log);
      reason_ = "PulseAudio could not start: " + std::string(std::istreambuf_iterator<char>(in), {});
    }
    if (!reason_.empty()) server_.reset();
  }

  // Kills the server, as when the user's sound server crashes.
  void killServer() {
    if (server_) ::kill(server_->pid(), SIGKILL);
    server_.reset();
  }

  bool available() const { return server_ != nullptr; }
  const std::string& skipReason() const { return reason_; }
  // For PULSE_SERVER and the capture's options.
  std::string address() const { return "unix:" + socket(); }
  const std::filesystem::path& directory() const { return directory_.path(); }

  CommandResult pactl(const std::vector<std::string>& arguments) const {
    return runCommand(client("pactl", arguments));
  }

  // Plays a file until it ends or the object goes; `device` empty: to the default output.
  std::unique_ptr<ChildProcess> play(const std::filesystem::path& file,
                                     const std::string& device = {}) const {
    std::vector<std::string> arguments{file.string()};
    if (!device.empty()) arguments.insert(arguments.begin(), "--device=" + device);
    return std::make_unique<ChildProcess>(client("paplay", arguments),
                                          directory_ / ("paplay-" + device + ".log"));
  }

  std::string defaultSink() const {
    std::string name = pactl({"get-default-sink"}).output;
    while (!name.empty() && name.back() == '\n') name.pop_back();
    return name;
  }

  // The names of the outputs.
  std::vector<std::string> sinks() const {
    std::vector<std::string> names;
    for (const auto& sink : listed("sinks")) names.push_back(sink["name"]);
    return names;
  }

  // The output that the sound a process plays goes to, if it plays one.
  std::optional<std::string> sinkOf(pid_t player) const {
    for (const auto& stream : listed("sink-inputs")) {
      if (stream["properties"].value("application.process.id", "") != std::to_string(player))
        continue;
      for (const auto& sink : listed("sinks"))
        if (sink["index"] == stream["sink"]) return sink["name"];
    }
    return std::nullopt;
  }

 private:
  std::string socket() const { return (directory_ / "sock").string(); }
  // Clients keep their cookies and settings in the test's folder, not the user's.
  std::string home() const { return "HOME=" + directory_.path().string(); }

  std::vector<std::string> client(const std::string& program,
                                  const std::vector<std::string>& arguments) const {
    std::vector<std::string> command{"env", home(), "PULSE_SERVER=" + address(), program};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
  }

  nlohmann::json listed(const std::string& what) const {
    auto list =
        nlohmann::json::parse(pactl({"--format=json", "list", what}).output, nullptr, false);
    return list.is_array() ? list : nlohmann::json::array();
  }

  TempDirectory directory_;
  std::unique_ptr<ChildProcess> server_;
  std::string reason_;
};

#define SKIP_WITHOUT_PULSEAUDIO(server) \
  if (!(server).available()) GTEST_SKIP() << (server).skipReason()

}  // namespace kelvaron::test
