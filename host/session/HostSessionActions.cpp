// The menu bar of the application in front as the device's tree of actions: read again at every
// change the menu source tells of and every interval, sent only when it changed, each new state
// numbered by a generation; and an action carried out by pressing its item, or, where that cannot
// be done, by typing its shortcut.

#include "host/desktop/MenuTree.hpp"
#include "host/session/HostSession.hpp"
#include "host/session/ShortcutKeys.hpp"

namespace kelvaron::host {

namespace {

// The device shows these to a person.
const std::string kNotAvailable = "Not available right now";
const std::string kNotFound = "Action not found";

std::string joined(const std::vector<std::string>& path) {
  std::string label;
  for (const std::string& title : path) label += (label.empty() ? "" : "/") + title;
  return label;
}

}  // namespace

// Reads are wanted at once, every interval and at every change the menu source tells of. They go
// through a stream of one element that keeps the newest, read by one consumer: a read that is
// due stands for every signal that comes before it starts.
void HostSession::watchActions(bool enabled) {
  stopActions();
  if (!enabled || !env_.menus) return;
  lastActions_.reset();
  log_.info("actions: watching");
  actionsWanted_ = std::make_shared<AsyncQueue<ChangeSignal>>();
  actionsWanted_->push({});
  actionsTasks_.push_back(
      Task::spawn(strand_, periodic(weak_from_this(), env_.sleep, env_.actionsRefreshInterval,
                                    &HostSession::wantActions)));
  actionsTasks_.push_back(Task::spawn(
      strand_, appChangeLoop(weak_from_this(), env_.menus->changes(), &HostSession::wantActions)));
  actionsTasks_.push_back(Task::spawn(
      strand_, appChangeLoop(weak_from_this(), actionsWanted_, &HostSession::refreshActions)));
}

asio::awaitable<void> HostSession::wantActions() {
  // Its pushers and its reader share the session's strand.
  if (actionsWanted_ && actionsWanted_->count() == 0) actionsWanted_->push({});
  co_return;
}

void HostSession::stopActions() {
  for (const Task& task : actionsTasks_) task.cancel();
  actionsTasks_.clear();
  actionsWanted_.reset();
}

asio::awaitable<void> HostSession::refreshActions() {
  const std::shared_ptr<MenuSource> menus = env_.menus;
  auto asking = menus->frontmost();
  const std::optional<FrontApp> front = co_await std::move(asking);
  if (!front) co_return;
  auto reading = menus->readMenus(front->pid);
  std::optional<std::vector<MenuNode>> tree = co_await std::move(reading);
  if (co_await isCancelled()) co_return;
  // A switch of application always gives a new generation.
  const bool kept =
      lastActions_ && lastActions_->pid == front->pid && lastActions_->bundleID == front->bundleID;
  if (!tree) {
    if (kept) co_return;  // the read failed: the tree the device has stands
    tree.emplace();
  }
  if (kept && lastActions_->menus == *tree) co_return;
  const std::uint32_t generation = ++actionsGeneration_;
  lastActions_ = SentActions{front->pid, front->bundleID, generation, *tree};
  log_.info("actions: %s gen %u, %zu items", front->name.c_str(), generation, tree->size());
  connection_->send(msg::appActions{front->bundleID, front->name, generation, std::move(*tree)});
}

// A press comes first: it needs no keyboard focus. A shortcut goes to whatever is in front when
// it is typed, so it is what remains when the item cannot be pressed; a disabled item is never
// tried. The generation guards only that fallback to the tree the device saw: the fresh tree
// decides the rest.
asio::awaitable<void> HostSession::performAction(const msg::performAction& request) {
  const std::vector<std::string> path = request.path;
  const std::string label = joined(path);
  const auto fail = [&](const std::string& text) {
    log_.info("actions: %s failed: %s", label.c_str(), text.c_str());
    connection_->send(msg::actionResult{false, text});
  };
  const std::shared_ptr<MenuSource> menus = env_.menus;
  if (!menus) co_return fail(kNotAvailable);
  auto asking = menus->frontmost();
  const std::optional<FrontApp> front = co_await std::move(asking);
  if (!front) co_return fail(kNotAvailable);
  auto reading = menus->readMenus(front->pid);
  const std::optional<std::vector<MenuNode>> fresh = co_await std::move(reading);

  // What the device was shown, read after the await: a refresh may have moved it meanwhile.
  struct Shortcut {
    std::string key;
    std::uint8_t modifiers = 0;
  };
  std::optional<Shortcut> kept;
  if (lastActions_ && lastActions_->pid == front->pid &&
      lastActions_->generation == request.generation) {
    if (const MenuNode* node = findMenuNode(lastActions_->menus, path)) {
      kept = Shortcut{node->key, node->modifiers};
    }
  }
  std::optional<Shortcut> current;
  if (fresh) {
    const MenuNode* node = findMenuNode(*fresh, path);
    if (node && !node->enabled) co_return fail(kNotAvailable);
    if (!node) {
      if (kept && sendShortcut(kept->key, kept->modifiers, label)) co_return;
      co_return fail(kNotFound);
    }
    current = Shortcut{node->key, node->modifiers};
  }

  auto pressing = menus->press(front->pid, path);
  const MenuPressResult result = co_await std::move(pressing);
  if (result == MenuPressResult::pressed) {
    connection_->send(msg::actionResult{true, ""});
    co_return;
  }
  const std::optional<Shortcut>& shortcut = fresh ? current : kept;
  if (shortcut && sendShortcut(shortcut->key, shortcut->modifiers, label)) co_return;
  fail(fresh ? kNotFound : kNotAvailable);
}

bool HostSession::sendShortcut(const std::string& key, std::uint8_t modifiers,
                               const std::string& label) {
  if (key.empty()) return false;
  const auto events = shortcutKeys(key, modifiers, env_.keyLayout);
  if (!events) return false;
  for (const KeyEvent& event : *events) env_.injector->injectKey(inputOwner_, event);
  log_.info("actions: %s sent as shortcut", label.c_str());
  connection_->send(msg::actionResult{true, ""});
  return true;
}

}  // namespace kelvaron::host
