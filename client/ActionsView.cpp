#include "client/ActionsView.hpp"

#include <ostream>

namespace kelvaron::client {

namespace {

// The keys that type no character, by the characters a menu gives them.
std::string keyName(const std::string& key) {
  static const std::pair<const char*, const char*> named[] = {
      {"\r", "Return"},      {"\n", "Return"},   {"\x1B", "Esc"},       {"\b", "Backspace"},
      {"\x7F", "Backspace"}, {"\t", "Tab"},      {" ", "Space"},        {"\uF700", "Up"},
      {"\uF701", "Down"},    {"\uF702", "Left"}, {"\uF703", "Right"},   {"\uF728", "Delete"},
      {"\uF729", "Home"},    {"\uF72B", "End"},  {"\uF72C", "Page Up"}, {"\uF72D", "Page Down"},
      {"\uF704", "F1"},      {"\uF705", "F2"},   {"\uF706", "F3"},      {"\uF707", "F4"},
      {"\uF708", "F5"},      {"\uF709", "F6"},   {"\uF70A", "F7"},      {"\uF70B", "F8"},
      {"\uF70C", "F9"},      {"\uF70D", "F10"},  {"\uF70E", "F11"},     {"\uF70F", "F12"}};
  for (const auto& [character, name] : named) {
    if (key == character) return name;
  }
  if (key.size() == 1 && key[0] >= 'a' && key[0] <= 'z') return std::string(1, char(key[0] - 32));
  return key;
}

// "Ctrl+Shift+N", as Linux menus show shortcuts.
std::string shortcut(const MenuNode& node) {
  std::string text;
  for (const auto& [bit, name] :
       {std::pair{kMenuControl, "Ctrl+"}, std::pair{kMenuOption, "Alt+"},
        std::pair{kMenuShift, "Shift+"}, std::pair{kMenuCommand, "Super+"}}) {
    if (node.modifiers & bit) text += name;
  }
  return text + keyName(node.key);
}

const char* markOf(MenuMark mark) {
  switch (mark) {
    case MenuMark::check:
      return "[x] ";
    case MenuMark::mixed:
      return "[-] ";
    case MenuMark::bullet:
      return "(*) ";
    case MenuMark::none:
      break;
  }
  return "";
}

// A title as a terminal can show it: an application's control characters (an escape sequence
// among them) become U+FFFD rather than acting on the terminal.
std::string printable(const std::string& title) {
  std::string shown;
  for (const char c : title) {
    if ((unsigned char)c < 0x20 || c == 0x7F) {
      shown += "\uFFFD";
    } else {
      shown += c;
    }
  }
  return shown;
}

std::string joined(const std::vector<std::string>& path) {
  std::string label;
  for (const std::string& title : path) label += (label.empty() ? "" : " > ") + title;
  return label;
}

}  // namespace

ActionsView::ActionsView(Connection& connection, ActionsOptions options, std::ostream& out)
    : connection_(connection), options_(std::move(options)), out_(out) {}

void ActionsView::greeted() {
  if (options_.wanted()) connection_.send(msg::watchActions{true});
}

bool ActionsView::handle(const Message& message) {
  if (const auto* actions = std::get_if<msg::appActions>(&message)) {
    appActions(*actions);
  } else if (const auto* result = std::get_if<msg::actionResult>(&message)) {
    if (!asked_ || answered_) return true;
    answered_ = true;
    if (result->ok) {
      out_ << "Done" << std::endl;
    } else {
      out_ << "Failed: " << result->detail << std::endl;
      failure_ = joined(options_.path) + " failed: " + result->detail;
    }
  } else {
    return false;
  }
  return true;
}

bool ActionsView::done() const {
  if (!options_.wanted()) return false;
  return (!options_.list || listed_) && (options_.path.empty() || answered_);
}

std::optional<std::string> ActionsView::failure() const {
  if (failure_) return failure_;
  if (options_.wanted() && !listed_ && !asked_) return "the host sent no menus";
  if (asked_ && !answered_) return "the host did not answer the action";
  return std::nullopt;
}

void ActionsView::appActions(const msg::appActions& actions) {
  if (options_.list && !listed_) {
    listed_ = true;
    out_ << "Actions of " << printable(actions.appName) << " (" << printable(actions.bundleID)
         << "), generation " << actions.generation << ": " << actions.menu.size() << " menus"
         << std::endl;
    print(actions.menu, 1);
  }
  if (!options_.path.empty() && !asked_) {
    asked_ = true;
    out_ << "Performing " << joined(options_.path) << " in " << printable(actions.appName)
         << std::endl;
    connection_.send(msg::performAction{actions.generation, options_.path});
  }
}

void ActionsView::print(const std::vector<MenuNode>& nodes, int depth) {
  const std::string indent(std::size_t(depth) * 2, ' ');
  for (const MenuNode& node : nodes) {
    if (node.separatorBefore) out_ << indent << "----" << std::endl;
    out_ << indent << markOf(node.mark) << printable(node.title);
    if (!node.key.empty()) out_ << "  " << printable(shortcut(node));
    if (!node.enabled) out_ << "  (disabled)";
    out_ << std::endl;
    print(node.children, depth + 1);
  }
}

}  // namespace kelvaron::client
