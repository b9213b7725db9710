#pragma once

// The host's side of its coordinator: enrolling the host's key with an invite, and the short-lived
// token and relay list that let it register at a relay, kept until shortly before they expire.
// Safe from any executor; two overlapping fetches both go out and the later answer is kept.

#include <asio/awaitable.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "kit/relay/CoordinatorWire.hpp"
#include "kit/relay/CurlHttpSession.hpp"
#include "kit/relay/RelaySigner.hpp"

namespace kelvaron {

struct CoordinatorClientOptions {
  std::function<std::chrono::system_clock::time_point()> now = [] {
    return std::chrono::system_clock::now();
  };
  std::chrono::duration<double> refreshMargin{120.0};  // a token this close to expiry is old
};

class CoordinatorClient {
 public:
  using Options = CoordinatorClientOptions;

  // `baseURL` as a person typed it; throws CoordinatorError::badBaseURL.
  CoordinatorClient(std::string_view baseURL, std::shared_ptr<const RelaySigner> signer,
                    std::shared_ptr<CurlHttpSession> session, Options options = {});

  // The account the host now belongs to. Throws CoordinatorError (malformedInvite before any
  // request) or, when cancelled, asio's operation_aborted.
  asio::awaitable<std::string> enroll(std::string invite);
  // The cached admission while it is fresh, unless `forceRefresh`; else a new one.
  asio::awaitable<RelayAdmission> admission(bool forceRefresh);
  // A new admission, cached. Every caller here passes no region.
  asio::awaitable<RelayAdmission> fetchToken(std::optional<std::string> region = std::nullopt);
  std::optional<std::chrono::system_clock::time_point> cachedExpiry() const;
  // The coordinator's address as checked: white space around it dropped.
  const std::string& baseURL() const { return baseURL_; }

 private:
  asio::awaitable<std::string> post(std::string_view endpoint, std::string body) const;
  std::uint64_t timestamp() const;

  const std::string baseURL_;
  const std::shared_ptr<const RelaySigner> signer_;
  const std::shared_ptr<CurlHttpSession> session_;
  const Options options_;
  mutable std::mutex lock_;
  std::optional<RelayAdmission> cache_;
};

}  // namespace kelvaron
