#include "kit/transport/StreamSendQueue.hpp"

namespace kelvaron {

void StreamSendQueue::push(Data item, bool counted) {
  if (item.empty()) return;
  const std::uint64_t offset = endOffset_;
  endOffset_ += item.size();
  items_.push_back({std::move(item), offset, counted});
}

std::vector<std::span<const std::uint8_t>> StreamSendQueue::unsent(std::size_t maxViews) const {
  std::vector<std::span<const std::uint8_t>> views;
  for (std::size_t i = firstUnsentItem_; i < items_.size() && views.size() < maxViews; ++i) {
    const Item& item = items_[i];
    const std::size_t skip = sentOffset_ > item.offset ? sentOffset_ - item.offset : 0;
    views.emplace_back(item.bytes.data() + skip, item.bytes.size() - skip);
  }
  return views;
}

std::vector<std::size_t> StreamSendQueue::markSent(std::size_t count, bool fin) {
  std::vector<std::size_t> completed;
  sentOffset_ += count;
  while (firstUnsentItem_ < items_.size() && items_[firstUnsentItem_].end() <= sentOffset_) {
    const Item& item = items_[firstUnsentItem_];
    if (item.counted) completed.push_back(item.bytes.size());
    ++firstUnsentItem_;
  }
  if (fin) finSent_ = true;
  return completed;
}

void StreamSendQueue::acknowledge(std::uint64_t offset, std::uint64_t length) {
  ackedOffset_ = std::max(ackedOffset_, offset + length);
  while (!items_.empty() && firstUnsentItem_ > 0 && items_.front().end() <= ackedOffset_) {
    items_.pop_front();
    --firstUnsentItem_;
  }
}

}  // namespace kelvaron
