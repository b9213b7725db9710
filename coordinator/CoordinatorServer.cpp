#include "coordinator/CoordinatorServer.hpp"

#include <arpa/inet.h>
#include <microhttpd.h>

#include <chrono>
#include <stdexcept>

#include "kit/async/Uptime.hpp"

namespace kelvaron::coordinator {

namespace {

// Every request body we take fits in this; a larger one is read to its end, kept nowhere, and
// refused (within the connection's timeout and memory limit).
constexpr std::size_t kMaxBody = 4096;

struct Request {
  std::string body;
  bool tooLarge = false;
};

MHD_Result reply(MHD_Connection* connection, const HttpAnswer& answer) {
  MHD_Response* response = MHD_create_response_from_buffer(
      answer.body.size(), const_cast<char*>(answer.body.data()), MHD_RESPMEM_MUST_COPY);
  MHD_add_response_header(response, "Content-Type", "application/json");
  const MHD_Result queued = MHD_queue_response(connection, unsigned(answer.status), response);
  MHD_destroy_response(response);
  return queued;
}

// The peer's address, without its port: what the rate limits count. An IPv6 peer counts by its
// /64, which one home or machine gets whole.
std::string sourceOf(MHD_Connection* connection) {
  const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  char text[INET6_ADDRSTRLEN] = "?";
  if (!info || !info->client_addr) return text;
  const sockaddr* address = info->client_addr;
  if (address->sa_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text, sizeof text);
  } else if (address->sa_family == AF_INET6) {
    in6_addr network = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    if (!IN6_IS_ADDR_V4MAPPED(&network)) std::fill(network.s6_addr + 8, network.s6_addr + 16, 0);
    inet_ntop(AF_INET6, &network, text, sizeof text);
  }
  return text;
}

MHD_Result answer(void* context, MHD_Connection* connection, const char* url, const char* method,
                  const char*, const char* upload, std::size_t* uploadSize, void** state) {
  auto& core = *static_cast<CoordinatorCore*>(context);
  if (!*state) {
    *state = new Request;
    return MHD_YES;
  }
  auto& request = *static_cast<Request*>(*state);
  if (*uploadSize > 0) {
    request.tooLarge = request.tooLarge || request.body.size() + *uploadSize > kMaxBody;
    if (!request.tooLarge) request.body.append(upload, *uploadSize);
    *uploadSize = 0;
    return MHD_YES;
  }
  if (std::string_view(method) != "POST") return reply(connection, {405, R"({"error":"method"})"});
  if (request.tooLarge) return reply(connection, {413, R"({"error":"too_large"})"});
  return reply(connection, core.handle(url, request.body, sourceOf(connection),
                                       std::chrono::system_clock::now(), uptimeSeconds()));
}

void completed(void*, MHD_Connection*, void** state, MHD_RequestTerminationCode) {
  delete static_cast<Request*>(*state);
  *state = nullptr;
}

}  // namespace

CoordinatorServer::CoordinatorServer(std::shared_ptr<CoordinatorCore> core, Options options)
    : core_(std::move(core)), options_(std::move(options)) {
  daemon_ = MHD_start_daemon(
      MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_DUAL_STACK | MHD_USE_TLS, options_.port, nullptr,
      nullptr, answer, core_.get(), MHD_OPTION_HTTPS_MEM_CERT, options_.certificatePEM.c_str(),
      MHD_OPTION_HTTPS_MEM_KEY, options_.keyPEM.c_str(), MHD_OPTION_THREAD_POOL_SIZE,
      options_.threads, MHD_OPTION_NOTIFY_COMPLETED, completed, nullptr,
      // A request is small: a slow or silent peer is let go, and none holds much memory.
      MHD_OPTION_CONNECTION_TIMEOUT, 10u, MHD_OPTION_CONNECTION_LIMIT, 512u,
      MHD_OPTION_PER_IP_CONNECTION_LIMIT, 32u, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
      std::size_t(32 * 1024), MHD_OPTION_END);
  if (!daemon_) {
    throw std::runtime_error("cannot serve HTTPS on port " + std::to_string(options_.port) +
                             " (is it taken, or the certificate or key not PEM?)");
  }
  port_ = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port;
}

CoordinatorServer::~CoordinatorServer() { MHD_stop_daemon(daemon_); }

}  // namespace kelvaron::coordinator
