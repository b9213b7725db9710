#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/x11/X11Connection.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

// The X connection that a part of the host keeps for as long as the server is there, and makes
// anew after it went away: at most once a second, with one log line for a run of failures and one
// when it works again. Used on its owner's strand, on which the connection's events come too.
class X11ConnectionKeeper {
 public:
  // Readies a fresh connection (checks extensions, asks for events); throws with a text for a
  // person when it will not do.
  using Prepare = std::function<void(X11Connection&)>;

  // `missing`: what the owner cannot do without a server, at the head of its log lines ("No
  // cursor image"). `onLost`: lets go of what belonged to the connection, before it goes.
  X11ConnectionKeeper(Executor strand, std::string displayName, Logger log, std::string missing,
                      std::function<void()> onLost = {});

  // A working connection, made and readied now if there was none or it broke; nothing while
  // there is no server, or the last attempt is less than a second old.
  X11Connection* ensure(const Prepare& prepare);
  const std::shared_ptr<X11Connection>& connection() const { return connection_; }
  // The connection broke: lets go of it and says why.
  std::nullopt_t lose();
  // Logged once for a run of failures.
  std::nullopt_t fail(const std::string& reason);
  // The owner's work went through: the next failure is logged again.
  void succeeded() { failing_ = false; }
  const Logger& log() const { return log_; }

 private:
  const Executor strand_;
  const std::string displayName_;
  const Logger log_;
  const std::string missing_;
  const std::function<void()> onLost_;
  std::shared_ptr<X11Connection> connection_;
  std::optional<std::chrono::steady_clock::time_point> lastAttempt_;
  bool failing_ = false;
};

}  // namespace kelvaron::host
