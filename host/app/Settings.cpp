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
  const auto found = value(key);
  if (!found || !found->is_boolean()) return std::nullopt;
  return found->get<bool>();
}

void Settings::setFlag(const std::string& key, bool value) { set(key, value); }

std::optional<nlohmann::json> Settings::value(const std::string& key) const {
  std::lock_guard guard(lock_);
  const auto found = values_.find(key);
  if (found == values_.end()) return std::nullopt;
  return *found;
}

std::optional<std::string> Settings::text(const std::string& key) const {
  const auto found = value(key);
  if (!found || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

void Settings::set(const std::string& key, nlohmann::json value) {
  update(key, [&](nlohmann::json) { return std::move(value); });
}

void Settings::remove(const std::string& key) {
  update(key, [](nlohmann::json) { return nlohmann::json(); });
}

void Settings::update(const std::string& key,
                      const std::function<nlohmann::json(nlohmann::json)>& change) {
  std::lock_guard guard(lock_);
  const auto found = values_.find(key);
  nlohmann::json changed = change(found == values_.end() ? nlohmann::json() : *found);
  if (changed.is_null()) {
    if (found == values_.end()) return;
    values_.erase(key);
  } else {
    values_[key] = std::move(changed);
  }
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
