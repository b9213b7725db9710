#include "host/app/RelaySettings.hpp"

#include <algorithm>
#include <cctype>

#include "kit/crypto/AuthCrypto.hpp"

namespace kelvaron::host {

namespace {

const std::string kEnabled = "relay.enabled";
const std::string kLabel = "relay.enrolledLabel";
const std::string kEnrolledURL = "relay.enrolledURL";
const std::string kCoordinatorURL = "relay.coordinatorURL";
const std::string kCoordinatorCA = "relay.coordinatorCA";
const std::string kMigrated = "relay.migratedToInvites";
const std::string kDenied = "relay.denied";

// One day beyond a grant's thirty.
constexpr double kDeniedLifetime = 2'678'400;

double secondsOf(RelaySettings::Clock::time_point time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

// The entries of "relay.denied" that are not old at `now`; an unreadable dictionary is empty.
nlohmann::json current(const nlohmann::json& denied, double now) {
  nlohmann::json kept = nlohmann::json::object();
  if (!denied.is_object()) return kept;
  for (const auto& [key, at] : denied.items()) {
    if (at.is_number() && now - at.get<double>() < kDeniedLifetime) kept[key] = at;
  }
  return kept;
}

std::string trimmed(std::string text) {
  const auto space = [](unsigned char c) { return std::isspace(c) != 0; };
  text.erase(text.begin(), std::find_if_not(text.begin(), text.end(), space));
  text.erase(std::find_if_not(text.rbegin(), text.rend(), space).base(), text.end());
  return text;
}

}  // namespace

RelaySettings::RelaySettings(std::shared_ptr<Settings> settings) : settings_(std::move(settings)) {
  if (settings_->flag(kMigrated).value_or(false)) return;
  clearEnrollment();
  settings_->setFlag(kEnabled, false);
  settings_->setFlag(kMigrated, true);
}

bool RelaySettings::enabled() const { return settings_->flag(kEnabled).value_or(false); }

void RelaySettings::setEnabled(bool enabled) { settings_->setFlag(kEnabled, enabled); }

std::string RelaySettings::coordinatorURL() const {
  return trimmed(settings_->text(kCoordinatorURL).value_or(""));
}

void RelaySettings::setCoordinatorURL(const std::string& url) {
  settings_->set(kCoordinatorURL, url);
}

std::optional<std::filesystem::path> RelaySettings::coordinatorCA() const {
  const auto file = settings_->text(kCoordinatorCA);
  if (!file || file->empty()) return std::nullopt;
  return *file;
}

void RelaySettings::setCoordinatorCA(const std::optional<std::filesystem::path>& file) {
  if (file) {
    settings_->set(kCoordinatorCA, file->string());
  } else {
    settings_->remove(kCoordinatorCA);
  }
}

std::optional<RelayAccount> RelaySettings::account() const {
  const auto label = settings_->text(kLabel), url = settings_->text(kEnrolledURL);
  if (!label || !url || *url != coordinatorURL()) return std::nullopt;
  return RelayAccount{*label, *url};
}

void RelaySettings::saveEnrollment(const std::string& label, const std::string& url) {
  settings_->set(kLabel, label);
  settings_->set(kEnrolledURL, url);
}

void RelaySettings::clearEnrollment() {
  settings_->remove(kLabel);
  settings_->remove(kEnrolledURL);
}

void RelaySettings::deny(const Data& publicKey, Clock::time_point date) {
  settings_->update(kDenied, [&](nlohmann::json denied) {
    nlohmann::json kept = current(denied, secondsOf(date));
    kept[AuthCrypto::base64Encode(publicKey)] = secondsOf(date);
    return kept;
  });
}

void RelaySettings::allow(const Data& publicKey) {
  settings_->update(kDenied, [&](nlohmann::json denied) {
    if (denied.is_object()) denied.erase(AuthCrypto::base64Encode(publicKey));
    return denied;
  });
}

std::vector<Data> RelaySettings::deniedList(Clock::time_point now) const {
  const nlohmann::json denied =
      current(settings_->value(kDenied).value_or(nullptr), secondsOf(now));
  std::vector<Data> keys;
  for (const auto& [key, at] : denied.items()) {
    if (auto bytes = AuthCrypto::base64Decode(key)) keys.push_back(std::move(*bytes));
  }
  std::sort(keys.begin(), keys.end(), [](const Data& a, const Data& b) {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end());
  });
  return keys;
}

}  // namespace kelvaron::host
