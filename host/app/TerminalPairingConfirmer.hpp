#pragma once

#include <asio/posix/stream_descriptor.hpp>
#include <asio/streambuf.hpp>

#include "kit/async/Task.hpp"
#include "kit/security/HostPairingService.hpp"

namespace kelvaron::host {

// Asks the person at the host's terminal whether the six digits match: the question goes to
// standard output, the answer is a line on standard input ("y" or "yes" accepts). For a host
// without windows; a host with them asks in a window.
class TerminalPairingConfirmer : public PairingConfirming {
 public:
  explicit TerminalPairingConfirmer(const Executor& executor);
  asio::awaitable<bool> confirm(std::string deviceName, std::string code) override;

 private:
  asio::posix::stream_descriptor input_;
  asio::streambuf pending_;
};

}  // namespace kelvaron::host
