#include "client/Flow.hpp"

#include <asio/co_spawn.hpp>
#include <asio/io_context.hpp>
#include <exception>
#include <ostream>
#include <string>

#include "kit/transport/QUICConfiguration.hpp"

namespace kelvaron::client {
namespace {

// What the person reads of `failure`. The kit's words for a changed certificate name a Mac; this
// client talks to Linux hosts.
std::string describe(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const QUICError& error) {
    if (error.kind() == QUICError::Kind::pinMismatch) {
      return "This host\u2019s identity changed. Re-pair?";
    }
    return error.what();
  } catch (const std::exception& error) {
    return error.what();
  } catch (...) {
    return "an unknown failure";
  }
}

}  // namespace

int runFlow(const std::function<asio::awaitable<void>()>& flow, std::ostream& err) {
  asio::io_context io;
  std::exception_ptr failure;
  try {
    // Stopped once the flow ends: what it leaves behind (a closing connection's timers, readers
    // that wake once more) is not waited for.
    asio::co_spawn(io, flow(), [&](std::exception_ptr thrown) {
      failure = thrown;
      io.stop();
    });
    io.run();
  } catch (...) {
    failure = std::current_exception();
  }
  if (!failure) return 0;
  err << "tovu-client: " << describe(failure) << std::endl;
  return 1;
}

}  // namespace kelvaron::client
