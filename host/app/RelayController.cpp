#include "host/app/RelayController.hpp"

#include <asio/post.hpp>

#include "kit/relay/CoordinatorError.hpp"
#include "kit/relay/InviteCode.hpp"

namespace kelvaron::host {

namespace {

const std::string kNoIdentity = "The host identity is not available";

}  // namespace

std::shared_ptr<RelayController> RelayController::make(
    const Executor& main, std::shared_ptr<RelaySettings> settings,
    std::shared_ptr<RelayProvisioner> provisioner, ServiceFactory makeService, Enroll enroll) {
  return std::shared_ptr<RelayController>(
      new RelayController(main, std::move(settings), std::move(provisioner), std::move(makeService),
                          std::move(enroll)));
}

RelayController::RelayController(const Executor& main, std::shared_ptr<RelaySettings> settings,
                                 std::shared_ptr<RelayProvisioner> provisioner,
                                 ServiceFactory makeService, Enroll enroll)
    : main_(main),
      settings_(std::move(settings)),
      provisioner_(std::move(provisioner)),
      makeService_(std::move(makeService)),
      enroll_(std::move(enroll)) {
  enabled_ = settings_->enabled();
  if (const auto account = settings_->account()) accountLabel_ = account->label;
}

void RelayController::configure(std::shared_ptr<const RelaySigner> signer,
                                std::optional<std::uint16_t> listenerPort) {
  signer_ = std::move(signer);
  listenerPort_ = listenerPort;
  apply();
}

void RelayController::setListenerPort(std::optional<std::uint16_t> port) {
  listenerPort_ = port;
  if (service_) service_->setListenerPort(port);
}

void RelayController::setEnabled(bool enabled) {
  settings_->setEnabled(enabled);
  apply();
  if (onConfigChanged) onConfigChanged();
}

void RelayController::join(const std::string& invite) {
  if (joining_) return;
  const auto code = InviteCode::normalize(invite);
  if (!code) {
    notice_ = CoordinatorError(CoordinatorError::Kind::malformedInvite).what();
  } else if (!signer_) {
    notice_ = kNoIdentity;
  } else {
    notice_.reset();
    joining_ = true;
    joinTask_ = Task::spawn(
        main_, enrollWith(weak_from_this(), enroll_, settings_->coordinatorURL(), *code, signer_));
  }
  changed();
}

void RelayController::stop() {
  stopped_ = true;
  if (joinTask_) joinTask_->cancel();
  stopService();
}

std::optional<std::string> RelayController::statusText() const {
  if (joining_) return "Joining…";
  if (notice_) return notice_;
  if (enabled_ && accountLabel_) return status_.text();
  return std::nullopt;
}

bool RelayController::showsError() const {
  return notice_ || (enabled_ && accountLabel_ && status_.kind == RelayStatus::Kind::error);
}

// Everything again from the settings: the service stopped, and started anew when remote access
// is on and the host is enrolled with the coordinator chosen.
void RelayController::apply() {
  if (stopped_) return;
  enabled_ = settings_->enabled();
  const auto account = settings_->account();
  accountLabel_ = account ? std::optional(account->label) : std::nullopt;
  stopService();
  provisioner_->update(signer_, {}, false);
  setStatus(RelayStatus::stopped());
  if (enabled_ && account) {
    if (!signer_) {
      setStatus(RelayStatus::error(kNoIdentity));
    } else {
      try {
        service_ = makeService_(settings_->coordinatorURL(), signer_, listenerPort_,
                                settings_->deniedList(std::chrono::system_clock::now()));
      } catch (const std::exception& failure) {
        setStatus(RelayStatus::error(failure.what()));
      }
    }
  }
  if (service_) {
    // A service that `apply` has replaced since is no longer heard.
    const std::weak_ptr<RelayController> weak = weak_from_this();
    const std::weak_ptr<RelayHostService> from = service_;
    service_->setRelaysHandler([weak, from, main = main_](std::vector<RelayEndpoint> relays) {
      asio::post(main, [weak, from, relays = std::move(relays)]() mutable {
        const auto self = weak.lock();
        if (!self || self->service_ != from.lock()) return;
        self->provisioner_->update(self->signer_, std::move(relays), true);
        if (self->onConfigChanged) self->onConfigChanged();
      });
    });
    service_->setFatalHandler([weak, from, main = main_](const CoordinatorError& error) {
      asio::post(main, [weak, from, error] {
        const auto self = weak.lock();
        if (self && self->service_ == from.lock()) self->enrollmentLost(error);
      });
    });
    setStatus(service_->current());
    statusTask_ = Task::spawn(main_, followStatuses(weak, service_));
    service_->start();
  }
  changed();
}

void RelayController::stopService() {
  if (statusTask_) statusTask_->cancel();
  statusTask_.reset();
  if (service_) service_->stop();
  service_.reset();
}

// The coordinator removed the host: the enrolment is forgotten, and the person told.
void RelayController::enrollmentLost(const CoordinatorError& error) {
  settings_->clearEnrollment();
  apply();
  notice_ = error.what();
  changed();
  if (onConfigChanged) onConfigChanged();
}

void RelayController::setStatus(RelayStatus status) {
  if (status_ == status) return;
  status_ = std::move(status);
  changed();
}

asio::awaitable<void> RelayController::followStatuses(std::weak_ptr<RelayController> weak,
                                                      std::shared_ptr<RelayHostService> service) {
  while (auto status = co_await service->statuses().next()) {
    if (co_await isCancelled()) co_return;
    const auto self = weak.lock();
    if (!self) co_return;
    self->setStatus(std::move(*status));
  }
}

asio::awaitable<void> RelayController::enrollWith(std::weak_ptr<RelayController> weak,
                                                  Enroll enroll, std::string url,
                                                  std::string invite,
                                                  std::shared_ptr<const RelaySigner> signer) {
  std::optional<std::string> label, failure;
  try {
    auto enrolling = enroll(url, invite, signer);  // named: GCC 12 and co_await's temporaries
    std::string enrolled = co_await std::move(enrolling);
    label = std::move(enrolled);
  } catch (const std::exception& error) {
    failure = error.what();
  }
  const bool cancelled = co_await isCancelled();
  const auto self = weak.lock();
  if (!self) co_return;
  self->joining_ = false;
  if (label) {
    self->settings_->saveEnrollment(*label, url);
    self->settings_->setEnabled(true);
    self->apply();
    if (self->onConfigChanged) self->onConfigChanged();
  } else if (!cancelled) {
    self->notice_ = failure;
  }
  self->changed();
}

void RelayController::changed() const {
  if (onChange) onChange();
}

}  // namespace kelvaron::host
