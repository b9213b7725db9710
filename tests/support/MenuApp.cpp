// A GTK 3 application with one menu model, published in either of two ways: exported as
// GtkApplication's menubar (read over org.gtk.Menus), or with --widgets drawn as a GtkMenuBar of
// the window's own, which only the accessibility tree shows. Both have the same items:
//
//   File: New Window (Ctrl+N) | Show Toolbar (checked) | Light, Dark (radio, Dark chosen)
//         | Print (disabled), Quit (Ctrl+Q)
//   Edit: Copy (Ctrl+C), Find Next (F3), Zoom ▸ Zoom In (Ctrl++), Reset _Zoom
//   (Ctrl+Shift+BackSpace)
//
// With --items N the model has N items more, in menus "Menu 1", "Menu 2" … of 50 items each
// ("Item 1.1" …); with --changing its last menu "Clock" holds one item whose title changes every
// second ("Tick 1" …).
//
// Each activation appends "activated <name>" (with " <target>" for the radio items and the many
// items) to the file named by $TOVU_MENU_LOG. The program prints "ready" once its window is on
// screen. The first other argument is the application's ID.

#include <gtk/gtk.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool widgets = false;
int extraItems = 0;
bool changing = false;
const char* applicationID = "io.dovka.tovu.MenuApp";

void record(const std::string& what) {
  const char* path = std::getenv("TOVU_MENU_LOG");
  if (!path) return;
  if (FILE* file = std::fopen(path, "a")) {
    std::fprintf(file, "activated %s\n", what.c_str());
    std::fclose(file);
  }
}

gboolean mapped(GtkWidget*, GdkEvent*, gpointer) {
  std::printf("ready\n");
  std::fflush(stdout);
  return FALSE;
}

// The exported model's actions.
void activated(GSimpleAction* action, GVariant* parameter, gpointer) {
  std::string what = g_action_get_name(G_ACTION(action));
  if (parameter && g_variant_is_of_type(parameter, G_VARIANT_TYPE_STRING)) {
    what += std::string(" ") + g_variant_get_string(parameter, nullptr);
    if (g_action_get_state_type(G_ACTION(action))) g_simple_action_set_state(action, parameter);
  }
  record(what);
}

void toggled(GSimpleAction* action, GVariant*, gpointer) {
  GVariant* state = g_action_get_state(G_ACTION(action));
  g_simple_action_set_state(action, g_variant_new_boolean(!g_variant_get_boolean(state)));
  g_variant_unref(state);
  record(g_action_get_name(G_ACTION(action)));
}

void addItem(GMenu* menu, const char* label, const char* action, const char* accel,
             const char* target = nullptr) {
  GMenuItem* item = g_menu_item_new(label, nullptr);
  if (target) {
    g_menu_item_set_action_and_target(item, action, "s", target);
  } else {
    g_menu_item_set_detailed_action(item, action);
  }
  if (accel) g_menu_item_set_attribute(item, "accel", "s", accel);
  g_menu_append_item(menu, item);
  g_object_unref(item);
}

void addMany(GMenu* bar) {
  constexpr int kPerMenu = 50;
  for (int m = 1; (m - 1) * kPerMenu < extraItems; ++m) {
    GMenu* menu = g_menu_new();
    for (int i = 1; i <= kPerMenu && (m - 1) * kPerMenu + i <= extraItems; ++i) {
      const std::string name = std::to_string(m) + "." + std::to_string(i);
      addItem(menu, ("Item " + name).c_str(), "app.many", nullptr, name.c_str());
    }
    g_menu_append_submenu(bar, ("Menu " + std::to_string(m)).c_str(), G_MENU_MODEL(menu));
    g_object_unref(menu);
  }
}

gboolean tick(gpointer clock) {
  static int ticks = 0;
  const std::string title = "Tick " + std::to_string(++ticks);
  g_menu_remove_all(G_MENU(clock));
  addItem(G_MENU(clock), title.c_str(), "app.new-window", nullptr);
  return G_SOURCE_CONTINUE;
}

void addClock(GMenu* bar) {
  GMenu* clock = g_menu_new();
  tick(clock);
  g_menu_append_submenu(bar, "Clock", G_MENU_MODEL(clock));
  g_timeout_add_seconds(1, tick, clock);  // the clock lives as long as the program
}

GMenuModel* menuModel() {
  GMenu* bar = g_menu_new();
  GMenu* file = g_menu_new();
  GMenu* first = g_menu_new();
  addItem(first, "_New Window", "app.new-window", "<Primary>n");
  g_menu_append_section(file, nullptr, G_MENU_MODEL(first));
  GMenu* view = g_menu_new();
  addItem(view, "Show _Toolbar", "app.show-toolbar", nullptr);
  g_menu_append_section(file, nullptr, G_MENU_MODEL(view));
  GMenu* themes = g_menu_new();
  addItem(themes, "_Light", "app.theme", nullptr, "light");
  addItem(themes, "_Dark", "app.theme", nullptr, "dark");
  g_menu_append_section(file, nullptr, G_MENU_MODEL(themes));
  GMenu* last = g_menu_new();
  addItem(last, "_Print", "app.print", nullptr);
  addItem(last, "_Quit", "app.quit", "<Primary>q");
  g_menu_append_section(file, nullptr, G_MENU_MODEL(last));
  g_menu_append_submenu(bar, "_File", G_MENU_MODEL(file));

  GMenu* edit = g_menu_new();
  addItem(edit, "_Copy", "win.copy", "<Primary>c");
  addItem(edit, "_Find Next", "win.find-next", "F3");
  GMenu* zoom = g_menu_new();
  addItem(zoom, "Zoom _In", "app.zoom-in", "<Primary>plus");
  addItem(zoom, "Reset __Zoom", "app.zoom-reset", "<Primary><Shift>BackSpace");
  g_menu_append_submenu(edit, "_Zoom", G_MENU_MODEL(zoom));
  g_menu_append_submenu(bar, "_Edit", G_MENU_MODEL(edit));
  for (GMenu* menu : {file, first, view, themes, last, edit, zoom}) g_object_unref(menu);
  addMany(bar);
  if (changing) addClock(bar);
  return G_MENU_MODEL(bar);
}

void startup(GtkApplication* application, gpointer) {
  static const GActionEntry appActions[] = {
      {"new-window", activated, nullptr, nullptr, nullptr, {}},
      {"show-toolbar", toggled, nullptr, "true", nullptr, {}},
      {"theme", activated, "s", "'dark'", nullptr, {}},
      {"print", activated, nullptr, nullptr, nullptr, {}},
      {"quit", activated, nullptr, nullptr, nullptr, {}},
      {"zoom-in", activated, nullptr, nullptr, nullptr, {}},
      {"zoom-reset", activated, nullptr, nullptr, nullptr, {}},
      {"many", activated, "s", nullptr, nullptr, {}},
  };
  g_action_map_add_action_entries(G_ACTION_MAP(application), appActions, G_N_ELEMENTS(appActions),
                                  application);
  g_simple_action_set_enabled(
      G_SIMPLE_ACTION(g_action_map_lookup_action(G_ACTION_MAP(application), "print")), FALSE);
  if (widgets) return;
  GMenuModel* model = menuModel();
  gtk_application_set_menubar(application, model);
  g_object_unref(model);
}

void activate(GtkApplication* application, gpointer) {
  static const GActionEntry windowActions[] = {
      {"copy", activated, nullptr, nullptr, nullptr, {}},
      {"find-next", activated, nullptr, nullptr, nullptr, {}},
  };
  GtkWidget* window;
  if (widgets) {
    // The same model drawn as a menu bar of the window's own, exported nowhere.
    window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_application_add_window(application, GTK_WINDOW(window));
    GSimpleActionGroup* actions = g_simple_action_group_new();
    g_action_map_add_action_entries(G_ACTION_MAP(actions), windowActions,
                                    G_N_ELEMENTS(windowActions), window);
    gtk_widget_insert_action_group(window, "win", G_ACTION_GROUP(actions));
    g_object_unref(actions);
    GMenuModel* model = menuModel();
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    gtk_box_pack_start(GTK_BOX(box), gtk_menu_bar_new_from_model(model), FALSE, FALSE, 0);
    g_object_unref(model);
    gtk_container_add(GTK_CONTAINER(window), box);
  } else {
    window = gtk_application_window_new(application);
    g_action_map_add_action_entries(G_ACTION_MAP(window), windowActions,
                                    G_N_ELEMENTS(windowActions), window);
  }
  gtk_window_set_title(GTK_WINDOW(window), "Menu App");
  gtk_window_set_default_size(GTK_WINDOW(window), 400, 300);
  g_signal_connect(window, "map-event", G_CALLBACK(mapped), nullptr);
  gtk_widget_show_all(window);
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--widgets") == 0) {
      widgets = true;
    } else if (std::strcmp(argv[i], "--items") == 0 && i + 1 < argc) {
      extraItems = std::atoi(argv[++i]);
    } else if (std::strcmp(argv[i], "--changing") == 0) {
      changing = true;
    } else {
      applicationID = argv[i];
    }
  }
  GtkApplication* application = gtk_application_new(applicationID, G_APPLICATION_DEFAULT_FLAGS);
  g_signal_connect(application, "startup", G_CALLBACK(startup), nullptr);
  g_signal_connect(application, "activate", G_CALLBACK(activate), nullptr);
  // GApplication would read the arguments as files.
  char* programOnly[] = {argv[0], nullptr};
  const int status = g_application_run(G_APPLICATION(application), 1, programOnly);
  g_object_unref(application);
  return status;
}
