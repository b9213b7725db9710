// GTK's exported menu model. The menu bar's object answers org.gtk.Menus: Start(groups) gives
// every menu of those groups, each a list of items (dictionaries of attributes) whose links
// ":section" and ":submenu" name other menus by (group, menu). A section shares its parent's
// group; a submenu has a group of its own, so a read asks level by level. The items' actions live
// on the application's object ("app.") and the window's ("win."), whose org.gtk.Actions
// DescribeAll gives each action's enabled flag and state.

#include <map>
#include <set>
#include <utility>

#include "host/desktop/MenuReaders.hpp"
#include "host/desktop/MenuShortcuts.hpp"

namespace kelvaron::host {

namespace {

constexpr const char* kMenusInterface = "org.gtk.Menus";
constexpr const char* kActionsInterface = "org.gtk.Actions";

using MenuID = std::pair<guint32, guint32>;  // group, menu

struct ActionInfo {
  bool enabled = false;
  Variant state;  // null when stateless
};
using Actions = std::map<std::string, ActionInfo>;

// An item as read, with what activating it takes.
struct GtkItem {
  RawMenuItem item;  // without children: those are below
  std::string action;
  Variant target;
  std::vector<GtkItem> children;
};

std::string stringAttribute(GVariant* attributes, const char* name) {
  const gchar* value = nullptr;
  if (!g_variant_lookup(attributes, name, "&s", &value) || !value) return {};
  return value;
}

std::optional<MenuID> link(GVariant* attributes, const char* name) {
  guint32 group = 0, menu = 0;
  if (!g_variant_lookup(attributes, name, "(uu)", &group, &menu)) return std::nullopt;
  return MenuID{group, menu};
}

class GtkModelReader {
 public:
  GtkModelReader(GDBusConnection* bus, const GtkMenuAddress& address, MenuBudget& budget)
      : bus_(bus), address_(address), budget_(budget) {}

  ~GtkModelReader() {
    if (started_.empty()) return;
    // Unsubscribes without waiting for the answer.
    GVariantBuilder groups;
    g_variant_builder_init(&groups, G_VARIANT_TYPE("au"));
    for (const guint32 group : started_) g_variant_builder_add(&groups, "u", group);
    g_dbus_connection_call(bus_, address_.bus.c_str(), address_.menubar.c_str(), kMenusInterface,
                           "End", g_variant_new("(au)", &groups), nullptr,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, 1000, nullptr, nullptr, nullptr);
  }
  GtkModelReader(const GtkModelReader&) = delete;
  GtkModelReader& operator=(const GtkModelReader&) = delete;

  MenuReadStatus read(std::vector<GtkItem>& top) {
    // Level by level: each round asks for the groups of the submenus the last one found.
    std::set<guint32> wanted = {0};
    for (int level = 0; level <= kMenuMaxDepth && !wanted.empty(); ++level) {
      if (!start(wanted))
        return budget_.exhausted() ? MenuReadStatus::exhausted : MenuReadStatus::absent;
      std::set<guint32> next;
      for (const guint32 group : wanted) {
        for (const auto& [id, items] : menus_) {
          if (id.first != group) continue;
          for (const auto& attributes : items) {
            const auto submenu = link(attributes.get(), ":submenu");
            if (submenu && !started_.count(submenu->first)) next.insert(submenu->first);
          }
        }
      }
      wanted = std::move(next);
    }
    if (!menus_.count({0, 0})) return MenuReadStatus::absent;
    appActions_ = describe(address_.app);
    windowActions_ = describe(address_.window);
    if (budget_.exhausted()) return MenuReadStatus::exhausted;
    std::set<MenuID> visiting;
    top = items({0, 0}, 0, visiting);
    return budget_.exhausted() ? MenuReadStatus::exhausted : MenuReadStatus::read;
  }

  // The action's object path and its name there; empty for an action of neither object.
  std::pair<std::string, std::string> actionAddress(const std::string& action) const {
    if (action.rfind("app.", 0) == 0 && !address_.app.empty()) {
      return {address_.app, action.substr(4)};
    }
    if (action.rfind("win.", 0) == 0 && !address_.window.empty()) {
      return {address_.window, action.substr(4)};
    }
    return {};
  }

 private:
  bool start(const std::set<guint32>& groups) {
    GVariantBuilder ids;
    g_variant_builder_init(&ids, G_VARIANT_TYPE("au"));
    for (const guint32 group : groups) g_variant_builder_add(&ids, "u", group);
    const Variant reply = callMethod(bus_, address_.bus, address_.menubar, kMenusInterface, "Start",
                                     g_variant_new("(au)", &ids), "(a(uuaa{sv}))", budget_);
    if (!reply) return false;
    started_.insert(groups.begin(), groups.end());
    const Variant list(g_variant_get_child_value(reply.get(), 0));
    const gsize count = g_variant_n_children(list.get());
    for (gsize i = 0; i < count; ++i) {
      const Variant menu(g_variant_get_child_value(list.get(), i));
      guint32 group = 0, id = 0;
      g_variant_get_child(menu.get(), 0, "u", &group);
      g_variant_get_child(menu.get(), 1, "u", &id);
      // Menus of groups not asked for, or given twice, would double the items they hold.
      if (!groups.count(group) || menus_.count({group, id})) continue;
      const Variant entries(g_variant_get_child_value(menu.get(), 2));
      std::vector<Variant>& items = menus_[{group, id}];
      const gsize n = g_variant_n_children(entries.get());
      for (gsize j = 0; j < n; ++j) {
        if (!budget_.take()) return false;
        items.emplace_back(g_variant_get_child_value(entries.get(), j));
      }
    }
    return true;
  }

  Actions describe(const std::string& path) {
    Actions actions;
    if (path.empty()) return actions;
    const Variant reply = callMethod(bus_, address_.bus, path, kActionsInterface, "DescribeAll",
                                     nullptr, "(a{s(bgav)})", budget_);
    if (!reply) return actions;
    const Variant map(g_variant_get_child_value(reply.get(), 0));
    GVariantIter iterator;
    g_variant_iter_init(&iterator, map.get());
    const gchar* name = nullptr;
    gboolean enabled = FALSE;
    GVariantIter* states = nullptr;
    // The loop frees what the previous round gave.
    while (g_variant_iter_loop(&iterator, "{&s(b&gav)}", &name, &enabled, nullptr, &states)) {
      ActionInfo& info = actions[name];
      info.enabled = enabled;
      GVariant* state = nullptr;
      if (g_variant_iter_next(states, "v", &state)) info.state.reset(state);
    }
    return actions;
  }

  const ActionInfo* findAction(const std::string& action) const {
    const Actions* actions = action.rfind("app.", 0) == 0   ? &appActions_
                             : action.rfind("win.", 0) == 0 ? &windowActions_
                                                            : nullptr;
    if (!actions) return nullptr;
    const auto found = actions->find(action.substr(4));
    return found == actions->end() ? nullptr : &found->second;
  }

  std::vector<GtkItem> items(MenuID id, int depth, std::set<MenuID>& visiting) {
    std::vector<GtkItem> result;
    const auto menu = menus_.find(id);
    // A menu that links back to itself would never end.
    if (menu == menus_.end() || !visiting.insert(id).second) return result;
    for (const auto& entry : menu->second) {
      GVariant* attributes = entry.get();
      if (const auto section = link(attributes, ":section")) {
        auto inner = items(*section, depth, visiting);
        if (inner.empty()) continue;
        result.push_back({});  // separators around a section; tidied afterwards
        for (auto& item : inner) result.push_back(std::move(item));
        result.push_back({});
        continue;
      }
      GtkItem item;
      item.item.title = withoutMnemonics(stringAttribute(attributes, "label"));
      if (item.item.title.empty()) continue;
      const auto shortcut = gtkAccelerator(stringAttribute(attributes, "accel"));
      item.item.key = shortcut.key;
      item.item.modifiers = shortcut.modifiers;
      item.action = stringAttribute(attributes, "action");
      item.target.reset(g_variant_lookup_value(attributes, "target", nullptr));
      const auto submenu = link(attributes, ":submenu");
      if (submenu && depth < kMenuMaxDepth) item.children = items(*submenu, depth + 1, visiting);
      if (!item.action.empty()) {
        const ActionInfo* action = findAction(item.action);
        const std::string hiddenWhen = stringAttribute(attributes, "hidden-when");
        if (!action && hiddenWhen == "action-missing") continue;
        if (action && !action->enabled && hiddenWhen == "action-disabled") continue;
        item.item.enabled = action && action->enabled;
        if (action && action->state) item.item.mark = markOf(*action, item.target.get());
      } else {
        item.item.enabled = bool(submenu);
      }
      result.push_back(std::move(item));
    }
    visiting.erase(id);
    return result;
  }

  static MenuMark markOf(const ActionInfo& action, GVariant* target) {
    GVariant* state = action.state.get();
    if (target) return g_variant_equal(state, target) ? MenuMark::bullet : MenuMark::none;
    if (g_variant_is_of_type(state, G_VARIANT_TYPE_BOOLEAN) && g_variant_get_boolean(state)) {
      return MenuMark::check;
    }
    return MenuMark::none;
  }

  GDBusConnection* bus_;
  const GtkMenuAddress& address_;
  MenuBudget& budget_;
  std::map<MenuID, std::vector<Variant>> menus_;
  std::set<guint32> started_;
  Actions appActions_, windowActions_;
};

}  // namespace

MenuRead readGtkMenus(GDBusConnection* bus, const GtkMenuAddress& address, MenuBudget& budget) {
  std::vector<GtkItem> items;
  GtkModelReader reader(bus, address, budget);
  const auto status = reader.read(items);
  if (status != MenuReadStatus::read) return {status, {}};
  return {status, rawItemsOf(items)};
}

MenuPressResult pressGtkMenu(GDBusConnection* bus, const GtkMenuAddress& address,
                             const std::vector<std::string>& path, MenuBudget& budget) {
  std::vector<GtkItem> items;
  GtkModelReader reader(bus, address, budget);
  if (reader.read(items) != MenuReadStatus::read) return MenuPressResult::failed;
  const GtkItem* found = itemAtPath(items, path);
  if (!found) return MenuPressResult::notFound;
  if (!found->item.enabled || found->action.empty()) return MenuPressResult::failed;
  const auto [object, name] = reader.actionAddress(found->action);
  if (object.empty()) return MenuPressResult::failed;
  GVariantBuilder parameter;
  g_variant_builder_init(&parameter, G_VARIANT_TYPE("av"));
  if (found->target) g_variant_builder_add(&parameter, "v", found->target.get());
  GVariantBuilder platform;
  g_variant_builder_init(&platform, G_VARIANT_TYPE("a{sv}"));
  const Variant reply =
      callMethod(bus, address.bus, object, kActionsInterface, "Activate",
                 g_variant_new("(sava{sv})", name.c_str(), &parameter, &platform), nullptr, budget);
  return reply ? MenuPressResult::pressed : MenuPressResult::failed;
}

}  // namespace kelvaron::host
