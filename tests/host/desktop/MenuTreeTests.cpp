// The device's tree of actions from raw menu items: separators, the limits, finding an item.

#include "host/desktop/MenuTree.hpp"

#include <gtest/gtest.h>

#include <string>

namespace kelvaron::host {
namespace {

RawMenuItem item(std::string title, std::vector<RawMenuItem> children = {}) {
  return {.title = std::move(title), .enabled = true, .children = std::move(children)};
}
const RawMenuItem separator;

// A chain of menus, each the only item of the one before: "1" holds "2" and so on to `levels`.
RawMenuItem chain(int levels, int from = 1) {
  if (from == levels) return item(std::to_string(from));
  return item(std::to_string(from), {chain(levels, from + 1)});
}

// "title[children]" joined by spaces; "|" marks a separator before a node.
std::string shape(const std::vector<MenuNode>& nodes) {
  std::string text;
  for (const MenuNode& node : nodes) {
    if (!text.empty()) text += " ";
    if (node.separatorBefore) text += '|';
    text += node.title;
    if (node.children.empty()) continue;
    text += '[';
    text += shape(node.children);
    text += ']';
  }
  return text;
}

TEST(MenuTree, TurnsSeparatorsIntoMarksAndStopsAtTheLimits) {
  // 31 menus of 99 items: the first 30 fill the 3000 nodes, depth first.
  std::vector<RawMenuItem> wide;
  for (int m = 0; m < 31; ++m) {
    std::string title = "M";
    title += std::to_string(m);
    wide.push_back(item(std::move(title), std::vector<RawMenuItem>(99, item("x"))));
  }
  struct Case {
    const char* what;
    std::vector<RawMenuItem> items;
    std::string shape;
    bool truncated;
  };
  const Case cases[] = {
      {"separators lead, double and end",
       {separator, item("A"), separator, separator, item("B"),
        item("C", {separator, item("c1"), separator, item("c2"), separator}), separator},
       "A |B C[c1 |c2]",
       false},
      {"only separators", {separator, separator}, "", false},
      {"a menu of separators", {item("A", {separator})}, "A", false},
      {"four levels", {chain(4)}, "1[2[3[4]]]", false},
      {"six levels: the top and three below", {chain(6)}, "1[2[3[4]]]", true},
      {"3100 nodes", wide, "", true},
  };
  for (const Case& c : cases) {
    const MenuConversion converted = toMenuNodes(c.items);
    if (c.items.size() == wide.size()) {
      ASSERT_EQ(converted.nodes.size(), 30u);
      EXPECT_EQ(converted.nodes.back().children.size(), 99u);
    } else {
      EXPECT_EQ(shape(converted.nodes), c.shape) << c.what;
    }
    EXPECT_EQ(converted.truncated, c.truncated) << c.what;
  }
  wide.pop_back();
  EXPECT_FALSE(toMenuNodes(wide).truncated) << "exactly 3000 nodes";

  // What an item shows and its shortcut are carried as they are.
  RawMenuItem save{"Save", "s", kMenuControl | kMenuShift, false, MenuMark::check, {}};
  const MenuConversion one = toMenuNodes({item("File", {separator, save})});
  EXPECT_EQ(one.nodes[0].children[0],
            (MenuNode{"Save", "s", kMenuControl | kMenuShift, false, MenuMark::check, false, {}}));
}

TEST(MenuTree, FindsTheFirstNodeOfEachTitleDownThePath) {
  const std::vector<MenuNode> nodes =
      toMenuNodes({item("File", {item("New"), item("Open", {item("Recent")})}),
                   item("File", {item("Close")}), item("Edit", {item("Open/Close")})})
          .nodes;
  const auto at = [&](std::vector<std::string> path) -> std::string {
    const MenuNode* node = findMenuNode(nodes, path);
    return node ? node->title : "-";
  };
  EXPECT_EQ(at({"File", "Open", "Recent"}), "Recent");
  EXPECT_EQ(at({"File"}), "File");
  EXPECT_EQ(at({"File", "Close"}), "-");  // only the first "File" is looked in
  EXPECT_EQ(at({"Edit", "Open/Close"}), "Open/Close");
  EXPECT_EQ(at({"Edit", "Open", "Close"}), "-");
  EXPECT_EQ(at({"File", "New", "More"}), "-");
  EXPECT_EQ(at({}), "-");
}

}  // namespace
}  // namespace kelvaron::host
