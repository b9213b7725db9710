// A GTK 3 window with one text widget of each kind the host tells apart: an entry, a password
// entry, a search entry and a text view, in that order of focus, each named after its role in the
// accessibility tree. The window's title is the first argument ("Text Fields" without one). Once
// the window is on screen the program prints one line per widget, "<name> <x> <y> <width>
// <height>" in root-window coordinates, then "ready": tests read the lines to click into a widget.

#include <gtk/gtk.h>

#include <array>
#include <cstdio>

namespace {

constexpr std::array<const char*, 4> kNames = {"entry", "password", "search", "text"};
std::array<GtkWidget*, 4> widgets{};

gboolean report(gpointer window) {
  GdkWindow* toplevel = gtk_widget_get_window(GTK_WIDGET(window));
  int originX = 0, originY = 0;
  gdk_window_get_origin(toplevel, &originX, &originY);
  for (std::size_t i = 0; i < widgets.size(); ++i) {
    int x = 0, y = 0;
    gtk_widget_translate_coordinates(widgets[i], GTK_WIDGET(window), 0, 0, &x, &y);
    GtkAllocation allocation;
    gtk_widget_get_allocation(widgets[i], &allocation);
    std::printf("%s %d %d %d %d\n", kNames[i], originX + x, originY + y, allocation.width,
                allocation.height);
  }
  std::printf("ready\n");
  std::fflush(stdout);
  return G_SOURCE_REMOVE;
}

gboolean mapped(GtkWidget* window, GdkEvent*, gpointer) {
  // After the first layout, so that the allocations are final.
  g_timeout_add(100, report, window);
  return FALSE;
}

}  // namespace

int main(int argc, char** argv) {
  gtk_init(&argc, &argv);
  GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_title(GTK_WINDOW(window), argc > 1 ? argv[1] : "Text Fields");
  gtk_window_set_default_size(GTK_WINDOW(window), 400, 300);
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
  gtk_container_add(GTK_CONTAINER(window), box);

  widgets = {gtk_entry_new(), gtk_entry_new(), gtk_search_entry_new(), gtk_text_view_new()};
  gtk_entry_set_visibility(GTK_ENTRY(widgets[1]), FALSE);
  for (std::size_t i = 0; i < widgets.size(); ++i) {
    const bool last = i + 1 == widgets.size();
    atk_object_set_name(gtk_widget_get_accessible(widgets[i]), kNames[i]);
    gtk_box_pack_start(GTK_BOX(box), widgets[i], last, last, 0);
  }
  g_signal_connect(window, "map-event", reinterpret_cast<GCallback>(&mapped), nullptr);
  g_signal_connect(window, "destroy", reinterpret_cast<GCallback>(&gtk_main_quit), nullptr);
  gtk_widget_show_all(window);
  gtk_main();
  return 0;
}
