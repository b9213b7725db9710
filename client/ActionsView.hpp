#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "kit/transport/Connection.hpp"

namespace kelvaron::client {

// What a viewer asks of the menus of the host's front application.
struct ActionsOptions {
  bool list = false;              // prints the menu tree once it comes
  std::vector<std::string> path;  // an action to carry out: its titles from the top level down
  bool wanted() const { return list || !path.empty(); }
};

// The host's actions for a person at a terminal, for the actions and action commands, which
// leave once the errand is done: the front application's menus printed as a tree, or one of its
// items carried out in the first tree's generation.
class ActionsView {
 public:
  ActionsView(Connection& connection, ActionsOptions options, std::ostream& out);

  // Once the host has greeted: asks it to watch the menus.
  void greeted();
  // False for a message that is not about actions.
  bool handle(const Message& message);
  bool done() const;
  // Why the errand failed, if it did; asked when leaving.
  std::optional<std::string> failure() const;

 private:
  void appActions(const msg::appActions& actions);
  void print(const std::vector<MenuNode>& nodes, int depth);

  Connection& connection_;
  const ActionsOptions options_;
  std::ostream& out_;
  bool listed_ = false, asked_ = false, answered_ = false;
  std::optional<std::string> failure_;
};

}  // namespace kelvaron::client
