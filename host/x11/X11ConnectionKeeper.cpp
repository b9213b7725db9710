#include "host/x11/X11ConnectionKeeper.hpp"

namespace kelvaron::host {

namespace {

constexpr std::chrono::seconds kReconnectInterval{1};

}  // namespace

X11ConnectionKeeper::X11ConnectionKeeper(Executor strand, std::string displayName, Logger log,
                                         std::string missing, std::function<void()> onLost)
    : strand_(std::move(strand)),
      displayName_(std::move(displayName)),
      log_(std::move(log)),
      missing_(std::move(missing)),
      onLost_(std::move(onLost)) {}

X11Connection* X11ConnectionKeeper::ensure(const Prepare& prepare) {
  if (connection_ && !connection_->broken()) return connection_.get();
  if (connection_) lose();
  const auto now = std::chrono::steady_clock::now();
  if (lastAttempt_ && now - *lastAttempt_ < kReconnectInterval) return nullptr;
  lastAttempt_ = now;
  try {
    auto candidate = X11Connection::open(strand_, displayName_);
    if (prepare) prepare(*candidate);
    connection_ = std::move(candidate);
  } catch (const std::exception& failure) {
    fail(failure.what());
    return nullptr;
  }
  if (std::exchange(failing_, false)) log_.info("The X display is there again");
  return connection_.get();
}

std::nullopt_t X11ConnectionKeeper::lose() {
  const std::string reason =
      connection_ ? describeX11Error(xcb_connection_has_error(connection_->get())) : "no server";
  if (onLost_) onLost_();
  connection_.reset();
  return fail("lost the X display: " + reason);
}

std::nullopt_t X11ConnectionKeeper::fail(const std::string& reason) {
  if (!std::exchange(failing_, true)) log_.error("%s: %s", missing_.c_str(), reason.c_str());
  return std::nullopt;
}

}  // namespace kelvaron::host
