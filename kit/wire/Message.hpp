#pragma once

// The control and input messages. Each case is a struct in `msg` named after the case, carrying
// its type code; `Message` is the variant of all 61.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "kit/wire/Bytes.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron {

inline constexpr std::uint16_t kProtocolVersion = 16;

// The logical channels; a connection carries each on its own stream, in this order.
enum class Channel : std::uint8_t { control, input, video, audio, transfer };

namespace msg {

#define KELVARON_CASE(name, typeCode)            \
  static constexpr std::uint8_t code = typeCode; \
  friend bool operator==(const struct name&, const struct name&) = default

struct authChallenge {
  Data nonce;
  KELVARON_CASE(authChallenge, 17);
};
struct authResponse {
  UUID deviceID;
  Data publicKey;
  Data signature;
  KELVARON_CASE(authResponse, 18);
};
struct authResult {
  AuthResult result = AuthResult::ok;
  KELVARON_CASE(authResult, 19);
};
struct pairRequest {
  PairMethod method = PairMethod::token;
  std::string deviceName;
  Data proof;
  KELVARON_CASE(pairRequest, 20);
};
struct pairNonce {
  Data nonce;
  KELVARON_CASE(pairNonce, 21);
};
struct pairReveal {
  Data reveal;
  KELVARON_CASE(pairReveal, 22);
};
struct pairResult {
  PairResult result = PairResult::accepted;
  KELVARON_CASE(pairResult, 23);
};

struct hello {
  std::uint16_t version = kProtocolVersion;
  UUID deviceID;
  std::string deviceName;
  ClientCapabilities capabilities;
  KELVARON_CASE(hello, 1);
};
struct helloAck {
  std::uint16_t version = kProtocolVersion;
  UUID hostID;
  std::string hostName;
  CodecProfile profile = CodecProfile::hevcMain;
  KELVARON_CASE(helloAck, 2);
};
struct helloReject {
  std::string reason;
  KELVARON_CASE(helloReject, 3);
};
struct displayList {
  std::vector<DisplayInfo> displays;
  KELVARON_CASE(displayList, 4);
};
struct selectDisplay {
  std::uint32_t displayID = 0;
  KELVARON_CASE(selectDisplay, 5);
};
struct viewport {
  Viewport viewport;
  KELVARON_CASE(viewport, 6);
};
struct setThumbnails {
  bool enabled = false;
  KELVARON_CASE(setThumbnails, 7);
};
struct thumbnail {
  std::uint32_t displayID = 0;
  Data jpeg;
  KELVARON_CASE(thumbnail, 8);
};
struct feedback {
  Feedback feedback;
  KELVARON_CASE(feedback, 9);
};
struct clipboardText {
  std::string text;
  KELVARON_CASE(clipboardText, 10);
};
struct key {
  KeyEvent event;
  KELVARON_CASE(key, 11);
};
struct pointer {
  std::uint32_t seq = 0;
  PointerEvent event;
  KELVARON_CASE(pointer, 12);
};
struct ping {
  std::uint64_t value = 0;
  KELVARON_CASE(ping, 13);
};
struct pong {
  std::uint64_t value = 0;
  KELVARON_CASE(pong, 14);
};
struct streamInfo {
  std::uint32_t displayID = 0;
  NormalizedRect sourceRect;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  CodecProfile profile = CodecProfile::hevcMain;
  KELVARON_CASE(streamInfo, 15);
};
struct cursorState {
  std::uint32_t seq = 0;
  std::uint32_t displayID = 0;
  float x = 0, y = 0;
  bool visible = false;
  std::uint32_t shapeID = 0;
  KELVARON_CASE(cursorState, 16);
};
struct hostStatus {
  HostState state = HostState::ok;
  std::optional<std::string> detail;
  KELVARON_CASE(hostStatus, 24);
};
struct appList {
  std::vector<AppInfo> apps;
  KELVARON_CASE(appList, 25);
};
struct setAppListUpdates {
  bool enabled = false;
  KELVARON_CASE(setAppListUpdates, 26);
};
struct activateApp {
  std::int32_t pid = 0;
  std::optional<std::uint32_t> windowID;
  bool moveCursor = false;
  KELVARON_CASE(activateApp, 27);
};
struct focus {
  std::int32_t pid = 0;
  std::uint32_t windowID = 0;
  bool fit = false;
  bool moveCursor = false;
  KELVARON_CASE(focus, 28);
};
struct unfocus {
  KELVARON_CASE(unfocus, 29);
};
struct windowThumbnails {
  bool enabled = false;
  std::vector<std::uint32_t> windowIDs;
  KELVARON_CASE(windowThumbnails, 30);
};
struct windowThumbnail {
  std::uint32_t windowID = 0;
  Data jpeg;
  KELVARON_CASE(windowThumbnail, 31);
};
struct streamMode {
  StreamModeInfo info;
  KELVARON_CASE(streamMode, 32);
};
struct cursorShape {
  std::uint32_t shapeID = 0;
  Data png;
  float hotspotX = 0, hotspotY = 0;
  float pointSize = 0;
  KELVARON_CASE(cursorShape, 33);
};
struct requestCursorShape {
  std::uint32_t shapeID = 0;
  KELVARON_CASE(requestCursorShape, 34);
};
struct setVideoEnabled {
  bool enabled = false;
  KELVARON_CASE(setVideoEnabled, 35);
};
struct text {
  std::string text;
  KELVARON_CASE(text, 37);
};
struct setAudio {
  AudioMode mode = AudioMode::off;
  KELVARON_CASE(setAudio, 38);
};
struct audioConfig {
  std::uint32_t sampleRate = 0;
  std::uint8_t channels = 0;
  AudioCodec codec = AudioCodec::aacELD;
  Data magicCookie;
  KELVARON_CASE(audioConfig, 39);
};
struct audioStatus {
  AudioStatus status = AudioStatus::off;
  std::optional<std::string> detail;
  KELVARON_CASE(audioStatus, 40);
};
struct relayConfig {
  std::vector<RelayEndpoint> relays;
  Data grant;
  KELVARON_CASE(relayConfig, 41);
};
struct focusBack {
  KELVARON_CASE(focusBack, 42);
};
struct requestInstalledApps {
  KELVARON_CASE(requestInstalledApps, 43);
};
struct installedApps {
  std::vector<InstalledApp> apps;
  KELVARON_CASE(installedApps, 44);
};
struct requestAppIcons {
  std::vector<std::string> bundleIDs;
  KELVARON_CASE(requestAppIcons, 45);
};
struct appIcon {
  std::string bundleID;
  Data png;
  KELVARON_CASE(appIcon, 46);
};
struct launchApp {
  std::string bundleID;
  bool focus = false;
  KELVARON_CASE(launchApp, 47);
};
struct launchStatus {
  LaunchStatus status;
  KELVARON_CASE(launchStatus, 48);
};
struct launchControl {
  std::string bundleID;
  LaunchAction action = LaunchAction::cancel;
  KELVARON_CASE(launchControl, 49);
};
struct quitApp {
  std::int32_t pid = 0;
  KELVARON_CASE(quitApp, 50);
};
struct recentApps {
  std::vector<std::int32_t> pids;
  KELVARON_CASE(recentApps, 51);
};
struct fileOffer {
  std::uint32_t transferID = 0;
  std::vector<FileMeta> files;
  FileTransferKind kind = FileTransferKind::attach;
  KELVARON_CASE(fileOffer, 52);
};
struct fileChunk {
  std::uint32_t transferID = 0;
  std::uint16_t fileIndex = 0;
  std::uint64_t offset = 0;
  Data data;
  KELVARON_CASE(fileChunk, 53);
};
struct fileEnd {
  std::uint32_t transferID = 0;
  KELVARON_CASE(fileEnd, 54);
};
struct fileCancel {
  std::uint32_t transferID = 0;
  KELVARON_CASE(fileCancel, 55);
};
struct fileStatus {
  std::uint32_t transferID = 0;
  FileTransferState state = FileTransferState::accepted;
  std::uint64_t bytes = 0;
  std::string detail;
  KELVARON_CASE(fileStatus, 56);
};
struct watchActions {
  bool enabled = false;
  KELVARON_CASE(watchActions, 57);
};
struct appActions {
  std::string bundleID;
  std::string appName;
  std::uint32_t generation = 0;
  std::vector<MenuNode> menu;
  KELVARON_CASE(appActions, 58);
};
struct performAction {
  std::uint32_t generation = 0;
  std::vector<std::string> path;
  KELVARON_CASE(performAction, 59);
};
struct actionResult {
  bool ok = false;
  std::string detail;
  KELVARON_CASE(actionResult, 60);
};
struct textFocus {
  bool isText = false;
  std::string bundleID;
  TextFocusKind kind = TextFocusKind::none;
  bool byClick = false;
  KELVARON_CASE(textFocus, 61);
};
struct sessionReplaced {
  std::string byDeviceName;
  KELVARON_CASE(sessionReplaced, 62);
};

#undef KELVARON_CASE

}  // namespace msg

// The authentication messages come first: the auth gate consumes exactly these seven.
using Message = std::variant<
    msg::authChallenge, msg::authResponse, msg::authResult, msg::pairRequest, msg::pairNonce,
    msg::pairReveal, msg::pairResult, msg::hello, msg::helloAck, msg::helloReject, msg::displayList,
    msg::selectDisplay, msg::viewport, msg::setThumbnails, msg::thumbnail, msg::feedback,
    msg::clipboardText, msg::key, msg::pointer, msg::ping, msg::pong, msg::streamInfo,
    msg::cursorState, msg::hostStatus, msg::appList, msg::setAppListUpdates, msg::activateApp,
    msg::focus, msg::unfocus, msg::windowThumbnails, msg::windowThumbnail, msg::streamMode,
    msg::cursorShape, msg::requestCursorShape, msg::setVideoEnabled, msg::text, msg::setAudio,
    msg::audioConfig, msg::audioStatus, msg::relayConfig, msg::focusBack, msg::requestInstalledApps,
    msg::installedApps, msg::requestAppIcons, msg::appIcon, msg::launchApp, msg::launchStatus,
    msg::launchControl, msg::quitApp, msg::recentApps, msg::fileOffer, msg::fileChunk, msg::fileEnd,
    msg::fileCancel, msg::fileStatus, msg::watchActions, msg::appActions, msg::performAction,
    msg::actionResult, msg::textFocus, msg::sessionReplaced>;

static_assert(std::variant_size_v<Message> == 61);

constexpr bool typeCodesAreDistinct() {
  std::array<bool, 256> seen{};
  bool distinct = true;
  [&]<std::size_t... I>(std::index_sequence<I...>) {
    ((distinct =
          distinct && !std::exchange(seen[std::variant_alternative_t<I, Message>::code], true)),
     ...);
  }
  (std::make_index_sequence<std::variant_size_v<Message>>{});
  return distinct;
}
static_assert(typeCodesAreDistinct(), "two message cases share a type code");

inline constexpr std::size_t kAuthenticationMessageCount = 7;

// The type code that opens a message's frame.
inline std::uint8_t typeCode(const Message& m) {
  return std::visit([](const auto& c) { return std::decay_t<decltype(c)>::code; }, m);
}

// The channel of the message with this type code: `input` for key, pointer and text, `transfer`
// for file chunks and their end, `control` for everything else.
constexpr Channel channelOfType(std::uint8_t code) {
  switch (code) {
    case msg::key::code:
    case msg::pointer::code:
    case msg::text::code:
      return Channel::input;
    case msg::fileChunk::code:
    case msg::fileEnd::code:
      return Channel::transfer;
    default:
      return Channel::control;
  }
}

inline Channel channel(const Message& m) { return channelOfType(typeCode(m)); }

inline bool isAuthentication(const Message& m) { return m.index() < kAuthenticationMessageCount; }

}  // namespace kelvaron
