#pragma once

#include <gio/gio.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/desktop/MenuSource.hpp"

// The three routes by which Linux applications publish their menu bars, each read and pressed
// with blocking D-Bus calls whose time comes out of one budget. DesktopMenuSource calls them on
// its own thread; nothing here keeps state between calls.
namespace kelvaron::host {

// What one read (or press) may spend: a deadline every call's timeout comes from, and a count of
// items. Running out of either marks it exhausted, and the read gives nothing.
class MenuBudget {
 public:
  MenuBudget(std::chrono::milliseconds time, int items)
      : deadline_(std::chrono::steady_clock::now() + time), itemsLeft_(items) {}

  // The timeout of the next call: what is left, at least a millisecond.
  int timeoutMs() const;
  bool late() const { return std::chrono::steady_clock::now() >= deadline_; }
  // Counts one item; false (and exhausted) past the limit.
  bool take();
  void exhaust() { exhausted_ = true; }
  bool exhausted() const { return exhausted_; }
  // Whether it was the count of items that ran out, not the time.
  bool outOfItems() const { return itemsLeft_ < 0; }

 private:
  std::chrono::steady_clock::time_point deadline_;
  int itemsLeft_;
  bool exhausted_ = false;
};

struct GVariantUnref {
  void operator()(GVariant* value) const {
    if (value) g_variant_unref(value);
  }
};
using Variant = std::unique_ptr<GVariant, GVariantUnref>;

// A method call bounded by the budget's time: its reply, or nothing after an error or the
// deadline (which exhausts the budget). `parameters` may be floating; `error`, when given, gets
// the message of a failure that was no timeout.
Variant callMethod(GDBusConnection* connection, const std::string& bus, const std::string& path,
                   const char* interface, const char* method, GVariant* parameters,
                   const char* replyType, MenuBudget& budget, std::string* error = nullptr);

// How a read ended: a tree, no menu by this route (try the next), or out of time or items.
enum class MenuReadStatus { read, absent, exhausted };
struct MenuRead {
  MenuReadStatus status = MenuReadStatus::absent;
  std::vector<RawMenuItem> items;
};

// Drops separators at either end of a list and those that follow another, at every level.
void tidySeparators(std::vector<RawMenuItem>& items);

// Readers keep, with each item, what pressing it takes on their route: trees of a type with the
// raw item (without its children) as `item` and its own `children`.

// The raw tree, taken out of a reader's.
template <class Item>
std::vector<RawMenuItem> rawItemsOf(std::vector<Item>& items) {
  std::vector<RawMenuItem> result;
  result.reserve(items.size());
  for (auto& entry : items) {
    entry.item.children = rawItemsOf(entry.children);
    result.push_back(std::move(entry.item));
  }
  tidySeparators(result);
  return result;
}

// The item at `path`, titles from the top level down; null where a title is missing.
template <class Item>
const Item* itemAtPath(const std::vector<Item>& top, const std::vector<std::string>& path) {
  const Item* found = nullptr;
  const std::vector<Item>* level = &top;
  for (const std::string& title : path) {
    const auto at = std::find_if(level->begin(), level->end(),
                                 [&](const Item& entry) { return entry.item.title == title; });
    if (at == level->end()) return nullptr;
    found = &*at;
    level = &found->children;
  }
  return found;
}

// The depth of items below the top level that readers go to.
inline constexpr int kMenuMaxDepth = 4;

// GTK's exported menu model (org.gtk.Menus) and its actions (org.gtk.Actions), as a
// GtkApplication names them on its windows.
struct GtkMenuAddress {
  std::string bus;      // _GTK_UNIQUE_BUS_NAME
  std::string menubar;  // _GTK_MENUBAR_OBJECT_PATH
  std::string app;      // _GTK_APPLICATION_OBJECT_PATH: the "app." actions
  std::string window;   // _GTK_WINDOW_OBJECT_PATH: the "win." actions
  friend bool operator==(const GtkMenuAddress&, const GtkMenuAddress&) = default;
};
MenuRead readGtkMenus(GDBusConnection* bus, const GtkMenuAddress& address, MenuBudget& budget);
MenuPressResult pressGtkMenu(GDBusConnection* bus, const GtkMenuAddress& address,
                             const std::vector<std::string>& path, MenuBudget& budget);

// A com.canonical.dbusmenu object (Qt and KDE applications).
struct DbusMenuAddress {
  std::string bus;
  std::string path;
  friend bool operator==(const DbusMenuAddress&, const DbusMenuAddress&) = default;
};
MenuRead readDbusMenu(GDBusConnection* bus, const DbusMenuAddress& address, MenuBudget& budget);
MenuPressResult pressDbusMenu(GDBusConnection* bus, const DbusMenuAddress& address,
                              const std::vector<std::string>& path, MenuBudget& budget);

// The menu bar in the accessibility tree of the process `pid`, on the accessibility bus.
MenuRead readAtspiMenus(GDBusConnection* a11y, std::int32_t pid, MenuBudget& budget);
MenuPressResult pressAtspiMenu(GDBusConnection* a11y, std::int32_t pid,
                               const std::vector<std::string>& path, MenuBudget& budget);

}  // namespace kelvaron::host
