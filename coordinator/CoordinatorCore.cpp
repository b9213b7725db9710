#include "coordinator/CoordinatorCore.hpp"

#include <algorithm>

#include "kit/relay/InviteCode.hpp"
#include "kit/relay/RelayToken.hpp"
#include "kit/relay/RelayWire.hpp"

namespace kelvaron::coordinator {

namespace {

HttpAnswer failure(int status, std::string_view error) {
  return {status, CoordinatorWire::encodeError(error)};
}

}  // namespace

RateLimiter::RateLimiter(double burst, std::chrono::duration<double> period, std::size_t maxSources)
    : burst_(burst), period_(period.count()), maxSources_(maxSources) {}

bool RateLimiter::admit(const std::string& source, double now) {
  std::lock_guard guard(lock_);
  if (buckets_.size() >= maxSources_ && !buckets_.contains(source)) forgetIdle(now);
  if (buckets_.size() >= maxSources_ && !buckets_.contains(source)) {
    // A full table turns nobody away: the source heard from longest ago gives way.
    buckets_.erase(std::ranges::min_element(
        buckets_, [](const auto& a, const auto& b) { return a.second.at < b.second.at; }));
  }
  auto [entry, fresh] = buckets_.try_emplace(source, Bucket{burst_, now});
  Bucket& bucket = entry->second;
  bucket.tokens = std::min(burst_, bucket.tokens + std::max(0.0, now - bucket.at) / period_);
  bucket.at = now;
  if (bucket.tokens < 1) return false;
  bucket.tokens -= 1;
  return true;
}

// A source whose bucket has filled up again is no different from one never seen.
void RateLimiter::forgetIdle(double now) {
  std::erase_if(buckets_, [&](const auto& entry) {
    return entry.second.tokens + (now - entry.second.at) / period_ >= burst_;
  });
}

CoordinatorCore::CoordinatorCore(std::shared_ptr<CoordinatorStore> store,
                                 std::shared_ptr<const RelaySigner> signer, Options options)
    : store_(std::move(store)),
      signer_(std::move(signer)),
      options_(std::move(options)),
      limiter_(options_.burst, options_.period, 65536) {}

HttpAnswer CoordinatorCore::handle(std::string_view path, std::string_view body,
                                   const std::string& source,
                                   std::chrono::system_clock::time_point now, double uptime) {
  if (path != "/v1/enroll" && path != "/v1/token") return failure(404, "not_found");
  if (!limiter_.admit(source, uptime)) return failure(429, "rate_limited");
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count();
  try {
    return path == "/v1/enroll" ? enroll(body, seconds) : token(body, seconds);
  } catch (const StoreError&) {
    return failure(503, "unavailable");
  }
}

HttpAnswer CoordinatorCore::enroll(std::string_view body, std::int64_t now) {
  const auto request = CoordinatorWire::decodeEnrollRequest(body);
  if (!request) return failure(400, "bad_request");
  const auto invite = InviteCode::normalize(request->invite);
  if (!invite || *invite != request->invite) return failure(400, "bad_request");
  const Data message = RelayWire::enrollMessage(request->ts, request->hostKey, *invite);
  if (!timely(request->ts, now) ||
      !relaySignatureHolds(request->hostKey, request->proof, message)) {
    return failure(403, "bad_proof");
  }
  const auto account = store_->redeemInvite(*invite, request->hostKey, now);
  if (!account) return failure(401, "invalid_invite");
  return {200, CoordinatorWire::encodeAccount(*account)};
}

HttpAnswer CoordinatorCore::token(std::string_view body, std::int64_t now) {
  const auto request = CoordinatorWire::decodeTokenRequest(body);
  if (!request || request->role != "host") return failure(400, "bad_request");
  const Data message = RelayWire::coordinatorMessage(request->ts, request->hostKey);
  if (!timely(request->ts, now) ||
      !relaySignatureHolds(request->hostKey, request->proof, message)) {
    return failure(403, "bad_proof");
  }
  const auto host = store_->host(request->hostKey);
  if (!host) return failure(401, "not_enrolled");
  if (host->revoked) return failure(401, "revoked");
  const auto expiresAt =
      std::chrono::system_clock::time_point(std::chrono::seconds(now)) + options_.tokenLifetime;
  const RelayToken token{request->hostKey, RelayWire::timestamp(expiresAt)};
  const RelayAdmission admission{token.signedBy(*signer_), relaysFor(request->region), expiresAt};
  return {200, CoordinatorWire::encodeAdmission(admission)};
}

bool CoordinatorCore::timely(std::uint64_t ts, std::int64_t now) const {
  const auto skew = std::int64_t(std::min<std::uint64_t>(ts, INT64_MAX)) - now;
  return std::abs(skew) <= options_.allowedSkew.count();
}

// The relays of the region asked for first, the others after them.
std::vector<RelayCandidate> CoordinatorCore::relaysFor(
    const std::optional<std::string>& region) const {
  std::vector<RelayCandidate> relays = options_.relays;
  if (region) {
    std::ranges::stable_partition(relays, [&](const auto& r) { return r.region == *region; });
  }
  return relays;
}

}  // namespace kelvaron::coordinator
