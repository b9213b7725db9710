#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kit/async/Task.hpp"
#include "kit/wire/Bytes.hpp"

namespace kelvaron {

// Publishes one host through avahi-daemon for as long as it lives: `name`, type "_tovu._udp" in
// the default domain, the UDP `port`, and the TXT record of `hostID`. A name taken by another
// service gives way to an alternative ("Name #2"). A daemon that starts later or restarts gets
// the service when it comes. Failures are logged and never thrown: a host that cannot advertise
// still takes connections. Every call into Avahi happens on `strand`.
class DNSSDAdvertiser {
 public:
  DNSSDAdvertiser(const Executor& strand, std::string name, std::uint16_t port,
                  std::optional<UUID> hostID);
  // Withdraws the service (on the strand, so maybe after this returns).
  ~DNSSDAdvertiser();

  // Why a service cannot be published now, in words for a person (what is missing, and how to
  // start it); nothing when avahi-daemon answers. Asks the daemon at once, on the caller's thread.
  static std::optional<std::string> daemonProblem();

  DNSSDAdvertiser(const DNSSDAdvertiser&) = delete;
  DNSSDAdvertiser& operator=(const DNSSDAdvertiser&) = delete;

 private:
  class Publication;
  Executor strand_;
  std::shared_ptr<Publication> publication_;
};

}  // namespace kelvaron
