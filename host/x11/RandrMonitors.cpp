#include "host/x11/RandrMonitors.hpp"

#include <xcb/randr.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <stdexcept>

#include "host/x11/X11Connection.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace {

constexpr std::size_t kMaxCachedNames = 256;

}  // namespace

std::uint32_t displayIDForMonitorName(std::string_view name) {
  std::uint32_t hash = 2166136261u;
  for (const unsigned char c : name) {
    hash ^= c;
    hash *= 16777619u;
  }
  return hash == 0 ? 1 : hash;
}

std::size_t mainMonitorIndex(const std::vector<RandrMonitor>& monitors) {
  auto main = std::ranges::find_if(monitors, &RandrMonitor::primary);
  if (main == monitors.end()) {
    main =
        std::ranges::find_if(monitors, [](const RandrMonitor& m) { return m.x == 0 && m.y == 0; });
  }
  return main == monitors.end() ? 0 : std::size_t(main - monitors.begin());
}

std::vector<RandrMonitor> queryMonitors(xcb_connection_t* c, xcb_window_t root,
                                        std::vector<xcb_atom_t>* nameAtoms) {
  static const Logger log("io.dovka.tovu.host", "display");
  xcb_generic_error_t* error = nullptr;
  const XcbReply<xcb_randr_get_monitors_reply_t> reply(
      xcb_randr_get_monitors_reply(c, xcb_randr_get_monitors(c, root, 1), &error));
  if (!reply) {
    if (error) log.error("The X server refused the list of monitors: error %u", error->error_code);
    std::free(error);
    return {};  // a broken connection is its owner's to report
  }
  // The reply's own length bounds what is read of it, whatever its counts say.
  const auto* end =
      reinterpret_cast<const char*>(reply.get()) + 32 + 4 * std::size_t{reply->length};
  std::vector<RandrMonitor> monitors;
  for (auto it = xcb_randr_get_monitors_monitors_iterator(reply.get()); it.rem > 0;
       xcb_randr_monitor_info_next(&it)) {
    const auto* m = it.data;
    const auto* mEnd = reinterpret_cast<const char*>(m) + sizeof(*m);
    if (mEnd > end || mEnd + 4 * std::size_t{m->nOutput} > end) {
      log.error("The X server's list of monitors is cut short; %zu of %d kept", monitors.size(),
                static_cast<int>(reply->nMonitors));
      break;
    }
    monitors.push_back({{}, m->primary != 0, m->x, m->y, m->width, m->height});
    if (nameAtoms) nameAtoms->push_back(m->name);
  }
  return monitors;
}

std::vector<std::string> MonitorNames::of(xcb_connection_t* c,
                                          const std::vector<xcb_atom_t>& atoms) {
  if (names_.size() > kMaxCachedNames) names_.clear();
  std::vector<std::pair<xcb_atom_t, xcb_get_atom_name_cookie_t>> asked;
  for (const auto atom : atoms) {
    if (atom != XCB_ATOM_NONE && !names_.contains(atom)) {
      asked.emplace_back(atom, xcb_get_atom_name(c, atom));
    }
  }
  for (const auto& [atom, cookie] : asked) {
    xcb_generic_error_t* error = nullptr;
    const XcbReply<xcb_get_atom_name_reply_t> reply(xcb_get_atom_name_reply(c, cookie, &error));
    std::free(error);
    if (reply) {
      names_[atom].assign(xcb_get_atom_name_name(reply.get()),
                          static_cast<std::size_t>(xcb_get_atom_name_name_length(reply.get())));
    }
  }
  // A monitor without a readable name is "Display " and its place in RANDR's list, from 1.
  std::vector<std::string> result;
  for (std::size_t i = 0; i < atoms.size(); ++i) {
    const auto known = names_.find(atoms[i]);
    result.push_back(known != names_.end() && !known->second.empty()
                         ? known->second
                         : "Display " + std::to_string(i + 1));
  }
  return result;
}

std::vector<RandrMonitor> queryNamedMonitors(xcb_connection_t* c, xcb_window_t root,
                                             MonitorNames& names) {
  std::vector<xcb_atom_t> atoms;
  auto monitors = queryMonitors(c, root, &atoms);
  const auto monitorNames = names.of(c, atoms);
  for (std::size_t i = 0; i < monitors.size(); ++i) monitors[i].name = monitorNames[i];
  return monitors;
}

std::vector<DisplayInfo> displayListFromMonitors(const std::vector<RandrMonitor>& monitors) {
  if (monitors.empty()) return {};
  const auto main = monitors.begin() + std::ptrdiff_t(mainMonitorIndex(monitors));

  // IDs in the order of names, so that a clash of hashes is settled the same way every time.
  std::map<std::string, std::uint32_t> ids;
  for (const auto& monitor : monitors) ids[monitor.name] = 0;
  std::set<std::uint32_t> taken;
  for (auto& [name, id] : ids) {
    id = displayIDForMonitorName(name);
    while (id == 0 || taken.contains(id)) ++id;
    taken.insert(id);
  }

  std::vector<DisplayInfo> list;
  for (const auto& monitor : monitors) {
    DisplayInfo info;
    info.id = ids[monitor.name];
    info.name = monitor.name;
    info.isMain = &monitor == &*main;
    info.pixelWidth = monitor.width;
    info.pixelHeight = monitor.height;
    // Points are pixels on X11; the origin is the main display's top left corner.
    info.frame = {static_cast<float>(monitor.x - main->x), static_cast<float>(monitor.y - main->y),
                  static_cast<float>(monitor.width), static_cast<float>(monitor.height)};
    list.push_back(std::move(info));
  }
  std::ranges::sort(list, [](const DisplayInfo& a, const DisplayInfo& b) {
    if (a.isMain != b.isMain) return a.isMain;
    return a.id < b.id;
  });
  return list;
}

std::pair<std::uint32_t, std::uint32_t> requireMonitors(xcb_connection_t* c,
                                                        std::uint32_t clientMinor) {
  const auto* extension = xcb_get_extension_data(c, &xcb_randr_id);
  if (!extension || !extension->present) {
    throw std::runtime_error("the X server has no RANDR extension");
  }
  xcb_generic_error_t* error = nullptr;
  const XcbReply<xcb_randr_query_version_reply_t> version(
      xcb_randr_query_version_reply(c, xcb_randr_query_version(c, 1, clientMinor), &error));
  std::free(error);
  if (!version) throw std::runtime_error("the X server did not tell its RANDR version");
  const auto major = version->major_version, minor = version->minor_version;
  if (major < 1 || (major == 1 && minor < 5)) {
    throw std::runtime_error("the X server has RANDR " + std::to_string(major) + "." +
                             std::to_string(minor) + "; monitors need 1.5");
  }
  return {major, minor};
}

}  // namespace kelvaron::host
