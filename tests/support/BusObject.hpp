#pragma once

// D-Bus objects of a test's own: a general one answered on a thread of its own, and the menu
// registrar of a KDE desktop.

#include <gio/gio.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

namespace kelvaron::test {

// An object on a bus, answered on a thread of its own. `answer` gets each call
// (sender, method, parameters) and returns through the invocation, or keeps it and never answers.
class BusObject {
 public:
  using Answer = std::function<void(const std::string& sender, const std::string& method,
                                    GVariant* parameters, GDBusMethodInvocation*)>;

  // `interfaceXml` declares one interface, served at `path` (none: a connection that only calls);
  // `name`, when given, is asked for on the bus.
  BusObject(const std::string& address, const char* interfaceXml, const char* path, Answer answer,
            const char* name = nullptr)
      : answer_(std::move(answer)) {
    context_ = g_main_context_new();
    loop_ = g_main_loop_new(context_, FALSE);
    GError* error = nullptr;
    bus_ = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (error) {
      reason_ = error->message;
      g_error_free(error);
      return;
    }
    g_dbus_connection_set_exit_on_close(bus_, FALSE);
    if (!interfaceXml) return;
    const std::string xml = std::string("<node>") + interfaceXml + "</node>";
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml.c_str(), nullptr);
    static const GDBusInterfaceVTable vtable = {&BusObject::call, nullptr, nullptr, {}};
    // Calls are answered on the thread below, whose context is current while registering.
    g_main_context_push_thread_default(context_);
    g_dbus_connection_register_object(bus_, path, node->interfaces[0], &vtable, this, nullptr,
                                      nullptr);
    g_main_context_pop_thread_default(context_);
    g_dbus_node_info_unref(node);
    if (name) {
      GVariant* owned = g_dbus_connection_call_sync(
          bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
          "RequestName", g_variant_new("(su)", name, 4u), nullptr, G_DBUS_CALL_FLAGS_NONE, 5000,
          nullptr, &error);
      if (owned) g_variant_unref(owned);
      if (error) {
        reason_ = error->message;
        g_error_free(error);
      }
    }
    thread_ = std::thread([this] {
      g_main_context_push_thread_default(context_);
      g_main_loop_run(loop_);
      g_main_context_pop_thread_default(context_);
    });
  }
  ~BusObject() {
    if (thread_.joinable()) {
      g_main_context_invoke(
          context_,
          [](gpointer loop) {
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
            return gboolean(G_SOURCE_REMOVE);
          },
          loop_);
      thread_.join();
    }
    if (bus_) g_object_unref(bus_);
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }
  BusObject(const BusObject&) = delete;
  BusObject& operator=(const BusObject&) = delete;

  bool available() const { return reason_.empty(); }
  const std::string& skipReason() const { return reason_; }
  std::string uniqueName() const { return g_dbus_connection_get_unique_name(bus_); }
  GDBusConnection* connection() const { return bus_; }

 private:
  static void call(GDBusConnection*, const gchar* sender, const gchar*, const gchar*,
                   const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                   gpointer data) {
    static_cast<BusObject*>(data)->answer_(sender, method, parameters, invocation);
  }

  Answer answer_;
  GMainContext* context_ = nullptr;
  GMainLoop* loop_ = nullptr;
  GDBusConnection* bus_ = nullptr;
  std::thread thread_;
  std::string reason_;
};

// A com.canonical.AppMenu.Registrar, as a KDE desktop runs one: Qt exports its menu bars as
// dbusmenus only while there is one, and tells it which window each belongs to.
inline std::unique_ptr<BusObject> menuRegistrar(const std::string& address) {
  auto menus = std::make_shared<std::map<guint32, std::pair<std::string, std::string>>>();
  return std::make_unique<BusObject>(
      address,
      "<interface name='com.canonical.AppMenu.Registrar'>"
      "<method name='RegisterWindow'><arg type='u' direction='in'/>"
      "<arg type='o' direction='in'/></method>"
      "<method name='UnregisterWindow'><arg type='u' direction='in'/></method>"
      "<method name='GetMenuForWindow'><arg type='u' direction='in'/>"
      "<arg type='s' direction='out'/><arg type='o' direction='out'/></method>"
      "</interface>",
      "/com/canonical/AppMenu/Registrar",
      [menus](const std::string& sender, const std::string& method, GVariant* parameters,
              GDBusMethodInvocation* invocation) {
        guint32 window = 0;
        g_variant_get_child(parameters, 0, "u", &window);
        if (method == "RegisterWindow") {
          const gchar* path = nullptr;
          g_variant_get_child(parameters, 1, "&o", &path);
          (*menus)[window] = {sender, path};
        } else if (method == "UnregisterWindow") {
          menus->erase(window);
        } else if (const auto found = menus->find(window); found != menus->end()) {
          return g_dbus_method_invocation_return_value(
              invocation,
              g_variant_new("(so)", found->second.first.c_str(), found->second.second.c_str()));
        } else {
          return g_dbus_method_invocation_return_dbus_error(
              invocation, "com.canonical.AppMenu.Registrar.Error", "no menu for that window");
        }
        g_dbus_method_invocation_return_value(invocation, nullptr);
      },
      "com.canonical.AppMenu.Registrar");
}

}  // namespace kelvaron::test
