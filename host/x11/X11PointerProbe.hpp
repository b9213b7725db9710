#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kelvaron::host {

// Where an X server's pointer is, read without waiting on the server or waking any thread: each
// look takes the answer to the question the look before asked, and asks the next, so the server
// answers between looks. A caller that looks every round thus learns of a warp (which XInput 2
// reports to nobody) one round late. It has a connection of its own, watched by no event loop, so
// an answer wakes no thread. One caller at a time.
class X11PointerProbe {
 public:
  struct RootPoint {
    std::int16_t x = 0, y = 0;
    friend bool operator==(const RootPoint&, const RootPoint&) = default;
  };

  // `displayName` empty: $DISPLAY. Throws std::runtime_error with a text for a person.
  explicit X11PointerProbe(const std::string& displayName);
  ~X11PointerProbe();
  X11PointerProbe(const X11PointerProbe&) = delete;
  X11PointerProbe& operator=(const X11PointerProbe&) = delete;

  struct Answer {
    std::optional<RootPoint> pointer;  // in root coordinates; nothing when on another screen
    std::uint64_t mark = 0;            // what the look that asked was given
  };
  // The answer that came since the last look, if any; then, once answered, asks again, marked
  // `mark` (say, what the caller knew when it asked).
  std::optional<Answer> look(std::uint64_t mark);
  bool broken() const { return xcb_connection_has_error(connection_) != 0; }

 private:
  xcb_connection_t* connection_;
  xcb_window_t root_;
  struct Question {
    unsigned sequence = 0;
    std::uint64_t mark = 0;
  };
  std::optional<Question> asked_;  // the one on its way
};

}  // namespace kelvaron::host
