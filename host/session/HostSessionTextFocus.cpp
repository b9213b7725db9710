// The text field that has the computer's keyboard focus, told to the client so that the device
// raises its keyboard: every change of the kind or of the application, and whether the client's
// own click put the focus there.

#include <utility>

#include "host/session/HostSession.hpp"
#include "host/session/TextFocusClick.hpp"
#include "kit/async/Uptime.hpp"

namespace kelvaron::host {

namespace {

// Reports waiting for the session's strand; more means the strand is stuck, and newer ones wait
// for it to move again.
constexpr std::size_t kMaxPendingTextFocus = 64;

}  // namespace

void HostSession::startTextFocus() {
  if (!env_.textFocus || textFocusTask_) return;
  auto results = std::make_shared<AsyncQueue<TextFocus>>();
  stopTextFocus_ = env_.textFocus->start([results](TextFocus focus) {
    if (results->count() < kMaxPendingTextFocus) results->push(std::move(focus));
  });
  textFocusTask_ = Task::spawn(strand_, textFocusLoop(weak_from_this(), results));
}

void HostSession::stopTextFocus() {
  if (stopTextFocus_) std::exchange(stopTextFocus_, nullptr)();
  if (textFocusTask_) textFocusTask_->cancel();
  textFocusTask_.reset();
}

asio::awaitable<void> HostSession::textFocusLoop(std::weak_ptr<HostSession> weak,
                                                 std::shared_ptr<AsyncQueue<TextFocus>> results) {
  for (;;) {
    const std::optional<TextFocus> focus = co_await results->next();
    if (!focus) co_return;
    if (co_await isCancelled()) co_return;
    const auto self = weak.lock();
    if (!self) co_return;
    self->handleTextFocus(*focus);
  }
}

// A report that changes nothing the client sees takes no click: the click may yet explain the
// next change.
void HostSession::handleTextFocus(const TextFocus& focus) {
  if (textFocusSent_ && textFocusSent_->isText == focus.isText &&
      textFocusSent_->bundleID == focus.bundleID && textFocusSent_->kind == focus.kind) {
    return;
  }
  const std::optional<ClickRecord::Click> click = env_.clicks->take();
  const bool byClick = focusedByClick(textFocusSent_, focus, click, uptimeSeconds());
  textFocusSent_ = focus;
  connection_->send(msg::textFocus{focus.isText, focus.bundleID, focus.kind, byClick});
}

}  // namespace kelvaron::host
