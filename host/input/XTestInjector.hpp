#pragma once

#include <cstdint>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/input/HostScroll.hpp"
#include "host/input/InputInjector.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

class KeyboardLayout;

// Input through the X server's XTEST extension, as if from its own keyboard and mouse. Keys are
// found by their place on the keyboard in the server's keymap (libxkbcommon); text is typed
// through the layout in force, and a character the layout lacks is typed on a spare key that
// carries it for the moment. X11 has no click counts and no scroll phases: a double click is two
// clicks in quick succession, as the client sends them, and scrolling turns into wheel clicks.
// Calls return at once: the work runs on the injector's own thread, in the order of the calls.
class XTestInjector : public InputInjector {
 public:
  // `displayName` empty: $DISPLAY. Connects at the first event, and again after the server went
  // away; until then events are dropped.
  explicit XTestInjector(std::string displayName);
  ~XTestInjector() override;

  void injectKey(InputOwner owner, const KeyEvent& event) override;
  void injectPointer(InputOwner owner, const PointerEvent& event,
                     const std::optional<DisplayInfo>& display) override;
  void injectText(InputOwner owner, const std::string& text) override;
  std::optional<Point> currentPointerPosition() override;
  void release(InputOwner owner) override;

 private:
  struct Server;
  struct Modifiers;

  // On the injector's thread, as all below.
  template <class Work>
  void post(InputOwner owner, Work work);
  void key(const KeyEvent& event);
  void type(const std::string& text);
  void pointer(const PointerEvent& event, const std::optional<DisplayInfo>& display);
  bool ensureServer();
  const KeyboardLayout* currentLayout();
  // Where the main display's top left corner lies in the root window, and the displays in points.
  struct Screen {
    Point origin;
    std::vector<DisplayFrame> displays;
  };
  Screen readScreen();
  void resync(double now, Point origin);
  void moveTo(Point target, Point origin);
  void moveRelative(float dx, float dy);
  void moveAbsolute(const DisplayInfo& display, float x, float y);
  void button(PointerButton which, bool isDown);
  void scroll(float dx, float dy, ScrollPhase phase);
  void applyModifiers(const KeyboardLayout& layout, const Modifiers& wanted);
  void typeOnSpareKey(const KeyboardLayout& layout, char32_t character);
  void restoreSpareKeys();
  template <class Owned>
  void releaseHeld(Owned owned);
  void sendKey(std::uint32_t keycode, bool isDown);
  void tapKey(std::uint32_t keycode);
  void sendButton(std::uint8_t number, bool isDown);

  const std::string displayName_;
  // Owned by the injector's thread.
  std::unique_ptr<Server> server_;
  bool reportedNoServer_ = false;  // one log line for a run of failed connections
  PointerTracker tracker_;
  // Who is injecting now: what goes down is theirs.
  InputOwner owner_ = 0;
  std::map<std::uint32_t, InputOwner> heldKeys_;
  std::map<std::uint8_t, InputOwner> heldButtons_;  // X button numbers
  HostScroll::Remainder scrollRemainder_;
  Logger log_{"io.dovka.tovu.host", "input"};
  Logger sessionLog_{"io.dovka.tovu.host", "session"};
  // The injector's own thread, on which all of the above is touched, in the order of the calls.
  asio::io_context context_;
  asio::executor_work_guard<asio::io_context::executor_type> keepRunning_;
  std::thread thread_;
};

}  // namespace kelvaron::host
