#include "host/x11/X11WindowComposer.hpp"

#include <xcb/composite.h>
#include <xcb/damage.h>
#include <xcb/shape.h>
#include <xcb/shm.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <unordered_set>

#include "host/x11/X11Connection.hpp"
#include "host/x11/X11SharedMemory.hpp"

namespace kelvaron::host {

namespace {

// The largest side of a window read whole, in pixels.
constexpr std::int32_t kMaxFrameSide = 8192;

constexpr int kBytesPerPixel = 4;
constexpr std::uint32_t kOpaqueBlack = 0xff000000;
// The root's children looked at, the topmost ones: far more than a desktop has.
constexpr std::size_t kMaxTopLevels = 4096;
// An application's windows composed at once, the topmost ones.
constexpr std::size_t kMaxShown = 256;
// The search for a frame's client: the frame, a wrapper, the client; windows looked at per frame.
constexpr int kClientDepth = 3;
constexpr std::size_t kMaxSearched = 512;
// Shared memory for one batch of reads; a single larger window is read alone.
constexpr std::size_t kBatchBytes = std::size_t(64) << 20;
// More rectangles than this in a window's shape, and the window is shown whole.
constexpr std::uint32_t kMaxShapeRectangles = 4096;

RootRect intersection(const RootRect& a, const RootRect& b) {
  const std::int64_t left = std::max(a.x, b.x), top = std::max(a.y, b.y);
  const std::int64_t right =
      std::min<std::int64_t>(std::int64_t{a.x} + a.width, std::int64_t{b.x} + b.width);
  const std::int64_t bottom =
      std::min<std::int64_t>(std::int64_t{a.y} + a.height, std::int64_t{b.y} + b.height);
  if (right <= left || bottom <= top) return {};
  return {std::int32_t(left), std::int32_t(top), std::int32_t(right - left),
          std::int32_t(bottom - top)};
}

RootRect outerRect(const X11WindowComposer::TopLevel& window) {
  return {window.x, window.y, window.width, window.height};
}

// The request's error, freed at the end of the scope; the caller only needs to know it failed.
using XcbError = XcbReply<xcb_generic_error_t>;

// Requests whose failure tells nothing the next picture would not (the window went away): their
// errors are dropped rather than reported to the connection's event handler.
void quietly(xcb_connection_t* c, xcb_void_cookie_t cookie) {
  xcb_discard_reply(c, cookie.sequence);
}

// Depth 24 carries no alpha: its fourth byte is padding.
void copyOpaque(const std::uint8_t* from, int fromStride, std::uint8_t* to, int toStride, int width,
                int height) {
  for (int row = 0; row < height; ++row) {
    const std::uint8_t* source = from + std::ptrdiff_t(row) * fromStride;
    std::uint8_t* target = to + std::ptrdiff_t(row) * toStride;
    for (int x = 0; x < width; ++x) {
      std::uint32_t pixel;
      std::memcpy(&pixel, source + x * kBytesPerPixel, sizeof pixel);
      pixel |= kOpaqueBlack;
      std::memcpy(target + x * kBytesPerPixel, &pixel, sizeof pixel);
    }
  }
}

// Depth 32 is premultiplied alpha: a translucent window (a shadow, a rounded corner) lies over what
// is below it as a compositing manager would show it.
void blendOver(const std::uint8_t* from, int fromStride, std::uint8_t* to, int toStride, int width,
               int height) {
  for (int row = 0; row < height; ++row) {
    const std::uint8_t* source = from + std::ptrdiff_t(row) * fromStride;
    std::uint8_t* target = to + std::ptrdiff_t(row) * toStride;
    for (int x = 0; x < width; ++x) {
      const std::uint8_t* s = source + x * kBytesPerPixel;
      std::uint8_t* t = target + x * kBytesPerPixel;
      const unsigned keep = 255u - s[3];
      for (int i = 0; i < 3; ++i) {
        const unsigned value = s[i] + (t[i] * keep + 127) / 255;
        t[i] = std::uint8_t(std::min(value, 255u));
      }
      t[3] = 0xff;
    }
  }
}

void fillBlack(std::uint8_t* pixels, int stride, int width, int height) {
  for (int row = 0; row < height; ++row) {
    std::uint8_t* target = pixels + std::ptrdiff_t(row) * stride;
    for (int x = 0; x < width; ++x) {
      std::memcpy(target + x * kBytesPerPixel, &kOpaqueBlack, sizeof kOpaqueBlack);
    }
  }
}

xcb_atom_t internAtom(xcb_connection_t* c, const char* name) {
  const XcbReply<xcb_intern_atom_reply_t> atom(xcb_intern_atom_reply(
      c, xcb_intern_atom(c, 0, std::uint16_t(std::strlen(name)), name), nullptr));
  return atom ? atom->atom : xcb_atom_t{XCB_ATOM_NONE};
}

bool present(xcb_connection_t* c, xcb_extension_t* extension) {
  const xcb_query_extension_reply_t* data = xcb_get_extension_data(c, extension);
  return data && data->present;
}

// Depths 24 and 32 come as 32-bit little-endian words, the one layout composed here.
bool hasBGRXLayout(xcb_connection_t* c) {
  const xcb_setup_t* setup = xcb_get_setup(c);
  if (setup->image_byte_order != XCB_IMAGE_ORDER_LSB_FIRST) return false;
  bool depth24 = false;
  for (auto it = xcb_setup_pixmap_formats_iterator(setup); it.rem > 0; xcb_format_next(&it)) {
    const bool composed = it.data->depth == 24 || it.data->depth == 32;
    if (composed && it.data->bits_per_pixel != 32) return false;
    depth24 = depth24 || it.data->depth == 24;
  }
  return depth24;
}

}  // namespace

// One window's part of a picture.
struct X11WindowComposer::Piece {
  const TopLevel* window = nullptr;
  RootRect rect;  // on the root
  xcb_pixmap_t pixmap = XCB_NONE;
  bool fresh = false;  // named for this picture
  bool failed = false;
  xcb_void_cookie_t naming{};
  std::size_t offset = 0;  // in the shared memory
  std::uint32_t imageSequence = 0;
  XcbReply<xcb_get_image_reply_t> image;  // without shared memory
  xcb_shape_query_extents_cookie_t extentsCookie{};
  bool shaped = false;
  xcb_shape_get_rectangles_cookie_t rectangles{};
  XcbReply<xcb_shape_get_rectangles_reply_t> shape;  // a shaped window's rectangles

  std::size_t bytes() const { return std::size_t(rect.width) * std::size_t(rect.height) * 4; }
};

X11WindowComposer::X11WindowComposer(xcb_connection_t* connection, const xcb_screen_t& screen,
                                     bool followChanges)
    : connection_(connection), root_(screen.root), follow_(followChanges), owners_(connection) {
  xcb_connection_t* c = connection_;
  if (!hasBGRXLayout(c)) {
    throw Unavailable("the X server's pixels are not 32-bit little-endian B, G, R, X words");
  }
  xcb_prefetch_extension_data(c, &xcb_composite_id);
  xcb_prefetch_extension_data(c, &xcb_shm_id);
  xcb_prefetch_extension_data(c, &xcb_shape_id);
  xcb_prefetch_extension_data(c, &xcb_damage_id);
  if (!present(c, &xcb_composite_id)) throw Unavailable("the X server lacks Composite");
  // Each extension hears the client's version before anything else; a request to an extension
  // the server lacks would end the connection.
  const bool withShm = present(c, &xcb_shm_id);
  const bool withDamage = follow_ && present(c, &xcb_damage_id);
  const bool withShape = present(c, &xcb_shape_id);
  const auto compositeCookie = xcb_composite_query_version(c, 0, 4);
  const auto shmCookie = withShm ? xcb_shm_query_version(c) : xcb_shm_query_version_cookie_t{};
  const auto damageCookie =
      withDamage ? xcb_damage_query_version(c, 1, 1) : xcb_damage_query_version_cookie_t{};
  const auto shapeCookie =
      withShape ? xcb_shape_query_version(c) : xcb_shape_query_version_cookie_t{};
  const XcbReply<xcb_composite_query_version_reply_t> composite(
      xcb_composite_query_version_reply(c, compositeCookie, nullptr));
  const XcbReply<xcb_shm_query_version_reply_t> shm(
      withShm ? xcb_shm_query_version_reply(c, shmCookie, nullptr) : nullptr);
  const XcbReply<xcb_damage_query_version_reply_t> damage(
      withDamage ? xcb_damage_query_version_reply(c, damageCookie, nullptr) : nullptr);
  const XcbReply<xcb_shape_query_version_reply_t> shape(
      withShape ? xcb_shape_query_version_reply(c, shapeCookie, nullptr) : nullptr);
  // Naming a window's pixmap came with 0.2.
  if (!composite || (composite->major_version == 0 && composite->minor_version < 2)) {
    throw Unavailable("the X server's Composite cannot name windows' pixmaps");
  }
  if (shm) shm_ = std::make_unique<X11SharedMemory>(c);
  if (damage) {
    damageNotify_ =
        std::uint8_t(xcb_get_extension_data(c, &xcb_damage_id)->first_event + XCB_DAMAGE_NOTIFY);
  }
  hasShape_ = shape != nullptr;

  // Never MANUAL: only one client may hold it, a compositing manager's, and it would make this
  // one responsible for painting the screen.
  const XcbError refused(xcb_request_check(
      c, xcb_composite_redirect_subwindows_checked(c, root_, XCB_COMPOSITE_REDIRECT_AUTOMATIC)));
  if (refused || xcb_connection_has_error(c)) {
    throw Unavailable("the X server refused to redirect its windows (X error " +
                      std::to_string(refused ? refused->error_code : 0) + ")");
  }
  wmState_ = internAtom(c, "WM_STATE");
  resourceMask_ = xcb_get_setup(c)->resource_id_mask;
  if (follow_) {
    const std::uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
    xcb_change_window_attributes(c, root_, XCB_CW_EVENT_MASK, &mask);
  }
  xcb_flush(c);
}

X11WindowComposer::~X11WindowComposer() {
  xcb_connection_t* c = connection_;
  for (const auto& [window, named] : named_) {
    if (named.pixmap != XCB_NONE) quietly(c, xcb_free_pixmap_checked(c, named.pixmap));
    if (named.damage != XCB_NONE) quietly(c, xcb_damage_destroy_checked(c, named.damage));
  }
  if (follow_) {
    const std::uint32_t none = 0;
    xcb_change_window_attributes(c, root_, XCB_CW_EVENT_MASK, &none);
  }
  quietly(c,
          xcb_composite_unredirect_subwindows_checked(c, root_, XCB_COMPOSITE_REDIRECT_AUTOMATIC));
  shm_.reset();
  xcb_flush(c);
}

bool X11WindowComposer::handleEvent(const xcb_generic_event_t& event) {
  const std::uint8_t type = event.response_type & 0x7f;
  const auto shown = [this](xcb_window_t window) { return named_.contains(window); };
  switch (type) {
    case XCB_MAP_NOTIFY:
      // A new top-level may be the application's; a window mapped again has a new pixmap.
      return reinterpret_cast<const xcb_map_notify_event_t&>(event).event == root_;
    case XCB_UNMAP_NOTIFY: {
      const auto& unmap = reinterpret_cast<const xcb_unmap_notify_event_t&>(event);
      if (unmap.event != root_ || !shown(unmap.window)) return false;
      forget(unmap.window);
      return true;
    }
    case XCB_DESTROY_NOTIFY: {
      const auto& destroy = reinterpret_cast<const xcb_destroy_notify_event_t&>(event);
      clients_.erase(destroy.window);
      if (destroy.event != root_ || !shown(destroy.window)) return false;
      forget(destroy.window);
      return true;
    }
    case XCB_REPARENT_NOTIFY: {
      const auto& reparent = reinterpret_cast<const xcb_reparent_notify_event_t&>(event);
      clients_.erase(reparent.window);
      if (!shown(reparent.window)) return false;
      forget(reparent.window);
      return true;
    }
    case XCB_CONFIGURE_NOTIFY: {
      // A window of a new size has a new pixmap: the next picture names it again. Forgotten now,
      // as the size may have come back by then to that of the old, frozen one.
      const auto& configure = reinterpret_cast<const xcb_configure_notify_event_t&>(event);
      if (configure.event != root_ || !shown(configure.window)) return false;
      const Named& named = named_.at(configure.window);
      const std::int32_t border = 2 * configure.border_width;
      if (named.width != configure.width + border || named.height != configure.height + border) {
        forget(configure.window);
      }
      return true;
    }
    default:
      break;
  }
  if (damageNotify_ == 0 || type != damageNotify_) return false;
  const auto& damage = reinterpret_cast<const xcb_damage_notify_event_t&>(event);
  return std::ranges::any_of(
      named_, [&](const auto& entry) { return entry.second.damage == damage.damage; });
}

void X11WindowComposer::forget(xcb_window_t window) {
  const auto found = named_.find(window);
  if (found == named_.end()) return;
  // The named pixmap outlives its window; the damage object goes with the window.
  if (found->second.pixmap != XCB_NONE) {
    quietly(connection_, xcb_free_pixmap_checked(connection_, found->second.pixmap));
    found->second.pixmap = XCB_NONE;
  }
}

std::vector<X11WindowComposer::TopLevel> X11WindowComposer::viewableTopLevels() {
  xcb_connection_t* c = connection_;
  const XcbReply<xcb_query_tree_reply_t> tree(
      xcb_query_tree_reply(c, xcb_query_tree(c, root_), nullptr));
  if (!tree) return {};
  const xcb_window_t* children = xcb_query_tree_children(tree.get());
  const int count = xcb_query_tree_children_length(tree.get());
  const int first = std::max(0, count - int(kMaxTopLevels));

  struct Asked {
    xcb_window_t window;
    xcb_get_window_attributes_cookie_t attributes;
    xcb_get_geometry_cookie_t geometry;
  };
  std::vector<Asked> asked;
  asked.reserve(std::size_t(count - first));
  for (int i = first; i < count; ++i) {
    asked.push_back(
        {children[i], xcb_get_window_attributes(c, children[i]), xcb_get_geometry(c, children[i])});
  }
  std::vector<TopLevel> found;
  for (const Asked& each : asked) {
    // A window gone since the tree was read answers with an error: it is simply not there.
    xcb_generic_error_t* attributesError = nullptr;
    xcb_generic_error_t* geometryError = nullptr;
    const XcbReply<xcb_get_window_attributes_reply_t> attributes(
        xcb_get_window_attributes_reply(c, each.attributes, &attributesError));
    const XcbReply<xcb_get_geometry_reply_t> geometry(
        xcb_get_geometry_reply(c, each.geometry, &geometryError));
    const XcbError dropped1(attributesError), dropped2(geometryError);
    if (!attributes || !geometry) continue;
    // An InputOnly window has no pixels; other depths than these are not composed.
    if (attributes->map_state != XCB_MAP_STATE_VIEWABLE ||
        attributes->_class != XCB_WINDOW_CLASS_INPUT_OUTPUT ||
        (geometry->depth != 24 && geometry->depth != 32)) {
      continue;
    }
    const std::int32_t border = geometry->border_width;
    found.push_back({each.window, each.window, geometry->x, geometry->y,
                     geometry->width + 2 * border, geometry->height + 2 * border, border,
                     geometry->depth, attributes->override_redirect != 0});
  }
  findClients(found);
  return found;
}

// A frame's client is the window inside it that has WM_STATE, which the window manager sets on
// the windows it manages; an override-redirect window is its own client. What was found is kept
// per frame and checked at each look: the client still has WM_STATE and the same parent.
void X11WindowComposer::findClients(std::vector<TopLevel>& windows) {
  xcb_connection_t* c = connection_;
  struct Check {
    std::size_t index;
    KnownClient known;
    xcb_query_tree_cookie_t tree;
    xcb_get_property_cookie_t state;
  };
  std::vector<Check> checks;
  std::vector<std::size_t> unknown;
  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (windows[i].overrideRedirect) continue;
    const auto known = clients_.find(windows[i].window);
    if (known == clients_.end()) {
      unknown.push_back(i);
      continue;
    }
    const xcb_window_t client = known->second.client;
    checks.push_back({i, known->second, xcb_query_tree(c, client),
                      xcb_get_property(c, 0, client, wmState_, XCB_ATOM_ANY, 0, 0)});
  }
  for (const Check& check : checks) {
    xcb_generic_error_t* treeError = nullptr;
    xcb_generic_error_t* stateError = nullptr;
    const XcbReply<xcb_query_tree_reply_t> tree(xcb_query_tree_reply(c, check.tree, &treeError));
    const XcbReply<xcb_get_property_reply_t> state(
        xcb_get_property_reply(c, check.state, &stateError));
    const XcbError dropped1(treeError), dropped2(stateError);
    if (tree && state && tree->parent == check.known.parent && state->type != XCB_ATOM_NONE) {
      windows[check.index].client = check.known.client;
    } else {
      unknown.push_back(check.index);
    }
  }
  if (!unknown.empty()) searchClients(windows, unknown);

  // Forget the frames that are gone or hidden: their windows may be reused.
  std::unordered_set<xcb_window_t> seen;
  for (const TopLevel& window : windows) seen.insert(window.window);
  std::erase_if(clients_, [&](const auto& entry) { return !seen.contains(entry.first); });
}

// Breadth first, one round trip per level for all frames together, nearest window first.
void X11WindowComposer::searchClients(std::vector<TopLevel>& windows,
                                      const std::vector<std::size_t>& which) {
  xcb_connection_t* c = connection_;
  struct Candidate {
    xcb_window_t window;
    xcb_window_t parent;
    xcb_get_property_cookie_t state{};
    xcb_query_tree_cookie_t tree{};
  };
  struct Search {
    std::size_t index;
    std::vector<Candidate> level;
    std::size_t looked = 0;
  };
  std::vector<Search> searches;
  for (const std::size_t i : which) {
    searches.push_back({i, {{windows[i].window, root_}}, 1});
  }
  for (int depth = 0; depth < kClientDepth && !searches.empty(); ++depth) {
    const bool deeper = depth + 1 < kClientDepth;
    for (Search& search : searches) {
      for (Candidate& candidate : search.level) {
        candidate.state = xcb_get_property(c, 0, candidate.window, wmState_, XCB_ATOM_ANY, 0, 0);
        if (deeper) candidate.tree = xcb_query_tree(c, candidate.window);
      }
    }
    for (Search& search : searches) {
      std::optional<Candidate> client;
      std::vector<Candidate> next;
      for (const Candidate& candidate : search.level) {
        xcb_generic_error_t* stateError = nullptr;
        const XcbReply<xcb_get_property_reply_t> state(
            xcb_get_property_reply(c, candidate.state, &stateError));
        const XcbError dropped(stateError);
        if (!client && state && state->type != XCB_ATOM_NONE) client = candidate;
        if (!deeper) continue;
        xcb_generic_error_t* treeError = nullptr;
        const XcbReply<xcb_query_tree_reply_t> tree(
            xcb_query_tree_reply(c, candidate.tree, &treeError));
        const XcbError droppedTree(treeError);
        if (client || !tree) continue;
        const xcb_window_t* children = xcb_query_tree_children(tree.get());
        const int count = xcb_query_tree_children_length(tree.get());
        for (int i = 0; i < count && search.looked < kMaxSearched; ++i, ++search.looked) {
          next.push_back({children[i], candidate.window});
        }
      }
      if (client) {
        windows[search.index].client = client->window;
        clients_[windows[search.index].window] = {client->window, client->parent};
        next.clear();
      }
      search.level = std::move(next);
    }
    std::erase_if(searches, [](const Search& search) { return search.level.empty(); });
  }
  // Without a client inside (a window manager's own window, or no window manager at all), the
  // top-level stands for itself, as it was made.
}

std::vector<X11WindowComposer::TopLevel> X11WindowComposer::ofProcess(std::vector<TopLevel> windows,
                                                                      std::int32_t pid) {
  std::vector<xcb_window_t> clients;
  clients.reserve(windows.size());
  for (const TopLevel& window : windows) clients.push_back(window.client);
  const std::vector<std::optional<std::int32_t>> owners = owners_.processes(clients);
  // Windows made by one X connection share the bits of their ids above the resource mask.
  const auto prefix = [this](xcb_window_t window) { return window & ~resourceMask_; };
  std::unordered_set<xcb_window_t> connections;
  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (owners[i] == pid) connections.insert(prefix(windows[i].client));
  }
  std::vector<TopLevel> kept;
  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (owners[i] == pid || connections.contains(prefix(windows[i].client))) {
      kept.push_back(windows[i]);
    }
  }
  return kept;
}

std::vector<X11WindowComposer::TopLevel> X11WindowComposer::applicationWindows(std::int32_t pid) {
  return ofProcess(viewableTopLevels(), pid);
}

std::size_t X11WindowComposer::composeApplication(std::int32_t pid, const RootRect& area,
                                                  std::uint8_t* pixels, int stride) {
  if (area.empty()) return 0;
  std::vector<TopLevel> windows = applicationWindows(pid);
  std::erase_if(windows,
                [&](const TopLevel& w) { return intersection(outerRect(w), area).empty(); });
  if (windows.size() > kMaxShown) {
    windows.erase(windows.begin(), windows.end() - std::ptrdiff_t(kMaxShown));
  }
  if (follow_) followOnly(windows);
  return compose(windows, area, pixels, stride, follow_);
}

// Keeps pixmaps and damage objects for these windows only, each damage object emptied so that
// what is drawn from now on is reported once.
void X11WindowComposer::followOnly(const std::vector<TopLevel>& windows) {
  xcb_connection_t* c = connection_;
  std::unordered_set<xcb_window_t> wanted;
  for (const TopLevel& window : windows) wanted.insert(window.window);
  for (auto it = named_.begin(); it != named_.end();) {
    if (wanted.contains(it->first)) {
      ++it;
      continue;
    }
    forget(it->first);
    if (it->second.damage != XCB_NONE) quietly(c, xcb_damage_destroy_checked(c, it->second.damage));
    it = named_.erase(it);
  }
  for (const TopLevel& window : windows) {
    Named& named = named_[window.window];
    if (damageNotify_ == 0) continue;
    if (named.damage == XCB_NONE) {
      named.damage = xcb_generate_id(c);
      quietly(c, xcb_damage_create_checked(c, named.damage, window.window,
                                           XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY));
    } else {
      quietly(c, xcb_damage_subtract_checked(c, named.damage, XCB_NONE, XCB_NONE));
    }
  }
}

std::size_t X11WindowComposer::compose(const std::vector<TopLevel>& windows, const RootRect& area,
                                       std::uint8_t* pixels, int stride, bool keep) {
  xcb_connection_t* c = connection_;
  fillBlack(pixels, stride, area.width, area.height);
  std::vector<Piece> pieces;
  pieces.reserve(windows.size());
  for (const TopLevel& window : windows) {
    const RootRect rect = intersection(outerRect(window), area);
    // Reads are addressed in 16-bit pixmap coordinates: a window wider than that is left out.
    if (rect.empty() || rect.x - window.x > INT16_MAX || rect.y - window.y > INT16_MAX) continue;
    Piece& piece = pieces.emplace_back();
    piece.window = &window;
    piece.rect = rect;
    Named* named = keep ? &named_[window.window] : nullptr;
    // A window has a new pixmap after each resize: one named before no longer follows it.
    if (named && named->pixmap != XCB_NONE &&
        (named->width != window.width || named->height != window.height)) {
      quietly(c, xcb_free_pixmap_checked(c, named->pixmap));
      named->pixmap = XCB_NONE;
    }
    if (named && named->pixmap != XCB_NONE) {
      piece.pixmap = named->pixmap;
      continue;
    }
    piece.pixmap = xcb_generate_id(c);
    piece.fresh = true;
    piece.naming = xcb_composite_name_window_pixmap_checked(c, window.window, piece.pixmap);
    if (named) *named = {piece.pixmap, window.width, window.height, named->damage};
  }

  // Batches of reads in flight together, bottom to top, each within the shared memory.
  for (std::size_t begin = 0; begin < pieces.size();) {
    std::size_t end = begin, bytes = 0;
    while (end < pieces.size() && (end == begin || bytes + pieces[end].bytes() <= kBatchBytes)) {
      bytes += pieces[end++].bytes();
    }
    readBatch(pieces, begin, end, area, pixels, stride);
    begin = end;
  }

  std::size_t shown = 0;
  for (Piece& piece : pieces) {
    bool named = true;
    if (piece.fresh) {
      // A window unmapped or gone since the tree was read has no pixmap to name.
      const XcbError refused(xcb_request_check(c, piece.naming));
      named = refused == nullptr;
      if (!named && keep) named_[piece.window->window].pixmap = XCB_NONE;
      if (named && !keep) quietly(c, xcb_free_pixmap_checked(c, piece.pixmap));
    }
    // A read that failed (a resize under it, an unmap) names the window again next time.
    if (named && piece.failed && keep) forget(piece.window->window);
    shown += named && !piece.failed ? 1 : 0;
  }
  xcb_flush(c);
  return shown;
}

void X11WindowComposer::readBatch(std::vector<Piece>& pieces, std::size_t begin, std::size_t end,
                                  const RootRect& area, std::uint8_t* pixels, int stride) {
  xcb_connection_t* c = connection_;
  std::size_t bytes = 0;
  for (std::size_t i = begin; i < end; ++i) bytes += pieces[i].bytes();
  if (shm_) {
    try {
      shm_->reserve(bytes);
    } catch (const std::exception& failure) {
      lostSharedMemory(failure.what());
    }
  }
  const bool shared = shm_ != nullptr;
  std::size_t offset = 0;
  for (std::size_t i = begin; i < end; ++i) {
    Piece& piece = pieces[i];
    const TopLevel& window = *piece.window;
    const auto x = std::int16_t(piece.rect.x - window.x);
    const auto y = std::int16_t(piece.rect.y - window.y);
    const auto width = std::uint16_t(piece.rect.width);
    const auto height = std::uint16_t(piece.rect.height);
    piece.offset = offset;
    offset += piece.bytes();
    piece.imageSequence =
        shared ? xcb_shm_get_image(c, piece.pixmap, x, y, width, height, ~0u,
                                   XCB_IMAGE_FORMAT_Z_PIXMAP, shm_->segment(),
                                   std::uint32_t(piece.offset))
                     .sequence
               : xcb_get_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, piece.pixmap, x, y, width, height, ~0u)
                     .sequence;
    if (hasShape_) piece.extentsCookie = xcb_shape_query_extents(c, window.window);
  }

  for (std::size_t i = begin; i < end; ++i) {
    Piece& piece = pieces[i];
    xcb_generic_error_t* error = nullptr;
    if (shared) {
      const XcbReply<xcb_shm_get_image_reply_t> image(
          xcb_shm_get_image_reply(c, {piece.imageSequence}, &error));
      piece.failed = !image || image->size < piece.bytes();
    } else {
      piece.image.reset(xcb_get_image_reply(c, {piece.imageSequence}, &error));
      piece.failed =
          !piece.image || std::size_t(xcb_get_image_data_length(piece.image.get())) < piece.bytes();
    }
    const XcbError refused(error);
    if (!hasShape_) continue;
    xcb_generic_error_t* extentsError = nullptr;
    const XcbReply<xcb_shape_query_extents_reply_t> extents(
        xcb_shape_query_extents_reply(c, piece.extentsCookie, &extentsError));
    const XcbError droppedExtents(extentsError);
    piece.shaped = !piece.failed && extents && extents->bounding_shaped;
    if (piece.shaped) {
      piece.rectangles = xcb_shape_get_rectangles(c, piece.window->window, XCB_SHAPE_SK_BOUNDING);
    }
  }
  for (std::size_t i = begin; i < end; ++i) {
    Piece& piece = pieces[i];
    if (!piece.shaped) continue;
    xcb_generic_error_t* error = nullptr;
    piece.shape.reset(xcb_shape_get_rectangles_reply(c, piece.rectangles, &error));
    const XcbError refused(error);
    if (piece.shape && piece.shape->rectangles_len > kMaxShapeRectangles) {
      if (!std::exchange(warnedShape_, true)) {
        log_.error("A window's shape has %u rectangles; showing it whole",
                   unsigned(piece.shape->rectangles_len));
      }
      piece.shape.reset();
    }
  }

  // Bottom to top, each window over what lies below it.
  for (std::size_t i = begin; i < end; ++i) {
    Piece& piece = pieces[i];
    if (piece.failed) continue;
    const TopLevel& window = *piece.window;
    const std::uint8_t* data =
        shared ? shm_->data() + piece.offset : xcb_get_image_data(piece.image.get());
    const int fromStride = piece.rect.width * kBytesPerPixel;
    const auto paint = [&](const RootRect& part) {
      const std::uint8_t* from = data + std::ptrdiff_t(part.y - piece.rect.y) * fromStride +
                                 std::ptrdiff_t(part.x - piece.rect.x) * kBytesPerPixel;
      std::uint8_t* to = pixels + std::ptrdiff_t(part.y - area.y) * stride +
                         std::ptrdiff_t(part.x - area.x) * kBytesPerPixel;
      if (window.depth == 32)
        return blendOver(from, fromStride, to, stride, part.width, part.height);
      copyOpaque(from, fromStride, to, stride, part.width, part.height);
    };
    if (!piece.shape) {
      paint(piece.rect);
    } else {
      // The shape's rectangles are relative to the window's inside corner, within its border.
      const xcb_rectangle_t* rects = xcb_shape_get_rectangles_rectangles(piece.shape.get());
      const int count = xcb_shape_get_rectangles_rectangles_length(piece.shape.get());
      const std::int32_t originX = window.x + window.border, originY = window.y + window.border;
      for (int r = 0; r < count; ++r) {
        const RootRect part = intersection(piece.rect, {originX + rects[r].x, originY + rects[r].y,
                                                        rects[r].width, rects[r].height});
        if (!part.empty()) paint(part);
      }
    }
    piece.image.reset();
    piece.shape.reset();
  }
}

void X11WindowComposer::lostSharedMemory(const char* why) {
  log_.error("Reading windows through the socket from now on: %s", why);
  shm_.reset();
}

std::optional<WindowPicture> X11WindowComposer::readFrameOf(xcb_window_t client) {
  xcb_connection_t* c = connection_;
  // Up from the client to the root's child that holds it.
  xcb_window_t window = client;
  for (int depth = 0;; ++depth) {
    if (window == root_ || window == XCB_NONE || depth > 16) return std::nullopt;
    xcb_generic_error_t* error = nullptr;
    const XcbReply<xcb_query_tree_reply_t> tree(
        xcb_query_tree_reply(c, xcb_query_tree(c, window), &error));
    const XcbError refused(error);
    if (!tree) return std::nullopt;
    if (tree->parent == root_) break;
    window = tree->parent;
  }
  const auto attributesCookie = xcb_get_window_attributes(c, window);
  const auto geometryCookie = xcb_get_geometry(c, window);
  xcb_generic_error_t* attributesError = nullptr;
  xcb_generic_error_t* geometryError = nullptr;
  const XcbReply<xcb_get_window_attributes_reply_t> attributes(
      xcb_get_window_attributes_reply(c, attributesCookie, &attributesError));
  const XcbReply<xcb_get_geometry_reply_t> geometry(
      xcb_get_geometry_reply(c, geometryCookie, &geometryError));
  const XcbError dropped1(attributesError), dropped2(geometryError);
  if (!attributes || !geometry || attributes->map_state != XCB_MAP_STATE_VIEWABLE ||
      attributes->_class != XCB_WINDOW_CLASS_INPUT_OUTPUT ||
      (geometry->depth != 24 && geometry->depth != 32)) {
    return std::nullopt;
  }
  const std::int32_t border = geometry->border_width;
  const std::vector<TopLevel> one{{window, client, geometry->x, geometry->y,
                                   geometry->width + 2 * border, geometry->height + 2 * border,
                                   border, geometry->depth, attributes->override_redirect != 0}};
  const TopLevel& frame = one.front();
  // A client may make its window as large as X allows; a picture of it need not be.
  if (frame.width > kMaxFrameSide || frame.height > kMaxFrameSide) return std::nullopt;
  WindowPicture picture{frame.width, frame.height, {}};
  picture.bgrx.resize(std::size_t(frame.width) * std::size_t(frame.height) * kBytesPerPixel);
  if (compose(one, outerRect(frame), picture.bgrx.data(), frame.width * kBytesPerPixel, false) ==
      0) {
    return std::nullopt;
  }
  return picture;
}

}  // namespace kelvaron::host
