#pragma once

// The coordinator on HTTPS, through libmicrohttpd over GnuTLS: a few threads of its own take the
// requests, each a POST with a small JSON body, and hand them to `CoordinatorCore`.

#include <cstdint>
#include <memory>
#include <string>

#include "coordinator/CoordinatorCore.hpp"

struct MHD_Daemon;

namespace kelvaron::coordinator {

class CoordinatorServer {
 public:
  struct Options {
    std::uint16_t port = 8443;  // 0: any free port
    std::string certificatePEM;
    std::string keyPEM;
    unsigned threads = 2;
  };

  // Listens on every address, IPv4 and IPv6. Throws std::runtime_error when it cannot.
  CoordinatorServer(std::shared_ptr<CoordinatorCore> core, Options options);
  ~CoordinatorServer();
  CoordinatorServer(const CoordinatorServer&) = delete;
  CoordinatorServer& operator=(const CoordinatorServer&) = delete;

  std::uint16_t port() const { return port_; }

 private:
  const std::shared_ptr<CoordinatorCore> core_;
  const Options options_;
  MHD_Daemon* daemon_ = nullptr;
  std::uint16_t port_ = 0;
};

}  // namespace kelvaron::coordinator
