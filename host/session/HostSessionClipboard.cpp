// The clipboard kept in step with the device without echo, and pictures of the displays that are
// not streamed for the device's picker.

#include "host/session/HostSession.hpp"

namespace kelvaron::host {

namespace {

constexpr int kThumbnailWidth = 480;

}  // namespace

// Echo is prevented by the count alone: the same text copied again is sent again. While a write
// of ours is under way the count moves without its mark: the round waits for the mark.
asio::awaitable<void> HostSession::clipboardRound() {
  if (clipboardWrites_ > 0) co_return;
  const std::int64_t count = env_.pasteboard->changeCount();
  if (clipboardMark_.exchange(count) == count) co_return;
  // The change is consumed even when it holds no text: a copied picture sends nothing, once.
  const auto text = co_await env_.pasteboard->string();
  if (!text || text->empty()) co_return;
  connection_->send(msg::clipboardText{*text});
}

asio::awaitable<void> HostSession::writeClipboard(std::string text) {
  if (!env_.pasteboard) co_return;
  auto writing = env_.pasteboard->writeString(std::move(text));
  auto owned = writeOwnClipboard(weak_from_this(), env_.pasteboard, std::move(writing));
  co_await std::move(owned);
}

// A write of ours: the rounds wait while it runs, and once it is done the mark takes its change,
// so that the next round sees none and what we wrote does not go back to the device. Holds the
// session weakly; throws what the write throws.
asio::awaitable<void> HostSession::writeOwnClipboard(
    std::weak_ptr<HostSession> weak, std::shared_ptr<PasteboardProviding> pasteboard,
    asio::awaitable<void> write) {
  if (const auto self = weak.lock()) ++self->clipboardWrites_;
  std::exception_ptr failure;
  try {
    co_await std::move(write);
  } catch (...) {
    failure = std::current_exception();
  }
  if (const auto self = weak.lock()) {
    --self->clipboardWrites_;
    if (!failure) self->clipboardMark_.exchange(pasteboard->changeCount());
  }
  if (failure) std::rethrow_exception(failure);
}

void HostSession::setThumbnails(bool enabled) {
  if (thumbnailTask_) thumbnailTask_->cancel();
  thumbnailTask_.reset();
  if (!enabled || !env_.thumbnails) return;
  thumbnailTask_ = Task::spawn(strand_, thumbnailLoop(weak_from_this(), env_.thumbnails, env_.sleep,
                                                      env_.thumbnailInterval));
}

std::vector<std::uint32_t> HostSession::thumbnailDisplayIDs() const {
  std::vector<std::uint32_t> ids;
  for (const DisplayInfo& display : displays_) {
    if (!current_ || display.id != current_->id) ids.push_back(display.id);
  }
  return ids;
}

// Holds the session weakly, and awaits each picture off its executor, so that a slow one delays
// no message. Nothing is cached: each round takes new pictures.
asio::awaitable<void> HostSession::thumbnailLoop(std::weak_ptr<HostSession> weak,
                                                 std::shared_ptr<ThumbnailProviding> provider,
                                                 Sleeper sleep,
                                                 std::chrono::duration<double> interval) {
  for (;;) {
    if (co_await isCancelled()) co_return;
    std::vector<std::uint32_t> ids;
    if (const auto self = weak.lock()) {
      ids = self->thumbnailDisplayIDs();
    } else {
      co_return;
    }
    for (const std::uint32_t id : ids) {
      std::optional<Data> jpeg;
      try {
        jpeg = co_await provider->thumbnail(id, kThumbnailWidth);
      } catch (const std::exception&) {
        // That display goes without a picture until the next round.
      }
      if (co_await isCancelled()) co_return;
      const auto self = weak.lock();
      if (!self) co_return;
      if (jpeg && !jpeg->empty()) self->connection_->send(msg::thumbnail{id, std::move(*jpeg)});
    }
    co_await sleep(interval);
  }
}

}  // namespace kelvaron::host
