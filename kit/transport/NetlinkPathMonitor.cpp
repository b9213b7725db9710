#include "kit/transport/NetlinkPathMonitor.hpp"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <asio/buffer.hpp>
#include <asio/generic/raw_protocol.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <cstring>
#include <filesystem>
#include <optional>
#include <vector>

#include "kit/log/Logger.hpp"
#include "kit/transport/InterfaceTable.hpp"

namespace kelvaron {

namespace {

using Socket = asio::generic::raw_protocol::socket;
using Endpoint = asio::generic::raw_protocol::endpoint;

const Logger& monitorLog() {
  static const Logger log("io.dovka.tovu.host", "transport");
  return log;
}

Endpoint netlinkEndpoint(std::uint32_t groups) {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  return Endpoint(&address, sizeof address, NETLINK_ROUTE);
}

Socket openRouteSocket(const Executor& strand) {
  Socket socket(strand, asio::generic::raw_protocol(AF_NETLINK, NETLINK_ROUTE));
  socket.bind(netlinkEndpoint(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR));
  // Room for a burst of notifications; an overflow all the same costs a fresh dump.
  socket.set_option(asio::socket_base::receive_buffer_size(1 << 20));
  return socket;
}

// Wireless drivers give their interface a "wireless" or "phy80211" entry in sysfs.
bool isWirelessInterface(const std::string& name) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
    return false;
  }
  const std::filesystem::path folder = std::filesystem::path("/sys/class/net") / name;
  std::error_code ignored;
  return std::filesystem::exists(folder / "wireless", ignored) ||
         std::filesystem::exists(folder / "phy80211", ignored);
}

bool isFromKernel(const Endpoint& sender) {
  sockaddr_nl address{};
  std::memcpy(&address, sender.data(), std::min<std::size_t>(sender.size(), sizeof address));
  return address.nl_pid == 0;
}

// Reads the kernel's interfaces and addresses, then follows its notifications, publishing each
// new path. Lives in its task's coroutine frame.
class RouteWatcher {
 public:
  RouteWatcher(Socket socket, std::shared_ptr<AsyncQueue<NetworkPath>> paths)
      : socket_(std::move(socket)), paths_(std::move(paths)) {}

  asio::awaitable<void> run() {
    for (;;) {
      table_.clear();
      Event event = co_await dump(RTM_GETLINK);
      if (event == Event::requestEnded) event = co_await dump(RTM_GETADDR);
      if (event == Event::requestEnded) {
        publishIfChanged();
        event = co_await follow();
      }
      if (event == Event::ended) break;
      monitorLog().info("network notifications overflowed; reading the interfaces afresh");
    }
    paths_->finish();
  }

 private:
  enum class Event { notification, requestEnded, overrun, ended };

  // One datagram from the kernel, applied to the table.
  asio::awaitable<Event> receive() {
    for (;;) {
      // A stop that came while a datagram was being applied finds no wait to end.
      if (co_await isCancelled()) co_return Event::ended;
      Endpoint sender;
      asio::error_code error;
      const std::size_t size = co_await socket_.async_receive_from(
          asio::buffer(buffer_), sender, asio::redirect_error(asio::use_awaitable, error));
      if (error == asio::error::no_buffer_space) co_return Event::overrun;
      if (error) co_return ended(error);
      if (!isFromKernel(sender)) continue;
      const bool endsRequest = table_.apply(std::span(buffer_).first(size));
      co_return endsRequest ? Event::requestEnded : Event::notification;
    }
  }

  Event ended(const asio::error_code& error) const {
    if (error != asio::error::operation_aborted) {
      monitorLog().error("network path watch failed: %s", error.message().c_str());
    }
    return Event::ended;
  }

  // Asks for every link or every address and applies the answer, with whatever notifications come
  // meanwhile.
  asio::awaitable<Event> dump(std::uint16_t type) {
    struct {
      nlmsghdr header;
      rtgenmsg body;
    } request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtgenmsg));
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = ++sequence_;
    request.body.rtgen_family = AF_UNSPEC;
    asio::error_code error;
    socket_.send_to(asio::buffer(&request, request.header.nlmsg_len), netlinkEndpoint(0), 0, error);
    if (error) co_return ended(error);
    for (;;) {
      const Event event = co_await receive();
      if (event != Event::notification) co_return event;
    }
  }

  asio::awaitable<Event> follow() {
    for (;;) {
      const Event event = co_await receive();
      if (event == Event::overrun || event == Event::ended) co_return event;
      publishIfChanged();
    }
  }

  void publishIfChanged() {
    NetworkPath path = table_.path();
    if (published_ == path) return;
    published_ = path;
    paths_->push(std::move(path));
  }

  Socket socket_;
  std::shared_ptr<AsyncQueue<NetworkPath>> paths_;
  InterfaceTable table_{isWirelessInterface};
  std::optional<NetworkPath> published_;
  std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(65536);
  std::uint32_t sequence_ = 0;
};

asio::awaitable<void> watch(std::unique_ptr<RouteWatcher> watcher) { co_await watcher->run(); }

}  // namespace

NetlinkPathMonitor::NetlinkPathMonitor(const Executor& strand)
    : paths_(std::make_shared<AsyncQueue<NetworkPath>>()) {
  task_ =
      Task::spawn(strand, watch(std::make_unique<RouteWatcher>(openRouteSocket(strand), paths_)));
}

NetlinkPathMonitor::~NetlinkPathMonitor() { stop(); }

void NetlinkPathMonitor::stop() {
  task_.cancel();
  paths_->finish();
}

}  // namespace kelvaron
