#pragma once

#include <memory>
#include <string>

#include "host/desktop/TextFocus.hpp"
#include "host/desktop/WindowSystem.hpp"
#include "kit/async/Task.hpp"

namespace kelvaron::host {

// The keyboard focus of the application in front, through the accessibility bus (AT-SPI).
//
// `apps` says which application is in front; it is asked on `executor` when observation starts
// and at each of its changes. After each change of the application in front, and each focus event
// of that application, the focused element is read 0.1 s later (a burst costs one read) and
// classified. Text that loses the focus to nothing is told so only when a read 0.4 s later agrees,
// so that a switch of windows does not lower the device's keyboard for a moment. A terminal in
// front is known by its bundle ID alone, so terminals are reported without the accessibility bus
// too (xterm never joins it).
//
// libatspi runs on a GLib main loop of this object's own thread, where every call into it is
// made, each bounded by a timeout; a read stops at the first call that fails (an application that
// hangs answers none) and counts as no element. Accessibility that is off in the session
// (org.a11y.Status IsEnabled) is turned on while anything observes, since toolkits such as Qt
// and Chromium build their trees only then, and turned off again afterwards if it was this
// object that turned it on. libatspi is the process's: make one of these for the process.
class AtspiTextFocusSource : public TextFocusSource {
 public:
  // `displayName` (empty: $DISPLAY) is the X display whose main monitor the frames are measured
  // from; the accessibility bus is the session's.
  AtspiTextFocusSource(const Executor& executor, std::shared_ptr<AppProviding> apps,
                       std::string displayName);
  ~AtspiTextFocusSource() override;
  AtspiTextFocusSource(const AtspiTextFocusSource&) = delete;
  AtspiTextFocusSource& operator=(const AtspiTextFocusSource&) = delete;

  Stop start(Handler handler) override;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace kelvaron::host
