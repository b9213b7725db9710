#pragma once

#include <optional>
#include <string>

#include "host/input/PointerTracker.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// Turns the client's keys, pointer and text into input of this computer, as local hardware would
// make it. One for the process, shared by every session: there is one pointer and one keyboard.
// Every operation may be called from any thread; events go out in the order of the calls.
class InputInjector {
 public:
  virtual ~InputInjector() = default;

  virtual void injectKey(const KeyEvent& event) = 0;
  // `display` is the one an absolute move is mapped onto; without it such a move does nothing.
  virtual void injectPointer(const PointerEvent& event,
                             const std::optional<DisplayInfo>& display) = 0;
  // Types UTF-8 text through the keyboard layout in force.
  virtual void injectText(const std::string& text) = 0;
  virtual std::optional<Point> currentPointerPosition() = 0;
  // Lets go of every key and button that this injector holds down, and undoes what it changed
  // of the keyboard; for the end of a session.
  virtual void releaseAll() = 0;
};

}  // namespace kelvaron::host
