#include "host/desktop/BusNotifier.hpp"

#include <asio/post.hpp>

#include "host/desktop/BusConnection.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace {

constexpr int kCallTimeoutMs = 2000;

}  // namespace

struct BusNotifier::Core {
  explicit Core(const Executor& executor) : strand(makeStrand(executor)) {}

  void notify(const std::string& summary, const std::string& body) {
    GError* error = nullptr;
    if (!bus || g_dbus_connection_is_closed(bus.get())) bus = connectBus(nullptr, &error);
    GVariant* reply = nullptr;
    if (bus) {
      // Application name, replaced ID, icon, summary, body, actions, hints, expiry (the
      // service's default).
      reply = g_dbus_connection_call_sync(
          bus.get(), "org.freedesktop.Notifications", "/org/freedesktop/Notifications",
          "org.freedesktop.Notifications", "Notify",
          g_variant_new("(susss@as@a{sv}i)", "Tovu Host", 0u, "", summary.c_str(), body.c_str(),
                        g_variant_new_strv(nullptr, 0),
                        g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0), -1),
          G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, &error);
    }
    if (reply) {
      g_variant_unref(reply);
      warned = false;
    } else if (!warned) {
      // Once per run of failures: most machines without a desktop have no such service.
      log.info("no desktop notification: %s", error ? error->message : "no session bus");
      warned = true;
    }
    if (error) g_error_free(error);
  }

  Executor strand;
  Owned<GDBusConnection> bus;  // on the strand
  bool warned = false;
  Logger log{"io.dovka.tovu.host", "session"};
};

BusNotifier::BusNotifier(const Executor& executor) : core_(std::make_shared<Core>(executor)) {}

BusNotifier::~BusNotifier() = default;

void BusNotifier::notify(std::string summary, std::string body) {
  asio::post(core_->strand, [core = core_, summary = std::move(summary), body = std::move(body)] {
    core->notify(summary, body);
  });
}

}  // namespace kelvaron::host
