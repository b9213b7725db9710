#pragma once

#include <asio/awaitable.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/video/DisplayProviding.hpp"
#include "kit/wire/WireTypes.hpp"

// The menu bar of the application in front, as the device shows it, and its items pressed from
// there. Linux applications publish their menus in one of three ways (an exported GMenuModel, a
// dbusmenu, or only their accessibility tree); a reader for each gives the same raw tree.
namespace kelvaron::host {

// One item as read from the application, before the rules of the device's tree (separators,
// budgets) are applied. A separator is an item with an empty title.
struct RawMenuItem {
  std::string title;
  // The shortcut's key as one character, lower case for letters ("n", "+"), or empty. Keys that
  // type no character have the characters a Mac menu gives them, which the device knows: Return
  // U+000D, Escape U+001B, BackSpace U+0008, Tab U+0009, space U+0020, the arrows Up U+F700,
  // Down U+F701, Left U+F702, Right U+F703, F1 to F12 U+F704 to U+F70F, Delete (forward) U+F728,
  // Home U+F729, End U+F72B, Page Up U+F72C, Page Down U+F72D. Other keys give no shortcut.
  std::string key;
  // The modifiers of the shortcut in MenuNode's bits (kMenuShift …), as the application names
  // them: Ctrl is control, Alt is option, Super is command.
  std::uint8_t modifiers = 0;
  bool enabled = false;
  MenuMark mark = MenuMark::none;  // what the item shows now: checked, mixed, the chosen radio
  std::vector<RawMenuItem> children;
  friend bool operator==(const RawMenuItem&, const RawMenuItem&) = default;
};

struct FrontApp {
  std::int32_t pid = 0;
  std::string bundleID;
  std::string name;
  friend bool operator==(const FrontApp&, const FrontApp&) = default;
};

enum class MenuPressResult { pressed, notFound, failed };

class MenuSource {
 public:
  virtual ~MenuSource() = default;
  // The application in front, if any.
  virtual asio::awaitable<std::optional<FrontApp>> frontmost() = 0;
  // A signal whenever the application in front or its menus changed.
  virtual ChangeStream changes() = 0;
  // The process's menu bar as the device's tree; nothing when it cannot be read now. Bounded in
  // time, nodes and depth; never a partial tree.
  virtual asio::awaitable<std::optional<std::vector<MenuNode>>> readMenus(std::int32_t pid) = 0;
  // Presses the item at `path` (titles from the top level down) by the route its tree came from.
  virtual asio::awaitable<MenuPressResult> press(std::int32_t pid,
                                                 std::vector<std::string> path) = 0;
};

}  // namespace kelvaron::host
