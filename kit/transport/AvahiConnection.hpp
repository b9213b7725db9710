#pragma once

#include <avahi-client/client.h>

#include <asio/steady_timer.hpp>
#include <functional>
#include <memory>

#include "kit/async/Task.hpp"
#include "kit/log/Logger.hpp"
#include "kit/transport/AsioAvahiPoll.hpp"

namespace kelvaron {

// A client of avahi-daemon, on one strand, for as long as its owner keeps it: it waits for a
// daemon that has not started yet, and when the daemon goes away it starts over and waits for the
// next one. Make it, use its client and destroy it on the strand only.
class AvahiConnection {
 public:
  // Told each state of the client, with the client (which may not be stored yet when the first
  // state comes): AVAHI_CLIENT_S_RUNNING when requests can be made; S_REGISTERING or S_COLLISION
  // while the daemon settles its host name; CONNECTING while there is no daemon; FAILURE just
  // before the client is freed with everything made through it, whose pointers must be forgotten.
  using StateHandler = std::function<void(AvahiClient*, AvahiClientState)>;

  AvahiConnection(const Executor& strand, Logger log, StateHandler handler);
  ~AvahiConnection();
  AvahiConnection(const AvahiConnection&) = delete;
  AvahiConnection& operator=(const AvahiConnection&) = delete;

 private:
  static void onClientState(AvahiClient* client, AvahiClientState state, void* userdata);
  void connect();
  void reconnectLater();
  void disconnect();

  AsioAvahiPoll poll_;
  asio::steady_timer reconnectTimer_;
  Logger log_;
  StateHandler handler_;
  AvahiClient* client_ = nullptr;
  bool freeing_ = false;          // a client being freed reports nothing more
  bool reportedFailure_ = false;  // one log line for a run of failed attempts
  // The reconnection timer's handler may already be queued when this object goes.
  std::shared_ptr<int> lifetime_ = std::make_shared<int>();
};

}  // namespace kelvaron
