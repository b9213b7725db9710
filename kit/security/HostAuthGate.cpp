#include "kit/security/HostAuthGate.hpp"

#include <asio/co_spawn.hpp>
#include <asio/experimental/awaitable_operators.hpp>
#include <asio/use_awaitable.hpp>

#include "kit/crypto/AuthCrypto.hpp"

namespace kelvaron {

namespace {

// Code points that extend the character before them: combining marks, joiners, variation
// selectors and skin-tone modifiers. Enough to count what a person sees as one character.
bool extendsPrevious(char32_t c) {
  return (c >= 0x0300 && c <= 0x036F) || (c >= 0x1AB0 && c <= 0x1AFF) ||
         (c >= 0x1DC0 && c <= 0x1DFF) || (c >= 0x20D0 && c <= 0x20FF) ||
         (c >= 0xFE20 && c <= 0xFE2F) || c == 0x200D || (c >= 0xFE00 && c <= 0xFE0F) ||
         (c >= 0x1F3FB && c <= 0x1F3FF) || (c >= 0xE0020 && c <= 0xE007F);
}

bool isSpace(char32_t c) {
  return c == ' ' || (c >= 0x09 && c <= 0x0D) || c == 0x85 || c == 0xA0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
         c == 0x3000;
}

// Decodes valid UTF-8 (names arrive through the wire's strict reader) into code points with the
// byte offset each starts at.
std::vector<std::pair<char32_t, std::size_t>> codePoints(std::string_view text) {
  std::vector<std::pair<char32_t, std::size_t>> out;
  for (std::size_t i = 0; i < text.size();) {
    const auto b = static_cast<unsigned char>(text[i]);
    const std::size_t n = b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4;
    char32_t c = n == 1 ? b : b & (0x7F >> n);
    for (std::size_t k = 1; k < n && i + k < text.size(); ++k) {
      c = c << 6 | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    }
    out.emplace_back(c, i);
    i += n;
  }
  return out;
}

using Verdict = AuthGate::Verdict;

}  // namespace

std::string cleanDeviceName(std::string_view name) {
  auto points = codePoints(name);
  std::size_t first = 0, last = points.size();
  while (first < last && isSpace(points[first].first)) ++first;
  while (last > first && isSpace(points[last - 1].first)) --last;
  std::size_t characters = 0, end = last;
  for (std::size_t i = first; i < last; ++i) {
    const bool joined = i > first && points[i - 1].first == 0x200D;
    if (extendsPrevious(points[i].first) || joined) continue;
    if (++characters > 64) {
      end = i;
      break;
    }
  }
  if (first == end) return "Unknown device";
  const std::size_t from = points[first].second;
  const std::size_t to = end < points.size() ? points[end].second : name.size();
  return std::string(name.substr(from, to - from));
}

std::shared_ptr<HostAuthGate> HostAuthGate::make(const Executor& executor,
                                                 std::shared_ptr<Connection> connection,
                                                 std::shared_ptr<HostPairingService> service,
                                                 AuthTimeouts timeouts,
                                                 std::function<void(const UUID&)> onAuthenticated,
                                                 Sleeper sleep) {
  return std::shared_ptr<HostAuthGate>(
      new HostAuthGate(executor, std::move(connection), std::move(service), timeouts,
                       std::move(onAuthenticated), std::move(sleep)));
}

HostAuthGate::HostAuthGate(const Executor& executor, std::shared_ptr<Connection> connection,
                           std::shared_ptr<HostPairingService> service, AuthTimeouts timeouts,
                           std::function<void(const UUID&)> onAuthenticated, Sleeper sleep)
    : strand_(makeStrand(executor)),
      connection_(std::move(connection)),
      service_(std::move(service)),
      timeouts_(timeouts),
      onAuthenticated_(std::move(onAuthenticated)),
      sleep_(std::move(sleep)),
      tag_(AuthCrypto::randomUUID()) {}

// ---- The doors: each runs on the gate's strand ----

asio::awaitable<void> HostAuthGate::start() {
  return runOn(strand_, [self = shared_from_this()] { self->startHere(); });
}

asio::awaitable<AuthGate::Verdict> HostAuthGate::handle(const Message& message) {
  return runOn(strand_, [self = shared_from_this(), message] { return self->handleHere(message); });
}

asio::awaitable<void> HostAuthGate::connectionEnded() {
  return runOn(strand_, [self = shared_from_this()] { self->endHere(); });
}

std::optional<UUID> HostAuthGate::authenticatedDeviceID() const {
  std::lock_guard guard(authenticatedLock_);
  return authenticatedDeviceID_;
}

std::optional<Data> HostAuthGate::authenticatedPublicKey() const {
  std::lock_guard guard(authenticatedLock_);
  return authenticatedPublicKey_;
}

HostAuthGate::Phase HostAuthGate::phase() const { return phase_; }

// ---- The dialogue ----

void HostAuthGate::startHere() {
  nonce_ = AuthCrypto::randomBytes(AuthCrypto::kNonceSize);
  connection_->send(msg::authChallenge{nonce_});
  armDeadline(timeouts_.response);
}

Verdict HostAuthGate::handleHere(const Message& message) {
  switch (phase_.load()) {
    case Phase::awaitingResponse:
      if (const auto* m = std::get_if<msg::authResponse>(&message)) onResponse(*m);
      return Verdict::consumed;
    case Phase::pairingOnly:
      if (const auto* m = std::get_if<msg::pairRequest>(&message)) onPairRequest(*m);
      return Verdict::consumed;
    case Phase::committed:
      if (const auto* m = std::get_if<msg::pairReveal>(&message)) onReveal(*m);
      return Verdict::consumed;
    case Phase::authenticated:
      return isAuthentication(message) ? Verdict::consumed : Verdict::proceed;
    case Phase::processing:
    case Phase::awaitingUser:
    case Phase::closed:
      return Verdict::consumed;
  }
  return Verdict::consumed;
}

void HostAuthGate::endHere() {
  const Phase previous = phase_.exchange(Phase::closed);
  deadline_.cancel();
  decision_.cancel();
  attempt_.reset();
  if (previous == Phase::authenticated) service_->unregisterConnection(tag_);
}

// There is only ever one deadline, armed at the start and on entering pairing, so the peer's
// progress through pairing does not extend it.
void HostAuthGate::armDeadline(std::chrono::duration<double> after) {
  deadline_.cancel();
  deadline_ =
      Task::spawn(strand_, deadline(weak_from_this(), sleep_, after, ++deadlineGeneration_));
}

// A deadline that fired just before it was replaced finds a newer generation and does nothing.
asio::awaitable<void> HostAuthGate::deadline(std::weak_ptr<HostAuthGate> weak, Sleeper sleep,
                                             std::chrono::duration<double> delay, int generation) {
  co_await sleep(delay);
  if (co_await isCancelled()) co_return;
  if (auto self = weak.lock()) self->expire(generation);
}

// A peer that runs out of time learns of it from the closing connection alone.
void HostAuthGate::expire(int generation) {
  const Phase now = phase_;
  if (generation != deadlineGeneration_) return;
  if (now == Phase::authenticated || now == Phase::closed) return;
  phase_ = Phase::closed;
  decision_.cancel();
  attempt_.reset();
  log_.info("refused a peer: it did not prove or pair in time");
  connection_->close();
}

void HostAuthGate::fail(const Message& last, const char* why) {
  if (phase_ == Phase::closed) return;
  phase_ = Phase::closed;
  log_.info("refused a peer: %s", why);
  deadline_.cancel();
  attempt_.reset();  // the slot stays charged at the service
  connection_->send(last);
  // Holds the connection only, never the gate.
  Task::spawn(strand_,
              [](std::shared_ptr<Connection> connection, Sleeper sleep,
                 std::chrono::duration<double> delay) -> asio::awaitable<void> {
                co_await sleep(delay);
                connection->close();
              }(connection_, sleep_, timeouts_.flush));
}

void HostAuthGate::onResponse(const msg::authResponse& response) {
  phase_ = Phase::processing;
  const auto exporter = connection_->tlsExporter();
  // The signature is checked before the store is asked: an unknown device must own its key before
  // the host admits even that it does not know it.
  if (!AuthCrypto::verifyChallenge(response.signature, response.publicKey, nonce_,
                                   service_->hostFingerprint(), response.deviceID, exporter)) {
    fail(msg::authResult{AuthResult::denied}, "its signature does not prove the key it showed");
    return;
  }
  const auto known = service_->store()->device(response.deviceID);
  if (!known) {
    deviceID_ = response.deviceID;
    publicKey_ = response.publicKey;
    phase_ = Phase::pairingOnly;
    log_.info("an unknown device may pair now");
    connection_->send(msg::authResult{AuthResult::notPaired});
    armDeadline(timeouts_.pairing);
    return;
  }
  if (known->publicKey != response.publicKey) {
    fail(msg::authResult{AuthResult::denied}, "a paired device's ID with another key");
    return;
  }
  publicKey_ = response.publicKey;
  completeAuthentication(response.deviceID);
  connection_->send(msg::authResult{AuthResult::ok});
}

void HostAuthGate::onPairRequest(const msg::pairRequest& request) {
  phase_ = Phase::processing;
  if (!deviceID_ || !publicKey_) {
    fail(msg::pairResult{PairResult::failed}, "it asked to pair without a key");
    return;
  }
  attempt_ = service_->beginAttempt();
  if (!attempt_) {
    fail(msg::pairResult{PairResult::rateLimited}, "too many pairing attempts of late");
    return;
  }
  deviceName_ = cleanDeviceName(request.deviceName);
  if (request.method == PairMethod::compare) {
    if (request.proof.size() != AuthCrypto::kNonceSize) {
      fail(msg::pairResult{PairResult::failed}, "its commitment has the wrong size");
      return;
    }
    commitment_ = request.proof;
    hostNonce_ = AuthCrypto::randomBytes(AuthCrypto::kNonceSize);
    phase_ = Phase::committed;
    connection_->send(msg::pairNonce{hostNonce_});
    return;
  }
  switch (service_->redeem(request.proof, *publicKey_, *deviceID_)) {
    case HostPairingService::Redemption::success:
      finishPairing();
      return;
    case HostPairingService::Redemption::invalid:
      fail(msg::pairResult{PairResult::invalidToken}, "its pairing token is not the host's");
      return;
    case HostPairingService::Redemption::expired:
      fail(msg::pairResult{PairResult::expiredToken}, "its pairing token has expired");
      return;
  }
}

void HostAuthGate::onReveal(const msg::pairReveal& reveal) {
  if (!publicKey_ ||
      !AuthCrypto::constantTimeEqual(AuthCrypto::commitment(reveal.reveal), commitment_)) {
    fail(msg::pairResult{PairResult::failed}, "what it revealed does not match its commitment");
    return;
  }
  const std::string code = AuthCrypto::comparisonCode(service_->hostFingerprint(), *publicKey_,
                                                      hostNonce_, reveal.reveal);
  phase_ = Phase::awaitingUser;
  // The prompt runs on its own, so that the gate stays responsive while it is up.
  decision_ = Task::spawn(
      strand_, [](std::shared_ptr<HostAuthGate> self, std::string shown) -> asio::awaitable<void> {
        co_await self->decide(shown);
      }(shared_from_this(), code));
}

asio::awaitable<void> HostAuthGate::decide(const std::string& code) {
  bool accepted = false;
  if (const auto confirmer = service_->confirmer()) {
    using namespace asio::experimental::awaitable_operators;
    // Named, so that no temporary lives across the suspension (GCC 12 destroys those twice).
    auto race = confirmer->confirm(deviceName_, code) || sleep_(timeouts_.confirm);
    const auto answer = co_await std::move(race);
    accepted = answer.index() == 0 && std::get<0>(answer);
  }
  // The answer of a person who took too long, or of a gate that moved on, is dropped.
  if (co_await isCancelled() || phase_ != Phase::awaitingUser) co_return;
  if (accepted) {
    finishPairing();
  } else {
    fail(msg::pairResult{PairResult::denied}, "the code was not confirmed at the host");
  }
}

void HostAuthGate::finishPairing() {
  if (!deviceID_ || !publicKey_) return;
  service_->store()->add({*deviceID_, deviceName_, *publicKey_, service_->now(), std::nullopt});
  service_->notifyChange();
  if (attempt_) {
    service_->endAttempt(*attempt_, true);
    attempt_.reset();
  }
  completeAuthentication(*deviceID_);
  connection_->send(msg::pairResult{PairResult::accepted});
}

// The session is switched on before the peer hears of success.
void HostAuthGate::completeAuthentication(const UUID& deviceID) {
  phase_ = Phase::authenticated;
  connection_->liftHandshakeLimits();
  {
    std::lock_guard guard(authenticatedLock_);
    authenticatedDeviceID_ = deviceID;
    authenticatedPublicKey_ = publicKey_;
  }
  deadline_.cancel();
  service_->registerConnection(tag_, deviceID, connection_);
  if (onAuthenticated_) onAuthenticated_(deviceID);
}

}  // namespace kelvaron
