#pragma once

#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "kit/wire/Bytes.hpp"

namespace kelvaron::host {

// The host's own settings, a JSON object in one file, written whole and atomically on each change.
// A file that does not parse counts as no settings at all, and is kept beside the new one (".bad")
// rather than overwritten. Safe from any thread.
class Settings {
 public:
  explicit Settings(std::filesystem::path file);
  // $XDG_CONFIG_HOME/tovu-host/settings.json, else ~/.config/tovu-host/settings.json.
  static std::filesystem::path defaultLocation();

  std::optional<bool> flag(const std::string& key) const;
  void setFlag(const std::string& key, bool value);
  // Any value; nothing when the key is absent.
  std::optional<nlohmann::json> value(const std::string& key) const;
  // Absent or of another type: nothing.
  std::optional<std::string> text(const std::string& key) const;
  void set(const std::string& key, nlohmann::json value);
  void remove(const std::string& key);
  // Reads, changes and writes one value under the settings' lock; `change` gets null for a key
  // that is absent, and returns null to remove it.
  void update(const std::string& key, const std::function<nlohmann::json(nlohmann::json)>& change);
  // "hostID": made and stored on first need, and made again if the stored text is no UUID.
  UUID hostID();

 private:
  void save();  // with `lock_` held

  const std::filesystem::path file_;
  mutable std::mutex lock_;
  nlohmann::json values_ = nlohmann::json::object();
  bool unreadable_ = false;  // the file is there but did not parse
};

// The settings in a file's text: a JSON object, or nothing.
std::optional<nlohmann::json> parseSettings(std::string_view text);

}  // namespace kelvaron::host
