// The classification of the focused element, and the rule that says whether the client's click
// put the focus there.

#include "host/desktop/TextFocus.hpp"

#include <gtest/gtest.h>

#include "host/session/TextFocusClick.hpp"

namespace kelvaron::host {
namespace {

using enum TextFocusKind;
using Role = AccessibleRole;

TextFocusElement element(Role role, bool editable, bool singleLine = false, bool multiLine = false,
                         std::map<std::string, std::string> attributes = {},
                         std::vector<std::string> icons = {}) {
  return {role,
          editable,
          singleLine,
          multiLine,
          std::move(attributes),
          std::move(icons),
          Rect{10, 20, 300, 30}};
}

TEST(TextFocus, TheFirstRowThatAppliesClassifiesAndOnlyTextKeepsTheFrame) {
  const Rect frame{10, 20, 300, 30};
  const std::string app = "org.example.App";
  struct Row {
    std::string bundleID;
    std::optional<TextFocusElement> element;
    TextFocus expected;
  };
  const std::vector<Row> rows = {
      // A terminal in front wins over whatever its tree says, and needs none.
      {"debian-xterm", std::nullopt, {true, "debian-xterm", terminal, std::nullopt}},
      {"alacritty", std::nullopt, {true, "alacritty", terminal, std::nullopt}},
      {"org.gnome.Terminal",
       element(Role::text, true, true),
       {true, "org.gnome.Terminal", terminal, frame}},
      {app, std::nullopt, {false, app, none, std::nullopt}},
      {app, element(Role::passwordText, true, true), {true, app, secure, frame}},
      // GTK 3's search entry, and browsers' search boxes.
      {app,
       element(Role::text, true, true, false, {}, {"edit-find-symbolic"}),
       {true, app, search, frame}},
      {app,
       element(Role::entry, true, true, false, {{"xml-roles", "searchbox"}}),
       {true, app, search, frame}},
      {app,
       element(Role::entry, true, true, false, {{"text-input-type", "search"}}),
       {true, app, search, frame}},
      {app,
       element(Role::text, true, true, false, {{"xml-roles", "textbox"}}, {"edit-clear"}),
       {true, app, field, frame}},
      {app, element(Role::entry, true, true), {true, app, field, frame}},
      {app, element(Role::comboBox, true), {true, app, field, frame}},
      {app, element(Role::spinButton, true, true), {true, app, field, frame}},
      {app, element(Role::text, true, false, true), {true, app, area, frame}},
      {app, element(Role::entry, true, false, true), {true, app, area, frame}},
      {app, element(Role::documentText, true, false, true), {true, app, area, frame}},
      {app, element(Role::other, true), {true, app, web, frame}},
      {app, element(Role::terminal, false), {true, app, terminal, frame}},
      // What cannot be typed into is no text, whatever its role.
      {app, element(Role::text, false, true), {false, app, none, std::nullopt}},
      {app, element(Role::documentText, false, false, true), {false, app, none, std::nullopt}},
      {app, element(Role::comboBox, false), {false, app, none, std::nullopt}},
      {app, element(Role::other, false), {false, app, none, std::nullopt}},
  };
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(classifyTextFocus(rows[i].bundleID, rows[i].element), rows[i].expected)
        << "row " << i;
  }
  EXPECT_FALSE(isTerminalApp("org.gnome.TextEditor"));
  EXPECT_FALSE(isTerminalApp(""));
}

TEST(TextFocus, OnlyARecentClickInsideAFieldOfANewKindMovedTheFocus) {
  const double now = 1000;
  const TextFocus field{true, "org.example.App", TextFocusKind::field, Rect{100, 100, 200, 30}};
  const TextFocus secureBefore{true, "org.example.App", TextFocusKind::secure, std::nullopt};
  const TextFocus nothingBefore{false, "org.example.App", TextFocusKind::none, std::nullopt};
  const auto click = [now](double x, double y, double age) {
    return std::optional(ClickRecord::Click{Point{x, y}, now - age});
  };
  struct Row {
    std::optional<TextFocus> previous;
    TextFocus next;
    std::optional<ClickRecord::Click> click;
    bool expected;
  };
  TextFocus unframed = field, empty = field, notText = field;
  unframed.frame.reset();
  empty.frame = Rect{100, 100, 0, 30};
  notText.isText = false;
  const std::vector<Row> rows = {
      {nothingBefore, field, click(150, 110, -0.1), false},  // after now: no click of this focus
      {nothingBefore, field, click(150, 110, 0), true},
      {nothingBefore, field, click(150, 110, 1.5), true},
      {nothingBefore, field, click(150, 110, 2), false},
      {nothingBefore, field, click(97, 110, 0.5), true},    // 3 points left of it
      {nothingBefore, field, click(303, 133, 0.5), true},   // 3 points right of and below it
      {nothingBefore, field, click(95, 110, 0.5), false},   // 5 points left of it
      {nothingBefore, field, click(150, 135, 0.5), false},  // 5 points below it
      {std::nullopt, field, click(150, 110, 0.5), true},
      {secureBefore, field, click(150, 110, 0.5), true},
      {field, field, click(150, 110, 0.5), false},  // already text of this kind
      {nothingBefore, field, std::nullopt, false},
      {nothingBefore, unframed, click(150, 110, 0.5), false},
      {nothingBefore, empty, click(100, 110, 0.5), false},
      {secureBefore, notText, click(150, 110, 0.5), false},
  };
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(focusedByClick(rows[i].previous, rows[i].next, rows[i].click, now), rows[i].expected)
        << "row " << i;
  }
}

}  // namespace
}  // namespace kelvaron::host
