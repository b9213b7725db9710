#pragma once

// The byte layout of every message and media frame, written once. A layout is a `describe`
// function that hands a value's fields, in wire order, to an archive: `FieldWriter` encodes them,
// `FieldReader` decodes them, so that the two directions cannot drift apart. The few shapes that
// are not a plain sequence of fields (tagged unions, the menu tree, the stream mode's optional
// tail) have their own code in both archives.

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kit/wire/Bytes.hpp"
#include "kit/wire/FrameReader.hpp"
#include "kit/wire/MediaFrames.hpp"
#include "kit/wire/Message.hpp"
#include "kit/wire/WireError.hpp"
#include "kit/wire/WireTypes.hpp"
#include "kit/wire/WireWriter.hpp"

namespace kelvaron::wire {

// The domain of an enumeration on the wire: a byte outside [first, last] fails with `label`,
// unless the enumeration is lenient, in which case it reads as its zero case.
struct EnumRule {
  const char* label;
  std::uint8_t first;
  std::uint8_t last;
  bool lenient = false;
};

template <class E>
inline constexpr std::optional<EnumRule> enumRule = std::nullopt;

template <>
inline constexpr std::optional<EnumRule> enumRule<CodecProfile>{{"profile ", 0, 3}};
template <>
inline constexpr std::optional<EnumRule> enumRule<AuthResult>{{"auth result ", 0, 2}};
template <>
inline constexpr std::optional<EnumRule> enumRule<PairMethod>{{"pair method ", 0, 1}};
template <>
inline constexpr std::optional<EnumRule> enumRule<PairResult>{{"pair result ", 0, 5}};
template <>
inline constexpr std::optional<EnumRule> enumRule<HostState>{{"host state ", 0, 6}};
template <>
inline constexpr std::optional<EnumRule> enumRule<PointerButton>{{"button ", 0, 2}};
template <>
inline constexpr std::optional<EnumRule> enumRule<ScrollPhase>{{"scroll phase ", 0, 4}};
template <>
inline constexpr std::optional<EnumRule> enumRule<LaunchState>{{"launch state ", 1, 6}};
template <>
inline constexpr std::optional<EnumRule> enumRule<LaunchAction>{{"launch action ", 1, 3}};
template <>
inline constexpr std::optional<EnumRule> enumRule<AudioMode>{{"audio mode ", 0, 2}};
template <>
inline constexpr std::optional<EnumRule> enumRule<AudioCodec>{{"audio codec ", 0, 0}};
template <>
inline constexpr std::optional<EnumRule> enumRule<AudioStatus>{{"audio status ", 0, 3}};
template <>
inline constexpr std::optional<EnumRule> enumRule<FileTransferKind>{{"transfer kind ", 1, 2}};
template <>
inline constexpr std::optional<EnumRule> enumRule<FileTransferState>{{"transfer state ", 1, 5}};
template <>
inline constexpr std::optional<EnumRule> enumRule<MenuMark>{{"", 0, 3, true}};
template <>
inline constexpr std::optional<EnumRule> enumRule<TextFocusKind>{{"", 0, 6, true}};

template <class E>
concept WireEnum = std::is_enum_v<E> && enumRule<E>
.has_value();

// An array field: an element count of type `Count`, then the elements. The writer writes at most
// `cap` elements; the reader enforces `cap` only where the message names a label for it.
template <class Count, class Vec>
struct Counted {
  Vec& items;
  std::size_t cap;
  const char* overCapLabel;
};

template <class Count, class Vec>
Counted<Count, Vec> counted(Vec& items, std::size_t cap = std::numeric_limits<Count>::max(),
                            const char* overCapLabel = nullptr) {
  return {items, std::min<std::size_t>(cap, std::numeric_limits<Count>::max()), overCapLabel};
}

// The menu tree of `appActions`: nested lists sharing one node budget.
template <class Vec>
struct MenuTree {
  Vec& nodes;
};
template <class Vec>
MenuTree(Vec&) -> MenuTree<Vec>;
inline constexpr int kMenuNodeBudget = 3000;
inline constexpr int kMenuWriteDepth = 4;  // deepest list whose nodes keep their children
inline constexpr int kMenuReadDepth = 5;   // deepest list a reader accepts

template <class T, class U>
concept Like = std::same_as<std::remove_const_t<T>, U>;

class FieldWriter {
 public:
  explicit FieldWriter(WireWriter& w) : w_(w) {}

  template <class... T>
  void operator()(const T&... fields) {
    (put(fields), ...);
  }

 private:
  void put(std::uint8_t v) { w_.u8(v); }
  void put(std::uint16_t v) { w_.u16(v); }
  void put(std::uint32_t v) { w_.u32(v); }
  void put(std::uint64_t v) { w_.u64(v); }
  void put(std::int32_t v) { w_.i32(v); }
  void put(float v) { w_.f32(v); }
  void put(bool v) { w_.boolean(v); }
  void put(const std::string& v) { w_.string(v); }
  void put(const Data& v) { w_.data(v); }
  void put(const SharedBytes& v) { w_.data(v.span()); }
  void put(const UUID& v) { w_.uuid(v); }
  void put(HIDUsage v) { w_.u16(v.rawValue); }
  void put(ModifierFlags v) { w_.u8(v.rawValue); }
  void put(const PointerEvent& v);
  void put(const StreamModeInfo& v);

  template <class T>
  void put(const std::optional<T>& v) {
    w_.boolean(v.has_value());
    if (v) put(*v);
  }

  template <class Count, class Vec>
  void put(const Counted<Count, Vec>& array) {
    const std::size_t count = std::min(array.items.size(), array.cap);
    put(static_cast<Count>(count));
    for (std::size_t i = 0; i < count; ++i) put(array.items[i]);
  }

  template <class Vec>
  void put(const MenuTree<Vec>& tree) {
    int budget = kMenuNodeBudget;
    putMenuList(tree.nodes, 1, budget);
  }
  void putMenuList(std::span<const MenuNode> nodes, int depth, int& budget);

  template <class T>
  void put(const T& v) {
    if constexpr (WireEnum<T>) {
      w_.u8(static_cast<std::uint8_t>(v));
    } else {
      describe(*this, v);
    }
  }

  WireWriter& w_;
};

class FieldReader {
 public:
  explicit FieldReader(FrameReader& r) : r_(r) {}

  template <class... T>
  void operator()(T&&... fields) {
    (get(std::forward<T>(fields)), ...);
  }

 private:
  void get(std::uint8_t& v) { v = r_.u8(); }
  void get(std::uint16_t& v) { v = r_.u16(); }
  void get(std::uint32_t& v) { v = r_.u32(); }
  void get(std::uint64_t& v) { v = r_.u64(); }
  void get(std::int32_t& v) { v = r_.i32(); }
  void get(float& v) { v = r_.f32(); }
  void get(bool& v) { v = r_.boolean(); }
  void get(std::string& v) { v = r_.string(); }
  void get(Data& v) { v = r_.data(); }
  void get(SharedBytes& v) { v = r_.sharedData(); }
  void get(UUID& v) { v = r_.uuid(); }
  void get(HIDUsage& v) { v.rawValue = r_.u16(); }
  void get(ModifierFlags& v) { v.rawValue = r_.u8(); }
  void get(PointerEvent& v);
  void get(StreamModeInfo& v);

  template <class T>
  void get(std::optional<T>& v) {
    v.reset();
    if (!r_.boolean()) return;
    get(v.emplace());
  }

  template <class Count, class Vec>
  void get(Counted<Count, Vec> array) {
    Count count;
    get(count);
    if (array.overCapLabel && count > array.cap) {
      throw WireError::invalidValue(array.overCapLabel + std::to_string(count));
    }
    // No reserve: the count is the peer's word, and every element costs frame bytes anyway.
    array.items.clear();
    for (Count i = 0; i < count; ++i) get(array.items.emplace_back());
  }

  template <class Vec>
  void get(MenuTree<Vec> tree) {
    int budget = kMenuNodeBudget;
    getMenuList(tree.nodes, 1, budget);
  }
  void getMenuList(std::vector<MenuNode>& nodes, int depth, int& budget);

  template <class T>
  void get(T& v) {
    if constexpr (WireEnum<T>) {
      v = enumFromByte<T>(r_.u8());
    } else {
      describe(*this, v);
    }
  }

  template <class E>
  static E enumFromByte(std::uint8_t b) {
    constexpr EnumRule rule = *enumRule<E>;
    if (b >= rule.first && b <= rule.last) return static_cast<E>(b);
    if (rule.lenient) return E{};
    throw WireError::invalidByte(rule.label, b);
  }

  FrameReader& r_;
};

// ---- Value types ----

void describe(auto& a, Like<NormalizedRect> auto& v) { a(v.x, v.y, v.width, v.height); }
void describe(auto& a, Like<DisplayFrame> auto& v) { a(v.x, v.y, v.width, v.height); }
void describe(auto& a, Like<DisplayInfo> auto& v) {
  a(v.id, v.name, v.isMain, v.pixelWidth, v.pixelHeight, v.frame);
}
void describe(auto& a, Like<Viewport> auto& v) {
  a(v.displayID, v.sourceRect, v.outputWidth, v.outputHeight);
}
void describe(auto& a, Like<Feedback> auto& v) {
  a(v.framesReceived, v.framesDropped, v.jitterMs, v.requestKeyframe);
}
void describe(auto& a, Like<ClientCapabilities> auto& v) {
  a(counted<std::uint8_t>(v.decodableProfiles), v.screenPixelWidth, v.screenPixelHeight, v.scale,
    v.deviceModel, v.supportsFolio);
}
void describe(auto& a, Like<KeyEvent> auto& v) { a(v.usage, v.isDown, v.modifiers); }
void describe(auto& a, Like<WindowInfo> auto& v) {
  a(v.id, v.title, v.frame, v.displayID, v.isOnScreen, v.isMinimized);
}
void describe(auto& a, Like<AppInfo> auto& v) {
  a(v.pid, v.bundleID, v.name, v.icon, v.isFrontmost, counted<std::uint16_t>(v.windows));
}
void describe(auto& a, Like<InstalledApp> auto& v) { a(v.bundleID, v.name, v.iconHash); }
void describe(auto& a, Like<LaunchStatus> auto& v) {
  a(v.bundleID, v.state, v.elapsedMs, v.detail);
}
void describe(auto& a, Like<FileMeta> auto& v) { a(v.name, v.typeID, v.size); }
void describe(auto& a, Like<MenuNode> auto& v) {
  a(v.title, v.key, v.modifiers, v.enabled, v.mark, v.separatorBefore);  // children: by the tree
}
void describe(auto& a, Like<RelayEndpoint> auto& v) { a(v.host, v.port); }

// ---- Media frames (behind their type byte) ----

void describe(auto& a, Like<VideoFrame> auto& v) {
  a(v.displayID, v.frameNumber, v.captureTimeNs, v.isKeyframe, v.profile, v.width, v.height,
    v.sourceRect, counted<std::uint8_t>(v.parameterSets), v.payload);
}
void describe(auto& a, Like<AudioPacket> auto& v) { a(v.ptsMicros, v.data); }

// ---- Messages (behind their type byte) ----

void describe(auto& a, Like<msg::authChallenge> auto& m) { a(m.nonce); }
void describe(auto& a, Like<msg::authResponse> auto& m) { a(m.deviceID, m.publicKey, m.signature); }
void describe(auto& a, Like<msg::authResult> auto& m) { a(m.result); }
void describe(auto& a, Like<msg::pairRequest> auto& m) { a(m.method, m.deviceName, m.proof); }
void describe(auto& a, Like<msg::pairNonce> auto& m) { a(m.nonce); }
void describe(auto& a, Like<msg::pairReveal> auto& m) { a(m.reveal); }
void describe(auto& a, Like<msg::pairResult> auto& m) { a(m.result); }
void describe(auto& a, Like<msg::hello> auto& m) {
  a(m.version, m.deviceID, m.deviceName, m.capabilities);
}
void describe(auto& a, Like<msg::helloAck> auto& m) {
  a(m.version, m.hostID, m.hostName, m.profile);
}
void describe(auto& a, Like<msg::helloReject> auto& m) { a(m.reason); }
void describe(auto& a, Like<msg::displayList> auto& m) { a(counted<std::uint16_t>(m.displays)); }
void describe(auto& a, Like<msg::selectDisplay> auto& m) { a(m.displayID); }
void describe(auto& a, Like<msg::viewport> auto& m) { a(m.viewport); }
void describe(auto& a, Like<msg::setThumbnails> auto& m) { a(m.enabled); }
void describe(auto& a, Like<msg::thumbnail> auto& m) { a(m.displayID, m.jpeg); }
void describe(auto& a, Like<msg::feedback> auto& m) { a(m.feedback); }
void describe(auto& a, Like<msg::clipboardText> auto& m) { a(m.text); }
void describe(auto& a, Like<msg::key> auto& m) { a(m.event); }
void describe(auto& a, Like<msg::pointer> auto& m) { a(m.seq, m.event); }
void describe(auto& a, Like<msg::ping> auto& m) { a(m.value); }
void describe(auto& a, Like<msg::pong> auto& m) { a(m.value); }
void describe(auto& a, Like<msg::streamInfo> auto& m) {
  a(m.displayID, m.sourceRect, m.width, m.height, m.profile);
}
void describe(auto& a, Like<msg::cursorState> auto& m) {
  a(m.seq, m.displayID, m.x, m.y, m.visible, m.shapeID);
}
void describe(auto& a, Like<msg::hostStatus> auto& m) { a(m.state, m.detail); }
void describe(auto& a, Like<msg::appList> auto& m) { a(counted<std::uint16_t>(m.apps)); }
void describe(auto& a, Like<msg::setAppListUpdates> auto& m) { a(m.enabled); }
void describe(auto& a, Like<msg::activateApp> auto& m) { a(m.pid, m.windowID, m.moveCursor); }
void describe(auto& a, Like<msg::focus> auto& m) { a(m.pid, m.windowID, m.fit, m.moveCursor); }
void describe(auto&, Like<msg::unfocus> auto&) {}
void describe(auto& a, Like<msg::windowThumbnails> auto& m) {
  a(m.enabled, counted<std::uint16_t>(m.windowIDs));
}
void describe(auto& a, Like<msg::windowThumbnail> auto& m) { a(m.windowID, m.jpeg); }
void describe(auto& a, Like<msg::streamMode> auto& m) { a(m.info); }
void describe(auto& a, Like<msg::cursorShape> auto& m) {
  a(m.shapeID, m.png, m.hotspotX, m.hotspotY, m.pointSize);
}
void describe(auto& a, Like<msg::requestCursorShape> auto& m) { a(m.shapeID); }
void describe(auto& a, Like<msg::setVideoEnabled> auto& m) { a(m.enabled); }
void describe(auto& a, Like<msg::text> auto& m) { a(m.text); }
void describe(auto& a, Like<msg::setAudio> auto& m) { a(m.mode); }
void describe(auto& a, Like<msg::audioConfig> auto& m) {
  a(m.sampleRate, m.channels, m.codec, m.magicCookie);
}
void describe(auto& a, Like<msg::audioStatus> auto& m) { a(m.status, m.detail); }
void describe(auto& a, Like<msg::relayConfig> auto& m) {
  a(counted<std::uint8_t>(m.relays), m.grant);
}
void describe(auto&, Like<msg::focusBack> auto&) {}
void describe(auto&, Like<msg::requestInstalledApps> auto&) {}
void describe(auto& a, Like<msg::installedApps> auto& m) { a(counted<std::uint16_t>(m.apps)); }
void describe(auto& a, Like<msg::requestAppIcons> auto& m) {
  a(counted<std::uint8_t>(m.bundleIDs, 24, "icon request "));
}
void describe(auto& a, Like<msg::appIcon> auto& m) { a(m.bundleID, m.png); }
void describe(auto& a, Like<msg::launchApp> auto& m) { a(m.bundleID, m.focus); }
void describe(auto& a, Like<msg::launchStatus> auto& m) { a(m.status); }
void describe(auto& a, Like<msg::launchControl> auto& m) { a(m.bundleID, m.action); }
void describe(auto& a, Like<msg::quitApp> auto& m) { a(m.pid); }
void describe(auto& a, Like<msg::recentApps> auto& m) { a(counted<std::uint16_t>(m.pids, 64)); }
void describe(auto& a, Like<msg::fileOffer> auto& m) {
  a(m.transferID, counted<std::uint16_t>(m.files), m.kind);
}
void describe(auto& a, Like<msg::fileChunk> auto& m) {
  a(m.transferID, m.fileIndex, m.offset, m.data);
}
void describe(auto& a, Like<msg::fileEnd> auto& m) { a(m.transferID); }
void describe(auto& a, Like<msg::fileCancel> auto& m) { a(m.transferID); }
void describe(auto& a, Like<msg::fileStatus> auto& m) {
  a(m.transferID, m.state, m.bytes, m.detail);
}
void describe(auto& a, Like<msg::watchActions> auto& m) { a(m.enabled); }
void describe(auto& a, Like<msg::appActions> auto& m) {
  a(m.bundleID, m.appName, m.generation, MenuTree{m.menu});
}
void describe(auto& a, Like<msg::performAction> auto& m) {
  a(m.generation, counted<std::uint8_t>(m.path, 5));
}
void describe(auto& a, Like<msg::actionResult> auto& m) { a(m.ok, m.detail); }
void describe(auto& a, Like<msg::textFocus> auto& m) { a(m.isText, m.bundleID, m.kind, m.byClick); }
void describe(auto& a, Like<msg::sessionReplaced> auto& m) { a(m.byDeviceName); }

}  // namespace kelvaron::wire
