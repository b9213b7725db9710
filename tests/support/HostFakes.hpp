#pragma once

// Stand-ins for the computer's parts of a session: displays, capture, encoders, input, power, the
// cursor, the clipboard, thumbnails, applications and windows, each recording what it is asked.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/session/HostEnvironment.hpp"
#include "kit/transport/AsyncQueue.hpp"

namespace kelvaron::test {

using namespace kelvaron::host;

struct FakeDisplays : DisplayProviding {
  std::vector<DisplayInfo> list = {{1, "DP-1", true, 1920, 1080, {0, 0, 1920, 1080}}};

  asio::awaitable<std::vector<DisplayInfo>> displays() override { co_return list; }
  ChangeStream changes() override {
    auto stream = std::make_shared<AsyncQueue<ChangeSignal>>();
    subscribers_.push_back(stream);
    return stream;
  }
  void signal() {
    for (auto& weak : subscribers_)
      if (auto stream = weak.lock()) stream->push({});
  }
  std::size_t liveSubscribers() const {
    return std::ranges::count_if(subscribers_, [](auto& w) { return !w.expired(); });
  }

 private:
  std::vector<std::weak_ptr<AsyncQueue<ChangeSignal>>> subscribers_;
};

// Records each frame's capture time and quality; the test drives its output.
struct FakeEncoder : VideoEncoder {
  explicit FakeEncoder(EncoderOutputHandler handler) : output(std::move(handler)) {}
  void encode(const CapturedFrame& frame, bool, bool highQuality) override {
    encodes.emplace_back(frame.captureTimeNs, highQuality);
  }
  void requestKeyframe() override { ++keyframeRequests; }
  void setBitrate(std::int64_t value) override { bitrates.push_back(value); }
  void stop() override {
    stopped = true;
    output = nullptr;  // hands out nothing more, so holds nothing of the session
  }

  EncoderOutputHandler output;
  std::vector<std::pair<std::uint64_t, bool>> encodes;
  std::atomic<int> keyframeRequests = 0;
  std::vector<std::int64_t> bitrates;
  bool stopped = false;
};

struct FakeEncoders : EncoderFactory {
  std::vector<CodecProfile> profiles = {CodecProfile::hevcMain, CodecProfile::hevcMain444};
  mutable std::shared_ptr<FakeEncoder> made;
  std::vector<CodecProfile> supportedProfiles() const override { return profiles; }
  std::shared_ptr<VideoEncoder> makeEncoder(CodecProfile, std::int64_t,
                                            EncoderOutputHandler output) const override {
    made = std::make_shared<FakeEncoder>(std::move(output));
    return made;
  }
};

// Every capture the session makes writes what it is asked into one log; a start fails while
// `failure` is set.
struct FakeCaptures {
  std::vector<std::string> log;
  std::optional<std::string> failure;
  CaptureSource::StopHandler endLast;  // ends the last capture started, as a lost X server does
  bool isolatesApps = true;            // false: an app scope is a crop of the screen
  CaptureScope scope;                  // the last one set
};

struct FakeCapture : CaptureSource {
  explicit FakeCapture(std::shared_ptr<FakeCaptures> all) : all_(std::move(all)) {}
  void setScope(CaptureScope scope) override { all_->scope = scope; }
  asio::awaitable<void> start(DisplayInfo display, Viewport viewport, FrameHandler,
                              StopHandler onStopped) override {
    if (all_->failure) throw CaptureError(*all_->failure);
    record("start", display, viewport);
    all_->endLast = onStopped;
    co_return;
  }
  asio::awaitable<void> update(DisplayInfo display, Viewport viewport) override {
    co_return record("update", display, viewport);
  }
  asio::awaitable<void> stop() override { co_return all_->log.push_back("stop"); }
  bool isolatesApps() const override { return all_->isolatesApps; }

 private:
  void record(const char* what, const DisplayInfo& display, const Viewport& v) {
    all_->log.push_back(std::string(what) + " " + std::to_string(display.id) + " " +
                        std::to_string(v.outputWidth) + "x" + std::to_string(v.outputHeight));
  }
  std::shared_ptr<FakeCaptures> all_;
};

// Applications and windows as the test arranges them, and what the session asked of them
// ("activate 10", "raise 100", "resize 100 480,0 1440x1080").
struct FakeWindows : AppProviding,
                     WindowControlling,
                     WindowTracking,
                     WindowThumbnailProviding,
                     FocusObserving {
  std::vector<WindowRecord> list;  // front to back
  std::vector<AppInfo> appList;
  std::vector<std::int32_t> recent;
  std::optional<Rect> visible;
  std::set<std::uint32_t> unresizable;
  FocusObservation observation;
  std::map<std::uint32_t, Data> pictures;
  std::vector<std::string> log;
  ChangeStream appChanges = std::make_shared<AsyncQueue<ChangeSignal>>();
  // Looking up a window held here waits until the test lets it go (`letGo`).
  std::map<std::uint32_t, std::shared_ptr<AsyncQueue<int>>> held;
  std::vector<std::uint32_t> lookedUp;

  asio::awaitable<std::vector<AppInfo>> apps() override { co_return appList; }
  ChangeStream changes() override { return appChanges; }
  asio::awaitable<std::vector<std::int32_t>> recentPIDs() override { co_return recent; }
  ChangeStream recentChanges() override { return std::make_shared<AsyncQueue<ChangeSignal>>(); }

  asio::awaitable<void> activate(std::int32_t pid) override {
    co_return log.push_back("activate " + std::to_string(pid));
  }
  asio::awaitable<bool> raise(std::int32_t, AppWindowRef ref) override {
    log.push_back("raise " + std::to_string(ref.id));
    WindowRecord* window = find(ref.id);
    if (window) window->isOnScreen = true, window->isMinimized = false;
    co_return window != nullptr;
  }
  asio::awaitable<std::optional<Rect>> resize(std::int32_t, AppWindowRef ref, Rect frame) override {
    log.push_back("resize " + std::to_string(ref.id) + " " + describe(frame));
    WindowRecord* window = find(ref.id);
    if (!window || unresizable.contains(ref.id)) co_return std::nullopt;
    window->frame = frame;
    co_return frame;
  }
  asio::awaitable<bool> closeAll(std::int32_t pid) override {
    log.push_back("close " + std::to_string(pid));
    co_return std::erase_if(list, [pid](const WindowRecord& w) { return w.pid == pid; }) > 0;
  }

  asio::awaitable<std::optional<WindowRecord>> window(std::uint32_t id) override {
    lookedUp.push_back(id);
    if (const auto hold = held.find(id); hold != held.end()) {
      const auto gate = hold->second;
      co_await gate->next();
    }
    const WindowRecord* found = find(id);
    co_return found ? std::optional(*found) : std::nullopt;
  }
  asio::awaitable<std::vector<WindowRecord>> windows(std::int32_t pid) override {
    std::vector<WindowRecord> found;
    for (const WindowRecord& w : list)
      if (w.pid == pid) found.push_back(w);
    co_return found;
  }
  asio::awaitable<std::optional<Rect>> visibleFrame(std::uint32_t) override { co_return visible; }

  asio::awaitable<std::map<std::uint32_t, Data>> thumbnails(std::vector<std::uint32_t> ids,
                                                            int) override {
    std::map<std::uint32_t, Data> found;
    for (const std::uint32_t id : ids)
      if (pictures.contains(id)) found[id] = pictures[id];
    co_return found;
  }

  asio::awaitable<FocusObservation> observe(FocusedWindow, std::vector<DisplayInfo>) override {
    co_return observation;
  }

  void letGo(std::uint32_t id) {
    if (const auto hold = held.find(id); hold != held.end()) hold->second->push(0);
    held.erase(id);
  }
  WindowRecord* find(std::uint32_t id) {
    const auto found = std::ranges::find(list, id, &WindowRecord::id);
    return found == list.end() ? nullptr : &*found;
  }
  static std::string describe(const Rect& r) {
    const auto n = [](double v) { return std::to_string(std::lround(v)); };
    return n(r.x) + "," + n(r.y) + " " + n(r.width) + "x" + n(r.height);
  }
};

struct FakeInjector : InputInjector {
  void injectKey(InputOwner owner, const KeyEvent& event) override {
    keys.push_back(event);
    if (event.isDown) held[event.usage.rawValue] = owner;
    if (!event.isDown) held.erase(event.usage.rawValue);
  }
  void injectPointer(InputOwner, const PointerEvent& event,
                     const std::optional<DisplayInfo>& display) override {
    pointer.emplace_back(event, display);
  }
  void injectText(InputOwner, const std::string& text) override { texts.push_back(text); }
  std::optional<Point> currentPointerPosition() override { return position; }
  void release(InputOwner owner) override {
    std::erase_if(held, [&](const auto& entry) { return entry.second == owner; });
  }

  std::optional<Point> position = Point{12, 34};
  std::vector<KeyEvent> keys;
  std::vector<std::pair<PointerEvent, std::optional<DisplayInfo>>> pointer;
  std::vector<std::string> texts;
  std::map<std::uint16_t, InputOwner> held;  // keys down, by HID usage
};

struct FakePower : PowerManaging {
  std::vector<std::uint32_t> held;
  int taken = 0;
  int activityDeclared = 0;
  std::function<void()> onActivity = [] {};
  std::optional<std::uint32_t> takeDisplayAssertion(const std::string& name) override {
    EXPECT_EQ(name, "Tovu remote session");
    held.push_back(++taken);
    return taken;
  }
  void releaseAssertion(std::uint32_t id) override { std::erase(held, id); }
  void stopAllAssertions() override { held.clear(); }
  void declareUserActivity() override { ++activityDeclared, onActivity(); }
};

// Answers each poll with `next`, noting the token it was asked with.
struct FakeCursorSource : CursorSource {
  std::optional<CursorPoll> next;
  std::vector<std::optional<std::uint64_t>> tokens;
  asio::awaitable<std::optional<CursorPoll>> poll(std::optional<std::uint64_t> token) override {
    co_return (tokens.push_back(token), next);
  }
};

struct FakePasteboard : PasteboardProviding {
  std::int64_t count = 0;
  std::optional<std::string> text;
  int reads = 0;
  // When set, a write of text has moved the count and waits for it before it returns.
  std::shared_ptr<AsyncQueue<int>> gate;
  std::int64_t changeCount() override { return count; }
  asio::awaitable<std::optional<std::string>> string() override { co_return (++reads, text); }
  asio::awaitable<void> writeString(std::string written) override {
    text = std::move(written), ++count;
    if (gate) co_await gate->next();
  }
  // Every write of files, in order.
  std::vector<ClipboardFiles> files;
  asio::awaitable<void> writeFiles(ClipboardFiles written) override {
    co_return (void)(files.push_back(std::move(written)), ++count);
  }
};

// A picture of one byte, the display's ID; `failing` displays throw instead.
struct FakeThumbnails : ThumbnailProviding {
  std::vector<std::uint32_t> failing;
  std::vector<std::uint32_t> asked;
  asio::awaitable<std::optional<Data>> thumbnail(std::uint32_t displayID, int maxWidth) override {
    EXPECT_EQ(maxWidth, 480);
    asked.push_back(displayID);
    if (std::ranges::count(failing, displayID)) throw std::runtime_error("no picture");
    co_return Data{std::uint8_t(displayID)};
  }
};

// Installed applications as the test sets them; listing waits for `gate` when there is one, and
// every icon asked for is noted.
struct FakeInstalledApps : InstalledAppsProviding {
  std::vector<InstalledApp> list;
  std::map<std::string, Data> icons;
  std::vector<std::string> asked;
  std::shared_ptr<AsyncQueue<int>> gate;

  asio::awaitable<std::vector<InstalledApp>> apps() override {
    if (gate) co_await gate->next();
    co_return list;
  }
  asio::awaitable<std::optional<Data>> icon(std::string bundleID) override {
    asked.push_back(bundleID);
    const auto found = icons.find(bundleID);
    co_return found == icons.end() ? std::nullopt : std::optional(found->second);
  }
  asio::awaitable<std::optional<std::string>> entryPath(std::string) override {
    co_return std::nullopt;
  }
};

}  // namespace kelvaron::test
