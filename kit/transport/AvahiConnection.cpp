#include "kit/transport/AvahiConnection.hpp"

#include <avahi-common/error.h>

#include <chrono>
#include <string>

namespace kelvaron {

namespace {
// Without a system bus even a client that waits for its daemon cannot be made; it is tried again
// after this long. A failed client is replaced after the same delay.
constexpr std::chrono::seconds kReconnectDelay{2};
}  // namespace

AvahiConnection::AvahiConnection(const Executor& strand, Logger log, StateHandler handler)
    : poll_(strand), reconnectTimer_(strand), log_(std::move(log)), handler_(std::move(handler)) {
  connect();
}

AvahiConnection::~AvahiConnection() {
  reconnectTimer_.cancel();
  disconnect();
}

void AvahiConnection::connect() {
  int error = 0;
  client_ = avahi_client_new(poll_.api(), AVAHI_CLIENT_NO_FAIL, onClientState, this, &error);
  if (client_) return;
  // Whoever needs the daemon tells a person in their own words (a host that cannot advertise, a
  // client that finds nothing); this is only the trace of the attempts.
  const std::string reason = avahi_strerror(error);
  if (!reportedFailure_) log_.debug("cannot reach avahi-daemon: %s", reason.c_str());
  reportedFailure_ = true;
  reconnectLater();
}

void AvahiConnection::onClientState(AvahiClient* client, AvahiClientState state, void* userdata) {
  auto& self = *static_cast<AvahiConnection*>(userdata);
  if (self.freeing_) return;
  if (state == AVAHI_CLIENT_S_RUNNING) self.reportedFailure_ = false;
  if (state == AVAHI_CLIENT_FAILURE && !self.reportedFailure_) {
    self.log_.error("avahi-daemon connection failed: %s",
                    avahi_strerror(avahi_client_errno(client)));
    self.reportedFailure_ = true;
  }
  self.handler_(client, state);
  // A failed client is of no more use: it is replaced, but not from inside its own callback.
  if (state == AVAHI_CLIENT_FAILURE) self.reconnectLater();
}

void AvahiConnection::reconnectLater() {
  reconnectTimer_.expires_after(kReconnectDelay);
  reconnectTimer_.async_wait(
      [this, alive = std::weak_ptr(lifetime_)](const asio::error_code& error) {
        if (error || alive.expired()) return;
        disconnect();
        connect();
      });
}

void AvahiConnection::disconnect() {
  if (!client_) return;
  freeing_ = true;
  avahi_client_free(client_);
  freeing_ = false;
  client_ = nullptr;
}

}  // namespace kelvaron
