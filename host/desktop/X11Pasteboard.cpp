#include "host/desktop/X11Pasteboard.hpp"

#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include <algorithm>
#include <asio/bind_cancellation_slot.hpp>
#include <asio/co_spawn.hpp>
#include <asio/post.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <limits>
#include <utility>
#include <vector>

#include "host/x11/X11Connection.hpp"
#include "kit/async/Uptime.hpp"
#include "kit/log/Logger.hpp"
#include "kit/wire/FrameReader.hpp"

namespace kelvaron::host {

namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point after(std::chrono::duration<double> interval) {
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(interval);
}

// X time stamps are milliseconds that wrap around after 49 days.
bool notBefore(xcb_timestamp_t time, xcb_timestamp_t reference) {
  return std::int32_t(time - reference) >= 0;
}

// Latin-1, the STRING type, as UTF-8.
std::string latin1ToUTF8(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (const char byte : bytes) {
    const auto c = static_cast<unsigned char>(byte);
    if (c < 0x80) {
      text += char(c);
    } else {
      text += char(0xC0 | (c >> 6));
      text += char(0x80 | (c & 0x3F));
    }
  }
  return text;
}

// Well-formed UTF-8 as Latin-1, a character beyond it as '?'.
std::string utf8ToLatin1(std::string_view text) {
  std::string bytes;
  bytes.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (length == 1) {
      bytes += char(lead);
    } else if (length == 2 && lead <= 0xC3 && i + 1 < text.size()) {
      bytes += char(((lead & 0x1F) << 6) | (static_cast<unsigned char>(text[i + 1]) & 0x3F));
    } else {
      bytes += '?';
    }
    i += length;
  }
  return bytes;
}

// A file's URI: "file://" and its absolute path, every byte but the unreserved ones and "/"
// percent-encoded, as file managers expect in text/uri-list.
std::string fileURI(const std::filesystem::path& path) {
  std::error_code ignored;
  const std::filesystem::path absolute = std::filesystem::absolute(path, ignored);
  const std::string& bytes = absolute.empty() ? path.native() : absolute.native();
  constexpr char kHex[] = "0123456789ABCDEF";
  std::string uri = "file://";
  for (const char byte : bytes) {
    const auto c = static_cast<unsigned char>(byte);
    const bool kept = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '-' || c == '.' || c == '_' || c == '~' || c == '/';
    if (kept) {
      uri += byte;
    } else {
      uri += '%';
      uri += kHex[c >> 4];
      uri += kHex[c & 0x0F];
    }
  }
  return uri;
}

std::string_view valueOf(const xcb_get_property_reply_t& reply) {
  return {static_cast<const char*>(xcb_get_property_value(&reply)),
          std::size_t(xcb_get_property_value_length(&reply))};
}

struct Atoms {
  xcb_atom_t clipboard, targets, multiple, timestamp, incr, utf8String, textPlainUTF8, atomPair,
      transferProperty, timeProperty;
};

// In the order of Atoms' fields.
constexpr const char* kAtomNames[] = {"CLIPBOARD",
                                      "TARGETS",
                                      "MULTIPLE",
                                      "TIMESTAMP",
                                      "INCR",
                                      "UTF8_STRING",
                                      "text/plain;charset=utf-8",
                                      "ATOM_PAIR",
                                      "TOVU_SELECTION",
                                      "TOVU_TIME"};
constexpr std::size_t kAtomCount = sizeof(kAtomNames) / sizeof(kAtomNames[0]);
static_assert(kAtomCount == sizeof(Atoms) / sizeof(xcb_atom_t));

// One connection to the X server, with the windows we made on it and what its events brought
// for the operations that wait on them.
struct Link {
  std::shared_ptr<X11Connection> x;
  xcb_connection_t* c = nullptr;
  Atoms atoms{};
  xcb_window_t owner = XCB_NONE;      // owns the selection and takes the time stamps
  xcb_window_t requestor = XCB_NONE;  // receives conversions; replaced after one broke off
  bool hasXFixes = false;
  std::uint8_t xfixesEvent = 0;
  std::size_t pieceBytes = 0;  // the most written in one request, and the threshold for INCR
  bool alive = true;
  std::map<std::string, xcb_atom_t> atomCache;

  std::optional<xcb_selection_notify_event_t> notify;
  std::uint64_t requestorChanges = 0;  // new values of the transfer property
  std::uint64_t timestamps = 0;
  xcb_timestamp_t lastTimestamp = 0;
};

// What we serve while we own the clipboard.
struct Offer {
  std::vector<std::pair<xcb_atom_t, std::shared_ptr<const std::string>>> targets;
  std::shared_ptr<const std::string> text;  // UTF-8, for our own reads; null without text

  const std::string* find(xcb_atom_t target) const {
    for (const auto& [atom, bytes] : targets) {
      if (atom == target) return bytes.get();
    }
    return nullptr;
  }
};

// An answer in pieces (INCR) to another program: a piece each time it deleted the last.
struct Transfer {
  explicit Transfer(const Executor& executor) : stall(executor) {}
  std::uint64_t id = 0;
  xcb_atom_t type = XCB_NONE;
  std::shared_ptr<const std::string> bytes;
  std::size_t offset = 0;
  asio::steady_timer stall;
};

// The outcome of asking the owner for one target.
struct Converted {
  enum Outcome { text, refused, failed } outcome = failed;
  std::string value;
  bool otherKind = false;  // refused because the answer was not text
};

struct SharedRead {
  bool done = false;
  std::optional<std::string> result;
};

}  // namespace

// Everything below runs on the pasteboard's thread, but for `count`, `connected` and
// `lastAttempt`.
struct X11Pasteboard::Core : std::enable_shared_from_this<Core> {
  Core(Executor thread, std::string display, Limits bounds)
      : executor(std::move(thread)), displayName(std::move(display)), limits(bounds) {}

  const Executor executor;
  const std::string displayName;
  const Limits limits;
  std::atomic<std::int64_t> count{0};
  std::atomic<bool> connected{false};
  std::atomic<double> lastAttempt{0};
  const Logger log{"io.dovka.tovu.host", "clipboard"};

  std::shared_ptr<Link> link;
  bool everConnected = false;
  bool reportedNoServer = false;  // one log line for an outage
  bool closing = false;
  std::shared_ptr<const Offer> offer;
  xcb_timestamp_t ownedSince = 0;
  std::uint64_t writes = 0;
  std::uint64_t installedWrite = 0;
  std::shared_ptr<SharedRead> reading;
  std::map<std::pair<xcb_window_t, xcb_atom_t>, std::unique_ptr<Transfer>> transfers;
  std::uint64_t transferSerial = 0;
  std::vector<asio::steady_timer*> waiters;

  // ---- The connection ----

  std::shared_ptr<Link> ensureConnected() {
    if (closing) return nullptr;
    if (link && link->alive && !link->x->broken()) return link;
    if (link) lose(*link, describeX11Error(xcb_connection_has_error(link->c)));
    lastAttempt = uptimeSeconds();
    try {
      link = connect();
    } catch (const std::exception& failure) {
      if (!reportedNoServer) log.error("No clipboard: %s", failure.what());
      reportedNoServer = true;
      return nullptr;
    }
    connected = true;
    reportedNoServer = false;
    // What the clipboard holds now is unknown: a session should read it again.
    if (everConnected) {
      log.info("The clipboard is on the X server again");
      ++count;
    }
    everConnected = true;
    return link;
  }

  std::shared_ptr<Link> connect() {
    auto fresh = std::make_shared<Link>();
    fresh->x = X11Connection::open(executor, displayName);
    xcb_connection_t* c = fresh->c = fresh->x->get();
    xcb_intern_atom_cookie_t cookies[kAtomCount];
    for (std::size_t i = 0; i < kAtomCount; ++i) {
      cookies[i] = xcb_intern_atom(c, 0, std::uint16_t(std::strlen(kAtomNames[i])), kAtomNames[i]);
    }
    xcb_atom_t a[kAtomCount];
    for (std::size_t i = 0; i < kAtomCount; ++i) {
      const XcbReply<xcb_intern_atom_reply_t> atom(xcb_intern_atom_reply(c, cookies[i], nullptr));
      if (!atom) throw std::runtime_error("the X server does not answer");
      a[i] = atom->atom;
    }
    fresh->atoms = {a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9]};
    if (const auto* xfixes = xcb_get_extension_data(c, &xcb_xfixes_id); xfixes && xfixes->present) {
      const XcbReply<xcb_xfixes_query_version_reply_t> version(
          xcb_xfixes_query_version_reply(c, xcb_xfixes_query_version(c, 5, 0), nullptr));
      fresh->hasXFixes = version != nullptr;
      fresh->xfixesEvent = xfixes->first_event;
    }
    if (!fresh->hasXFixes) {
      log.error("The X server has no XFixes: other programs' copies will go unnoticed");
    }
    fresh->owner = makeWindow(*fresh);
    fresh->requestor = makeWindow(*fresh);
    if (fresh->hasXFixes) {
      xcb_xfixes_select_selection_input(
          c, fresh->owner, fresh->atoms.clipboard,
          XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER |
              XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_WINDOW_DESTROY |
              XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_CLIENT_CLOSE);
    }
    // The core protocol's limit, not BIG-REQUESTS': requestors expect pieces of that size.
    const std::size_t maxRequest = std::size_t(xcb_get_setup(c)->maximum_request_length) * 4;
    fresh->pieceBytes = std::min<std::size_t>(maxRequest - 64, 256 * 1024);
    xcb_flush(c);
    if (const int error = xcb_connection_has_error(c)) {
      throw std::runtime_error(describeX11Error(error));
    }
    const std::weak_ptr<Core> weakCore = weak_from_this();
    const std::weak_ptr<Link> weakLink = fresh;
    fresh->x->startEvents(
        [weakCore, weakLink](const xcb_generic_event_t& event) {
          const auto core = weakCore.lock();
          const auto current = weakLink.lock();
          if (core && current && current->alive) core->handle(*current, event);
        },
        [weakCore, weakLink](std::string reason) {
          const auto core = weakCore.lock();
          const auto current = weakLink.lock();
          if (core && current) core->lose(*current, reason);
        });
    return fresh;
  }

  static xcb_window_t makeWindow(Link& l) {
    const xcb_window_t window = xcb_generate_id(l.c);
    const std::uint32_t values[] = {1, XCB_EVENT_MASK_PROPERTY_CHANGE};
    xcb_create_window(l.c, 0, window, l.x->root(), -1, -1, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY,
                      XCB_COPY_FROM_PARENT, XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
    return window;
  }

  // The server went away: what lived on it is gone; the count stays.
  void lose(Link& l, const std::string& reason) {
    if (!l.alive) return;
    l.alive = false;
    l.x->stop();
    if (link.get() == &l) {
      link.reset();
      connected = false;
      offer.reset();
      transfers.clear();
      if (!closing && !reportedNoServer)
        log.error("The clipboard lost the X server: %s", reason.c_str());
      reportedNoServer = true;
    }
    wakeWaiters();
  }

  // A reply that did not come: the connection broke, or the request was refused.
  void checkAlive(Link& l) {
    if (const int error = xcb_connection_has_error(l.c)) lose(l, describeX11Error(error));
  }

  // Events that xcb queued while it read a reply, handed on once the caller has gone on.
  static void dispatchLater(Link& l) {
    asio::post(l.x->executor(), [x = l.x] { x->dispatchQueuedEvents(); });
  }

  xcb_atom_t atomNamed(Link& l, const std::string& name) {
    if (const auto known = l.atomCache.find(name); known != l.atomCache.end()) return known->second;
    const XcbReply<xcb_intern_atom_reply_t> atom(xcb_intern_atom_reply(
        l.c,
        xcb_intern_atom(l.c, 0, std::uint16_t(std::min<std::size_t>(name.size(), 0xFFFF)),
                        name.data()),
        nullptr));
    dispatchLater(l);
    if (!atom) {
      checkAlive(l);
      return XCB_NONE;
    }
    return l.atomCache[name] = atom->atom;
  }

  void shutdown() {
    closing = true;
    transfers.clear();
    offer.reset();
    if (link) {
      link->alive = false;
      link->x->stop();
      link.reset();
    }
    connected = false;
    wakeWaiters();
  }

  // ---- Waiting on the thread for what events bring ----

  void wakeWaiters() {
    for (asio::steady_timer* timer : waiters) timer->cancel();
  }

  // True once `ready`, false at the deadline or when closing.
  asio::awaitable<bool> waitUntil(const std::function<bool()>& ready, Clock::time_point deadline) {
    asio::steady_timer timer(executor, deadline);
    struct Listed {
      std::vector<asio::steady_timer*>& list;
      asio::steady_timer* timer;
      ~Listed() { std::erase(list, timer); }
    };
    while (!ready()) {
      if (closing || Clock::now() >= deadline) co_return false;
      waiters.push_back(&timer);
      const Listed listed{waiters, &timer};
      asio::error_code ignored;
      co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
    }
    co_return true;
  }

  // A time stamp of the server's, as the ICCCM wants for taking and converting a selection: the
  // time of a property change of our own.
  asio::awaitable<std::optional<xcb_timestamp_t>> serverTime(Link& l, Clock::time_point deadline) {
    const std::uint64_t seen = l.timestamps;
    xcb_change_property(l.c, XCB_PROP_MODE_APPEND, l.owner, l.atoms.timeProperty, XCB_ATOM_INTEGER,
                        32, 0, nullptr);
    xcb_flush(l.c);
    const std::function<bool()> stamped = [&] { return !l.alive || l.timestamps != seen; };
    co_await waitUntil(stamped, deadline);
    if (!l.alive) co_return std::nullopt;
    if (l.timestamps == seen) {
      log.error("The X server gave no time stamp within %.1f s", limits.readTimeout.count());
      co_return std::nullopt;
    }
    co_return l.lastTimestamp;
  }

  // ---- Events ----

  void handle(Link& l, const xcb_generic_event_t& event) {
    const std::uint8_t type = event.response_type & 0x7F;
    if (type == 0) {
      // A requestor that went away while we wrote to it.
      const auto& error = reinterpret_cast<const xcb_generic_error_t&>(event);
      if (error.error_code == XCB_WINDOW) dropTransfers(error.resource_id);
    } else if (l.hasXFixes && type == l.xfixesEvent + XCB_XFIXES_SELECTION_NOTIFY) {
      const auto& change = reinterpret_cast<const xcb_xfixes_selection_notify_event_t&>(event);
      // Our own take-over was counted by the write that made it. The end of our window or
      // client, which names no owner, is the server's going or ours: the count stays. While we
      // own, another owner's end cannot come: its take-over cleared us first.
      const bool ours = change.owner == l.owner ||
                        (offer && change.subtype != XCB_XFIXES_SELECTION_EVENT_SET_SELECTION_OWNER);
      if (change.selection == l.atoms.clipboard && !ours) ++count;
    } else if (type == XCB_SELECTION_REQUEST) {
      serve(l, reinterpret_cast<const xcb_selection_request_event_t&>(event));
    } else if (type == XCB_SELECTION_CLEAR) {
      cleared(l, reinterpret_cast<const xcb_selection_clear_event_t&>(event));
    } else if (type == XCB_SELECTION_NOTIFY) {
      const auto& notify = reinterpret_cast<const xcb_selection_notify_event_t&>(event);
      if (notify.requestor == l.requestor && notify.selection == l.atoms.clipboard) {
        l.notify = notify;
      }
    } else if (type == XCB_PROPERTY_NOTIFY) {
      const auto& property = reinterpret_cast<const xcb_property_notify_event_t&>(event);
      if (property.window == l.owner && property.atom == l.atoms.timeProperty) {
        ++l.timestamps;
        l.lastTimestamp = property.time;
      } else if (property.window == l.requestor) {
        if (property.atom == l.atoms.transferProperty && property.state == XCB_PROPERTY_NEW_VALUE) {
          ++l.requestorChanges;
        }
      } else if (property.state == XCB_PROPERTY_DELETE) {
        continueTransfer(l, property.window, property.atom);
      }
    } else if (type == XCB_DESTROY_NOTIFY) {
      dropTransfers(reinterpret_cast<const xcb_destroy_notify_event_t&>(event).window);
    }
    wakeWaiters();
  }

  // Another program took the clipboard, unless we took it back since.
  void cleared(Link& l, const xcb_selection_clear_event_t& clear) {
    if (clear.selection != l.atoms.clipboard || clear.owner != l.owner || !offer) return;
    const XcbReply<xcb_get_selection_owner_reply_t> owner(xcb_get_selection_owner_reply(
        l.c, xcb_get_selection_owner(l.c, l.atoms.clipboard), nullptr));
    if (owner && owner->owner == l.owner) return;
    offer.reset();
  }

  // ---- The owner ----

  void serve(Link& l, const xcb_selection_request_event_t& request) {
    // Obsolete requestors name no property: the target is used.
    const xcb_atom_t property = request.property == XCB_NONE ? request.target : request.property;
    bool answered = false;
    if (offer && request.selection == l.atoms.clipboard && request.owner == l.owner &&
        (request.time == XCB_CURRENT_TIME || notBefore(request.time, ownedSince))) {
      if (request.target == l.atoms.multiple) {
        answered = request.property != XCB_NONE && answerMultiple(l, request.requestor, property);
      } else {
        answered = answer(l, request.requestor, request.target, property, true);
      }
    }
    xcb_selection_notify_event_t notify{};
    notify.response_type = XCB_SELECTION_NOTIFY;
    notify.time = request.time;
    notify.requestor = request.requestor;
    notify.selection = request.selection;
    notify.target = request.target;
    notify.property = answered ? property : XCB_NONE;
    char event[32] = {};  // xcb sends 32 bytes whatever the event's struct
    std::memcpy(event, &notify, sizeof notify);
    xcb_send_event(l.c, 0, request.requestor, XCB_EVENT_MASK_NO_EVENT, event);
    xcb_flush(l.c);
  }

  // Writes the answer for `target` to the requestor's property; false when we have none. Large
  // data goes in pieces, where allowed.
  bool answer(Link& l, xcb_window_t requestor, xcb_atom_t target, xcb_atom_t property,
              bool piecesAllowed) {
    if (target == l.atoms.targets) {
      std::vector<xcb_atom_t> targets{l.atoms.targets, l.atoms.timestamp, l.atoms.multiple};
      for (const auto& [atom, bytes] : offer->targets) targets.push_back(atom);
      xcb_change_property(l.c, XCB_PROP_MODE_REPLACE, requestor, property, XCB_ATOM_ATOM, 32,
                          std::uint32_t(targets.size()), targets.data());
      return true;
    }
    if (target == l.atoms.timestamp) {
      xcb_change_property(l.c, XCB_PROP_MODE_REPLACE, requestor, property, XCB_ATOM_INTEGER, 32, 1,
                          &ownedSince);
      return true;
    }
    const std::string* bytes = offer->find(target);
    if (!bytes) return false;
    if (bytes->size() <= l.pieceBytes) {
      xcb_change_property(l.c, XCB_PROP_MODE_REPLACE, requestor, property, target, 8,
                          std::uint32_t(bytes->size()), bytes->data());
      return true;
    }
    if (!piecesAllowed) return false;
    for (const auto& [atom, shared] : offer->targets) {
      if (atom == target) startTransfer(l, requestor, property, target, shared);
    }
    return true;
  }

  // Several targets at once, listed as pairs of target and property; a pair we cannot answer in
  // one piece gets no property.
  bool answerMultiple(Link& l, xcb_window_t requestor, xcb_atom_t property) {
    const XcbReply<xcb_get_property_reply_t> pairs(xcb_get_property_reply(
        l.c, xcb_get_property(l.c, 0, requestor, property, XCB_GET_PROPERTY_TYPE_ANY, 0, 256),
        nullptr));
    if (!pairs || pairs->format != 32) return false;
    const auto* value = static_cast<const xcb_atom_t*>(xcb_get_property_value(pairs.get()));
    const std::size_t words = std::size_t(xcb_get_property_value_length(pairs.get())) / 4;
    std::vector<xcb_atom_t> list(value, value + words / 2 * 2);
    for (std::size_t i = 0; i < list.size(); i += 2) {
      if (list[i + 1] == XCB_NONE || list[i] == l.atoms.multiple ||
          !answer(l, requestor, list[i], list[i + 1], false)) {
        list[i + 1] = XCB_NONE;
      }
    }
    xcb_change_property(l.c, XCB_PROP_MODE_REPLACE, requestor, property, l.atoms.atomPair, 32,
                        std::uint32_t(list.size()), list.data());
    return true;
  }

  void startTransfer(Link& l, xcb_window_t requestor, xcb_atom_t property, xcb_atom_t type,
                     std::shared_ptr<const std::string> bytes) {
    // Its deletions of the property ask for the pieces; its end ends the transfer.
    const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE | XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(l.c, requestor, XCB_CW_EVENT_MASK, &mask);
    const auto size = std::uint32_t(
        std::min<std::size_t>(bytes->size(), std::numeric_limits<std::uint32_t>::max()));
    xcb_change_property(l.c, XCB_PROP_MODE_REPLACE, requestor, property, l.atoms.incr, 32, 1,
                        &size);
    auto transfer = std::make_unique<Transfer>(executor);
    transfer->id = ++transferSerial;
    transfer->type = type;
    transfer->bytes = std::move(bytes);
    const auto key = std::pair(requestor, property);
    armStall(key, *transfer);
    transfers[key] = std::move(transfer);
  }

  void continueTransfer(Link& l, xcb_window_t window, xcb_atom_t property) {
    const auto key = std::pair(window, property);
    const auto found = transfers.find(key);
    if (found == transfers.end()) return;
    Transfer& transfer = *found->second;
    const std::size_t size = std::min(l.pieceBytes, transfer.bytes->size() - transfer.offset);
    xcb_change_property(l.c, XCB_PROP_MODE_REPLACE, window, property, transfer.type, 8,
                        std::uint32_t(size), transfer.bytes->data() + transfer.offset);
    transfer.offset += size;
    if (size == 0) {
      // That was the empty piece that ends it.
      transfers.erase(found);
      const bool more = std::any_of(transfers.begin(), transfers.end(),
                                    [window](const auto& t) { return t.first.first == window; });
      const std::uint32_t none = 0;
      if (!more) xcb_change_window_attributes(l.c, window, XCB_CW_EVENT_MASK, &none);
    } else {
      armStall(key, transfer);
    }
    xcb_flush(l.c);
  }

  void armStall(std::pair<xcb_window_t, xcb_atom_t> key, Transfer& transfer) {
    transfer.stall.expires_after(
        std::chrono::duration_cast<Clock::duration>(limits.requestorStallTimeout));
    transfer.stall.async_wait([weak = weak_from_this(), key,
                               id = transfer.id](const asio::error_code& error) {
      const auto self = weak.lock();
      if (error || !self) return;
      const auto found = self->transfers.find(key);
      if (found == self->transfers.end() || found->second->id != id) return;
      self->log.error("A program stopped taking the clipboard's data midway; dropped after %.0f s",
                      self->limits.requestorStallTimeout.count());
      self->transfers.erase(found);
    });
  }

  void dropTransfers(xcb_window_t window) {
    std::erase_if(transfers, [window](const auto& t) { return t.first.first == window; });
  }

  // ---- Writing ----

  static asio::awaitable<void> write(std::shared_ptr<Core> self, Content content) {
    try {
      auto writing = self->writeNow(std::move(content));
      co_await std::move(writing);
    } catch (const std::exception& failure) {
      self->log.error("Writing the clipboard failed: %s", failure.what());
    }
  }

  asio::awaitable<void> writeNow(Content content) {
    const auto l = ensureConnected();
    if (!l) co_return;
    const std::uint64_t serial = ++writes;
    auto next = std::make_shared<Offer>();
    for (auto& [name, bytes] : content) {
      if (!bytes) continue;
      const xcb_atom_t atom = atomNamed(*l, name);
      if (atom != XCB_NONE) next->targets.emplace_back(atom, bytes);
      if (name == "UTF8_STRING") next->text = bytes;
    }
    const auto deadline = after(limits.readTimeout);
    const auto time = co_await serverTime(*l, deadline);
    // A later write that took the clipboard first stays.
    if (!time || !l->alive || serial < installedWrite) co_return;
    xcb_set_selection_owner(l->c, l->owner, l->atoms.clipboard, *time);
    const XcbReply<xcb_get_selection_owner_reply_t> owner(xcb_get_selection_owner_reply(
        l->c, xcb_get_selection_owner(l->c, l->atoms.clipboard), nullptr));
    dispatchLater(*l);
    if (!owner || owner->owner != l->owner) {
      checkAlive(*l);
      if (l->alive) log.error("The X server did not give us the clipboard");
      co_return;
    }
    offer = std::move(next);
    ownedSince = *time;
    installedWrite = serial;
    ++count;
  }

  // ---- Reading ----

  // One read at a time: who asks while one is under way gets its result.
  static asio::awaitable<std::optional<std::string>> read(std::shared_ptr<Core> self) {
    if (const auto under = self->reading) {
      const std::function<bool()> done = [&] { return under->done; };
      co_await self->waitUntil(done, Clock::time_point::max());
      co_return under->result;
    }
    const auto mine = std::make_shared<SharedRead>();
    self->reading = mine;
    try {
      mine->result = co_await self->readNow();
    } catch (const std::exception& failure) {
      self->log.error("Reading the clipboard failed: %s", failure.what());
    }
    mine->done = true;
    self->reading.reset();
    self->wakeWaiters();
    co_return mine->result;
  }

  asio::awaitable<std::optional<std::string>> readNow() {
    const auto l = ensureConnected();
    if (!l) co_return std::nullopt;
    if (offer) co_return offer->text ? std::optional(validUTF8(*offer->text)) : std::nullopt;
    const XcbReply<xcb_get_selection_owner_reply_t> owner(xcb_get_selection_owner_reply(
        l->c, xcb_get_selection_owner(l->c, l->atoms.clipboard), nullptr));
    dispatchLater(*l);
    if (!owner) {
      checkAlive(*l);
      co_return std::nullopt;
    }
    if (owner->owner == XCB_NONE || owner->owner == l->owner) co_return std::nullopt;
    const auto deadline = after(limits.readTimeout);
    const auto time = co_await serverTime(*l, deadline);
    if (!time) co_return std::nullopt;
    bool otherKind = false;
    const xcb_atom_t preferred[] = {l->atoms.utf8String, l->atoms.textPlainUTF8, XCB_ATOM_STRING};
    for (const xcb_atom_t target : preferred) {
      Converted converted = co_await convert(*l, target, *time, deadline);
      if (converted.outcome == Converted::text) co_return std::move(converted.value);
      if (converted.outcome == Converted::failed) {
        // Whatever the owner still sends goes to a window that is no more.
        if (l->alive) renewRequestor(*l);
        co_return std::nullopt;
      }
      otherKind = otherKind || converted.otherKind;
    }
    if (otherKind) log.error("The clipboard's owner answered for text with data of another kind");
    co_return std::nullopt;
  }

  void renewRequestor(Link& l) {
    xcb_destroy_window(l.c, l.requestor);
    l.requestor = makeWindow(l);
    l.notify.reset();
    xcb_flush(l.c);
  }

  XcbReply<xcb_get_property_reply_t> transferProperty(Link& l, bool remove, std::uint32_t words) {
    XcbReply<xcb_get_property_reply_t> reply(
        xcb_get_property_reply(l.c,
                               xcb_get_property(l.c, remove, l.requestor, l.atoms.transferProperty,
                                                XCB_GET_PROPERTY_TYPE_ANY, 0, words),
                               nullptr));
    dispatchLater(l);
    if (!reply) checkAlive(l);
    return reply;
  }

  Converted tooLarge() {
    log.error("The clipboard's text is larger than %zu MiB: not read", limits.maxTextBytes >> 20);
    return {};
  }

  asio::awaitable<Converted> convert(Link& l, xcb_atom_t target, xcb_timestamp_t time,
                                     Clock::time_point deadline) {
    l.notify.reset();
    xcb_convert_selection(l.c, l.requestor, l.atoms.clipboard, target, l.atoms.transferProperty,
                          time);
    xcb_flush(l.c);
    const std::function<bool()> answered = [&] { return !l.alive || l.notify.has_value(); };
    co_await waitUntil(answered, deadline);
    if (!l.alive) co_return Converted{};
    if (!l.notify) {
      log.error("The clipboard's owner did not answer within %.1f s", limits.readTimeout.count());
      co_return Converted{};
    }
    if (l.notify->property == XCB_NONE) co_return Converted{Converted::refused};
    const auto probe = transferProperty(l, false, 0);
    if (!probe) co_return Converted{};
    if (probe->type == l.atoms.incr) co_return co_await readPieces(l, deadline);
    const std::size_t size = probe->bytes_after;
    if (size > limits.maxTextBytes) co_return tooLarge();
    const auto whole = transferProperty(l, true, std::uint32_t((size + 3) / 4));
    if (!whole) co_return Converted{};
    co_return decode(l, whole->type, whole->format, valueOf(*whole));
  }

  // The INCR protocol: each deletion of the property asks for the next piece; an empty piece is
  // the end.
  asio::awaitable<Converted> readPieces(Link& l, Clock::time_point deadline) {
    // Read whole, and so deleted by the read itself, which asks for the first piece. A delete of
    // our own afterwards could come after that piece and throw it away.
    const auto start = transferProperty(l, true, 16);
    if (!start) co_return Converted{};
    // Its value, where given, is a lower bound of the size.
    if (start->format == 32 && xcb_get_property_value_length(start.get()) >= 4) {
      std::uint32_t atLeast = 0;
      std::memcpy(&atLeast, xcb_get_property_value(start.get()), 4);
      if (atLeast > limits.maxTextBytes) co_return tooLarge();
    }
    std::string data;
    xcb_atom_t type = XCB_NONE;
    std::uint8_t format = 8;
    for (;;) {
      const std::uint64_t seen = l.requestorChanges;
      const auto probe = transferProperty(l, false, 0);
      if (!probe) co_return Converted{};
      if (probe->type == XCB_NONE) {
        const auto pieceDeadline = std::min(deadline, after(limits.pieceTimeout));
        const std::function<bool()> changed = [&] {
          return !l.alive || l.requestorChanges != seen;
        };
        const bool arrived = co_await waitUntil(changed, pieceDeadline);
        if (!l.alive) co_return Converted{};
        if (!arrived) {
          log.error("The clipboard's owner stopped sending its text midway");
          co_return Converted{};
        }
        continue;
      }
      const std::size_t size = probe->bytes_after;
      if (type == XCB_NONE) {
        type = probe->type;
        format = probe->format;
      }
      if (size == 0) {
        xcb_delete_property(l.c, l.requestor, l.atoms.transferProperty);
        xcb_flush(l.c);
        break;
      }
      if (data.size() + size > limits.maxTextBytes) co_return tooLarge();
      const auto piece = transferProperty(l, true, std::uint32_t((size + 3) / 4));
      if (!piece) co_return Converted{};
      data.append(valueOf(*piece));
    }
    co_return decode(l, type, format, data);
  }

  Converted decode(Link& l, xcb_atom_t type, std::uint8_t format, std::string_view bytes) {
    const bool utf8 = type == l.atoms.utf8String || type == l.atoms.textPlainUTF8;
    if (format != 8 || (!utf8 && type != XCB_ATOM_STRING)) {
      return {Converted::refused, {}, true};
    }
    // The wire carries well-formed UTF-8 only.
    std::string text = utf8 ? validUTF8(bytes) : latin1ToUTF8(bytes);
    // Some owners count the C string's end.
    while (!text.empty() && text.back() == '\0') text.pop_back();
    if (text.size() > limits.maxTextBytes) return tooLarge();
    return {Converted::text, std::move(text)};
  }
};

X11Pasteboard::X11Pasteboard(std::string displayName, Limits limits)
    : keepRunning_(asio::make_work_guard(context_)),
      core_(std::make_shared<Core>(context_.get_executor(), std::move(displayName), limits)),
      thread_([this] { context_.run(); }) {
  // Connected before the first call, so that the count follows changes from the start.
  std::promise<void> tried;
  asio::post(context_, [core = core_, &tried] {
    core->ensureConnected();
    tried.set_value();
  });
  tried.get_future().wait();
}

X11Pasteboard::~X11Pasteboard() {
  // Whoever awaits an operation holds this object, so none is under way.
  asio::post(context_, [core = core_] { core->shutdown(); });
  keepRunning_.reset();
  thread_.join();
}

std::int64_t X11Pasteboard::changeCount() {
  // Without a server, a look at the count now and then tries to reach one again.
  if (!core_->connected && uptimeSeconds() - core_->lastAttempt > 1.0) {
    core_->lastAttempt = uptimeSeconds();
    asio::post(context_, [core = core_] { core->ensureConnected(); });
  }
  return core_->count;
}

// The caller's cancellation would reach into this thread's timers from its own: the work runs to
// its own deadline instead.
asio::awaitable<std::optional<std::string>> X11Pasteboard::string() {
  return asio::co_spawn(
      context_.get_executor(), Core::read(core_),
      asio::bind_cancellation_slot(asio::cancellation_slot(), asio::use_awaitable));
}

asio::awaitable<void> X11Pasteboard::writeString(std::string text) {
  return writeContent(textContent(text));
}

asio::awaitable<void> X11Pasteboard::writeContent(Content content) {
  return asio::co_spawn(
      context_.get_executor(), Core::write(core_, std::move(content)),
      asio::bind_cancellation_slot(asio::cancellation_slot(), asio::use_awaitable));
}

asio::awaitable<void> X11Pasteboard::writeFiles(ClipboardFiles files) {
  return writeContent(filesContent(files));
}

X11Pasteboard::Content X11Pasteboard::filesContent(const ClipboardFiles& files) {
  std::string uriList, copied = "copy", paths;
  for (const auto& path : files.paths) {
    const std::string uri = fileURI(path);
    uriList += uri;
    uriList += "\r\n";
    copied += '\n';
    copied += uri;
    if (!paths.empty()) paths += '\n';
    paths += path.string();
  }
  Content content = textContent(paths);
  content["text/uri-list"] = std::make_shared<const std::string>(std::move(uriList));
  content["x-special/gnome-copied-files"] = std::make_shared<const std::string>(std::move(copied));
  // The targets above name the files themselves: a content of the same name does not replace them.
  for (const auto& [type, bytes] : files.contents) {
    content.emplace(type, std::make_shared<const std::string>(bytes));
  }
  return content;
}

X11Pasteboard::Content X11Pasteboard::textContent(const std::string& text) {
  auto utf8 = std::make_shared<const std::string>(validUTF8(text));
  return {{"UTF8_STRING", utf8},
          {"text/plain;charset=utf-8", utf8},
          {"STRING", std::make_shared<const std::string>(utf8ToLatin1(*utf8))}};
}

}  // namespace kelvaron::host
