#pragma once

#include <mutex>
#include <utility>

#include "kit/transport/Connection.hpp"
#include "kit/wire/WireDecoder.hpp"

namespace kelvaron {

// Two connected ends in one process. Every send is encoded and every receipt decoded through the
// real wire format, so the pair exercises the same code as the network. In memory, the frames in
// flight are those queued at the receiver and not yet taken by its reader.
class InMemoryConnection final : public Connection {
 public:
  static std::pair<std::shared_ptr<InMemoryConnection>, std::shared_ptr<InMemoryConnection>>
  makePair();

  // An end that is dropped hangs up: the far end sees `closed`.
  ~InMemoryConnection() override { close(); }

  AsyncQueue<ConnectionState>& states() override { return states_; }
  AsyncQueue<Message>& messages() override { return messages_; }
  AsyncQueue<VideoFrame>& videoFrames() override { return videoQueue_; }
  AsyncQueue<AudioPacket>& audioPackets() override { return audioQueue_; }

  void send(const Message& message) override;
  bool sendVideo(const VideoFrame& frame) override;
  bool sendAudio(const AudioPacket& packet) override;
  asio::awaitable<bool> sendTransfer(const Message& message) override;
  void close() override;
  // Both ends live in one process and decode nothing: there are no limits to lift.
  void liftHandshakeLimits() override {}

  std::optional<Data> peerCertificateFingerprint() const override { return std::nullopt; }
  std::optional<Data> tlsExporter() const override { return std::nullopt; }

  int maxInFlight() const;
  void setMaxInFlight(int limit);
  int maxAudioInFlight() const;
  void setMaxAudioInFlight(int limit);

 private:
  InMemoryConnection() = default;

  // The peer, unless this end is closed or the peer is gone.
  std::shared_ptr<InMemoryConnection> livePeer() const;
  void receiveMessage(const Data& frame, bool transfer);
  template <class T, class Next>
  void receive(const Data& frame, WireDecoder& decoder, AsyncQueue<T>& queue, Next next);
  void closeHere();

  mutable std::mutex lock_;
  int maxInFlight_ = 8;
  int maxAudioInFlight_ = 256;
  std::weak_ptr<InMemoryConnection> peer_;
  bool isClosed_ = false;
  WireDecoder messageDecoder_;  // the input channel shares it in memory
  WireDecoder videoDecoder_;
  WireDecoder audioDecoder_;
  WireDecoder transferDecoder_;

  AsyncQueue<ConnectionState> states_;
  AsyncQueue<Message> messages_;
  AsyncQueue<VideoFrame> videoQueue_;
  AsyncQueue<AudioPacket> audioQueue_;
};

}  // namespace kelvaron
