#pragma once

// The value types that messages carry. Raw values of the enumerations are their bytes on the wire.

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "kit/wire/Bytes.hpp"

namespace kelvaron {

enum class CodecProfile : std::uint8_t {
  hevcMain = 0,
  hevcMain10 = 1,
  hevcMain444 = 2,
  hevcMain44410 = 3
};
enum class AuthResult : std::uint8_t { ok = 0, notPaired = 1, denied = 2 };
enum class PairMethod : std::uint8_t { token = 0, compare = 1 };
enum class PairResult : std::uint8_t {
  accepted = 0,
  denied = 1,
  rateLimited = 2,
  invalidToken = 3,
  expiredToken = 4,
  failed = 5
};
enum class HostState : std::uint8_t {
  ok = 0,
  displayAsleep = 1,
  waking = 2,
  locked = 3,
  asleep = 4,
  captureBlocked = 5,
  permissionMissing = 6
};
enum class PointerButton : std::uint8_t { left = 0, right = 1, middle = 2 };
enum class ScrollPhase : std::uint8_t {
  began = 0,
  changed = 1,
  ended = 2,
  momentum = 3,
  momentumEnded = 4
};
enum class LaunchState : std::uint8_t {
  launching = 1,
  focused = 2,
  broughtToFront = 3,
  noWindow = 4,
  failed = 5,
  cancelled = 6
};
enum class LaunchAction : std::uint8_t { cancel = 1, newWindow = 2, keepWaiting = 3 };
enum class AudioMode : std::uint8_t { off = 0, phoneOnly = 1, both = 2 };
enum class AudioCodec : std::uint8_t { aacELD = 0 };
enum class AudioStatus : std::uint8_t { off = 0, playing = 1, permissionMissing = 2, failed = 3 };
enum class FileTransferKind : std::uint8_t { attach = 1, paste = 2 };
enum class FileTransferState : std::uint8_t {
  accepted = 1,
  progress = 2,
  done = 3,
  failed = 4,
  rejected = 5
};
// Unknown bytes of these two read as `none`, so that a newer peer's kinds are harmless.
enum class MenuMark : std::uint8_t { none = 0, check = 1, mixed = 2, bullet = 3 };
enum class TextFocusKind : std::uint8_t {
  none = 0,
  field = 1,
  area = 2,
  search = 3,
  secure = 4,
  web = 5,
  terminal = 6
};

// x, y, width, height as fractions of a display.
struct NormalizedRect {
  float x = 0, y = 0, width = 0, height = 0;
  friend bool operator==(const NormalizedRect&, const NormalizedRect&) = default;
};

// A rectangle in the desktop's coordinates.
struct DisplayFrame {
  float x = 0, y = 0, width = 0, height = 0;
  friend bool operator==(const DisplayFrame&, const DisplayFrame&) = default;
};

struct DisplayInfo {
  std::uint32_t id = 0;
  std::string name;
  bool isMain = false;
  std::uint32_t pixelWidth = 0;
  std::uint32_t pixelHeight = 0;
  DisplayFrame frame;
  friend bool operator==(const DisplayInfo&, const DisplayInfo&) = default;
};

struct Viewport {
  std::uint32_t displayID = 0;
  NormalizedRect sourceRect;
  std::uint32_t outputWidth = 0;
  std::uint32_t outputHeight = 0;
  friend bool operator==(const Viewport&, const Viewport&) = default;
};

struct Feedback {
  std::uint32_t framesReceived = 0;
  std::uint32_t framesDropped = 0;
  float jitterMs = 0;
  bool requestKeyframe = false;
  friend bool operator==(const Feedback&, const Feedback&) = default;
};

struct ClientCapabilities {
  std::vector<CodecProfile> decodableProfiles;
  std::uint32_t screenPixelWidth = 0;
  std::uint32_t screenPixelHeight = 0;
  float scale = 0;
  std::string deviceModel;
  bool supportsFolio = false;
  friend bool operator==(const ClientCapabilities&, const ClientCapabilities&) = default;
};

// A USB HID keyboard usage.
struct HIDUsage {
  std::uint16_t rawValue = 0;
  friend bool operator==(const HIDUsage&, const HIDUsage&) = default;
};

// An option set of modifier keys; the bits are given by the input subsystem.
struct ModifierFlags {
  std::uint8_t rawValue = 0;
  friend bool operator==(const ModifierFlags&, const ModifierFlags&) = default;
};

struct KeyEvent {
  HIDUsage usage;
  bool isDown = false;
  ModifierFlags modifiers;
  friend bool operator==(const KeyEvent&, const KeyEvent&) = default;
};

// The cases of `PointerEvent`, tagged 0 to 3 on the wire in this order.
namespace pointer {
struct moveRelative {
  float dx = 0, dy = 0;
  friend bool operator==(const moveRelative&, const moveRelative&) = default;
};
struct moveAbsolute {
  std::uint32_t displayID = 0;
  float x = 0, y = 0;
  friend bool operator==(const moveAbsolute&, const moveAbsolute&) = default;
};
struct button {
  PointerButton button = PointerButton::left;
  bool isDown = false;
  std::uint8_t clickCount = 0;
  friend bool operator==(const struct button&, const struct button&) = default;
};
struct scroll {
  float dx = 0, dy = 0;
  ScrollPhase phase = ScrollPhase::began;
  friend bool operator==(const scroll&, const scroll&) = default;
};
}  // namespace pointer
using PointerEvent =
    std::variant<pointer::moveRelative, pointer::moveAbsolute, pointer::button, pointer::scroll>;

struct WindowInfo {
  std::uint32_t id = 0;
  std::string title;
  DisplayFrame frame;
  std::uint32_t displayID = 0;
  bool isOnScreen = false;
  bool isMinimized = false;
  friend bool operator==(const WindowInfo&, const WindowInfo&) = default;
};

struct AppInfo {
  std::int32_t pid = 0;
  std::string bundleID;
  std::string name;
  Data icon;
  bool isFrontmost = false;
  std::vector<WindowInfo> windows;
  friend bool operator==(const AppInfo&, const AppInfo&) = default;
};

// What the stream shows: the desktop, or one application window.
namespace streammode {
struct desktop {
  friend bool operator==(const desktop&, const desktop&) = default;
};
struct focus {
  std::int32_t pid = 0;
  std::uint32_t windowID = 0;
  friend bool operator==(const focus&, const focus&) = default;
};
}  // namespace streammode
using StreamMode = std::variant<streammode::desktop, streammode::focus>;

struct FocusFollowInfo {
  enum class Kind : std::uint8_t { window = 1, popup = 2 };
  Kind kind = Kind::window;
  std::string appName;
  std::string title;
  bool canGoBack = false;
  friend bool operator==(const FocusFollowInfo&, const FocusFollowInfo&) = default;
};

struct StreamModeInfo {
  StreamMode mode;
  bool fitApplied = false;
  std::optional<std::string> notice;
  NormalizedRect surface;
  std::optional<FocusFollowInfo> follow;
  friend bool operator==(const StreamModeInfo&, const StreamModeInfo&) = default;
};

// The hash of an icon that `InstalledApp` carries, which a device compares with the hash of the
// icon it keeps: the FNV-1a of the PNG's bytes, and 0 for none.
inline std::uint64_t iconHashOf(const Data& png) { return png.empty() ? 0 : fnv1a(png); }

struct InstalledApp {
  std::string bundleID;
  std::string name;
  std::uint64_t iconHash = 0;
  friend bool operator==(const InstalledApp&, const InstalledApp&) = default;
};

struct LaunchStatus {
  std::string bundleID;
  LaunchState state = LaunchState::launching;
  std::uint32_t elapsedMs = 0;
  std::string detail;
  friend bool operator==(const LaunchStatus&, const LaunchStatus&) = default;
};

struct FileMeta {
  std::string name;
  std::string typeID;
  std::uint64_t size = 0;
  friend bool operator==(const FileMeta&, const FileMeta&) = default;
};

// MenuNode's modifier bits: the keys held with the item's key.
inline constexpr std::uint8_t kMenuShift = 0x01, kMenuOption = 0x02, kMenuControl = 0x04,
                              kMenuCommand = 0x08;

struct MenuNode {
  std::string title;
  std::string key;
  std::uint8_t modifiers = 0;
  bool enabled = false;
  MenuMark mark = MenuMark::none;
  bool separatorBefore = false;
  std::vector<MenuNode> children;
  friend bool operator==(const MenuNode&, const MenuNode&) = default;
};

struct RelayEndpoint {
  std::string host;
  std::uint16_t port = 0;
  friend bool operator==(const RelayEndpoint&, const RelayEndpoint&) = default;
};

}  // namespace kelvaron
