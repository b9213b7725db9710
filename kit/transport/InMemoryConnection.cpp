#include "kit/transport/InMemoryConnection.hpp"

#include "kit/wire/WireCodec.hpp"

namespace kelvaron {

namespace {

// Appends a frame to `decoder` and decodes everything whole, under `lock`. A decoding failure ends
// the drain and is returned beside what came before it.
template <class T, class Next>
std::pair<std::vector<T>, std::optional<WireError>> drain(std::mutex& lock, WireDecoder& decoder,
                                                          const Data& frame, Next next) {
  std::vector<T> decoded;
  std::lock_guard guard(lock);
  decoder.append(frame);
  try {
    while (auto item = next(decoder)) decoded.push_back(std::move(*item));
  } catch (const WireError& error) {
    return {std::move(decoded), error};
  }
  return {std::move(decoded), std::nullopt};
}

bool isTransfer(const Message& message) { return channel(message) == Channel::transfer; }

}  // namespace

std::pair<std::shared_ptr<InMemoryConnection>, std::shared_ptr<InMemoryConnection>>
InMemoryConnection::makePair() {
  std::shared_ptr<InMemoryConnection> a(new InMemoryConnection());
  std::shared_ptr<InMemoryConnection> b(new InMemoryConnection());
  a->peer_ = b;
  b->peer_ = a;
  a->states_.push(ConnectionState::ready());
  b->states_.push(ConnectionState::ready());
  return {a, b};
}

std::shared_ptr<InMemoryConnection> InMemoryConnection::livePeer() const {
  std::lock_guard guard(lock_);
  return isClosed_ ? nullptr : peer_.lock();
}

void InMemoryConnection::send(const Message& message) {
  if (auto peer = livePeer())
    peer->receiveMessage(WireCodec::encodeMessage(message), isTransfer(message));
}

void InMemoryConnection::receiveMessage(const Data& frame, bool transfer) {
  receive(frame, transfer ? transferDecoder_ : messageDecoder_, messages_,
          [](WireDecoder& d) { return d.nextMessage(); });
}

// Appends a frame to one of this end's decoders and queues what decodes, outside the lock. A
// frame that does not decode fails this end's states; the end stays usable.
template <class T, class Next>
void InMemoryConnection::receive(const Data& frame, WireDecoder& decoder, AsyncQueue<T>& queue,
                                 Next next) {
  auto [items, error] = drain<T>(lock_, decoder, frame, next);
  for (auto& item : items) queue.push(std::move(item));
  if (error) states_.push(ConnectionState::failed(error->what()));
}

bool InMemoryConnection::sendVideo(const VideoFrame& frame) {
  auto peer = livePeer();
  if (!peer || peer->videoQueue_.count() >= static_cast<std::size_t>(maxInFlight())) return false;
  peer->receive(WireCodec::encodeVideoFrame(frame), peer->videoDecoder_, peer->videoQueue_,
                [](WireDecoder& d) { return d.nextVideoFrame(); });
  return true;
}

bool InMemoryConnection::sendAudio(const AudioPacket& packet) {
  auto peer = livePeer();
  if (!peer || peer->audioQueue_.count() >= static_cast<std::size_t>(maxAudioInFlight())) {
    return false;
  }
  peer->receive(WireCodec::encodeAudioPacket(packet), peer->audioDecoder_, peer->audioQueue_,
                [](WireDecoder& d) { return d.nextAudioPacket(); });
  return true;
}

namespace {
asio::awaitable<bool> resolved(bool value) { co_return value; }
}  // namespace

// In memory there is no budget to wait for: the message is delivered at the call, and the result
// is ready at once.
asio::awaitable<bool> InMemoryConnection::sendTransfer(const Message& message) {
  auto peer = livePeer();
  if (peer) peer->receiveMessage(WireCodec::encodeMessage(message), isTransfer(message));
  return resolved(peer != nullptr);
}

void InMemoryConnection::close() {
  std::shared_ptr<InMemoryConnection> peer;
  {
    std::lock_guard guard(lock_);
    isClosed_ = true;
    peer = peer_.lock();
    peer_.reset();
  }
  closeHere();
  if (peer) {
    {
      std::lock_guard guard(peer->lock_);
      peer->isClosed_ = true;
      peer->peer_.reset();
    }
    peer->closeHere();
  }
}

void InMemoryConnection::closeHere() {
  states_.push(ConnectionState::closed());
  states_.finish();
  messages_.finish();
  videoQueue_.finish();
  audioQueue_.finish();
}

int InMemoryConnection::maxInFlight() const {
  std::lock_guard guard(lock_);
  return maxInFlight_;
}

void InMemoryConnection::setMaxInFlight(int limit) {
  std::lock_guard guard(lock_);
  maxInFlight_ = limit;
}

int InMemoryConnection::maxAudioInFlight() const {
  std::lock_guard guard(lock_);
  return maxAudioInFlight_;
}

void InMemoryConnection::setMaxAudioInFlight(int limit) {
  std::lock_guard guard(lock_);
  maxAudioInFlight_ = limit;
}

}  // namespace kelvaron
