#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "kit/wire/Bytes.hpp"

namespace kelvaron {

// The outgoing bytes of one QUIC stream, as whole items (one encoded frame each). The stack reads
// them from the front without copying and may send them again, so an item is kept until the peer
// has acknowledged its last byte. An item counts as sent once its last byte has gone into a
// packet: that is when the sender's in-flight accounting lets go of it.
class StreamSendQueue {
 public:
  // `counted`: whether its sending is reported by `markSent` (a stream's opening is not).
  void push(Data item, bool counted = true);
  // Ends the stream after what is queued.
  void finish() { finQueued_ = true; }

  // Up to `maxViews` slices of what has not been sent yet, in order.
  std::vector<std::span<const std::uint8_t>> unsent(std::size_t maxViews) const;
  bool hasUnsent() const { return sentOffset_ < endOffset_; }
  std::uint64_t unsentBytes() const { return endOffset_ - sentOffset_; }
  // True when the end of the stream is queued and everything before it has been sent, or is
  // about to be with the slices `unsent` gives.
  bool finQueued() const { return finQueued_ && !finSent_; }

  // `count` more bytes went into a packet (and the FIN, if `fin`). Returns the sizes of the
  // counted items whose last byte this sent.
  std::vector<std::size_t> markSent(std::size_t count, bool fin = false);
  // The peer acknowledged [offset, offset + length): items it covers entirely are released.
  // Acknowledgements come in order and without overlap.
  void acknowledge(std::uint64_t offset, std::uint64_t length);

  std::uint64_t ackedOffset() const { return ackedOffset_; }
  std::size_t heldItems() const { return items_.size(); }

 private:
  struct Item {
    Data bytes;
    std::uint64_t offset;  // of its first byte in the stream
    bool counted;
    std::uint64_t end() const { return offset + bytes.size(); }
  };

  std::deque<Item> items_;
  std::uint64_t endOffset_ = 0;
  std::uint64_t sentOffset_ = 0;
  std::uint64_t ackedOffset_ = 0;
  std::size_t firstUnsentItem_ = 0;  // index into items_
  bool finQueued_ = false;
  bool finSent_ = false;
};

}  // namespace kelvaron
