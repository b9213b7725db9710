#pragma once

#include <asio/awaitable.hpp>
#include <functional>
#include <iosfwd>
#include <stdexcept>

namespace kelvaron::client {

// Why a flow (pairing, connecting, listing) could not do what was asked, in words for the person
// who asked.
class FlowError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Runs `flow` to its end on an io_context of its own. The status for the process: 0, or 1 once
// `err` has been told what went wrong ("tovu-client: ...").
int runFlow(const std::function<asio::awaitable<void>()>& flow, std::ostream& err);

}  // namespace kelvaron::client
