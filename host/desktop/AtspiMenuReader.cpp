// The menu bar in an application's accessibility tree, for applications that draw their own: the
// AT-SPI objects are asked over the accessibility bus with GDBus, each call bounded by the read's
// budget, so that this reader shares nothing with libatspi's process-wide connection. GTK puts a
// menu's items directly under its MENU; Qt puts them under a POPUP_MENU below the MENU_ITEM.

#include <atspi/atspi-constants.h>

#include <algorithm>
#include <optional>

#include "host/desktop/MenuReaders.hpp"
#include "host/desktop/MenuShortcuts.hpp"

namespace kelvaron::host {

namespace {

constexpr const char* kAccessible = "org.a11y.atspi.Accessible";
constexpr const char* kAction = "org.a11y.atspi.Action";
constexpr const char* kRegistry = "org.a11y.atspi.Registry";
constexpr const char* kRoot = "/org/a11y/atspi/accessible/root";
// Bounds of the search for the menu bar, and of one object's children.
constexpr int kMaxSearched = 2000;
constexpr gsize kMaxChildren = 512;

struct Node {
  std::string bus;
  std::string path;
};

struct Action {
  std::string name;
  std::string keyBinding;
};

struct AtspiItem {
  RawMenuItem item;  // without children: those are below
  Node node;
  std::vector<AtspiItem> children;
};

bool isMenuItemRole(guint32 role) {
  return role == ATSPI_ROLE_MENU || role == ATSPI_ROLE_MENU_ITEM ||
         role == ATSPI_ROLE_CHECK_MENU_ITEM || role == ATSPI_ROLE_RADIO_MENU_ITEM;
}

// Calls into one application's objects. The first that fails ends the walk: an application that
// hangs answers nothing, each call after its timeout.
class AtspiWalker {
 public:
  AtspiWalker(GDBusConnection* bus, MenuBudget& budget) : bus_(bus), budget_(budget) {}

  bool failed() const { return failed_; }

  std::optional<Node> application(std::int32_t pid) {
    for (const Node& app : children({kRegistry, kRoot})) {
      const Variant reply = callMethod(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                       "org.freedesktop.DBus", "GetConnectionUnixProcessID",
                                       g_variant_new("(s)", app.bus.c_str()), "(u)", budget_);
      if (budget_.exhausted()) return std::nullopt;
      guint32 appPID = 0;
      if (reply) g_variant_get(reply.get(), "(u)", &appPID);
      if (reply && std::int32_t(appPID) == pid) return app;
    }
    return std::nullopt;
  }

  // Depth first from the application.
  std::optional<Node> menuBar(const Node& app) {
    std::vector<Node> stack = {app};
    for (int searched = 0; !stack.empty() && searched < kMaxSearched && !failed_; ++searched) {
      const Node node = std::move(stack.back());
      stack.pop_back();
      const auto nodeRole = role(node);
      if (!nodeRole) return std::nullopt;
      if (*nodeRole == ATSPI_ROLE_MENU_BAR) return node;
      auto below = children(node);
      for (auto it = below.rbegin(); it != below.rend(); ++it) stack.push_back(std::move(*it));
    }
    return std::nullopt;
  }

  // The items below `node`, a POPUP_MENU's taken as its parent's.
  std::vector<AtspiItem> items(const Node& node, int depth, bool deep) {
    std::vector<AtspiItem> result;
    for (const Node& child : children(node)) {
      const auto childRole = role(child);
      if (!childRole) return {};
      if (*childRole == ATSPI_ROLE_POPUP_MENU) {
        // Counted like an item, so that popups holding popups (or themselves) end.
        if (!budget_.take()) return {};
        auto inner = items(child, depth, deep);
        for (auto& item : inner) result.push_back(std::move(item));
        continue;
      }
      if (*childRole == ATSPI_ROLE_SEPARATOR) {
        if (!budget_.take()) return {};
        result.push_back({{}, child, {}});
        continue;
      }
      if (!isMenuItemRole(*childRole)) continue;
      if (!budget_.take()) return {};
      auto item = this->item(child, *childRole, depth, deep);
      if (failed_) return {};
      if (item) result.push_back(std::move(*item));
    }
    return result;
  }

  std::vector<Action> actions(const Node& node) {
    std::vector<Action> result;
    if (failed_) return result;
    std::string error;
    const Variant reply = callMethod(bus_, node.bus, node.path, kAction, "GetActions", nullptr,
                                     "(a(sss))", budget_, &error);
    if (!reply) {
      // An object without actions says so with an error; a hung one gives none in time.
      if (budget_.exhausted()) failed_ = true;
      return result;
    }
    GVariantIter* list = nullptr;
    g_variant_get(reply.get(), "(a(sss))", &list);
    const gchar *name = nullptr, *description = nullptr, *binding = nullptr;
    while (result.size() < 16 &&
           g_variant_iter_loop(list, "(&s&s&s)", &name, &description, &binding)) {
      result.push_back({name, binding});
    }
    g_variant_iter_free(list);
    return result;
  }

  std::vector<Node> children(const Node& node) {
    std::vector<Node> result;
    if (failed_) return result;
    const Variant reply = callMethod(bus_, node.bus, node.path, kAccessible, "GetChildren", nullptr,
                                     "(a(so))", budget_);
    if (!reply) {
      failed_ = true;
      return result;
    }
    const Variant list(g_variant_get_child_value(reply.get(), 0));
    const gsize count = std::min(g_variant_n_children(list.get()), kMaxChildren);
    for (gsize i = 0; i < count; ++i) {
      const gchar *bus = nullptr, *path = nullptr;
      g_variant_get_child(list.get(), i, "(&s&o)", &bus, &path);
      result.push_back({bus, path});
    }
    return result;
  }

  std::optional<guint32> role(const Node& node) {
    if (failed_) return std::nullopt;
    const Variant reply =
        callMethod(bus_, node.bus, node.path, kAccessible, "GetRole", nullptr, "(u)", budget_);
    guint32 value = ATSPI_ROLE_INVALID;
    if (reply) g_variant_get(reply.get(), "(u)", &value);
    if (value == ATSPI_ROLE_INVALID) {
      failed_ = true;
      return std::nullopt;
    }
    return value;
  }

  // The state bits, 64 of them in two words; nothing for an object that is gone.
  std::optional<std::uint64_t> states(const Node& node) {
    if (failed_) return std::nullopt;
    const Variant reply =
        callMethod(bus_, node.bus, node.path, kAccessible, "GetState", nullptr, "(au)", budget_);
    std::uint64_t bits = 0;
    if (reply) {
      const Variant words(g_variant_get_child_value(reply.get(), 0));
      const gsize count = std::min<gsize>(g_variant_n_children(words.get()), 2);
      for (gsize i = 0; i < count; ++i) {
        guint32 word = 0;
        g_variant_get_child(words.get(), i, "u", &word);
        bits |= std::uint64_t(word) << (32 * i);
      }
    }
    if (!reply || (bits & bit(ATSPI_STATE_DEFUNCT))) {
      failed_ = true;
      return std::nullopt;
    }
    return bits;
  }

  std::string name(const Node& node) {
    if (failed_) return {};
    const Variant reply =
        callMethod(bus_, node.bus, node.path, "org.freedesktop.DBus.Properties", "Get",
                   g_variant_new("(ss)", kAccessible, "Name"), "(v)", budget_);
    if (!reply) {
      failed_ = true;
      return {};
    }
    const Variant value(g_variant_get_child_value(reply.get(), 0));
    const Variant inner(g_variant_get_variant(value.get()));
    if (!g_variant_is_of_type(inner.get(), G_VARIANT_TYPE_STRING)) return {};
    return boundedTitle(g_variant_get_string(inner.get(), nullptr));
  }

  bool press(const Node& node) {
    const auto list = actions(node);
    if (list.empty()) return false;
    std::size_t index = 0;
    for (std::size_t i = 0; i < list.size(); ++i) {
      const std::string& name = list[i].name;
      if (name == "click" || name == "Press" || name == "press" || name == "activate") {
        index = i;
        break;
      }
    }
    const Variant reply = callMethod(bus_, node.bus, node.path, kAction, "DoAction",
                                     g_variant_new("(i)", gint32(index)), "(b)", budget_);
    gboolean done = FALSE;
    if (reply) g_variant_get(reply.get(), "(b)", &done);
    return done;
  }

  static constexpr std::uint64_t bit(AtspiStateType state) { return std::uint64_t(1) << state; }

 private:
  std::optional<AtspiItem> item(const Node& node, guint32 itemRole, int depth, bool deep) {
    const auto bits = states(node);
    if (!bits) return std::nullopt;
    if (!(*bits & bit(ATSPI_STATE_VISIBLE))) return std::nullopt;
    AtspiItem item;
    item.node = node;
    item.item.title = name(node);
    if (failed_ || item.item.title.empty()) return std::nullopt;
    item.item.enabled = *bits & (bit(ATSPI_STATE_ENABLED) | bit(ATSPI_STATE_SENSITIVE));
    if (*bits & bit(ATSPI_STATE_INDETERMINATE)) {
      item.item.mark = MenuMark::mixed;
    } else if (*bits & bit(ATSPI_STATE_CHECKED)) {
      item.item.mark = itemRole == ATSPI_ROLE_RADIO_MENU_ITEM ? MenuMark::bullet : MenuMark::check;
    }
    if (!deep) return item;
    for (const Action& action : actions(node)) {
      if (action.keyBinding.empty()) continue;
      const auto shortcut = accessibleKeyBinding(action.keyBinding, item.item.title);
      item.item.key = shortcut.key;
      item.item.modifiers = shortcut.modifiers;
      break;
    }
    const bool mayHoldItems = itemRole == ATSPI_ROLE_MENU || itemRole == ATSPI_ROLE_MENU_ITEM;
    if (mayHoldItems && depth < kMenuMaxDepth) item.children = items(node, depth + 1, deep);
    return item;
  }

  GDBusConnection* bus_;
  MenuBudget& budget_;
  bool failed_ = false;
};

}  // namespace

MenuRead readAtspiMenus(GDBusConnection* a11y, std::int32_t pid, MenuBudget& budget) {
  AtspiWalker walker(a11y, budget);
  const auto app = walker.application(pid);
  const auto bar = app ? walker.menuBar(*app) : std::nullopt;
  if (!bar) return {budget.exhausted() ? MenuReadStatus::exhausted : MenuReadStatus::absent, {}};
  auto items = walker.items(*bar, 0, true);
  if (budget.exhausted()) return {MenuReadStatus::exhausted, {}};
  if (walker.failed()) return {MenuReadStatus::absent, {}};
  return {MenuReadStatus::read, rawItemsOf(items)};
}

MenuPressResult pressAtspiMenu(GDBusConnection* a11y, std::int32_t pid,
                               const std::vector<std::string>& path, MenuBudget& budget) {
  AtspiWalker walker(a11y, budget);
  const auto app = walker.application(pid);
  const auto bar = app ? walker.menuBar(*app) : std::nullopt;
  if (!bar) return MenuPressResult::failed;
  // Down the path one level at a time, reading only the items on the way.
  Node node = *bar;
  std::optional<AtspiItem> found;
  for (const std::string& title : path) {
    auto level = walker.items(node, 0, false);
    if (walker.failed()) return MenuPressResult::failed;
    found.reset();
    for (auto& item : level) {
      if (item.item.title == title) {
        found = std::move(item);
        break;
      }
    }
    if (!found) return MenuPressResult::notFound;
    node = found->node;
  }
  if (!found || !found->item.enabled) return MenuPressResult::failed;
  return walker.press(node) ? MenuPressResult::pressed : MenuPressResult::failed;
}

}  // namespace kelvaron::host
