#pragma once

#include <optional>
#include <string>

namespace kelvaron::client {

// The clipboard of the desktop the client runs on (the X11 CLIPBOARD selection of $DISPLAY),
// through the xclip program. Each call blocks for as long as xclip takes, at most a few seconds:
// call it off any executor that must stay responsive.
class LocalClipboard {
 public:
  // The clipboard's text; nothing when it holds none, or its owner does not answer.
  static std::optional<std::string> read();
  // Puts `text` on the clipboard, served by xclip in the background until something else is
  // copied. False when xclip cannot be run.
  static bool write(const std::string& text);
};

}  // namespace kelvaron::client
