#include "host/desktop/MenuTree.hpp"

#include <algorithm>

namespace kelvaron::host {

namespace {

struct Converter {
  int budget = kMenuNodeLimit;
  bool truncated = false;

  // `depth` 0 is the top level.
  std::vector<MenuNode> level(const std::vector<RawMenuItem>& items, int depth) {
    std::vector<MenuNode> nodes;
    bool separator = false;
    for (const RawMenuItem& item : items) {
      if (item.title.empty()) {
        separator = !nodes.empty();
        continue;
      }
      if (budget == 0) {
        truncated = true;
        break;
      }
      --budget;
      nodes.push_back(
          {item.title, item.key, item.modifiers, item.enabled, item.mark, separator, {}});
      separator = false;
      if (item.children.empty()) continue;
      if (depth == kMenuLevelsBelowTop) {
        truncated = true;
        continue;
      }
      nodes.back().children = level(item.children, depth + 1);
    }
    return nodes;
  }
};

}  // namespace

MenuConversion toMenuNodes(const std::vector<RawMenuItem>& items) {
  Converter converter;
  std::vector<MenuNode> nodes = converter.level(items, 0);
  return {std::move(nodes), converter.truncated};
}

const MenuNode* findMenuNode(const std::vector<MenuNode>& nodes,
                             const std::vector<std::string>& path) {
  const std::vector<MenuNode>* level = &nodes;
  const MenuNode* found = nullptr;
  for (const std::string& title : path) {
    const auto node = std::ranges::find(*level, title, &MenuNode::title);
    if (node == level->end()) return nullptr;
    found = &*node;
    level = &found->children;
  }
  return found;
}

}  // namespace kelvaron::host
