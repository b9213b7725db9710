#include "host/desktop/X11WindowReader.hpp"

#include <algorithm>
#include <cstring>
#include <map>
#include <span>
#include <stdexcept>
#include <string_view>

#include "host/desktop/WindowIcon.hpp"
#include "host/x11/X11Connection.hpp"
#include "kit/wire/FrameReader.hpp"
#include "kit/wire/WireWriter.hpp"

namespace kelvaron::host {

namespace {

// Bounds on what is read of another program's properties.
constexpr std::uint32_t kTextLongs = 1024 / 4;
constexpr std::uint32_t kIconLongs = (1u << 20) / 4;
constexpr std::uint32_t kListLongs = 8192;
constexpr std::uint32_t kAllDesktops = 0xFFFFFFFF;
constexpr int kMaxNesting = 4;  // a client's depth below the root (with openbox: 2)

using Property = XcbReply<xcb_get_property_reply_t>;

std::span<const std::uint32_t> cardinals(const Property& property) {
  if (!property || property->format != 32) return {};
  return {static_cast<const std::uint32_t*>(xcb_get_property_value(property.get())),
          std::size_t(xcb_get_property_value_length(property.get())) / 4};
}

std::string_view bytes(const Property& property) {
  if (!property || property->format != 8) return {};
  return {static_cast<const char*>(xcb_get_property_value(property.get())),
          std::size_t(xcb_get_property_value_length(property.get()))};
}

// A text property as well-formed UTF-8, repaired as the wire's reader does, without NULs; a value
// read only in part loses the character the cut went through.
std::string repairedUTF8(std::string_view text, bool cut) {
  if (cut && !text.empty()) text = text.substr(0, utf8PrefixLength(text, text.size() - 1));
  std::string out = validUTF8(text);
  std::erase(out, '\0');
  return out;
}

std::string latin1ToUTF8(std::string_view text) {
  std::string out;
  for (const char byte : text) {
    const auto c = static_cast<unsigned char>(byte);
    if (c == 0) continue;
    if (c < 0x80) {
      out += char(c);
    } else {
      out += char(0xC0 | (c >> 6));
      out += char(0x80 | (c & 0x3F));
    }
  }
  return out;
}

SizeHints sizeHintsOf(const Property& property) {
  SizeHints hints;
  const auto values = cardinals(property);
  if (values.size() < 11) return hints;
  const std::uint32_t flags = values[0];
  const auto at = [&values](std::size_t i) { return std::max(0, int(std::int32_t(values[i]))); };
  if (flags & 16) hints.minWidth = at(5), hints.minHeight = at(6);     // PMinSize
  if (flags & 32) hints.maxWidth = at(7), hints.maxHeight = at(8);     // PMaxSize
  if (flags & 64) hints.widthStep = at(9), hints.heightStep = at(10);  // PResizeInc
  if ((flags & 256) && values.size() >= 17) {                          // PBaseSize
    hints.baseWidth = at(15), hints.baseHeight = at(16);
  } else {
    hints.baseWidth = hints.minWidth, hints.baseHeight = hints.minHeight;
  }
  return hints;
}

}  // namespace

std::pair<int, int> SizeHints::clamp(int width, int height) const {
  const auto one = [](int size, int least, int most, int base, int step) {
    size = std::max({size, least, 1});
    if (most > 0) size = std::min(size, most);
    // Window managers round a size down to the client's steps, counted from its base size.
    if (step > 1 && size > base) {
      size = base + (size - base) / step * step;
      if (size < least) size += step;
    }
    return size;
  };
  return {one(width, minWidth, maxWidth, baseWidth, widthStep),
          one(height, minHeight, maxHeight, baseHeight, heightStep)};
}

struct X11WindowReader::Cookies {
  xcb_get_window_attributes_cookie_t attributes;
  xcb_get_geometry_cookie_t geometry;
  xcb_translate_coordinates_cookie_t place;
  xcb_get_property_cookie_t extents, netName, name, type, state, desktop, transientFor, hints,
      wmClass, gtkID;
};

X11WindowReader::X11WindowReader(xcb_connection_t* connection, const xcb_screen_t& screen,
                                 int screenNumber)
    : c_(connection), root_(screen.root), screenNumber_(screenNumber), owners_(connection) {
  xcb_intern_atom_cookie_t* asked = xcb_ewmh_init_atoms(c_, &ewmh_);
  const char gtkName[] = "_GTK_APPLICATION_ID";
  const auto gtkAsked = xcb_intern_atom(c_, 0, sizeof gtkName - 1, gtkName);
  const bool interned = xcb_ewmh_init_atoms_replies(&ewmh_, asked, nullptr) != 0;
  const XcbReply<xcb_intern_atom_reply_t> gtk(xcb_intern_atom_reply(c_, gtkAsked, nullptr));
  if (!interned || !gtk) throw std::runtime_error("the X server did not name its atoms");
  gtkApplicationID_ = gtk->atom;
  try {
    requireMonitors(c_, 5);
    hasMonitors_ = true;
  } catch (const std::exception&) {
    // Without RANDR's monitors the root is one display, at the origin.
  }
  typeRules_ = {
      {ewmh_._NET_WM_WINDOW_TYPE_DESKTOP, "_NET_WM_WINDOW_TYPE_DESKTOP", -1},
      {ewmh_._NET_WM_WINDOW_TYPE_DOCK, "_NET_WM_WINDOW_TYPE_DOCK", kDockLayer},
      {ewmh_._NET_WM_WINDOW_TYPE_TOOLBAR, "_NET_WM_WINDOW_TYPE_TOOLBAR", kNormalLayer},
      {ewmh_._NET_WM_WINDOW_TYPE_MENU, "_NET_WM_WINDOW_TYPE_MENU", kPopupLayer},
      {ewmh_._NET_WM_WINDOW_TYPE_UTILITY, "_NET_WM_WINDOW_TYPE_UTILITY", kNormalLayer},
      {ewmh_._NET_WM_WINDOW_TYPE_SPLASH, "_NET_WM_WINDOW_TYPE_SPLASH", kNormalLayer},
      {ewmh_._NET_WM_WINDOW_TYPE_DIALOG, "_NET_WM_WINDOW_TYPE_DIALOG", kNormalLayer},
      {ewmh_._NET_WM_WINDOW_TYPE_DROPDOWN_MENU, "_NET_WM_WINDOW_TYPE_DROPDOWN_MENU", kPopupLayer},
      {ewmh_._NET_WM_WINDOW_TYPE_POPUP_MENU, "_NET_WM_WINDOW_TYPE_POPUP_MENU", kPopupLayer},
      {ewmh_._NET_WM_WINDOW_TYPE_TOOLTIP, "_NET_WM_WINDOW_TYPE_TOOLTIP", kPopupLayer},
      {ewmh_._NET_WM_WINDOW_TYPE_NOTIFICATION, "_NET_WM_WINDOW_TYPE_NOTIFICATION", kPopupLayer},
      {ewmh_._NET_WM_WINDOW_TYPE_COMBO, "_NET_WM_WINDOW_TYPE_COMBO", kPopupLayer},
      {ewmh_._NET_WM_WINDOW_TYPE_DND, "_NET_WM_WINDOW_TYPE_DND", kPopupLayer},
      {ewmh_._NET_WM_WINDOW_TYPE_NORMAL, "_NET_WM_WINDOW_TYPE_NORMAL", kNormalLayer},
  };
}

X11WindowReader::~X11WindowReader() { xcb_ewmh_connection_wipe(&ewmh_); }

X11Desktop X11WindowReader::desktop(bool withDisplays) {
  const auto ask = [this](xcb_atom_t property, xcb_atom_t type, std::uint32_t longs) {
    return xcb_get_property(c_, 0, root_, property, type, 0, longs);
  };
  const auto stackingAsked = ask(ewmh_._NET_CLIENT_LIST_STACKING, XCB_ATOM_WINDOW, kListLongs);
  const auto listAsked = ask(ewmh_._NET_CLIENT_LIST, XCB_ATOM_WINDOW, kListLongs);
  const auto activeAsked = ask(ewmh_._NET_ACTIVE_WINDOW, XCB_ATOM_WINDOW, 1);
  const auto currentAsked = ask(ewmh_._NET_CURRENT_DESKTOP, XCB_ATOM_CARDINAL, 1);

  X11Desktop desktop;
  std::vector<RandrMonitor> monitors;
  if (hasMonitors_ && withDisplays) monitors = queryNamedMonitors(c_, root_, monitorNames_);
  if (!monitors.empty()) {
    const RandrMonitor& main = monitors[mainMonitorIndex(monitors)];
    desktop.originX = main.x, desktop.originY = main.y;
  }
  desktop.displays = displayListFromMonitors(monitors);

  const auto take = [this](xcb_get_property_cookie_t asked) {
    return Property(xcb_get_property_reply(c_, asked, nullptr));
  };
  const Property stacking = take(stackingAsked), list = take(listAsked);
  const Property active = take(activeAsked), current = take(currentAsked);
  // Bottom to top; a window manager without the stacking list gives its clients unordered.
  const auto clients = !cardinals(stacking).empty() ? cardinals(stacking) : cardinals(list);
  desktop.clients.assign(clients.rbegin(), clients.rend());
  if (const auto value = cardinals(active); !value.empty()) desktop.active = value[0];
  if (const auto value = cardinals(current); !value.empty()) desktop.currentDesktop = value[0];
  return desktop;
}

std::vector<X11Window> X11WindowReader::read(const X11Desktop& desktop,
                                             const std::vector<xcb_window_t>& windows) {
  std::vector<Cookies> asked;
  asked.reserve(windows.size());
  const auto property = [this](xcb_window_t window, xcb_atom_t name, xcb_atom_t type,
                               std::uint32_t longs) {
    return xcb_get_property(c_, 0, window, name, type, 0, longs);
  };
  for (const xcb_window_t window : windows) {
    asked.push_back({
        xcb_get_window_attributes(c_, window),
        xcb_get_geometry(c_, window),
        xcb_translate_coordinates(c_, window, root_, 0, 0),
        property(window, ewmh_._NET_FRAME_EXTENTS, XCB_ATOM_CARDINAL, 4),
        property(window, ewmh_._NET_WM_NAME, ewmh_.UTF8_STRING, kTextLongs),
        property(window, XCB_ATOM_WM_NAME, XCB_GET_PROPERTY_TYPE_ANY, kTextLongs),
        property(window, ewmh_._NET_WM_WINDOW_TYPE, XCB_ATOM_ATOM, 32),
        property(window, ewmh_._NET_WM_STATE, XCB_ATOM_ATOM, 32),
        property(window, ewmh_._NET_WM_DESKTOP, XCB_ATOM_CARDINAL, 1),
        property(window, XCB_ATOM_WM_TRANSIENT_FOR, XCB_ATOM_WINDOW, 1),
        property(window, XCB_ATOM_WM_NORMAL_HINTS, XCB_ATOM_WM_SIZE_HINTS, 18),
        property(window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, kTextLongs),
        property(window, gtkApplicationID_, XCB_GET_PROPERTY_TYPE_ANY, kTextLongs),
    });
  }
  const auto owners = owners_.processes(windows);
  std::vector<X11Window> found;
  found.reserve(windows.size());
  for (std::size_t i = 0; i < windows.size(); ++i) {
    X11Window window;
    window.record.id = windows[i];
    window.record.pid = owners[i].value_or(0);
    // Every reply is taken, so that none is left waiting in xcb.
    if (fill(desktop, asked[i], window) && window.record.pid > 0)
      found.push_back(std::move(window));
  }
  return found;
}

bool X11WindowReader::fill(const X11Desktop& desktop, Cookies& asked, X11Window& window) {
  const XcbReply<xcb_get_window_attributes_reply_t> attributes(
      xcb_get_window_attributes_reply(c_, asked.attributes, nullptr));
  const XcbReply<xcb_get_geometry_reply_t> geometry(
      xcb_get_geometry_reply(c_, asked.geometry, nullptr));
  const XcbReply<xcb_translate_coordinates_reply_t> place(
      xcb_translate_coordinates_reply(c_, asked.place, nullptr));
  const auto take = [this](xcb_get_property_cookie_t cookie) {
    return Property(xcb_get_property_reply(c_, cookie, nullptr));
  };
  const Property extents = take(asked.extents), netName = take(asked.netName),
                 name = take(asked.name), types = take(asked.type), state = take(asked.state),
                 onDesktop = take(asked.desktop), transientFor = take(asked.transientFor),
                 hints = take(asked.hints), wmClass = take(asked.wmClass),
                 gtkID = take(asked.gtkID);
  if (!attributes || !geometry || !place) return false;

  WindowRecord& record = window.record;
  window.overrideRedirect = attributes->override_redirect != 0;
  const double border = geometry->border_width;
  window.client = {double(place->dst_x), double(place->dst_y), double(geometry->width),
                   double(geometry->height)};
  if (const auto sides = cardinals(extents); sides.size() == 4 && !window.overrideRedirect) {
    window.left = sides[0], window.right = sides[1], window.top = sides[2],
    window.bottom = sides[3];
  }
  record.frame = {window.client.x - border - window.left - desktop.originX,
                  window.client.y - border - window.top - desktop.originY,
                  window.client.width + 2 * border + window.left + window.right,
                  window.client.height + 2 * border + window.top + window.bottom};

  if (netName && netName->type == ewmh_.UTF8_STRING && !bytes(netName).empty()) {
    record.title = repairedUTF8(bytes(netName), netName->bytes_after > 0);
  } else if (name && name->type == XCB_ATOM_STRING) {
    record.title = latin1ToUTF8(bytes(name));
  } else {
    record.title = repairedUTF8(bytes(name), name && name->bytes_after > 0);
  }

  record.layer = kNormalLayer;
  for (const xcb_atom_t type : cardinals(types)) {
    const auto rule = std::ranges::find(typeRules_, type, &TypeRule::atom);
    if (rule == typeRules_.end()) continue;  // another desktop's type: the next is the fallback
    if (rule->layer < 0) return false;       // the desktop is no window of anyone's
    record.layer = rule->layer;
    window.type = rule->name;
    break;
  }
  bool hidden = false, above = false;
  for (const xcb_atom_t atom : cardinals(state)) {
    hidden = hidden || atom == ewmh_._NET_WM_STATE_HIDDEN;
    above = above || atom == ewmh_._NET_WM_STATE_ABOVE;
    window.modal = window.modal || atom == ewmh_._NET_WM_STATE_MODAL;
  }
  if (above && record.layer == kNormalLayer) record.layer = kFloatingLayer;
  if (window.overrideRedirect) record.layer = kPopupLayer;
  const auto transient = cardinals(transientFor);
  window.transientFor = !transient.empty() && transient[0] != XCB_NONE;
  window.hints = sizeHintsOf(hints);

  const auto desktopNumber = cardinals(onDesktop);
  const bool here = desktopNumber.empty() || !desktop.currentDesktop ||
                    desktopNumber[0] == kAllDesktops || desktopNumber[0] == *desktop.currentDesktop;
  const bool viewable = attributes->map_state == XCB_MAP_STATE_VIEWABLE;
  record.isMinimized = hidden && !window.overrideRedirect;
  record.isOnScreen = viewable && !record.isMinimized && here;

  // WM_CLASS: the instance and the class, each ended by a NUL.
  const std::string_view classes = bytes(wmClass);
  const std::size_t end = classes.find('\0');
  window.classHints.instance = latin1ToUTF8(classes.substr(0, end));
  if (end != std::string_view::npos) {
    const std::string_view rest = classes.substr(end + 1);
    window.classHints.className = latin1ToUTF8(rest.substr(0, rest.find('\0')));
  }
  window.classHints.gtkApplicationID = repairedUTF8(bytes(gtkID), false);
  return true;
}

std::vector<xcb_window_t> X11WindowReader::stackedTopLevels(const X11Desktop& desktop) {
  const XcbReply<xcb_query_tree_reply_t> tree(
      xcb_query_tree_reply(c_, xcb_query_tree(c_, root_), nullptr));
  if (!tree) return desktop.clients;
  const std::span<const xcb_window_t> children(
      xcb_query_tree_children(tree.get()), std::size_t(xcb_query_tree_children_length(tree.get())));
  std::vector<xcb_get_window_attributes_cookie_t> attributesAsked;
  attributesAsked.reserve(children.size());
  for (const xcb_window_t child : children) {
    attributesAsked.push_back(xcb_get_window_attributes(c_, child));
  }

  // Each client's top-level (its frame), climbing one level for all of them at a time.
  std::map<xcb_window_t, xcb_window_t> clientOf;
  std::vector<std::pair<xcb_window_t, xcb_window_t>> climbing;  // client, where it got to
  for (const xcb_window_t client : desktop.clients) climbing.emplace_back(client, client);
  for (int level = 0; level < kMaxNesting && !climbing.empty(); ++level) {
    std::vector<xcb_query_tree_cookie_t> asked;
    for (const auto& [client, at] : climbing) asked.push_back(xcb_query_tree(c_, at));
    std::vector<std::pair<xcb_window_t, xcb_window_t>> higher;
    for (std::size_t i = 0; i < asked.size(); ++i) {
      const XcbReply<xcb_query_tree_reply_t> up(xcb_query_tree_reply(c_, asked[i], nullptr));
      if (!up || up->parent == XCB_NONE) continue;
      if (up->parent == root_) {
        clientOf[climbing[i].second] = climbing[i].first;
      } else {
        higher.emplace_back(climbing[i].first, up->parent);
      }
    }
    climbing = std::move(higher);
  }

  std::vector<xcb_window_t> stacked;
  std::vector<bool> popup(children.size());
  for (std::size_t i = 0; i < children.size(); ++i) {
    const XcbReply<xcb_get_window_attributes_reply_t> attributes(
        xcb_get_window_attributes_reply(c_, attributesAsked[i], nullptr));
    // An input-only window shows nothing.
    popup[i] = attributes && attributes->override_redirect &&
               attributes->map_state == XCB_MAP_STATE_VIEWABLE &&
               attributes->_class == XCB_WINDOW_CLASS_INPUT_OUTPUT;
  }
  for (std::size_t i = children.size(); i-- > 0;) {
    if (const auto client = clientOf.find(children[i]); client != clientOf.end()) {
      stacked.push_back(client->second);
    } else if (popup[i]) {
      stacked.push_back(children[i]);
    }
  }
  return stacked;
}

std::optional<Rect> X11WindowReader::workArea(const X11Desktop& desktop) {
  const Property areas(xcb_get_property_reply(
      c_, xcb_get_property(c_, 0, root_, ewmh_._NET_WORKAREA, XCB_ATOM_CARDINAL, 0, kListLongs),
      nullptr));
  const auto values = cardinals(areas);
  const std::size_t index = desktop.currentDesktop.value_or(0);
  if (index >= values.size() / 4) return std::nullopt;
  const auto* area = &values[index * 4];
  return Rect{double(std::int32_t(area[0])) - desktop.originX,
              double(std::int32_t(area[1])) - desktop.originY, double(area[2]), double(area[3])};
}

std::optional<Data> X11WindowReader::icon(xcb_window_t window) {
  const Property icon(xcb_get_property_reply(
      c_, xcb_get_property(c_, 0, window, ewmh_._NET_WM_ICON, XCB_ATOM_CARDINAL, 0, kIconLongs),
      nullptr));
  return windowIconPng(cardinals(icon));
}

std::optional<Rect> X11WindowReader::clientArea(xcb_window_t window) {
  const auto geometryAsked = xcb_get_geometry(c_, window);
  const auto placeAsked = xcb_translate_coordinates(c_, window, root_, 0, 0);
  const XcbReply<xcb_get_geometry_reply_t> geometry(
      xcb_get_geometry_reply(c_, geometryAsked, nullptr));
  const XcbReply<xcb_translate_coordinates_reply_t> place(
      xcb_translate_coordinates_reply(c_, placeAsked, nullptr));
  if (!geometry || !place) return std::nullopt;
  return Rect{double(place->dst_x), double(place->dst_y), double(geometry->width),
              double(geometry->height)};
}

}  // namespace kelvaron::host
