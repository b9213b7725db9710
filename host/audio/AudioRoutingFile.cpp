#include "host/audio/AudioRoutingFile.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>

#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

const Logger& log() {
  static const Logger logger("io.dovka.tovu.host", "audio");
  return logger;
}

std::optional<std::uint32_t> index(const json& value) {
  if (!value.is_number_unsigned()) return std::nullopt;
  const auto number = value.get<std::uint64_t>();
  if (number > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  return static_cast<std::uint32_t>(number);
}

std::optional<AudioRouting> parse(const std::string& text) {
  const json document = json::parse(text, nullptr, false);
  if (!document.is_object()) return std::nullopt;
  const auto previous = document.find("previousDefaultSink");
  const auto streams = document.find("streams");
  if (previous == document.end() || !previous->is_string()) return std::nullopt;
  if (streams == document.end() || !streams->is_array()) return std::nullopt;
  AudioRouting routing{previous->get<std::string>()};
  if (const auto module = document.find("moduleIndex"); module != document.end()) {
    routing.moduleIndex = index(*module);
    if (!routing.moduleIndex) return std::nullopt;
  }
  for (const json& entry : *streams) {
    if (!entry.is_object() || !entry.contains("stream") || !entry.contains("sink")) {
      return std::nullopt;
    }
    const auto stream = index(entry["stream"]);
    if (!stream || !entry["sink"].is_string()) return std::nullopt;
    routing.streamSinks[*stream] = entry["sink"].get<std::string>();
  }
  return routing;
}

std::string serialize(const AudioRouting& routing) {
  json document{{"previousDefaultSink", routing.previousDefaultSink}, {"streams", json::array()}};
  if (routing.moduleIndex) document["moduleIndex"] = *routing.moduleIndex;
  for (const auto& [stream, sink] : routing.streamSinks) {
    document["streams"].push_back({{"stream", stream}, {"sink", sink}});
  }
  return document.dump(2) + "\n";
}

[[noreturn]] void fail(const fs::path& path) {
  throw std::system_error(errno, std::generic_category(), "cannot write " + path.string());
}

void writeOwnerOnly(const fs::path& path, const std::string& text) {
  if (fs::create_directories(path.parent_path())) {
    fs::permissions(path.parent_path(), fs::perms::owner_all, fs::perm_options::replace);
  }
  std::string name = path.string() + ".tmpXXXXXX";
  const int fd = ::mkostemp(name.data(), O_CLOEXEC);  // mode 0600
  if (fd < 0) fail(name);
  const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  // Synced before the rename, so that a crash leaves the old note or the new one, never half.
  const bool synced = written && ::fsync(fd) == 0;
  if (::close(fd) != 0 || !synced || ::rename(name.c_str(), path.c_str()) != 0) {
    const int error = errno;
    ::unlink(name.c_str());
    errno = error;
    fail(path);
  }
}

}  // namespace

fs::path AudioRoutingFile::defaultLocation() {
  const fs::path name = fs::path("tovu-host") / "audio-routing.json";
  if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state) {
    return fs::path(state) / name;
  }
  const char* home = std::getenv("HOME");
  return fs::path(home && *home ? home : "/tmp") / ".local" / "state" / name;
}

std::optional<AudioRouting> AudioRoutingFile::load() const {
  std::ifstream in(path_, std::ios::binary);
  if (!in) return std::nullopt;
  std::stringstream text;
  text << in.rdbuf();
  if (auto routing = parse(text.str())) return routing;
  log().error("The note of the sound routing in %s does not parse; it is moved aside",
              path_.c_str());
  std::error_code ignored;
  fs::rename(path_, fs::path(path_).concat(".bad"), ignored);
  return std::nullopt;
}

void AudioRoutingFile::save(const AudioRouting& routing) const {
  writeOwnerOnly(path_, serialize(routing));
}

void AudioRoutingFile::remove() const {
  std::error_code ignored;
  fs::remove(path_, ignored);
}

}  // namespace kelvaron::host
