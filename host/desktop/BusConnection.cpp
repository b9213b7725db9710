#include "host/desktop/BusConnection.hpp"

#include <memory>

namespace kelvaron::host {

Owned<GDBusConnection> connectBus(const char* address, GError** error) {
  std::unique_ptr<gchar, decltype(&g_free)> session(nullptr, g_free);
  if (!address) {
    session.reset(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, error));
    if (!session) return nullptr;
    address = session.get();
  }
  Owned<GDBusConnection> connection(g_dbus_connection_new_for_address_sync(
      address,
      GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, error));
  if (connection) g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
  return connection;
}

}  // namespace kelvaron::host
