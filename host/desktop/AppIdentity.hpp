#pragma once

#include <cstdint>
#include <string>

namespace kelvaron::host {

// What a window tells of the application that made it.
struct WindowClassHints {
  std::string gtkApplicationID;     // _GTK_APPLICATION_ID
  std::string instance, className;  // WM_CLASS
};

// Who a process is to a person: its desktop entry where one is found.
struct AppIdentity {
  std::string bundleID;  // the desktop-file ID without ".desktop", else the executable's name
  std::string name;
  std::string bundlePath;  // the desktop file
  std::string executablePath;
  // Whether a desktop entry was looked for with a window's class at hand; a process identified
  // without one is looked at again when its windows tell more.
  bool settled = false;
};

// Looks for the desktop entry (through GIO's list of installed applications): the one named by
// the GTK application ID, else the one whose StartupWMClass is the class (or the instance), else
// the one whose file is named like the class or the instance, ignoring case.
AppIdentity identifyApp(std::int32_t pid, const WindowClassHints& hints);

// The process's name as the kernel keeps it (/proc/PID/comm, at most 15 bytes); empty when gone.
std::string processName(std::int32_t pid);

}  // namespace kelvaron::host
