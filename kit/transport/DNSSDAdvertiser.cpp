#include "kit/transport/DNSSDAdvertiser.hpp"

#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/simple-watch.h>

#include <asio/dispatch.hpp>
#include <optional>

#include "kit/log/Logger.hpp"
#include "kit/transport/AvahiConnection.hpp"
#include "kit/transport/HostTXTRecord.hpp"

namespace kelvaron {

// The service's entry group, on the strand. The group is freed with the client, and with it the
// service is withdrawn.
class DNSSDAdvertiser::Publication {
 public:
  Publication(std::string name, std::uint16_t port, Data txtRecord)
      : name_(std::move(name)), port_(port), txtRecord_(std::move(txtRecord)) {}

  void start(const Executor& strand) {
    connection_.emplace(strand, log_, [this](AvahiClient* client, AvahiClientState state) {
      onClientState(client, state);
    });
  }

  void stop() {
    connection_.reset();
    group_ = nullptr;
  }

 private:
  void onClientState(AvahiClient* client, AvahiClientState state) {
    switch (state) {
      case AVAHI_CLIENT_S_RUNNING:
        publish(client);
        break;
      case AVAHI_CLIENT_S_REGISTERING:
      case AVAHI_CLIENT_S_COLLISION:
        // The daemon is settling its own host name; the service is added again once it runs.
        if (group_) avahi_entry_group_reset(group_);
        break;
      case AVAHI_CLIENT_FAILURE:
        group_ = nullptr;
        break;
      case AVAHI_CLIENT_CONNECTING:
        break;
    }
  }

  void publish(AvahiClient* client) {
    if (!group_) group_ = avahi_entry_group_new(client, onGroupState, this);
    if (!group_) return fail("cannot make an entry group", avahi_client_errno(client));
    if (!avahi_entry_group_is_empty(group_)) return;
    int result;
    while ((result = addService()) == AVAHI_ERR_COLLISION) takeAlternativeName();
    if (result == AVAHI_OK) result = avahi_entry_group_commit(group_);
    if (result != AVAHI_OK) fail("cannot publish", result);
  }

  int addService() {
    AvahiStringList* txt = nullptr;
    if (!txtRecord_.empty()) avahi_string_list_parse(txtRecord_.data(), txtRecord_.size(), &txt);
    const int result = avahi_entry_group_add_service_strlst(
        group_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, AvahiPublishFlags{}, name_.c_str(),
        kHostServiceType, nullptr, nullptr, port_, txt);
    avahi_string_list_free(txt);
    return result;
  }

  static void onGroupState(AvahiEntryGroup* group, AvahiEntryGroupState state, void* userdata) {
    auto& self = *static_cast<Publication*>(userdata);
    switch (state) {
      case AVAHI_ENTRY_GROUP_ESTABLISHED:
        self.log_.info("published \"%s\" on UDP %hu", self.name_.c_str(), self.port_);
        break;
      case AVAHI_ENTRY_GROUP_COLLISION:
        // Another machine on the network has the name.
        self.takeAlternativeName();
        avahi_entry_group_reset(group);
        self.publish(avahi_entry_group_get_client(group));
        break;
      case AVAHI_ENTRY_GROUP_FAILURE:
        self.fail("publication failed", avahi_client_errno(avahi_entry_group_get_client(group)));
        break;
      case AVAHI_ENTRY_GROUP_UNCOMMITED:
      case AVAHI_ENTRY_GROUP_REGISTERING:
        break;
    }
  }

  void takeAlternativeName() {
    char* alternative = avahi_alternative_service_name(name_.c_str());
    log_.info("service name \"%s\" is taken; trying \"%s\"", name_.c_str(), alternative);
    name_ = alternative;
    avahi_free(alternative);
  }

  void fail(const char* what, int error) const {
    log_.error("%s \"%s\": %s", what, name_.c_str(), avahi_strerror(error));
  }

  std::string name_;
  const std::uint16_t port_;
  const Data txtRecord_;
  Logger log_{"io.dovka.tovu.transport", "listener"};
  std::optional<AvahiConnection> connection_;
  AvahiEntryGroup* group_ = nullptr;
};

DNSSDAdvertiser::DNSSDAdvertiser(const Executor& strand, std::string name, std::uint16_t port,
                                 std::optional<UUID> hostID)
    : strand_(strand),
      publication_(
          std::make_shared<Publication>(std::move(name), port, HostTXTRecord::encode(hostID))) {
  asio::dispatch(strand_,
                 [publication = publication_, strand = strand_] { publication->start(strand); });
}

DNSSDAdvertiser::~DNSSDAdvertiser() {
  asio::dispatch(strand_, [publication = std::move(publication_)] { publication->stop(); });
}

// A client that does not wait for the daemon is made only when the daemon answers on the system
// bus; without a bus, or with no daemon on it, the making fails at once.
std::optional<std::string> DNSSDAdvertiser::daemonProblem() {
  const std::unique_ptr<AvahiSimplePoll, decltype(&avahi_simple_poll_free)> poll(
      avahi_simple_poll_new(), avahi_simple_poll_free);
  int error = 0;
  AvahiClient* client = avahi_client_new(avahi_simple_poll_get(poll.get()), AvahiClientFlags{},
                                         nullptr, nullptr, &error);
  if (client) {
    avahi_client_free(client);
    return std::nullopt;
  }
  if (error == AVAHI_ERR_NO_DAEMON || error == AVAHI_ERR_DBUS_ERROR) {
    return "avahi-daemon is not running (start it with: systemctl start avahi-daemon)";
  }
  return std::string("avahi-daemon cannot be reached: ") + avahi_strerror(error);
}

}  // namespace kelvaron
