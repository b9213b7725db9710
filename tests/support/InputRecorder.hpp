#pragma once

// A window covering a test X server's screen, with the keyboard focus, that records the input it
// gets the way an application sees it: keys turned into text through the server's keymap of the
// moment (libxkbcommon, as toolkits do), buttons and pointer motion with their root positions.

#include <sys/socket.h>
#include <xcb/xcb.h>
// xcb's XKB header names a field after a C++ keyword.
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit
#include <xkbcommon/xkbcommon-x11.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace kelvaron::test {

class InputRecorder {
 public:
  struct Event {
    enum class Kind { keyPress, keyRelease, buttonPress, buttonRelease, motion };
    Kind kind = Kind::motion;
    std::uint8_t detail = 0;  // key code or button number
    std::uint16_t state = 0;  // modifiers and buttons down before the event
    std::int16_t x = 0, y = 0;
    std::string text;  // of a key press
  };

  // The window's connection stays a core client, which the server tells of every keymap change
  // (MappingNotify); the keymap is read through a second one that speaks XKB.
  explicit InputRecorder(const std::string& displayName)
      : c_(xcb_connect(displayName.c_str(), nullptr)),
        keymapConnection_(xcb_connect(displayName.c_str(), nullptr)) {
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c_)).data;
    xkb_x11_setup_xkb_extension(keymapConnection_, XKB_X11_MIN_MAJOR_XKB_VERSION,
                                XKB_X11_MIN_MINOR_XKB_VERSION, XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS,
                                nullptr, nullptr, nullptr, nullptr);
    context_ = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    loadKeymap();
    window_ = xcb_generate_id(c_);
    const std::uint32_t values[] = {
        1,  // override-redirect: no window manager is asked
        XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_KEY_RELEASE | XCB_EVENT_MASK_BUTTON_PRESS |
            XCB_EVENT_MASK_BUTTON_RELEASE | XCB_EVENT_MASK_POINTER_MOTION};
    xcb_create_window(c_, XCB_COPY_FROM_PARENT, window_, screen->root, 0, 0,
                      screen->width_in_pixels, screen->height_in_pixels, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                      XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
    xcb_map_window(c_, window_);
    xcb_set_input_focus(c_, XCB_INPUT_FOCUS_POINTER_ROOT, window_, XCB_CURRENT_TIME);
    sync();
    reader_ = std::thread([this] { read(); });
  }

  ~InputRecorder() {
    // Ends the reader's wait: xcb finds its connection closed. The window goes with it.
    ::shutdown(xcb_get_file_descriptor(c_), SHUT_RDWR);
    reader_.join();
    if (state_) xkb_state_unref(state_);
    if (keymap_) xkb_keymap_unref(keymap_);
    xkb_context_unref(context_);
    xcb_disconnect(keymapConnection_);
    xcb_disconnect(c_);
  }

  // Takes what has come once nothing more has for `quiet`.
  std::vector<Event> take(std::chrono::milliseconds quiet = std::chrono::milliseconds(300)) {
    std::unique_lock guard(lock_);
    for (std::size_t seen = events_.size();; seen = events_.size()) {
      if (!arrived_.wait_for(guard, quiet, [&] { return events_.size() > seen; })) break;
    }
    return std::exchange(events_, {});
  }

  // The text of the key presses among `events`.
  static std::string typed(const std::vector<Event>& events) {
    std::string text;
    for (const Event& e : events) {
      if (e.kind == Event::Kind::keyPress) text += e.text;
    }
    return text;
  }

  // Switches the keyboard to another layout of its keymap, as a layout switcher does.
  void lockKeyboardGroup(std::uint8_t group) {
    xcb_xkb_latch_lock_state(keymapConnection_, XCB_XKB_ID_USE_CORE_KBD, 0, 0, 1, group, 0, 0, 0);
    std::free(xcb_get_input_focus_reply(keymapConnection_, xcb_get_input_focus(keymapConnection_),
                                        nullptr));
  }

  // How many key codes of the core keymap carry `keysym`.
  std::size_t keycodesTyping(xcb_keysym_t keysym) {
    const xcb_setup_t* setup = xcb_get_setup(keymapConnection_);
    const auto count = std::uint8_t(setup->max_keycode - setup->min_keycode + 1);
    auto* reply = xcb_get_keyboard_mapping_reply(
        keymapConnection_, xcb_get_keyboard_mapping(keymapConnection_, setup->min_keycode, count),
        nullptr);
    if (!reply) return 0;
    const std::size_t levels = reply->keysyms_per_keycode;
    const std::span symbols(xcb_get_keyboard_mapping_keysyms(reply), count * levels);
    std::size_t found = 0;
    for (std::size_t key = 0; key < count; ++key) {
      found += std::ranges::count(symbols.subspan(key * levels, levels), keysym) > 0;
    }
    std::free(reply);
    return found;
  }

 private:
  void sync() { std::free(xcb_get_input_focus_reply(c_, xcb_get_input_focus(c_), nullptr)); }

  void loadKeymap() {
    const std::int32_t device = xkb_x11_get_core_keyboard_device_id(keymapConnection_);
    xkb_keymap* keymap = xkb_x11_keymap_new_from_device(context_, keymapConnection_, device,
                                                        XKB_KEYMAP_COMPILE_NO_FLAGS);
    if (!keymap) return;
    if (state_) xkb_state_unref(state_);
    if (keymap_) xkb_keymap_unref(keymap_);
    keymap_ = keymap;
    state_ = xkb_state_new(keymap_);
  }

  void read() {
    while (xcb_generic_event_t* event = xcb_wait_for_event(c_)) {
      record(*event);
      std::free(event);
    }
  }

  // Key, button and motion events share one layout; a mapping change reloads the keymap (a key
  // given another character, or a new layout).
  void record(const xcb_generic_event_t& event) {
    using enum Event::Kind;
    const std::uint8_t type = event.response_type & 0x7f;
    if (type == XCB_MAPPING_NOTIFY) loadKeymap();
    if (type < XCB_KEY_PRESS || type > XCB_MOTION_NOTIFY) return;
    const auto& input = reinterpret_cast<const xcb_key_press_event_t&>(event);
    constexpr Event::Kind kinds[] = {keyPress, keyRelease, buttonPress, buttonRelease, motion};
    Event e{kinds[type - XCB_KEY_PRESS], input.detail, input.state, input.root_x, input.root_y, {}};
    if (state_ && e.kind == keyPress) {
      xkb_state_update_mask(state_, input.state & 0xFF, 0, 0, 0, 0, 0);
      char buffer[64];
      xkb_state_key_get_utf8(state_, input.detail, buffer, sizeof buffer);
      e.text = buffer == std::string("\r") ? "\n" : buffer;  // Return, as an editor takes it
    }
    {
      std::lock_guard guard(lock_);
      events_.push_back(std::move(e));
    }
    arrived_.notify_all();
  }

  xcb_connection_t* c_;
  xcb_connection_t* keymapConnection_;
  xcb_window_t window_ = 0;
  xkb_context* context_ = nullptr;
  xkb_keymap* keymap_ = nullptr;  // touched by the reader only, after construction
  xkb_state* state_ = nullptr;
  std::thread reader_;
  std::mutex lock_;
  std::condition_variable arrived_;
  std::vector<Event> events_;
};

}  // namespace kelvaron::test
