#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/desktop/AppIdentity.hpp"
#include "host/desktop/RecentAppTracker.hpp"
#include "host/desktop/X11WindowReader.hpp"
#include "host/video/ChangeBroadcaster.hpp"
#include "host/x11/X11Connection.hpp"
#include "host/x11/X11ConnectionKeeper.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

// What the window system and the focus observer share: one X connection, its reader, the
// identities of the processes seen and the icons made. Everything in it runs on `strand`, the
// connection's events included.
struct X11WindowCore : std::enable_shared_from_this<X11WindowCore> {
  X11WindowCore(const Executor& executor, std::string displayName);
  ~X11WindowCore();

  // A process as a person knows it.
  struct Process {
    AppIdentity identity;
    std::string name;  // /proc/PID/comm
  };

  // The desktop and its windows as read at one moment, front to back.
  struct Snapshot {
    X11Desktop desktop;
    std::vector<X11Window> windows;
  };

  // A working connection, a new one at most once a second; false without one.
  bool ensureConnected();
  // Hands the events that came during the replies to the handler; notices a broken connection.
  void settle();
  // The managed clients, with the mapped override-redirect windows when `popups`, front to back;
  // nothing without a connection.
  std::optional<Snapshot> snapshot(bool popups);
  // The process of `window`, identified the first time it is seen (and again while its windows
  // did not tell its class).
  const Process& process(const X11Window& window);
  // The PNG of the icon of the process of `windows` (front to back), cached by bundle ID; a
  // process whose windows had none is not asked again.
  std::optional<Data> iconOf(std::int32_t pid, const std::vector<const X11Window*>& windows);
  // Reads the active window's owner and the clients' owners for the list of recent applications.
  void seedRecent();

  // One log line for a run of failures.
  void fail(const std::string& reason);

  const Executor strand;
  X11ConnectionKeeper link;
  ChangeBroadcaster appChanges;
  RecentAppTracker recent;

  std::unique_ptr<X11WindowReader> reader;  // of the link's connection
  std::uint64_t generation = 0;             // moves with each new connection
  std::map<std::int32_t, Process> processes;
  std::map<std::string, Data> icons;  // by bundle ID
  std::set<std::int32_t> iconless;    // processes whose windows had no icon
  bool everConnected = false;

 private:
  void handleEvent(const xcb_generic_event_t& event);
  void forget();
};

}  // namespace kelvaron::host
