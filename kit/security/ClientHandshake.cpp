#include "kit/security/ClientHandshake.hpp"

#include <atomic>

#include "kit/async/Task.hpp"
#include "kit/crypto/AuthCrypto.hpp"

namespace kelvaron {

using Event = ClientHandshake::Event;
using Kind = ClientHandshake::Purpose::Kind;

ClientHandshake::ClientHandshake(std::shared_ptr<Connection> connection,
                                 const ClientIdentity& identity, Purpose purpose,
                                 std::string deviceName,
                                 std::function<std::optional<Data>()> hostFingerprint,
                                 std::function<void(const Event&)> onEvent)
    : connection_(std::move(connection)),
      identity_(identity),
      purpose_(std::move(purpose)),
      deviceName_(std::move(deviceName)),
      hostFingerprint_(std::move(hostFingerprint)),
      onEvent_(std::move(onEvent)),
      clientNonce_(AuthCrypto::randomBytes(AuthCrypto::kNonceSize)) {}

bool ClientHandshake::handle(const Message& message) {
  if (const auto* challenge = std::get_if<msg::authChallenge>(&message)) {
    answerChallenge(*challenge);
  } else if (const auto* result = std::get_if<msg::authResult>(&message)) {
    onAuthResult(*result);
  } else if (const auto* nonce = std::get_if<msg::pairNonce>(&message)) {
    revealAndShowCode(*nonce);
  } else if (const auto* paired = std::get_if<msg::pairResult>(&message)) {
    // A paired device is authenticated at once: there is no second challenge.
    finish(paired->result == PairResult::accepted ? Event::of(Event::Kind::authenticated)
                                                  : Event::pairingFailed(paired->result));
  } else {
    return false;
  }
  return true;
}

void ClientHandshake::answerChallenge(const msg::authChallenge& challenge) {
  // Read now: TLS may have finished only by the time the challenge comes.
  const auto fingerprint = hostFingerprint_();
  if (!fingerprint) return finish(Event::failed("no host fingerprint"));
  {
    std::lock_guard guard(lock_);
    fingerprintUsed_ = *fingerprint;
  }
  Data signature;
  try {
    signature = AuthCrypto::signChallenge(challenge.nonce, *fingerprint, identity_.deviceID,
                                          connection_->tlsExporter(), identity_.privateKey);
  } catch (const CryptoError&) {
    return finish(Event::failed("signing failed"));
  }
  send(msg::authResponse{identity_.deviceID, identity_.privateKey.publicKey(), signature});
}

void ClientHandshake::onAuthResult(const msg::authResult& result) {
  switch (result.result) {
    case AuthResult::ok:
      return finish(Event::of(Event::Kind::authenticated));
    case AuthResult::denied:
      return finish(Event::of(Event::Kind::denied));
    case AuthResult::notPaired:
      return startPairing();
  }
}

// Not paired: signing in ends here; pairing goes on by the purpose's way.
void ClientHandshake::startPairing() {
  switch (purpose_.kind) {
    case Kind::authenticate:
      return finish(Event::of(Event::Kind::notPaired));
    case Kind::pairByComparison:
      return send(msg::pairRequest{PairMethod::compare, deviceName_,
                                   AuthCrypto::commitment(clientNonce_)});
    case Kind::pairWithToken:
      return send(msg::pairRequest{
          PairMethod::token, deviceName_,
          AuthCrypto::pairingProof(purpose_.token, fingerprintUsed(),
                                   identity_.privateKey.publicKey(), identity_.deviceID)});
  }
}

void ClientHandshake::revealAndShowCode(const msg::pairNonce& nonce) {
  if (purpose_.kind != Kind::pairByComparison) {
    return finish(Event::failed("unexpected pairNonce"));
  }
  send(msg::pairReveal{clientNonce_});
  onEvent_(Event::showCode(AuthCrypto::comparisonCode(
      fingerprintUsed(), identity_.privateKey.publicKey(), nonce.nonce, clientNonce_)));
}

Data ClientHandshake::fingerprintUsed() const {
  std::lock_guard guard(lock_);
  return fingerprintUsed_;
}

void ClientHandshake::finish(const Event& event) {
  {
    std::lock_guard guard(lock_);
    if (finished_) return;
    finished_ = true;
  }
  onEvent_(event);
}

namespace {

// Where the final event lands, written once.
struct ResultBox {
  std::mutex lock;
  std::optional<Event> event;
  std::atomic<bool> readerEnded = false;

  void put(const Event& e) {
    std::lock_guard guard(lock);
    if (!event) event = e;
  }
  std::optional<Event> get() {
    std::lock_guard guard(lock);
    return event;
  }
};

asio::awaitable<void> readMessages(std::shared_ptr<Connection> connection,
                                   std::shared_ptr<ClientHandshake> handshake,
                                   std::shared_ptr<ResultBox> box) {
  struct Ended {
    ResultBox& box;
    ~Ended() { box.readerEnded = true; }
  } ended{*box};
  for (;;) {
    if (co_await isCancelled()) co_return;
    const auto message = co_await connection->messages().next();
    if (!message) break;
    handshake->handle(*message);
  }
  if (!co_await isCancelled()) box->put(Event::failed("connection closed"));
}

asio::awaitable<Event> drive(std::shared_ptr<Connection> connection,
                             std::shared_ptr<ClientHandshake> handshake,
                             std::shared_ptr<ResultBox> box,
                             std::chrono::duration<double> timeout) {
  co_await asio::this_coro::throw_if_cancelled(false);
  const auto executor = co_await asio::this_coro::executor;
  // The reader gets a strand of its own: a queue's reader must run on a serial executor.
  const Task reader = Task::spawn(makeStrand(executor), readMessages(connection, handshake, box));

  const auto deadline = WallClock::now() + std::chrono::duration_cast<WallClock::duration>(timeout);
  for (;;) {
    if (box->get() || WallClock::now() >= deadline) break;
    if (co_await isCancelled()) break;
    co_await sleepFor(std::chrono::milliseconds(20));
  }
  // The caller may read the messages itself once this returns: the reader must be gone by then.
  reader.cancel();
  while (!box->readerEnded) co_await sleepFor(std::chrono::milliseconds(1));
  const std::optional<Event> event = box->get();
  co_return event.value_or(Event::failed("timed out"));
}

}  // namespace

// A plain function around the coroutine, so that arguments a caller builds in its `co_await`
// expression are never coroutine parameters (GCC 12 destroys such temporaries twice).
asio::awaitable<Event> ClientHandshake::run(std::shared_ptr<Connection> connection,
                                            const ClientIdentity& identity, Purpose purpose,
                                            std::string deviceName,
                                            std::function<std::optional<Data>()> hostFingerprint,
                                            std::chrono::duration<double> timeout,
                                            std::function<void(const std::string&)> onCode) {
  auto box = std::make_shared<ResultBox>();
  auto handshake = std::make_shared<ClientHandshake>(
      connection, identity, std::move(purpose), std::move(deviceName), std::move(hostFingerprint),
      [box, onCode = std::move(onCode)](const Event& e) {
        if (e.kind == Event::Kind::showCode) {
          if (onCode) onCode(e.text);
        } else {
          box->put(e);
        }
      });
  return drive(connection, handshake, box, timeout);
}

}  // namespace kelvaron
