#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace kelvaron::host {

// The processes that made windows, as the X server knows them: the X-Resource extension tells the
// pid of a local client whatever its windows' properties say (`_NET_WM_PID` is set by the
// application, sometimes not at all, and may lie). Where X-Resource is missing, `_NET_WM_PID` is
// taken. Not thread-safe: one user of the connection at a time.
class X11WindowOwners {
 public:
  // Asks the server once which X-Resource it speaks.
  explicit X11WindowOwners(xcb_connection_t* connection);

  // For each window, its process; nothing where neither route tells. The questions go out
  // together and their answers are read afterwards: one round trip for the lot.
  std::vector<std::optional<std::int32_t>> processes(const std::vector<xcb_window_t>& windows);
  std::optional<std::int32_t> process(xcb_window_t window) { return processes({window}).front(); }

  bool hasResourceExtension() const { return hasResource_; }

 private:
  std::vector<std::optional<std::int32_t>> fromProperties(const std::vector<xcb_window_t>& windows);

  xcb_connection_t* connection_;
  bool hasResource_ = false;
  xcb_atom_t netWmPid_ = XCB_ATOM_NONE;
};

}  // namespace kelvaron::host
