#include "host/x11/X11WindowOwners.hpp"

#include <xcb/res.h>

#include <cstring>

#include "host/x11/X11Connection.hpp"

namespace kelvaron::host {

X11WindowOwners::X11WindowOwners(xcb_connection_t* connection) : connection_(connection) {
  const auto* extension = xcb_get_extension_data(connection_, &xcb_res_id);
  if (extension && extension->present) {
    // Client ids came with 1.2; the server must hear the version before the request.
    const XcbReply<xcb_res_query_version_reply_t> version(xcb_res_query_version_reply(
        connection_, xcb_res_query_version(connection_, 1, 2), nullptr));
    hasResource_ = version && (version->server_major > 1 ||
                               (version->server_major == 1 && version->server_minor >= 2));
  }
  const char name[] = "_NET_WM_PID";
  const XcbReply<xcb_intern_atom_reply_t> atom(xcb_intern_atom_reply(
      connection_, xcb_intern_atom(connection_, 0, sizeof name - 1, name), nullptr));
  if (atom) netWmPid_ = atom->atom;
}

std::vector<std::optional<std::int32_t>> X11WindowOwners::processes(
    const std::vector<xcb_window_t>& windows) {
  if (!hasResource_) return fromProperties(windows);
  std::vector<xcb_res_query_client_ids_cookie_t> asked;
  asked.reserve(windows.size());
  for (const xcb_window_t window : windows) {
    const xcb_res_client_id_spec_t which{window, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID};
    asked.push_back(xcb_res_query_client_ids(connection_, 1, &which));
  }
  std::vector<std::optional<std::int32_t>> found(windows.size());
  bool missing = false;
  for (std::size_t i = 0; i < asked.size(); ++i) {
    const XcbReply<xcb_res_query_client_ids_reply_t> reply(
        xcb_res_query_client_ids_reply(connection_, asked[i], nullptr));
    if (reply) {
      for (auto ids = xcb_res_query_client_ids_ids_iterator(reply.get()); ids.rem;
           xcb_res_client_id_value_next(&ids)) {
        const auto& [which, length] = *ids.data;
        if (!(which.mask & XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID) || length < 4) continue;
        std::uint32_t pid = 0;
        std::memcpy(&pid, xcb_res_client_id_value_value(ids.data), sizeof pid);
        if (pid > 0 && pid <= 0x7fffffff) found[i] = std::int32_t(pid);
      }
    }
    missing = missing || !found[i];
  }
  // A remote client has no pid the server knows: what its window says is all there is.
  if (missing) {
    const auto claimed = fromProperties(windows);
    for (std::size_t i = 0; i < found.size(); ++i) {
      if (!found[i]) found[i] = claimed[i];
    }
  }
  return found;
}

std::vector<std::optional<std::int32_t>> X11WindowOwners::fromProperties(
    const std::vector<xcb_window_t>& windows) {
  std::vector<std::optional<std::int32_t>> found(windows.size());
  if (netWmPid_ == XCB_ATOM_NONE) return found;
  std::vector<xcb_get_property_cookie_t> asked;
  asked.reserve(windows.size());
  for (const xcb_window_t window : windows) {
    asked.push_back(xcb_get_property(connection_, 0, window, netWmPid_, XCB_ATOM_CARDINAL, 0, 1));
  }
  for (std::size_t i = 0; i < asked.size(); ++i) {
    const XcbReply<xcb_get_property_reply_t> reply(
        xcb_get_property_reply(connection_, asked[i], nullptr));
    if (!reply || reply->format != 32 || xcb_get_property_value_length(reply.get()) < 4) continue;
    std::uint32_t pid = 0;
    std::memcpy(&pid, xcb_get_property_value(reply.get()), sizeof pid);
    if (pid > 0 && pid <= 0x7fffffff) found[i] = std::int32_t(pid);
  }
  return found;
}

}  // namespace kelvaron::host
