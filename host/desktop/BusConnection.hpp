#pragma once

#include <gio/gio.h>

#include "host/desktop/GObjectOwned.hpp"

namespace kelvaron::host {

// A connection of the host's own to the message bus at `address`, or to the session bus when it
// is null. Not GLib's shared connection: that belongs to whoever made it first, and ends the
// process when its bus goes away. Nothing on failure, with the reason in `error`.
Owned<GDBusConnection> connectBus(const char* address, GError** error);

}  // namespace kelvaron::host
