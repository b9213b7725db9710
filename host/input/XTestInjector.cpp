#include "host/input/XTestInjector.hpp"

#include <xcb/randr.h>
#include <xcb/xcb.h>
#include <xcb/xinput.h>
#include <xcb/xtest.h>
// xcb's XKB header names a field after a C++ keyword.
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit
#include <xkbcommon/xkbcommon-x11.h>

#include <asio/post.hpp>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <thread>
#include <vector>

#include "host/input/HIDKeyNames.hpp"
#include "host/input/KeyboardLayout.hpp"
#include "host/x11/RandrMonitors.hpp"
#include "host/x11/X11Connection.hpp"
#include "kit/async/Uptime.hpp"

namespace kelvaron::host {

namespace {

// The code points of UTF-8 text; a malformed sequence costs its first byte only.
std::vector<char32_t> codePoints(const std::string& text) {
  std::vector<char32_t> points;
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    const unsigned char lead = *p;
    const int length = lead < 0x80           ? 1
                       : (lead >> 5) == 0x6  ? 2
                       : (lead >> 4) == 0xE  ? 3
                       : (lead >> 3) == 0x1E ? 4
                                             : 0;
    if (length == 0 || end - p < length) {
      ++p;
      continue;
    }
    char32_t c = length == 1 ? lead : lead & (0x7F >> length);
    bool wellFormed = true;
    for (int i = 1; i < length; ++i) {
      wellFormed = wellFormed && (p[i] & 0xC0) == 0x80;
      c = (c << 6) | (p[i] & 0x3F);
    }
    const char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (!wellFormed || c < smallest[length] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
      ++p;
      continue;
    }
    points.push_back(c);
    p += length;
  }
  return points;
}

bool isControl(char32_t c) { return c < 32 || c == 127 || (c >= 0x80 && c < 0xA0); }

std::uint8_t buttonNumber(PointerButton button) {
  switch (button) {
    case PointerButton::left:
      return 1;
    case PointerButton::middle:
      return 2;
    case PointerButton::right:
      return 3;
  }
  return 1;
}

}  // namespace

// One connection to the X server, with what was learnt of it.
struct XTestInjector::Server {
  std::shared_ptr<X11Connection> x;
  xcb_connection_t* c = nullptr;  // x's
  xcb_window_t root = 0;
  std::optional<std::uint8_t> inputOpcode;  // XInput 2's, when it tells of raw motion
  std::optional<std::uint8_t> randrBase;    // the first RANDR event code
  bool reportedRefusal = false;             // one log line for the requests the server refused
  xkb_context* xkb = nullptr;
  std::int32_t keyboard = -1;  // the core keyboard's XKB device
  xcb_atom_t rulesNames = XCB_ATOM_NONE;
  std::unique_ptr<KeyboardLayout> layout;
  std::string layoutRules;
  xkb_layout_index_t layoutGroup = 0;
  // Spare keys given a character, least recently typed first.
  std::vector<std::pair<char32_t, std::uint32_t>> spareInUse;
  // The last owner to type on them; its end gives them back.
  std::optional<InputOwner> spareOwner;

  ~Server() {
    layout.reset();
    if (xkb) xkb_context_unref(xkb);
  }

  // Its events are read on `executor`, once asked for. Throws std::runtime_error with a text for a
  // person.
  static std::unique_ptr<Server> open(const Executor& executor, const std::string& displayName) {
    auto server = std::make_unique<Server>();
    server->x = X11Connection::open(executor, displayName);
    server->c = server->x->get();
    server->root = server->x->root();
    const auto* xtest = xcb_get_extension_data(server->c, &xcb_test_id);
    if (!xtest || !xtest->present) throw std::runtime_error("The X server has no XTEST extension.");
    if (!xkb_x11_setup_xkb_extension(
            server->c, XKB_X11_MIN_MAJOR_XKB_VERSION, XKB_X11_MIN_MINOR_XKB_VERSION,
            XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr, nullptr, nullptr)) {
      throw std::runtime_error("The X server has no usable XKB extension.");
    }
    server->keyboard = xkb_x11_get_core_keyboard_device_id(server->c);
    server->xkb = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    if (server->keyboard < 0 || !server->xkb) {
      throw std::runtime_error("The X server's keyboard cannot be read.");
    }
    const XcbReply<xcb_intern_atom_reply_t> atom(xcb_intern_atom_reply(
        server->c, xcb_intern_atom(server->c, 0, 16, "_XKB_RULES_NAMES"), nullptr));
    if (atom) server->rulesNames = atom->atom;
    server->watch();
    return server;
  }

  // Asks to be told of every motion of a master pointer, whoever makes it (the raw events of
  // XInput 2.1 and later reach the root whatever grabs there are), and of every change of the
  // monitors, the way the display list learns of them.
  void watch() {
    if (const auto* input = xcb_get_extension_data(c, &xcb_input_id); input && input->present) {
      const XcbReply<xcb_input_xi_query_version_reply_t> version(
          xcb_input_xi_query_version_reply(c, xcb_input_xi_query_version(c, 2, 2), nullptr));
      if (version && version->major_version >= 2) {
        struct {
          xcb_input_event_mask_t head;
          std::uint32_t bits;
        } mask{{std::uint16_t(XCB_INPUT_DEVICE_ALL_MASTER), 1},
               std::uint32_t(XCB_INPUT_XI_EVENT_MASK_RAW_MOTION)};
        xcb_input_xi_select_events(c, root, 1, &mask.head);
        inputOpcode = input->major_opcode;
      }
    }
    if (const auto* randr = xcb_get_extension_data(c, &xcb_randr_id); randr && randr->present) {
      xcb_randr_select_input(c, root,
                             XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE |
                                 XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE |
                                 XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE);
      randrBase = randr->first_event;
    }
    // Monitors that clients set or delete are told only through the root's ConfigureNotify.
    const std::uint32_t rootEvents = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(c, root, XCB_CW_EVENT_MASK, &rootEvents);
    xcb_flush(c);
  }

  // The layout's name as setxkbmap and desktops set it on the root window: a change means the
  // server has another keymap.
  std::string rulesNamesNow() {
    const XcbReply<xcb_get_property_reply_t> names(xcb_get_property_reply(
        c, xcb_get_property(c, 0, root, rulesNames, XCB_ATOM_STRING, 0, 1024), nullptr));
    if (!names) return {};
    return {static_cast<const char*>(xcb_get_property_value(names.get())),
            std::size_t(xcb_get_property_value_length(names.get()))};
  }

  struct KeyboardState {
    std::uint8_t depressed = 0;  // modifier masks
    std::uint8_t locked = 0;
    xkb_layout_index_t group = 0;
  };
  KeyboardState keyboardState() {
    const XcbReply<xcb_xkb_get_state_reply_t> state(
        xcb_xkb_get_state_reply(c, xcb_xkb_get_state(c, XCB_XKB_ID_USE_CORE_KBD), nullptr));
    if (!state) return {};
    return {state->baseMods, state->lockedMods, xkb_layout_index_t(state->group)};
  }
};

// Which modifiers a key stroke wants down; absent: left as they are.
struct XTestInjector::Modifiers {
  bool shift = false, control = false, alt = false, super = false;
  std::optional<bool> level3 = false;
  std::optional<bool> capsLock;

  // The Mac's option is Alt here. Where the client holds the key that is AltGr on this layout
  // (its right option), that key already stands for the option flag: the third level stays as
  // the client holds it, and Alt is not pressed beside it.
  static Modifiers of(ModifierFlags flags) {
    const std::uint8_t f = flags.rawValue;
    const bool option = (f & 0x04) != 0;
    // The function key (0x10) has no counterpart on X11.
    return {(f & 0x01) != 0,
            (f & 0x02) != 0,
            option,
            (f & 0x08) != 0,
            option ? std::nullopt : std::optional(false),
            (f & 0x20) != 0};
  }
};

XTestInjector::XTestInjector(std::string displayName)
    : displayName_(std::move(displayName)),
      keepRunning_(asio::make_work_guard(context_)),
      thread_([this] { context_.run(); }) {
  // Connect now, so that the pointer is known before anyone asks.
  schedulePointerRead();
}

XTestInjector::~XTestInjector() {
  asio::post(context_, [this] {
    releaseHeld([](InputOwner) { return true; });
    // The connection waits on the context, which must not outlive it; no other is made.
    closing_ = true;
    server_.reset();
  });
  keepRunning_.reset();
  thread_.join();
}

// The caller goes on at once; the work runs on the injector's thread after all asked before it,
// so that X round trips never hold up a session's strand.
template <class Work>
void XTestInjector::post(InputOwner owner, Work work) {
  asio::post(context_, [this, owner, work = std::move(work)] {
    owner_ = owner;
    work();
    // What came in while a reply was awaited: the descriptor will not tell of it again.
    if (server_) server_->x->dispatchQueuedEvents();
  });
}

void XTestInjector::injectKey(InputOwner owner, const KeyEvent& event) {
  post(owner, [this, event] { key(event); });
}

void XTestInjector::injectText(InputOwner owner, const std::string& text) {
  post(owner, [this, text] { type(text); });
}

void XTestInjector::injectPointer(InputOwner owner, const PointerEvent& event,
                                  const std::optional<DisplayInfo>& display) {
  // Numbered under the lock, so that the numbers are done in the order they are given.
  std::lock_guard lock(beliefLock_);
  const std::uint64_t number = ++pointerAsked_;
  post(owner, [this, event, display, number] {
    pointer(event, display);
    publish(number);
  });
}

void XTestInjector::release(InputOwner owner) {
  asio::post(context_, [this, owner] {
    releaseHeld([owner](InputOwner holder) { return holder == owner; });
  });
}

// The belief, once the pointer events asked for before the call are done; while none is on its
// way, at once. With no server to ask, a reading that connects is posted at most once per kRetry,
// and the caller does not wait for it.
std::optional<Point> XTestInjector::currentPointerPosition() {
  std::unique_lock lock(beliefLock_);
  const std::uint64_t asked = pointerAsked_;
  pointerApplied_.wait(lock, [&] { return pointerDone_ >= asked; });
  if (probe_ && !probe_->broken()) {
    lookThroughProbe();
  } else if (!readPosted_ && uptimeSeconds() - checkedAt_ >= kRetry) {
    readPosted_ = true;
    asio::post(context_, [this] { readPointer(); });
  }
  return published_;
}

// An answer to a question asked before the injector's thread last changed the belief says less
// than the belief: it is dropped. One that is merely behind the injector's own moves (the probe's
// connection is not ordered with the injector's) is no news to the tracker.
void XTestInjector::lookThroughProbe() {
  const auto answer = probe_->look(beliefChanges_);
  if (!answer || !answer->pointer || answer->mark != beliefChanges_) return;
  const Point real{answer->pointer->x - origin_.x, answer->pointer->y - origin_.y};
  tracker_.observe(real, uptimeSeconds());
  published_ = tracker_.position();
}

void XTestInjector::schedulePointerRead() {
  std::lock_guard lock(beliefLock_);
  if (std::exchange(readPosted_, true)) return;
  asio::post(context_, [this] { readPointer(); });
}

void XTestInjector::readPointer() {
  {
    std::lock_guard lock(beliefLock_);
    readPosted_ = false;  // motion from now on asks for another reading
    checkedAt_ = uptimeSeconds();
  }
  if (ensureServer()) {
    ensureProbe();
    resync(uptimeSeconds(), false);
    server_->x->dispatchQueuedEvents();
  }
  publish();
}

void XTestInjector::publish(std::uint64_t applied) {
  {
    std::lock_guard lock(beliefLock_);
    const std::optional<Point> belief = server_ ? tracker_.position() : std::nullopt;
    if (belief != published_) ++beliefChanges_;
    published_ = belief;
    pointerDone_ = std::max(pointerDone_, applied);
  }
  if (applied) pointerApplied_.notify_all();
}

bool XTestInjector::ensureServer() {
  if (server_ && !server_->x->broken()) return true;
  if (server_) dropServer();
  if (closing_) return false;
  try {
    server_ = Server::open(context_.get_executor(), displayName_);
  } catch (const std::exception& failure) {
    if (!reportedNoServer_) log_.error("No input to the X server: %s", failure.what());
    reportedNoServer_ = true;
    return false;
  }
  reportedNoServer_ = false;
  screenStale_ = true;
  // The connection and its handlers end with server_, on this thread.
  server_->x->startEvents([this](const xcb_generic_event_t& event) { handleEvent(event); },
                          [this](const std::string& reason) { connectionLost(reason); });
  currentLayout();  // for layoutStroke
  return true;
}

// A probe of its own connection, made again when it broke while the server stayed.
void XTestInjector::ensureProbe() {
  {
    std::lock_guard lock(beliefLock_);
    if (probe_ && !probe_->broken()) return;
  }
  std::unique_ptr<X11PointerProbe> probe;
  try {
    probe = std::make_unique<X11PointerProbe>(displayName_);
    reportedNoProbe_ = false;
  } catch (const std::exception& failure) {
    if (!std::exchange(reportedNoProbe_, true)) {
      log_.error("Moves by other X clients are seen only once a second: %s", failure.what());
    }
  }
  std::lock_guard lock(beliefLock_);
  probe_ = std::move(probe);
}

void XTestInjector::dropServer() {
  {
    std::lock_guard lock(beliefLock_);
    probe_.reset();
  }
  // The keys and buttons went with the server.
  server_.reset();
  publishLayout(nullptr);
  heldKeys_.clear();
  heldButtons_.clear();
}

void XTestInjector::handleEvent(const xcb_generic_event_t& event) {
  const unsigned type = event.response_type & 0x7f;
  if (type == 0) {
    // XTEST and keymap requests have no replies: what the server refused comes as an event.
    if (!std::exchange(server_->reportedRefusal, true)) {
      const auto& error = reinterpret_cast<const xcb_generic_error_t&>(event);
      log_.error(
          "The X server refused an input request (error %u, request %u.%u); further "
          "refusals on this connection go unlogged",
          unsigned(error.error_code), unsigned(error.major_code), unsigned(error.minor_code));
    }
    return;
  }
  if (type == XCB_GE_GENERIC) {
    const auto& generic = reinterpret_cast<const xcb_ge_generic_event_t&>(event);
    if (generic.extension == server_->inputOpcode && generic.event_type == XCB_INPUT_RAW_MOTION) {
      schedulePointerRead();  // once for the events already queued: it runs after them
    }
    return;
  }
  // Wraps for events below RANDR's.
  const unsigned randrType = server_->randrBase ? type - *server_->randrBase : ~0u;
  if (type == XCB_CONFIGURE_NOTIFY || randrType == XCB_RANDR_SCREEN_CHANGE_NOTIFY ||
      randrType == XCB_RANDR_NOTIFY) {
    // The main display may have moved under a pointer that stood still.
    screenStale_ = true;
    schedulePointerRead();
  }
}

void XTestInjector::connectionLost(const std::string& reason) {
  log_.error("Lost the X server: %s", reason.c_str());
  // Not from inside the connection's own call: it goes on the next turn.
  asio::post(context_, [this] {
    if (server_ && server_->x->broken()) dropServer();
    publish();
  });
}

const KeyboardLayout* XTestInjector::currentLayout() {
  const auto state = server_->keyboardState();
  std::string rules = server_->rulesNamesNow();
  const bool sameRules = server_->layout && rules == server_->layoutRules;
  if (sameRules && state.group == server_->layoutGroup) return server_->layout.get();
  // Another group of the same keymap: the spare keys still carry their characters, and a key the
  // new layout reads differently must not keep one. A new keymap has none of them.
  if (sameRules) {
    restoreSpareKeys();
  } else {
    server_->spareInUse.clear();
  }
  xkb_keymap* keymap = xkb_x11_keymap_new_from_device(server_->xkb, server_->c, server_->keyboard,
                                                      XKB_KEYMAP_COMPILE_NO_FLAGS);
  if (!keymap) {
    log_.error("The X server's keymap cannot be read");
    return nullptr;
  }
  server_->layout = std::make_unique<KeyboardLayout>(keymap, state.group);
  server_->layoutRules = std::move(rules);
  server_->layoutGroup = state.group;
  xkb_keymap_unref(keymap);
  publishLayout(server_->layout.get());
  return server_->layout.get();
}

void XTestInjector::publishLayout(const KeyboardLayout* layout) {
  auto strokes = layout ? std::make_shared<const LayoutStrokes>(strokesByUsage(*layout)) : nullptr;
  std::lock_guard lock(layoutLock_);
  publishedStrokes_ = std::move(strokes);
}

std::optional<LayoutStroke> XTestInjector::layoutStroke(char32_t character) {
  std::shared_ptr<const LayoutStrokes> strokes;
  {
    std::lock_guard lock(layoutLock_);
    strokes = publishedStrokes_;
    if (!std::exchange(layoutCheckPosted_, true)) {
      asio::post(context_, [this] {
        {
          std::lock_guard guard(layoutLock_);
          layoutCheckPosted_ = false;
        }
        if (ensureServer()) currentLayout();
      });
    }
  }
  if (!strokes) return std::nullopt;
  const auto found = strokes->find(character);
  if (found == strokes->end()) return std::nullopt;
  return found->second;
}

// ---- Keys ----

void XTestInjector::key(const KeyEvent& event) {
  const auto name = xkbKeyName(event.usage);
  if (!name) {
    log_.error("Tovu: no virtual key for HID usage 0x%X", unsigned(event.usage.rawValue));
    return;
  }
  if (!ensureServer()) return;
  const KeyboardLayout* layout = currentLayout();
  if (!layout) return;
  const auto key = layout->keycode(*name);
  if (!key || *key > 255) {  // the protocol's key codes are one byte
    log_.error("The keymap has no key %.*s", int(name->size()), name->data());
    return;
  }
  // On the Mac the flags of an event are its modifiers whatever the keyboard's state; here the
  // server's state is the only one, so it is made to match before the key goes out. A modifier
  // key changes that state itself.
  if (!isModifierUsage(event.usage)) applyModifiers(*layout, Modifiers::of(event.modifiers));
  sendKey(*key, event.isDown);
  xcb_flush(server_->c);
}

void XTestInjector::applyModifiers(const KeyboardLayout& layout, const Modifiers& wanted) {
  const auto state = server_->keyboardState();
  const bool level3Down = (state.depressed & layout.levelThreeMask()) != 0;
  struct Role {
    std::optional<bool> wanted;
    xkb_mod_mask_t mask;  // 0: the keymap has no such modifier
    std::optional<std::uint32_t> press;
    std::vector<std::optional<std::uint32_t>> release;
  };
  const Role roles[] = {
      {wanted.shift,
       layout.modifierMask(XKB_MOD_NAME_SHIFT),
       layout.shiftKey(),
       {layout.shiftKey(), layout.keycode("LFSH"), layout.keycode("RTSH")}},
      {wanted.control,
       layout.modifierMask(XKB_MOD_NAME_CTRL),
       layout.keycode("LCTL"),
       {layout.keycode("LCTL"), layout.keycode("RCTL")}},
      {wanted.alt && level3Down ? std::nullopt : std::optional(wanted.alt),
       layout.modifierMask(XKB_MOD_NAME_ALT),
       layout.keycode("LALT"),
       {layout.keycode("LALT"), layout.keycode("RALT")}},
      {wanted.super,
       layout.modifierMask(XKB_MOD_NAME_LOGO),
       layout.keycode("LWIN"),
       {layout.keycode("LWIN"), layout.keycode("RWIN")}},
      {wanted.level3,
       layout.levelThreeMask(),
       layout.optionKey(),
       {layout.optionKey(), layout.keycode("RALT")}},
  };
  for (const Role& role : roles) {
    if (!role.mask || !role.wanted) continue;
    const bool down = (state.depressed & role.mask) != 0;
    if (*role.wanted && !down && role.press) sendKey(*role.press, true);
    if (!*role.wanted && down) {
      for (const auto& key : role.release) {
        // The server drops the release of a key that is not down.
        if (key) sendKey(*key, false);
      }
    }
  }
  const xkb_mod_mask_t lock = layout.modifierMask(XKB_MOD_NAME_CAPS);
  const auto capsKey = layout.keycode("CAPS");
  if (wanted.capsLock && lock && capsKey && *wanted.capsLock != ((state.locked & lock) != 0)) {
    tapKey(*capsKey);
  }
}

void XTestInjector::sendKey(std::uint32_t keycode, bool isDown) {
  xcb_test_fake_input(server_->c, isDown ? XCB_KEY_PRESS : XCB_KEY_RELEASE, std::uint8_t(keycode),
                      XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  if (isDown) {
    heldKeys_[keycode] = owner_;
  } else {
    heldKeys_.erase(keycode);
  }
}

void XTestInjector::tapKey(std::uint32_t keycode) {
  sendKey(keycode, true);
  sendKey(keycode, false);
}

// ---- Text ----

void XTestInjector::type(const std::string& text) {
  if (!ensureServer()) return;
  const KeyboardLayout* layout = currentLayout();
  if (!layout) return;
  // Caps lock would turn the layout's letters around; it is off while typing, then as it was.
  const bool capsWasOn =
      (server_->keyboardState().locked & layout->modifierMask(XKB_MOD_NAME_CAPS)) != 0;
  std::size_t skipped = 0;
  for (const char32_t c : codePoints(text)) {
    if (isControl(c) && c != U'\n' && c != U'\t') {
      ++skipped;
      continue;
    }
    if (const auto stroke = layout->keystroke(c)) {
      Modifiers wanted{stroke->shift, false, false, false, stroke->option, false};
      applyModifiers(*layout, wanted);
      tapKey(stroke->keycode);
    } else {
      typeOnSpareKey(*layout, c);
    }
  }
  Modifiers none;
  if (capsWasOn) none.capsLock = true;
  applyModifiers(*layout, none);
  xcb_flush(server_->c);
  if (skipped > 0) log_.info("Tovu: %zu control characters of a text skipped", skipped);
}

// The character goes on a spare key, which keeps it until the session ends: an application reads
// a key stroke with the mapping it has when it gets round to it, and must not find the key empty
// again by then. When the spare keys run out, the one typed longest ago is given the character.
void XTestInjector::typeOnSpareKey(const KeyboardLayout& layout, char32_t character) {
  auto& inUse = server_->spareInUse;
  const auto& spare = layout.spareKeycodes();
  const xkb_keysym_t symbol = xkb_utf32_to_keysym(character);
  if (spare.empty() || symbol == XKB_KEY_NoSymbol) {
    log_.error("Tovu: no key for U+%04X in the current layout, skipped", unsigned(character));
    return;
  }
  auto given = std::ranges::find(inUse, character, &std::pair<char32_t, std::uint32_t>::first);
  std::uint32_t key;
  if (given != inUse.end()) {
    key = given->second;
    inUse.erase(given);
  } else {
    key = inUse.size() < spare.size() ? spare[inUse.size()] : inUse.front().second;
    if (inUse.size() == spare.size()) inUse.erase(inUse.begin());
    const xcb_keysym_t symbols[2] = {symbol, symbol};
    xcb_change_keyboard_mapping(server_->c, 1, xcb_keycode_t(key), 2, symbols);
  }
  inUse.emplace_back(character, key);
  server_->spareOwner = owner_;
  applyModifiers(layout, Modifiers{});
  tapKey(key);
}

void XTestInjector::restoreSpareKeys() {
  const xcb_keysym_t none[2] = {XCB_NO_SYMBOL, XCB_NO_SYMBOL};
  for (const auto& [character, key] : server_->spareInUse) {
    xcb_change_keyboard_mapping(server_->c, 1, xcb_keycode_t(key), 2, none);
  }
  server_->spareInUse.clear();
  server_->spareOwner.reset();
}

// ---- The pointer ----

void XTestInjector::pointer(const PointerEvent& event, const std::optional<DisplayInfo>& display) {
  if (!ensureServer()) return;
  // A change of the monitors that has come in is known before the move is placed.
  server_->x->dispatchQueuedEvents();
  if (const auto* move = std::get_if<pointer::moveRelative>(&event)) {
    moveRelative(move->dx, move->dy);
  } else if (const auto* absolute = std::get_if<pointer::moveAbsolute>(&event)) {
    if (display) moveAbsolute(*display, absolute->x, absolute->y);
  } else if (const auto* press = std::get_if<pointer::button>(&event)) {
    // X11 has no click count: a double click is two clicks in quick succession, as sent.
    button(press->button, press->isDown);
  } else if (const auto* wheel = std::get_if<pointer::scroll>(&event)) {
    scroll(wheel->dx, wheel->dy, wheel->phase);
  }
  xcb_flush(server_->c);
}

const XTestInjector::Screen& XTestInjector::screen() {
  if (!screenStale_) return screen_;
  // xcb closes a connection that sends a request of an extension the server lacks.
  const auto monitors =
      server_->randrBase ? queryMonitors(server_->c, server_->root) : std::vector<RandrMonitor>{};
  screen_ = {};
  if (!monitors.empty()) {
    const RandrMonitor& main = monitors[mainMonitorIndex(monitors)];
    screen_.origin = {double(main.x), double(main.y)};
    for (const DisplayInfo& d : displayListFromMonitors(monitors)) {
      screen_.displays.push_back(d.frame);
    }
  }
  // A server that told of no monitors (or refused) is asked again at the next use.
  screenStale_ = monitors.empty() && server_->randrBase;
  std::lock_guard lock(beliefLock_);
  origin_ = screen_.origin;
  return screen_;
}

void XTestInjector::resync(double now, bool report) {
  const Point origin = screen().origin;
  const XcbReply<xcb_query_pointer_reply_t> pointer(
      xcb_query_pointer_reply(server_->c, xcb_query_pointer(server_->c, server_->root), nullptr));
  std::optional<Point> real;
  if (pointer) real = Point{pointer->root_x - origin.x, pointer->root_y - origin.y};
  std::optional<Point> expected;
  bool replaced = false;
  {
    std::lock_guard lock(beliefLock_);
    expected = tracker_.position();
    replaced = tracker_.observe(real, now);
  }
  if (replaced && expected && report) {
    sessionLog_.info("cursor resync: real %.*f,%.*f vs expected %.*f,%.*f", 1, real->x, 1, real->y,
                     1, expected->x, 1, expected->y);
  }
}

std::optional<Point> XTestInjector::believedPosition() {
  std::lock_guard lock(beliefLock_);
  return tracker_.position();
}

void XTestInjector::record(Point target, double now) {
  std::lock_guard lock(beliefLock_);
  tracker_.record(target, now);
}

void XTestInjector::moveTo(Point target, Point origin) {
  const double x = std::round(target.x + origin.x), y = std::round(target.y + origin.y);
  xcb_test_fake_input(server_->c, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, server_->root,
                      std::int16_t(std::clamp(x, -32768.0, 32767.0)),
                      std::int16_t(std::clamp(y, -32768.0, 32767.0)), 0);
}

void XTestInjector::moveRelative(float dx, float dy) {
  if (!std::isfinite(dx) || !std::isfinite(dy)) {
    log_.error("A pointer move by a non-finite distance was dropped");
    return;
  }
  const double now = uptimeSeconds();
  resync(now, true);
  const Point base = believedPosition().value_or(Point{});
  const Point target =
      clampToDisplays({base.x + double(dx), base.y + double(dy)}, screen().displays);
  record(target, now);
  // The Mac's move events also carry the client's deltas, for games; X11's core events have none.
  moveTo(target, screen().origin);
}

void XTestInjector::moveAbsolute(const DisplayInfo& display, float x, float y) {
  auto unit = [](float v) { return std::isnan(v) ? 0.0 : std::clamp(double(v), 0.0, 1.0); };
  const DisplayFrame& f = display.frame;
  const Point target{f.x + unit(x) * f.width, f.y + unit(y) * f.height};
  const double now = uptimeSeconds();
  resync(now, true);
  record(target, now);
  moveTo(target, screen().origin);
}

void XTestInjector::button(PointerButton which, bool isDown) {
  resync(uptimeSeconds(), true);
  sendButton(buttonNumber(which), isDown);
}

void XTestInjector::sendButton(std::uint8_t number, bool isDown) {
  xcb_test_fake_input(server_->c, isDown ? XCB_BUTTON_PRESS : XCB_BUTTON_RELEASE, number,
                      XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  if (isDown) {
    heldButtons_[number] = owner_;
  } else {
    heldButtons_.erase(number);
  }
}

// X11 knows no scroll phases; momentum is more scrolling, as the client sends it. The wheel's
// buttons: 4 up, 5 down, 6 left, 7 right.
void XTestInjector::scroll(float dx, float dy, ScrollPhase phase) {
  if (phase == ScrollPhase::began) scrollRemainder_ = {};
  const auto pixels = HostScroll::toPixels(dx, dy, scrollRemainder_);
  if (!pixels) {
    log_.error("A scroll by a non-finite distance was dropped");
    return;
  }
  const HostScroll::Pixels clicks = HostScroll::toClicks(*pixels, scrollRemainder_);
  auto turn = [this](std::int32_t count, std::uint8_t positive, std::uint8_t negative) {
    const std::uint8_t wheel = count > 0 ? positive : negative;
    for (std::int32_t i = 0; i < std::abs(count); ++i) {
      sendButton(wheel, true);
      sendButton(wheel, false);
    }
  };
  turn(clicks.y, 4, 5);
  turn(clicks.x, 6, 7);
}

// ---- The end of a session ----

template <class Owned>
void XTestInjector::releaseHeld(Owned owned) {
  if (!server_ || xcb_connection_has_error(server_->c)) return;
  for (const auto& [key, holder] : std::map(heldKeys_)) {
    if (owned(holder)) sendKey(key, false);
  }
  for (const auto& [number, holder] : std::map(heldButtons_)) {
    if (owned(holder)) sendButton(number, false);
  }
  if (server_->spareOwner && owned(*server_->spareOwner)) restoreSpareKeys();
  xcb_flush(server_->c);
}

}  // namespace kelvaron::host
