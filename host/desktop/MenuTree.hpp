#pragma once

#include <string>
#include <vector>

#include "host/desktop/MenuSource.hpp"
#include "kit/wire/WireTypes.hpp"

// The device's tree of actions from the raw items a menu reader gives, and an item found in it.
namespace kelvaron::host {

// Limits of the device's tree, shared over the whole of it: nodes, and levels below the top —
// four levels in all, as many as the wire carries.
inline constexpr int kMenuNodeLimit = 3000;
inline constexpr int kMenuLevelsBelowTop = 3;

struct MenuConversion {
  std::vector<MenuNode> nodes;
  bool truncated = false;  // a limit left items out
};

// Items in order, depth first, each level's separators (items without a title) turned into the
// `separatorBefore` of the next titled item of that level; a separator that leads or ends its
// level, or follows another, adds nothing.
MenuConversion toMenuNodes(const std::vector<RawMenuItem>& items);

// At each level the first node titled as the path's element; nothing for an empty path or a
// title not there.
const MenuNode* findMenuNode(const std::vector<MenuNode>& nodes,
                             const std::vector<std::string>& path);

}  // namespace kelvaron::host
