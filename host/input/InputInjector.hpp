#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "host/input/PointerTracker.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// Who pressed a key or a button. Sessions share the one injector; each injects as an owner of its
// own, so that the end of one session lets go of its own keys and never of another's.
using InputOwner = std::uint64_t;

inline InputOwner newInputOwner() {
  static std::atomic<InputOwner> last{0};
  return ++last;
}

// Turns the client's keys, pointer and text into input of this computer, as local hardware would
// make it. One for the process, shared by every session: there is one pointer and one keyboard.
// Every operation may be called from any thread; events go out in the order of the calls.
class InputInjector {
 public:
  virtual ~InputInjector() = default;

  virtual void injectKey(InputOwner owner, const KeyEvent& event) = 0;
  // `display` is the one an absolute move is mapped onto; without it such a move does nothing.
  virtual void injectPointer(InputOwner owner, const PointerEvent& event,
                             const std::optional<DisplayInfo>& display) = 0;
  // Types UTF-8 text through the keyboard layout in force.
  virtual void injectText(InputOwner owner, const std::string& text) = 0;
  // Where the pointer is, in points from the main display's top left corner; none while the
  // computer's pointer cannot be reached. The pointer events asked for before the call are in it.
  virtual std::optional<Point> currentPointerPosition() = 0;
  // Lets go of every key and button that `owner` holds down, and undoes what it changed of the
  // keyboard; for the end of its session.
  virtual void release(InputOwner owner) = 0;
};

}  // namespace kelvaron::host
