// com.canonical.dbusmenu, which Qt and KDE applications export where a desktop shows menus of
// its own: GetLayout(0, -1, []) gives the whole tree, each node (id, properties, children), and
// Event(id, "clicked", …) presses an item.

#include "host/desktop/MenuReaders.hpp"
#include "host/desktop/MenuShortcuts.hpp"

namespace kelvaron::host {

namespace {

constexpr const char* kInterface = "com.canonical.dbusmenu";

struct DbusItem {
  RawMenuItem item;  // without children: those are below
  std::int32_t id = 0;
  std::vector<DbusItem> children;
};

std::string stringProperty(GVariant* properties, const char* name) {
  const gchar* value = nullptr;
  if (!g_variant_lookup(properties, name, "&s", &value) || !value) return {};
  return value;
}

bool booleanProperty(GVariant* properties, const char* name, bool otherwise) {
  gboolean value = FALSE;
  if (!g_variant_lookup(properties, name, "b", &value)) return otherwise;
  return value;
}

MenuShortcut shortcutOf(GVariant* properties) {
  const Variant shortcut(g_variant_lookup_value(properties, "shortcut", G_VARIANT_TYPE("aas")));
  if (!shortcut) return {};
  std::vector<std::vector<std::string>> combinations;
  const gsize count = std::min<gsize>(g_variant_n_children(shortcut.get()), 4);
  for (gsize i = 0; i < count; ++i) {
    const Variant keys(g_variant_get_child_value(shortcut.get(), i));
    gsize n = 0;
    const gchar** names = g_variant_get_strv(keys.get(), &n);
    combinations.emplace_back(names, names + std::min<gsize>(n, 8));
    g_free(names);
  }
  return dbusmenuShortcut(combinations);
}

// The children of a layout node `(ia{sv}av)`, `depth` being theirs.
std::vector<DbusItem> children(GVariant* node, int depth, MenuBudget& budget) {
  std::vector<DbusItem> result;
  const Variant list(g_variant_get_child_value(node, 2));
  const gsize count = g_variant_n_children(list.get());
  for (gsize i = 0; i < count; ++i) {
    if (!budget.take()) return {};
    const Variant boxed(g_variant_get_child_value(list.get(), i));
    const Variant child(g_variant_get_variant(boxed.get()));
    if (!g_variant_is_of_type(child.get(), G_VARIANT_TYPE("(ia{sv}av)"))) continue;
    const Variant properties(g_variant_get_child_value(child.get(), 1));
    if (!booleanProperty(properties.get(), "visible", true)) continue;
    DbusItem item;
    g_variant_get_child(child.get(), 0, "i", &item.id);
    if (stringProperty(properties.get(), "type") == "separator") {
      result.push_back(std::move(item));
      continue;
    }
    item.item.title = withoutMnemonics(stringProperty(properties.get(), "label"));
    if (item.item.title.empty()) continue;
    item.item.enabled = booleanProperty(properties.get(), "enabled", true);
    const auto shortcut = shortcutOf(properties.get());
    item.item.key = shortcut.key;
    item.item.modifiers = shortcut.modifiers;
    const std::string toggle = stringProperty(properties.get(), "toggle-type");
    gint32 state = 0;
    if (!toggle.empty() && g_variant_lookup(properties.get(), "toggle-state", "i", &state)) {
      if (state < 0 || state > 1) {
        item.item.mark = MenuMark::mixed;
      } else if (state == 1) {
        item.item.mark = toggle == "radio" ? MenuMark::bullet : MenuMark::check;
      }
    }
    if (depth < kMenuMaxDepth) item.children = children(child.get(), depth + 1, budget);
    result.push_back(std::move(item));
  }
  return result;
}

MenuReadStatus layout(GDBusConnection* bus, const DbusMenuAddress& address, MenuBudget& budget,
                      std::vector<DbusItem>& top) {
  std::string error;
  const Variant reply = callMethod(bus, address.bus, address.path, kInterface, "GetLayout",
                                   g_variant_new("(ii@as)", 0, -1, g_variant_new_strv(nullptr, 0)),
                                   "(u(ia{sv}av))", budget, &error);
  if (!reply) return budget.exhausted() ? MenuReadStatus::exhausted : MenuReadStatus::absent;
  const Variant root(g_variant_get_child_value(reply.get(), 1));
  top = children(root.get(), 0, budget);
  return budget.exhausted() ? MenuReadStatus::exhausted : MenuReadStatus::read;
}

}  // namespace

MenuRead readDbusMenu(GDBusConnection* bus, const DbusMenuAddress& address, MenuBudget& budget) {
  std::vector<DbusItem> items;
  const auto status = layout(bus, address, budget, items);
  if (status != MenuReadStatus::read) return {status, {}};
  return {status, rawItemsOf(items)};
}

MenuPressResult pressDbusMenu(GDBusConnection* bus, const DbusMenuAddress& address,
                              const std::vector<std::string>& path, MenuBudget& budget) {
  std::vector<DbusItem> items;
  if (layout(bus, address, budget, items) != MenuReadStatus::read) return MenuPressResult::failed;
  const DbusItem* found = itemAtPath(items, path);
  if (!found) return MenuPressResult::notFound;
  if (!found->item.enabled) return MenuPressResult::failed;
  const Variant reply = callMethod(
      bus, address.bus, address.path, kInterface, "Event",
      g_variant_new("(isvu)", found->id, "clicked", g_variant_new_int32(0), 0u), nullptr, budget);
  return reply ? MenuPressResult::pressed : MenuPressResult::failed;
}

}  // namespace kelvaron::host
