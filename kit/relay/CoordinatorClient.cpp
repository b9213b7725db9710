#include "kit/relay/CoordinatorClient.hpp"

#include "kit/relay/CoordinatorError.hpp"
#include "kit/relay/InviteCode.hpp"
#include "kit/relay/RelayWire.hpp"

namespace kelvaron {

CoordinatorClient::CoordinatorClient(std::string_view baseURL,
                                     std::shared_ptr<const RelaySigner> signer,
                                     std::shared_ptr<CurlHttpSession> session, Options options)
    : baseURL_(CoordinatorWire::checkedBaseURL(baseURL)),
      signer_(std::move(signer)),
      session_(std::move(session)),
      options_(std::move(options)) {}

asio::awaitable<std::string> CoordinatorClient::enroll(std::string typed) {
  const auto invite = InviteCode::normalize(typed);
  if (!invite) throw CoordinatorError(CoordinatorError::Kind::malformedInvite);
  const Data& key = signer_->publicKeyX963();
  const std::uint64_t ts = timestamp();
  const CoordinatorWire::EnrollRequest request{
      *invite, key, ts, signer_->sign(RelayWire::enrollMessage(ts, key, *invite))};
  // Each awaitable named before it is awaited: GCC 12 and co_await's temporaries.
  auto posting = post("enroll", CoordinatorWire::encode(request));
  const std::string body = co_await std::move(posting);
  co_return CoordinatorWire::decodeAccount(body);
}

asio::awaitable<RelayAdmission> CoordinatorClient::admission(bool forceRefresh) {
  {
    std::lock_guard guard(lock_);
    if (!forceRefresh && cache_ &&
        CoordinatorWire::isFresh(*cache_, options_.now(), options_.refreshMargin)) {
      co_return *cache_;
    }
    cache_.reset();
  }
  auto fetching = fetchToken(std::nullopt);
  RelayAdmission fresh = co_await std::move(fetching);
  co_return fresh;
}

asio::awaitable<RelayAdmission> CoordinatorClient::fetchToken(std::optional<std::string> region) {
  const Data& key = signer_->publicKeyX963();
  const std::uint64_t ts = timestamp();
  CoordinatorWire::TokenRequest request{
      "host", key, ts, signer_->sign(RelayWire::coordinatorMessage(ts, key)), std::move(region)};
  auto posting = post("token", CoordinatorWire::encode(request));
  const std::string body = co_await std::move(posting);
  RelayAdmission admission = CoordinatorWire::decodeAdmission(body);
  std::lock_guard guard(lock_);
  cache_ = admission;
  co_return admission;
}

std::optional<std::chrono::system_clock::time_point> CoordinatorClient::cachedExpiry() const {
  std::lock_guard guard(lock_);
  if (!cache_) return std::nullopt;
  return cache_->expiresAt;
}

asio::awaitable<std::string> CoordinatorClient::post(std::string_view endpoint,
                                                     std::string body) const {
  CurlHttpSession::Response response;
  try {
    auto posting =
        session_->postJSON(CoordinatorWire::endpointURL(baseURL_, endpoint), std::move(body));
    response = co_await std::move(posting);
  } catch (const CurlHttpSession::Error& failure) {
    throw CoordinatorError(failure.kind() == CurlHttpSession::Error::Kind::tooLarge
                               ? CoordinatorError::Kind::badResponse
                               : CoordinatorError::Kind::unreachable);
  }
  if (response.status < 200 || response.status > 299) {
    throw CoordinatorError::fromResponse(int(response.status), response.body);
  }
  co_return response.body;
}

std::uint64_t CoordinatorClient::timestamp() const { return RelayWire::timestamp(options_.now()); }

}  // namespace kelvaron
