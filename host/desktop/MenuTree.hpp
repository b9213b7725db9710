#pragma once

#include <vector>

#include "host/desktop/MenuSource.hpp"

namespace kelvaron::host {

// The device's tree from a raw one: separators become the next item's separatorBefore, and the
// tree keeps to the device's budgets of nodes and depth (`truncated` when it had to cut).
struct MenuConversion {
  std::vector<MenuNode> nodes;
  bool truncated = false;
};
MenuConversion toMenuNodes(const std::vector<RawMenuItem>& items);

}  // namespace kelvaron::host
