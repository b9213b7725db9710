#include "host/app/AppModel.hpp"

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/post.hpp>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/relay/RelaySigner.hpp"
#include "kit/security/HostAuthGate.hpp"

namespace kelvaron::host {

namespace {

const std::string kKeepAwakeKey = "keepDisplayAwakeWhileConnected";

}  // namespace

std::shared_ptr<AppModel> AppModel::make(const Executor& mainExecutor, Dependencies dependencies) {
  return std::shared_ptr<AppModel>(new AppModel(mainExecutor, std::move(dependencies)));
}

AppModel::AppModel(const Executor& mainExecutor, Dependencies dependencies)
    : main_(mainExecutor), deps_(std::move(dependencies)) {
  permissions_ = deps_.readPermissions();
  keepDisplayAwake_ = deps_.settings->flag(kKeepAwakeKey).value_or(true);
}

AppModel::~AppModel() {
  if (probe_.joinable()) probe_.join();
}

void AppModel::changed() const {
  if (onChange) onChange();
}

void AppModel::start() {
  if (std::exchange(started_, true)) return;
  // The permissions can change under the host at any time; observers wake only for a change.
  auto poll = [](std::weak_ptr<AppModel> weak,
                 std::chrono::duration<double> interval) -> asio::awaitable<void> {
    for (;;) {
      if (co_await isCancelled()) co_return;
      co_await sleepFor(interval);
      const auto self = weak.lock();
      if (!self) co_return;
      const Permissions now = self->deps_.readPermissions();
      if (now == self->permissions_) continue;
      self->permissions_ = now;
      self->changed();
    }
  };
  tasks_.push_back(Task::spawn(main_, poll(weak_from_this(), deps_.permissionPollInterval)));
  // The probe encodes real pictures, so it runs beside the main executor; the listener waits for
  // it, since no session can be offered a profile before.
  probe_ = std::thread([weak = weak_from_this(), probe = deps_.probeEncoders, main = main_] {
    std::shared_ptr<EncoderFactory> encoders = probe();
    asio::post(main, [weak, encoders = std::move(encoders)] {
      const auto self = weak.lock();
      if (!self) return;
      self->encoders_ = encoders;
      self->supportedProfiles_ = encoders->supportedProfiles();
      self->encoderReady_ = true;
      self->changed();
      self->startHost();
    });
  });
}

void AppModel::stop() {
  for (const Task& task : tasks_) task.cancel();
  tasks_.clear();
  if (pathWatch_) pathWatch_->stop();
  if (supervisor_) supervisor_->stop();
  if (deps_.relay) deps_.relay->stop();
  for (const auto& [token, candidate] : candidates_) candidate->closeConnection();
}

asio::awaitable<void> AppModel::sessionsEnded() {
  while (!candidates_.empty()) {
    const auto waiter = std::make_shared<Wakeup>(main_);
    endWaiters_.push_back(waiter);
    co_await waiter->wait();
  }
}

void AppModel::startHost() {
  try {
    security_ = deps_.loadSecurity(deps_.settings->hostID(), deps_.hostName);
  } catch (const std::exception& failure) {
    securityError_ = std::string("Could not load the host identity: ") + failure.what();
    sessionLog_.error("%s", securityError_->c_str());
    changed();
    return;
  }
  auto factory = [security = *security_, build = deps_.listenerFactory](
                     std::optional<std::uint16_t> port) { return build(security, port); };
  auto onConnection = [weak = weak_from_this()](std::shared_ptr<Connection> connection) {
    if (const auto self = weak.lock()) self->accept(std::move(connection), true);
  };
  supervisor_ = ListenerSupervisor::make(main_, std::move(factory), std::move(onConnection),
                                         sleepFor, BackoffPolicy{}, deps_.port);
  if (const auto relay = deps_.relay) {
    relay->onConfigChanged = [weak = weak_from_this()] {
      const auto self = weak.lock();
      if (self && self->session_) self->session_->relayConfigChanged();
    };
    relay->onChange = [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->changed();
    };
    // The relay bridges clients to the listener, wherever it listens now; the host is one key in
    // TLS and at the relay.
    supervisor_->setOnPortChange(
        [relay](std::optional<std::uint16_t> port) { relay->setListenerPort(port); });
    relay->configure(std::make_shared<P256RelaySigner>(security_->identity->privateKey()),
                     std::nullopt);
  }
  supervisor_->restart();
  watchNetwork();
  changed();
}

// An advertised service does not survive a change of the network under it: the listener starts
// anew when the machine comes online or its interfaces change.
void AppModel::watchNetwork() {
  try {
    pathWatch_ = NetworkPathWatch::start(main_, [weak = std::weak_ptr(supervisor_)] {
      if (const auto supervisor = weak.lock()) supervisor->restart();
    });
  } catch (const std::system_error& failure) {
    transportLog_.error("cannot watch the network: %s", failure.what());
  }
}

void AppModel::accept(std::shared_ptr<Connection> connection, bool requiresAuth) {
  transportLog_.info("connection accepted");
  if (!encoders_ || (requiresAuth && !security_)) {
    connection->close();
    return;
  }
  const UUID token = AuthCrypto::randomUUID();
  const Executor sessionExecutor = deps_.sessionExecutor.value_or(main_);
  std::shared_ptr<AuthGate> gate;
  if (requiresAuth) {
    auto onAuthenticated = [weak = weak_from_this(), main = main_, token](const UUID& deviceID) {
      asio::post(main, [weak, token, deviceID] {
        if (const auto self = weak.lock()) self->promote(token, deviceID);
      });
    };
    gate = HostAuthGate::make(sessionExecutor, connection, security_->service, AuthTimeouts{},
                              std::move(onAuthenticated));
  }
  HostEnvironment env = deps_.environment(encoders_);
  env.power = deps_.power;
  env.keepDisplayAwake = [settings = deps_.settings] {
    return settings->flag(kKeepAwakeKey).value_or(true);
  };
  if (const auto provisioner = deps_.relayProvisioner) {
    env.relayConfig = [provisioner](const std::optional<Data>& clientKey) {
      return clientKey ? provisioner->provision(*clientKey) : std::nullopt;
    };
  }
  auto onStatus = [weak = weak_from_this(), main = main_, token](const SessionStatus& status) {
    asio::post(main, [weak, status, token] {
      if (const auto self = weak.lock()) self->receiveStatus(status, token);
    });
  };
  const auto session = HostSession::make(sessionExecutor, connection, std::move(env),
                                         std::move(gate), std::nullopt, std::move(onStatus));
  candidates_[token] = session;
  if (!requiresAuth) promote(token, std::nullopt);
  // Every session runs to its end, live or not; only then is it forgotten.
  auto run = [](std::weak_ptr<AppModel> weak, std::shared_ptr<HostSession> running,
                UUID key) -> asio::awaitable<void> {
    co_await running->run();
    const auto self = weak.lock();
    if (!self) co_return;
    self->candidates_.erase(key);
    if (!self->candidates_.empty()) co_return;
    for (const auto& waiter : std::exchange(self->endWaiters_, {})) Wakeup::wake(waiter);
  };
  asio::co_spawn(main_, run(weak_from_this(), session, token), asio::detached);
}

void AppModel::promote(const UUID& token, std::optional<UUID> deviceID) {
  const auto candidate = candidates_.find(token);
  if (candidate == candidates_.end()) return;  // it ended already
  if (session_) {
    if (sessionDeviceID_ && deviceID && *sessionDeviceID_ != *deviceID) {
      std::string name = "Another device";
      if (const auto device = security_->service->store()->device(*deviceID)) name = device->name;
      sessionLog_.info("the live session is replaced by %s", name.c_str());
      asio::co_spawn(main_, session_->replaced(name), asio::detached);
    } else {
      sessionLog_.info("the same device connected again: its old session is closed");
      session_->closeConnection();  // the same device again: it is not told of itself
    }
  }
  session_ = candidate->second;
  sessionToken_ = token;
  sessionDeviceID_ = deviceID;
}

void AppModel::receiveStatus(const SessionStatus& status, const UUID& token) {
  // A candidate's reports, and the last ones of a replaced session, are not the live session's.
  if (token != sessionToken_) return;
  if (status_ != status) {
    status_ = status;
    changed();
  }
  if (status.phase == SessionStatus::Phase::ended) session_.reset();
}

void AppModel::setKeepDisplayAwake(bool value) {
  deps_.settings->setFlag(kKeepAwakeKey, value);
  keepDisplayAwake_ = value;
  if (session_) session_->setKeepAwake(value);
  changed();
}

}  // namespace kelvaron::host
