#pragma once

// The coordinator's answers, without sockets or clocks: a host enrols its key with an invite, then
// comes back for tokens that admit it at the relays, each request proved by the host's signature
// over the present time. Safe from any thread.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "coordinator/CoordinatorStore.hpp"
#include "kit/relay/CoordinatorWire.hpp"
#include "kit/relay/RelaySigner.hpp"

namespace kelvaron::coordinator {

struct HttpAnswer {
  int status = 200;
  std::string body;  // JSON
};

// How many requests one source may make: `burst` at once, then one every `period`.
class RateLimiter {
 public:
  RateLimiter(double burst, std::chrono::duration<double> period, std::size_t maxSources);
  // Whether a request of `source` at `now` (seconds on any steady clock) may go on.
  bool admit(const std::string& source, double now);

 private:
  struct Bucket {
    double tokens;
    double at;
  };
  void forgetIdle(double now);

  const double burst_;
  const double period_;
  const std::size_t maxSources_;
  std::mutex lock_;
  std::map<std::string, Bucket> buckets_;
};

class CoordinatorCore {
 public:
  struct Options {
    std::vector<RelayCandidate> relays;
    std::chrono::seconds tokenLifetime{std::chrono::hours(1)};
    std::chrono::seconds allowedSkew{300};      // between the host's clock and ours
    double burst = 20;                          // requests of one source at once,
    std::chrono::duration<double> period{3.0};  // then one this often
  };

  // `signer`: the coordinator's key, whose public half the relays are given.
  CoordinatorCore(std::shared_ptr<CoordinatorStore> store,
                  std::shared_ptr<const RelaySigner> signer, Options options);

  // A POST to `path` from `source` (its address): `now` is the wall clock, `uptime` seconds on a
  // steady one.
  HttpAnswer handle(std::string_view path, std::string_view body, const std::string& source,
                    std::chrono::system_clock::time_point now, double uptime);

 private:
  HttpAnswer enroll(std::string_view body, std::int64_t now);
  HttpAnswer token(std::string_view body, std::int64_t now);
  bool timely(std::uint64_t ts, std::int64_t now) const;
  std::vector<RelayCandidate> relaysFor(const std::optional<std::string>& region) const;

  const std::shared_ptr<CoordinatorStore> store_;
  const std::shared_ptr<const RelaySigner> signer_;
  const Options options_;
  RateLimiter limiter_;
};

}  // namespace kelvaron::coordinator
