#include "host/desktop/MenuReaders.hpp"

#include <algorithm>

namespace kelvaron::host {

int MenuBudget::timeoutMs() const {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline_ - std::chrono::steady_clock::now());
  return int(std::max<std::int64_t>(left.count(), 1));
}

bool MenuBudget::take() {
  if (itemsLeft_ > 0) {
    --itemsLeft_;
    return true;
  }
  itemsLeft_ = -1;
  exhausted_ = true;
  return false;
}

Variant callMethod(GDBusConnection* connection, const std::string& bus, const std::string& path,
                   const char* interface, const char* method, GVariant* parameters,
                   const char* replyType, MenuBudget& budget, std::string* error) {
  if (parameters) g_variant_ref_sink(parameters);
  const Variant owned(parameters);
  if (budget.exhausted() || budget.late()) {
    budget.exhaust();
    return nullptr;
  }
  GError* failure = nullptr;
  Variant reply(g_dbus_connection_call_sync(
      connection, bus.c_str(), path.c_str(), interface, method, parameters,
      replyType ? G_VARIANT_TYPE(replyType) : nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
      budget.timeoutMs(), nullptr, &failure));
  if (failure) {
    if (g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) || budget.late()) {
      budget.exhaust();
    } else if (error) {
      *error = failure->message;
    }
    g_error_free(failure);
    return nullptr;
  }
  if (budget.late()) budget.exhaust();
  return reply;
}

void tidySeparators(std::vector<RawMenuItem>& items) {
  std::vector<RawMenuItem> kept;
  kept.reserve(items.size());
  for (auto& item : items) {
    const bool separator = item.title.empty();
    if (separator && (kept.empty() || kept.back().title.empty())) continue;
    if (!separator) tidySeparators(item.children);
    kept.push_back(std::move(item));
  }
  if (!kept.empty() && kept.back().title.empty()) kept.pop_back();
  items = std::move(kept);
}

}  // namespace kelvaron::host
