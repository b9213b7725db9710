#pragma once

// Remote access as the host's settings remember it: the person's switch, the coordinator and the
// account the host enrolled in there, and the client keys the relay is to turn away. What does not
// parse counts as absent.

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/app/Settings.hpp"

namespace kelvaron::host {

struct RelayAccount {
  std::string label;
  std::string url;  // of the coordinator it belongs to
  friend bool operator==(const RelayAccount&, const RelayAccount&) = default;
};

class RelaySettings {
 public:
  using Clock = std::chrono::system_clock;
  // Hosts from before invites start unenrolled (a one-time migration).
  explicit RelaySettings(std::shared_ptr<Settings> settings);

  bool enabled() const;
  void setEnabled(bool enabled);
  // The coordinator chosen, white space trimmed; empty when none is.
  std::string coordinatorURL() const;
  void setCoordinatorURL(const std::string& url);
  // Certificates to trust for the coordinator instead of the system's (a coordinator of one's
  // own); the system's when absent.
  std::optional<std::filesystem::path> coordinatorCA() const;
  void setCoordinatorCA(const std::optional<std::filesystem::path>& file);
  // The enrolment, if it was made with the coordinator chosen now.
  std::optional<RelayAccount> account() const;
  void saveEnrollment(const std::string& label, const std::string& url);
  void clearEnrollment();

  // Client keys (65 bytes) revoked at `date`, each forgotten 31 days later, when every grant it
  // had has expired.
  void deny(const Data& publicKey, Clock::time_point date);
  void allow(const Data& publicKey);
  // Those not yet forgotten at `now`, sorted by their bytes.
  std::vector<Data> deniedList(Clock::time_point now) const;

 private:
  const std::shared_ptr<Settings> settings_;
};

}  // namespace kelvaron::host
