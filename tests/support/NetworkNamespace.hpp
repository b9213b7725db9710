#pragma once

// A network namespace of the test's own: the calling thread (which runs the test's io_context),
// and the programs it starts, are in a fresh one for the life of the object, so that a test sees
// no interface but those it makes and tests run in parallel do not meet.

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.hpp"

namespace kelvaron::test {

class NetworkNamespace {
 public:
  NetworkNamespace() {
    original_ = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (original_ < 0 || ::unshare(CLONE_NEWNET) != 0) {  // EPERM without root
      problem_ = std::string("cannot make a network namespace: ") + std::strerror(errno);
      return;
    }
    entered_ = true;
    // The tests' interfaces are virtual Ethernet pairs: a kernel without them cannot run these.
    const auto ready = runCommand({"sh", "-c",
                                   "ip link set lo up && ip link add probe0 type veth peer name "
                                   "probe1 && ip link delete probe0"});
    if (!ready.succeeded()) problem_ = "no loopback or no virtual Ethernet: " + ready.output;
  }

  ~NetworkNamespace() {
    if (entered_) ::setns(original_, CLONE_NEWNET);
    if (original_ >= 0) ::close(original_);
  }
  NetworkNamespace(const NetworkNamespace&) = delete;
  NetworkNamespace& operator=(const NetworkNamespace&) = delete;

  // Empty when the namespace is there; otherwise why not.
  const std::string& problem() const { return problem_; }

  // Runs `ip` with these arguments; throws with its output when it fails.
  static void ip(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "ip");
    const auto result = runCommand(arguments);
    if (!result.succeeded()) throw std::runtime_error("ip failed: " + result.output);
  }

  // Two ends of a virtual Ethernet cable, both up, so that `name` has a carrier; `name` gets
  // `address` (with its prefix) unless it is empty. Neither end makes an IPv6 link-local address of
  // its own, so an interface has exactly the addresses it is given.
  static void addEthernet(const std::string& name, const std::string& peer,
                          const std::string& address) {
    ip({"link", "add", name, "type", "veth", "peer", "name", peer});
    ip({"link", "set", name, "addrgenmode", "none"});
    ip({"link", "set", peer, "addrgenmode", "none"});
    ip({"link", "set", name, "multicast", "on", "up"});
    ip({"link", "set", peer, "up"});
    if (!address.empty()) ip({"address", "add", address, "dev", name});
  }

 private:
  int original_ = -1;
  bool entered_ = false;
  std::string problem_;
};

}  // namespace kelvaron::test
