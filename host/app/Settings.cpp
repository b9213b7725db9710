#include "host/app/Settings.hpp"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/crypto/SecretStore.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace fs = std::filesystem;

namespace {

const Logger& log() {
  static const Logger logger("io.dovka.tovu.host", "settings");
  return logger;
}

}  // namespace

Settings::Settings(fs::path file) : file_(std::move(file)) {
  std::ifstream in(file_, std::ios::binary);
  if (!in) return;  // nothing stored yet
  std::stringstream text;
  text << in.rdbuf();
  if (auto parsed = parseSettings(text.str())) {
    values_ = std::move(*parsed);
  } else {
    unreadable_ = true;
    log().error("The settings in %s do not parse; starting from none", file_.c_str());
  }
}

fs::path Settings::defaultLocation() {
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg) {
    return fs::path(xdg) / "tovu-host" / "settings.json";
  }
  const char* home = std::getenv("HOME");
  return fs::path(home && *home ? home : "/tmp") / ".config" / "tovu-host" / "settings.json";
}

std::optional<bool> Settings::flag(const std::string& key) const {
  std::lock_guard guard(lock_);
  const auto found = values_.find(key);
  if (found == values_.end() || !found->is_boolean()) return std::nullopt;
  return found->get<bool>();
}

void Settings::setFlag(const std::string& key, bool value) {
  std::lock_guard guard(lock_);
  values_[key] = value;
  save();
}

UUID Settings::hostID() {
  std::lock_guard guard(lock_);
  const auto found = values_.find("hostID");
  if (found != values_.end() && found->is_string()) {
    if (const auto id = UUID::parse(found->get<std::string>())) return *id;
  }
  const UUID id = AuthCrypto::randomUUID();
  values_["hostID"] = id.string();
  save();
  return id;
}

void Settings::save() {
  try {
    fs::create_directories(file_.parent_path());
    if (std::exchange(unreadable_, false)) {
      fs::rename(file_, fs::path(file_).concat(".bad"));
    }
    const std::string text = values_.dump(2) + "\n";
    writeFileAtomically(file_, Data(text.begin(), text.end()));
  } catch (const std::exception& failure) {
    log().error("The settings cannot be written to %s: %s", file_.c_str(), failure.what());
  }
}

}  // namespace kelvaron::host
