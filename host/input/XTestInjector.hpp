#pragma once

#include <xcb/xcb.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/input/HostScroll.hpp"
#include "host/input/InputInjector.hpp"
#include "host/input/LayoutStroke.hpp"
#include "host/input/PointerTracker.hpp"
#include "host/x11/X11PointerProbe.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

class KeyboardLayout;

// Input through the X server's XTEST extension, as if from its own keyboard and mouse. Keys are
// found by their place on the keyboard in the server's keymap (libxkbcommon); text is typed
// through the layout in force, and a character the layout lacks is typed on a spare key that
// carries it for the moment. X11 has no click counts and no scroll phases: a double click is two
// clicks in quick succession, as the client sends them, and scrolling turns into wheel clicks.
// Calls return at once: the work runs on the injector's own thread, in the order of the calls.
// The pointer's position is kept by that thread as the server tells of motion (XInput 2 raw
// motion, whoever moves it, and RANDR changes of the main display); an application's warp, which
// the server tells nobody of, is caught by a probe that each look at the position reads and asks
// again without waiting. So a look costs neither a round trip nor a wait for that thread, and a
// still pointer that nobody looks at costs nothing.
class XTestInjector : public InputInjector {
 public:
  // While there is no server to ask, a look tries to connect at most this often.
  static constexpr double kRetry = 1.0;  // seconds

  // `displayName` empty: $DISPLAY. Connects at once, and again after the server went away;
  // events that find no server are dropped.
  explicit XTestInjector(std::string displayName);
  ~XTestInjector() override;

  void injectKey(InputOwner owner, const KeyEvent& event) override;
  void injectPointer(InputOwner owner, const PointerEvent& event,
                     const std::optional<DisplayInfo>& display) override;
  void injectText(InputOwner owner, const std::string& text) override;
  // Includes every pointer event asked for before the call; waits only while one is on its way.
  std::optional<Point> currentPointerPosition() override;
  void release(InputOwner owner) override;
  // How the keyboard layout in force types `character`, from any thread without waiting: the
  // layout as the injector's thread last read it (at connecting, and before each key and text),
  // which each question asks it to read again for the next.
  std::optional<LayoutStroke> layoutStroke(char32_t character);

 private:
  struct Server;
  struct Modifiers;

  template <class Work>
  void post(InputOwner owner, Work work);
  // On the injector's thread, as all below.
  void key(const KeyEvent& event);
  void type(const std::string& text);
  void pointer(const PointerEvent& event, const std::optional<DisplayInfo>& display);
  bool ensureServer();
  void ensureProbe();
  void dropServer();
  void handleEvent(const xcb_generic_event_t& event);
  void connectionLost(const std::string& reason);
  const KeyboardLayout* currentLayout();
  void publishLayout(const KeyboardLayout* layout);
  // Where the main display's top left corner lies in the root window, and the displays in points.
  struct Screen {
    Point origin;
    std::vector<DisplayFrame> displays;
  };
  // Read again only after the server told of a change, or when it had no monitors to tell of.
  const Screen& screen();
  // Reads the pointer from the server once for all that asked since the last reading.
  void schedulePointerRead();
  void readPointer();
  // On the caller's thread, under beliefLock_: what the probe found since the last look.
  void lookThroughProbe();
  // Asks the server where the pointer is; a reading elsewhere than the belief replaces it, which
  // is logged when `report`.
  void resync(double now, bool report);
  // Makes the belief (none without a server) what callers read; `applied`: the last pointer event
  // done.
  void publish(std::uint64_t applied = 0);
  std::optional<Point> believedPosition();
  void record(Point target, double now);
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
  bool reportedNoProbe_ = false;
  bool closing_ = false;  // no more connections
  Screen screen_;
  bool screenStale_ = true;
  // Who is injecting now: what goes down is theirs.
  InputOwner owner_ = 0;
  std::map<std::uint32_t, InputOwner> heldKeys_;
  std::map<std::uint8_t, InputOwner> heldButtons_;  // X button numbers
  HostScroll::Remainder scrollRemainder_;
  Logger log_{"io.dovka.tovu.host", "input"};
  Logger sessionLog_{"io.dovka.tovu.host", "session"};
  // The belief about the pointer and what callers read of it: kept by the injector's thread, and
  // corrected by the probe's readings on the callers' threads.
  std::mutex beliefLock_;
  std::condition_variable pointerApplied_;
  PointerTracker tracker_;
  std::optional<Point> published_;
  std::unique_ptr<X11PointerProbe> probe_;  // while connected to a server
  Point origin_;                            // of the main display, in the root window
  // Changes the injector's thread made to the belief: a probe's answer to a question asked before
  // the last of them is older than the belief.
  std::uint64_t beliefChanges_ = 0;
  std::uint64_t pointerAsked_ = 0, pointerDone_ = 0;  // pointer events, in the order of the calls
  // The layout's characters as the callers of layoutStroke read them.
  std::mutex layoutLock_;
  std::shared_ptr<const LayoutStrokes> publishedStrokes_;
  bool layoutCheckPosted_ = false;
  double checkedAt_ = -1e300;  // uptime of the last reading of the pointer, or attempt to connect
  bool readPosted_ = false;    // a reading is on its way
  // The injector's own thread, on which all of the above is touched, in the order of the calls.
  asio::io_context context_;
  asio::executor_work_guard<asio::io_context::executor_type> keepRunning_;
  std::thread thread_;
};

}  // namespace kelvaron::host
