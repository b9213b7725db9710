#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/video/CaptureGeometry.hpp"
#include "kit/wire/WireTypes.hpp"

// Whether the computer's keyboard focus is in a text field, and of which kind: the device raises
// its keyboard for one. The classification is pure; the source watches the computer.
namespace kelvaron::host {

struct TextFocus {
  bool isText = false;
  std::string bundleID;  // the application in front
  TextFocusKind kind = TextFocusKind::none;
  std::optional<Rect> frame;  // of the text element, in global desktop points
  friend bool operator==(const TextFocus&, const TextFocus&) = default;
};

// The accessibility roles that tell text apart (AT-SPI's, by their meaning).
enum class AccessibleRole {
  other,
  text,          // a text view or a toolkit's entry (GtkEntry, QLineEdit)
  entry,         // an entry as browsers expose it
  passwordText,  // an entry that hides what is typed
  comboBox,
  spinButton,
  documentText,  // a document of a word processor or an editor
  terminal,      // a terminal widget (VTE)
};

// The focused element of the application in front, as much as classifying needs.
struct TextFocusElement {
  AccessibleRole role = AccessibleRole::other;
  bool editable = false;
  bool singleLine = false;
  bool multiLine = false;
  // The toolkit's attributes (browsers say "xml-roles" = "searchbox" for a search box).
  std::map<std::string, std::string> attributes;
  // The names of its icon children: GTK 3's search entry has only an "edit-find-symbolic" icon
  // to tell it from another entry.
  std::vector<std::string> iconNames;
  std::optional<Rect> frame;
  friend bool operator==(const TextFocusElement&, const TextFocusElement&) = default;
};

// Whether the application (a desktop-file ID, or an executable's name) is a terminal emulator:
// those type into a grid that no accessibility tree shows as text.
bool isTerminalApp(std::string_view bundleID);

// The first that applies: a terminal in front; nothing focused; a password entry (secure); a
// search box (search); a single-line entry or an editable combo box (field); a multi-line text or
// an editable document (area); anything else editable (web); else no text. The frame is kept for
// text only.
TextFocus classifyTextFocus(std::string bundleID, std::optional<TextFocusElement> element);

// Watches the computer's keyboard focus: `start` hands the handler each new classification (from
// a thread of the source's own; the handler must not block) until the returned function is
// called. The stop function may be called from any thread, more than once; after it returns the
// handler is not called again.
class TextFocusSource {
 public:
  using Handler = std::function<void(TextFocus)>;
  using Stop = std::function<void()>;
  virtual ~TextFocusSource() = default;
  virtual Stop start(Handler handler) = 0;
};

}  // namespace kelvaron::host
