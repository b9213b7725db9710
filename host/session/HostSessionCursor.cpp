// The pointer as the client draws it over the video: where it is (`cursorState`) and its image
// (`cursorShape`), sent once per session and named by ID afterwards.

#include <algorithm>

#include "host/session/HostSession.hpp"
#include "kit/async/Uptime.hpp"

namespace kelvaron::host {

namespace {

bool contains(const DisplayFrame& frame, const Point& point) {
  return point.x >= frame.x && point.x < frame.x + frame.width && point.y >= frame.y &&
         point.y < frame.y + frame.height;
}

// A coordinate as a fraction of the display's extent, within 0…1.
float unit(double value, float origin, float extent) {
  return float(std::clamp((value - origin) / std::max(double(extent), 1.0), 0.0, 1.0));
}

}  // namespace

asio::awaitable<void> HostSession::cursorPositionRound() {
  publishCursor({});
  co_return;
}

asio::awaitable<void> HostSession::cursorShapeRound() {
  const std::optional<std::uint64_t> token = shapeToken_;
  const auto poll = co_await env_.cursorSource->poll(token);
  // Nothing readable now: the last shape stays in force.
  if (!poll) co_return;
  shapeToken_ = poll->token;
  if (poll->shape) currentShapeID_ = cursorShapes_.registerShape(*poll->shape);
  cursorVisible_ = poll->visible;
  publishCursor({});
}

// A still pointer sends nothing: a state goes out only when something in it changed, and with
// `minInterval` no sooner than that after the last one; the next round catches what waited.
void HostSession::publishCursor(std::chrono::duration<double> minInterval) {
  if (!env_.cursorSource || displays_.empty()) return;
  const auto position = env_.injector->currentPointerPosition();
  if (!position) return;
  const auto display = std::ranges::find_if(
      displays_, [&](const DisplayInfo& d) { return contains(d.frame, *position); });
  if (display == displays_.end()) return;
  const DisplayFrame& frame = display->frame;
  const CursorKey key{lastAppliedSeq_,
                      display->id,
                      unit(position->x, frame.x, frame.width),
                      unit(position->y, frame.y, frame.height),
                      cursorVisible_,
                      currentShapeID_};
  if (key == cursorSent_) return;
  const double now = uptimeSeconds();
  if (minInterval.count() > 0 && now - lastCursorSendAt_ < minInterval.count()) return;
  // The shape always goes out ahead of the first state that names it.
  if (currentShapeID_ != 0) sendCursorShape(currentShapeID_, false);
  cursorSent_ = key;
  lastCursorSendAt_ = now;
  connection_->send(key);
}

void HostSession::sendCursorShape(std::uint32_t id, bool force) {
  if (!force && sentShapeIDs_.contains(id)) return;
  const CursorShapeData* shape = cursorShapes_.find(id);
  if (!shape) return;
  sentShapeIDs_.insert(id);
  connection_->send(
      msg::cursorShape{id, shape->png, shape->hotspotX, shape->hotspotY, shape->pointSize});
}

}  // namespace kelvaron::host
