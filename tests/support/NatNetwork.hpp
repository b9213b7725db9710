#pragma once

// The small internet of scripts/nat-network.sh for the life of an object: a public namespace,
// and a host's home and a client's home, each behind its own address-translating router. Threads
// of the test enter a namespace to open sockets there.

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <cstring>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/support/ChildProcess.hpp"

namespace kelvaron::test {

class NatNetwork {
 public:
  static constexpr const char* publicAddress = "100.64.0.1";

  // `script`: the path of nat-network.sh.
  explicit NatNetwork(std::string script)
      : script_(std::move(script)), name_("tovu" + std::to_string(::getpid())) {
    const auto made = runCommand({script_, "up", name_});
    if (made.succeeded()) return;
    problem_ =
        "cannot make the namespaces (root, nftables and conntrack are needed): " + made.output;
    runCommand({script_, "down", name_});
  }
  ~NatNetwork() {
    if (problem_.empty()) runCommand({script_, "down", name_});
  }
  NatNetwork(const NatNetwork&) = delete;
  NatNetwork& operator=(const NatNetwork&) = delete;

  // Empty when the namespaces are there; otherwise why not.
  const std::string& problem() const { return problem_; }
  // The namespace of "public", "host", "client", "hostnat" or "clientnat".
  std::string netns(const std::string& place) const { return name_ + "-" + place; }
  // The client's router takes another block of ports: every mapping through it changes.
  void remapClient() const {
    const auto remapped = runCommand({script_, "remap", name_});
    if (!remapped.succeeded()) throw std::runtime_error("remap failed: " + remapped.output);
  }

 private:
  std::string script_, name_, problem_;
};

// The calling thread in the network namespace `netns` while the object lives: the sockets it
// opens meanwhile belong there for good.
class InNamespace {
 public:
  explicit InNamespace(const std::string& netns) {
    original_ = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int target = ::open(("/run/netns/" + netns).c_str(), O_RDONLY | O_CLOEXEC);
    const bool entered = target >= 0 && ::setns(target, CLONE_NEWNET) == 0;
    if (target >= 0) ::close(target);
    if (!entered) {
      ::close(original_);
      throw std::runtime_error("cannot enter " + netns + ": " + std::strerror(errno));
    }
  }
  ~InNamespace() {
    ::setns(original_, CLONE_NEWNET);
    ::close(original_);
  }
  InNamespace(const InNamespace&) = delete;
  InNamespace& operator=(const InNamespace&) = delete;

 private:
  int original_ = -1;
};

// An io_context run by a thread that lives in `netns`: what runs on it opens its sockets there.
// Throws when the thread cannot enter it.
class NamespaceThread {
 public:
  explicit NamespaceThread(const std::string& netns) {
    std::promise<void> entered;
    thread_ = std::thread([this, netns, &entered] {
      std::optional<InNamespace> inside;
      try {
        inside.emplace(netns);
      } catch (...) {
        entered.set_exception(std::current_exception());
        return;
      }
      entered.set_value();
      io_.run();
    });
    try {
      entered.get_future().get();
    } catch (...) {
      thread_.join();
      throw;
    }
  }
  ~NamespaceThread() {
    work_.reset();
    io_.stop();
    thread_.join();
  }
  NamespaceThread(const NamespaceThread&) = delete;
  NamespaceThread& operator=(const NamespaceThread&) = delete;

  asio::any_io_executor executor() { return io_.get_executor(); }

 private:
  asio::io_context io_;
  asio::executor_work_guard<asio::io_context::executor_type> work_ = asio::make_work_guard(io_);
  std::thread thread_;
};

}  // namespace kelvaron::test
