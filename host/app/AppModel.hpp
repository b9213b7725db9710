#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/app/ListenerSupervisor.hpp"
#include "host/app/NetworkPathWatch.hpp"
#include "host/app/RelayController.hpp"
#include "host/app/Settings.hpp"
#include "host/session/HostSession.hpp"
#include "host/session/PowerManaging.hpp"
#include "kit/async/Wakeup.hpp"
#include "kit/security/HostPairingService.hpp"
#include "kit/transport/SelfSignedIdentity.hpp"

namespace kelvaron::host {

// What the host proves itself with, and how it pairs.
struct HostSecurity {
  std::shared_ptr<SelfSignedIdentity> identity;
  std::shared_ptr<HostPairingService> service;
};

// What the computer lets the host do: show its screen and drive its input. On X11 both come down
// to reaching the X server, and its XTEST extension for input.
struct Permissions {
  bool screenRecording = false;
  bool accessibility = false;
  friend bool operator==(const Permissions&, const Permissions&) = default;
};

// The one object of the host's lifetime: it probes the encoders, loads the security material,
// keeps the listener running, turns every accepted connection into a session and decides which of
// them is live. Runs on the main executor; everything here is touched there only.
class AppModel : public std::enable_shared_from_this<AppModel> {
 public:
  struct Dependencies {
    // Builds a listener on a port, or any port; may throw.
    std::function<ListenerStart(const HostSecurity&, std::optional<std::uint16_t>)> listenerFactory;
    // Loads or makes the identity and the pairing service; throws with a text for a person.
    std::function<HostSecurity(const UUID& hostID, const std::string& hostName)> loadSecurity;
    // Finds out what the encoders really produce; slow, run off the main executor.
    std::function<std::shared_ptr<EncoderFactory>()> probeEncoders;
    // A session's environment, with everything of the computer; the model adds its own parts.
    std::function<HostEnvironment(std::shared_ptr<EncoderFactory>)> environment;
    std::function<Permissions()> readPermissions;
    std::shared_ptr<PowerManaging> power;
    std::shared_ptr<Settings> settings;
    // Remote access through a relay, and what clients are given for it; none without.
    std::shared_ptr<RelayController> relay;
    std::shared_ptr<RelayProvisioner> relayProvisioner;
    std::string hostName;
    std::optional<std::uint16_t> port;  // the listener's first port, kept as any port that
                                        // worked; any when absent
    std::chrono::duration<double> permissionPollInterval{2.0};
    // Where each session and its gate make their strands, so that one session's work never
    // waits for the model's or another's; the main executor when absent.
    std::optional<Executor> sessionExecutor;
  };

  static std::shared_ptr<AppModel> make(const Executor& mainExecutor, Dependencies dependencies);
  ~AppModel();
  AppModel(const AppModel&) = delete;
  AppModel& operator=(const AppModel&) = delete;

  // Idempotent.
  void start();
  // Stops listening and ends every session; for a clean exit of the process.
  void stop();
  // Returns once every session has ended (after `stop`, their teardowns are over). On the main
  // executor.
  asio::awaitable<void> sessionsEnded();
  void setKeepDisplayAwake(bool value);

  // The observable state; `onChange` is called on the main executor after any of it changes.
  std::function<void()> onChange;
  const std::optional<SessionStatus>& status() const { return status_; }
  const Permissions& permissions() const { return permissions_; }
  bool encoderReady() const { return encoderReady_; }
  const std::vector<CodecProfile>& supportedProfiles() const { return supportedProfiles_; }
  const std::optional<std::string>& securityError() const { return securityError_; }
  const std::optional<HostSecurity>& security() const { return security_; }
  const ListenerSupervisor* supervisor() const { return supervisor_.get(); }
  bool keepDisplayAwake() const { return keepDisplayAwake_; }
  std::size_t candidateCount() const { return candidates_.size(); }
  bool hasLiveSession() const { return session_ != nullptr; }
  const std::shared_ptr<RelayController>& relay() const { return deps_.relay; }

 private:
  AppModel(const Executor& mainExecutor, Dependencies dependencies);

  void startHost();
  void watchNetwork();
  void accept(std::shared_ptr<Connection> connection, bool requiresAuth);
  void promote(const UUID& token, std::optional<UUID> deviceID);
  void receiveStatus(const SessionStatus& status, const UUID& token);
  void changed() const;

  Executor main_;
  Dependencies deps_;
  std::optional<SessionStatus> status_;
  Permissions permissions_;
  bool encoderReady_ = false;
  std::vector<CodecProfile> supportedProfiles_;
  std::optional<std::string> securityError_;
  std::optional<HostSecurity> security_;
  std::shared_ptr<ListenerSupervisor> supervisor_;
  std::unique_ptr<NetworkPathWatch> pathWatch_;
  bool keepDisplayAwake_ = true;
  std::shared_ptr<EncoderFactory> encoders_;
  std::shared_ptr<HostSession> session_;
  std::map<UUID, std::shared_ptr<HostSession>> candidates_;
  std::vector<std::shared_ptr<Wakeup>> endWaiters_;  // woken when no session is left
  UUID sessionToken_;
  std::optional<UUID> sessionDeviceID_;
  std::vector<Task> tasks_;
  std::thread probe_;
  bool started_ = false;
  Logger transportLog_{"io.dovka.tovu.host", "transport"};
  Logger sessionLog_{"io.dovka.tovu.host", "session"};
};

}  // namespace kelvaron::host
