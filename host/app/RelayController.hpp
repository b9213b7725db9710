#pragma once

// Remote access as the person switches and sees it: it follows the settings, runs the relay
// service while remote access is on and the host is enrolled, enrols with an invite, and when the
// enrolment is removed at the coordinator forgets it and says so. The model a tray item will
// show; runs on the main executor only.

#include <asio/awaitable.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/app/RelayProvisioner.hpp"
#include "host/app/RelaySettings.hpp"
#include "kit/async/Task.hpp"
#include "kit/relay/RelayHostService.hpp"

namespace kelvaron::host {

class RelayController : public std::enable_shared_from_this<RelayController> {
 public:
  // A service for the coordinator at `url`, not yet started; throws CoordinatorError for a URL
  // that is not one.
  using ServiceFactory = std::function<std::shared_ptr<RelayHostService>(
      const std::string& url, std::shared_ptr<const RelaySigner> signer,
      std::optional<std::uint16_t> listenerPort, std::vector<Data> denied)>;
  // Enrols the signer's key with the invite at the coordinator `url`; the account's label.
  using Enroll = std::function<asio::awaitable<std::string>(
      std::string url, std::string invite, std::shared_ptr<const RelaySigner> signer)>;

  static std::shared_ptr<RelayController> make(const Executor& main,
                                               std::shared_ptr<RelaySettings> settings,
                                               std::shared_ptr<RelayProvisioner> provisioner,
                                               ServiceFactory makeService, Enroll enroll);

  // The host's identity, once it exists, and its listener's port.
  void configure(std::shared_ptr<const RelaySigner> signer,
                 std::optional<std::uint16_t> listenerPort);
  void setListenerPort(std::optional<std::uint16_t> port);
  void setEnabled(bool enabled);
  void join(const std::string& invite);
  // Ends the service, for a clean exit.
  void stop();

  // Called on the main executor after anything observable changed.
  std::function<void()> onChange;
  // What clients are given changed (relays, on or off).
  std::function<void()> onConfigChanged;

  const RelayStatus& status() const { return status_; }
  bool enabled() const { return enabled_; }
  const std::optional<std::string>& accountLabel() const { return accountLabel_; }
  bool joining() const { return joining_; }
  const std::optional<std::string>& notice() const { return notice_; }
  // "Joining…", a notice, the service's status, or nothing when remote access is off.
  std::optional<std::string> statusText() const;
  bool showsError() const;

 private:
  RelayController(const Executor& main, std::shared_ptr<RelaySettings> settings,
                  std::shared_ptr<RelayProvisioner> provisioner, ServiceFactory makeService,
                  Enroll enroll);
  void apply();
  void stopService();
  void enrollmentLost(const CoordinatorError& error);
  void setStatus(RelayStatus status);
  static asio::awaitable<void> followStatuses(std::weak_ptr<RelayController> weak,
                                              std::shared_ptr<RelayHostService> service);
  static asio::awaitable<void> enrollWith(std::weak_ptr<RelayController> weak, Enroll enroll,
                                          std::string url, std::string invite,
                                          std::shared_ptr<const RelaySigner> signer);
  void changed() const;

  const Executor main_;
  const std::shared_ptr<RelaySettings> settings_;
  const std::shared_ptr<RelayProvisioner> provisioner_;
  const ServiceFactory makeService_;
  const Enroll enroll_;

  RelayStatus status_;
  bool enabled_ = false;
  std::optional<std::string> accountLabel_;
  bool joining_ = false;
  std::optional<std::string> notice_;
  std::shared_ptr<RelayHostService> service_;
  std::optional<Task> statusTask_, joinTask_;
  std::optional<std::uint16_t> listenerPort_;
  std::shared_ptr<const RelaySigner> signer_;
  bool stopped_ = false;  // the host is quitting: nothing starts again
};

}  // namespace kelvaron::host
