// The coordinator's token requests per second, on SQLite and on PostgreSQL: tovu-coordinator as a
// process on HTTPS, a few hundred enrolled hosts, and clients asking for tokens as hosts do, each
// request a connection of its own. Prints one line per store.
//
//   build/release/bench/coordinator_bench [seconds] [clients]

#include <atomic>
#include <iostream>
#include <thread>

#include "kit/relay/CoordinatorClient.hpp"
#include "kit/relay/CoordinatorError.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/CoordinatorProcess.hpp"
#include "tests/support/TempDirectory.hpp"

using namespace kelvaron;
using namespace std::chrono_literals;

namespace {

// Token requests of `clients` hosts at once for `seconds`; how many were answered per second.
double tokensPerSecond(const test::CoordinatorProcess& coordinator, double seconds, int clients) {
  const std::string url = "https://127.0.0.1:" + std::to_string(coordinator.port());
  std::atomic<long> answered{0}, failed{0};
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  std::vector<std::thread> threads;
  for (int i = 0; i < clients; ++i) {
    threads.emplace_back([&] {
      const auto host = std::make_shared<P256RelaySigner>(P256PrivateKey::generate());
      const auto session = std::make_shared<CurlHttpSession>(
          CurlHttpSession::Options{10s, 256 * 1024, coordinator.certificate()});
      test::runAsync(
          [&](asio::io_context&) -> asio::awaitable<void> {
            CoordinatorClient client(url, host, session);
            const std::string invite = coordinator.invite();
            const std::string account = co_await client.enroll(invite);
            while (std::chrono::steady_clock::now() < until) {
              try {
                const RelayAdmission admission = co_await client.fetchToken();
                ++answered;
              } catch (const CoordinatorError&) {
                ++failed;
              }
            }
          },
          std::chrono::duration_cast<std::chrono::steady_clock::duration>(
              std::chrono::duration<double>(seconds + 30)));
    });
  }
  for (auto& thread : threads) thread.join();
  if (failed) std::cerr << failed << " requests failed" << std::endl;
  return double(answered) / seconds;
}

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::stod(argv[1]) : 10;
  const int clients = argc > 2 ? std::stoi(argv[2]) : 8;
  const std::vector<std::string> serve{"--rate", "1000000", "--threads", "2"};
  {
    const test::TempDirectory folder;
    const test::CoordinatorProcess coordinator(TOVU_COORDINATOR, folder.path(), "sin:r:1", {},
                                               serve);
    if (coordinator.port() == 0) return 1;
    std::cout << "SQLite:     " << tokensPerSecond(coordinator, seconds, clients)
              << " token requests/s (" << clients << " clients)" << std::endl;
  }
  const test::PostgresServer postgres;
  if (!postgres.skipReason().empty()) {
    std::cout << "PostgreSQL: not measured: " << postgres.skipReason() << std::endl;
    return 0;
  }
  const test::TempDirectory folder;
  const test::CoordinatorProcess coordinator(TOVU_COORDINATOR, folder.path(), "sin:r:1",
                                             {"--postgres", postgres.freshDatabase("bench")},
                                             serve);
  if (coordinator.port() == 0) return 1;
  std::cout << "PostgreSQL: " << tokensPerSecond(coordinator, seconds, clients)
            << " token requests/s (" << clients << " clients)" << std::endl;
  return 0;
}
