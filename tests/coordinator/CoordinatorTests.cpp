// The coordinator as hosts meet it: tovu-coordinator on HTTPS, its store on SQLite and on
// PostgreSQL, and the host's client against it and against coordinators that misbehave.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "coordinator/CoordinatorStore.hpp"
#include "coordinator/PostgresDatabase.hpp"
#include "coordinator/SqliteDatabase.hpp"
#include "kit/relay/CoordinatorClient.hpp"
#include "kit/relay/CoordinatorError.hpp"
#include "kit/relay/RelayToken.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/CoordinatorProcess.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron::coordinator {
namespace {

using namespace std::chrono_literals;
using test::TempDirectory;
using Kind = CoordinatorError::Kind;

// One PostgreSQL server for the whole run: starting one takes seconds.
const test::PostgresServer& postgres() {
  static const test::PostgresServer server;
  return server;
}

// A database for one test: a SQLite file in `folder`, or a fresh PostgreSQL database.
std::function<std::unique_ptr<SqlDatabase>()> databaseOf(const std::string& kind,
                                                         const TempDirectory& folder) {
  if (kind == "sqlite") {
    return [file = folder / "coordinator.db"] { return std::make_unique<SqliteDatabase>(file); };
  }
  return [connection = postgres().freshDatabase("tovu_store")] {
    return std::make_unique<PostgresDatabase>(connection);
  };
}

class CoordinatorStores : public testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    if (GetParam() == "postgresql" && !postgres().skipReason().empty()) {
      GTEST_SKIP() << postgres().skipReason();
    }
  }
  TempDirectory folder_;
};

TEST_P(CoordinatorStores, AnInviteServesOneHostAndARevokedHostComesBackOnlyWithANewOne) {
  const auto open = databaseOf(GetParam(), folder_);
  CoordinatorStore store(open());
  const Data ann(65, 1), bob(65, 2), eve(65, 3);
  store.addInvite("AAAAAAAAAA", "home", 1000);
  store.addInvite("BBBBBBBBBB", "home", 500);
  store.addInvite("CCCCCCCCCC", "work", 1000);

  EXPECT_EQ(store.redeemInvite("BBBBBBBBBB", ann, 500), std::nullopt) << "expired";
  EXPECT_EQ(store.redeemInvite("ZZZZZZZZZZ", ann, 100), std::nullopt) << "never made";
  EXPECT_EQ(store.redeemInvite("AAAAAAAAAA", ann, 100), "home");
  EXPECT_EQ(store.redeemInvite("AAAAAAAAAA", bob, 101), std::nullopt) << "used";
  EXPECT_EQ(store.host(ann), (EnrolledHost{ann, "home", false}));
  EXPECT_EQ(store.host(bob), std::nullopt);

  EXPECT_EQ(store.revokeHost(ann, 200), 1u);
  EXPECT_EQ(store.revokeHost(ann, 201), 0u);
  EXPECT_EQ(store.host(ann), (EnrolledHost{ann, "home", true}));
  EXPECT_EQ(store.redeemInvite("CCCCCCCCCC", ann, 300), "work");
  EXPECT_EQ(store.host(ann), (EnrolledHost{ann, "work", false}));

  // Two coordinators on one database race for one invite: one host gets it.
  store.addInvite("DDDDDDDDDD", "work", 1000);
  CoordinatorStore other(open());
  std::optional<std::string> first, second;
  std::thread racer([&] { first = other.redeemInvite("DDDDDDDDDD", bob, 400); });
  second = store.redeemInvite("DDDDDDDDDD", eve, 400);
  racer.join();
  EXPECT_NE(first.has_value(), second.has_value());
  EXPECT_EQ(store.revokeAccount("work", 500), 2u);
  EXPECT_EQ(other.hosts().size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(, CoordinatorStores, testing::Values("sqlite", "postgresql"),
                         [](const auto& store) { return store.param; });

// What a request to a coordinator ends with: nothing when it succeeded, else the error's kind.
template <class T>
asio::awaitable<std::optional<Kind>> failureOf(asio::awaitable<T> request) {
  try {
    const T answer = co_await std::move(request);
    co_return std::nullopt;
  } catch (const CoordinatorError& error) {
    co_return error.kind();
  }
}

class TovuCoordinator : public CoordinatorStores {};

TEST_P(TovuCoordinator, EachAnswerOfTheCoordinatorReachesTheHostAsWhatItMeans) {
  std::vector<std::string> store;
  if (GetParam() == "postgresql") store = {"--postgres", postgres().freshDatabase("tovu_app")};
  test::CoordinatorProcess coordinator(TOVU_COORDINATOR, folder_.path(), "sin:relay.example:4433",
                                       store, {"--rate", "25", "--token-minutes", "3"});
  ASSERT_NE(coordinator.port(), 0) << "tovu-coordinator did not start";
  const std::string url = "https://127.0.0.1:" + std::to_string(coordinator.port());
  const auto session = std::make_shared<CurlHttpSession>(
      CurlHttpSession::Options{2s, 256 * 1024, coordinator.certificate()});
  const auto host = std::make_shared<P256RelaySigner>(P256PrivateKey::generate());
  const auto other = std::make_shared<P256RelaySigner>(P256PrivateKey::generate());
  const std::string invite = coordinator.invite("family");
  ASSERT_EQ(invite.size(), 11u) << invite;
  std::chrono::system_clock::duration offset{};
  const CoordinatorClient::Options shifted{
      [&] { return std::chrono::system_clock::now() + offset; }};

  test::runAsync(
      [&](asio::io_context&) -> asio::awaitable<void> {
        CoordinatorClient client(url, host, session, shifted);
        CO_EXPECT_EQ(failureOf(client.admission(false)), Kind::notEnrolled);
        CO_EXPECT_EQ(failureOf(client.enroll("ABCDE-FGHJ")), Kind::malformedInvite);
        offset = 10min;  // the host's clock is wrong
        CO_EXPECT_EQ(failureOf(client.enroll(invite)), Kind::badProof);
        offset = {};
        std::string typed = invite;
        for (char& c : typed) c = char(std::tolower(c));
        typed.insert(0, " ");
        CO_EXPECT_EQ(client.enroll(typed), "family");
        CoordinatorClient otherHost(url, other, session);
        CO_EXPECT_EQ(failureOf(otherHost.enroll(invite)), Kind::invalidInvite);

        const RelayAdmission first = co_await client.admission(false);
        EXPECT_EQ(first.relays, (std::vector<RelayCandidate>{{"sin", "relay.example", 4433}}));
        const auto token = RelayToken::verified(first.token, coordinator.publicKey());
        CO_ASSERT_TRUE(token && token->hostPublicKey == host->publicKeyX963());
        // Kept while it expires more than two minutes ahead; new ones sign anew.
        offset = std::chrono::duration_cast<std::chrono::system_clock::duration>(
            first.expiresAt - std::chrono::system_clock::now() - 121s);
        CO_EXPECT_EQ(client.admission(false), first);
        offset += 1s;
        const RelayAdmission second = co_await client.admission(false);
        EXPECT_NE(second.token, first.token);
        const RelayAdmission forced = co_await client.admission(true);
        EXPECT_NE(forced.token, second.token);
        offset = {};

        const auto revoked = coordinator.command({"revoke", hexText(host->publicKeyX963())});
        EXPECT_EQ(revoked.output, "revoked 1 host\n");
        CO_EXPECT_EQ(failureOf(client.admission(true)), Kind::revoked);
        // 25 requests a minute from one address: the rest are turned away.
        std::optional<Kind> last;
        for (int i = 0; i < 30 && last != Kind::rateLimited; ++i) {
          last = co_await failureOf(client.admission(true));
        }
        EXPECT_EQ(last, Kind::rateLimited);
        const auto nobody = "https://127.0.0.1:" + std::to_string(coordinator.port() ^ 1);
        CoordinatorClient elsewhere(nobody, host, session);
        CO_EXPECT_EQ(failureOf(elsewhere.admission(false)), Kind::unreachable);
      },
      30s);
}

INSTANTIATE_TEST_SUITE_P(, TovuCoordinator, testing::Values("sqlite", "postgresql"),
                         [](const auto& store) { return store.param; });

// A coordinator that answers one request with `response`, or never when it is empty.
class CannedCoordinator {
 public:
  explicit CannedCoordinator(std::string response) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ::bind(listener_, reinterpret_cast<sockaddr*>(&address), size);
    ::listen(listener_, 4);
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, response = std::move(response)] {
      const int peer = ::accept(listener_, nullptr, nullptr);
      if (peer < 0) return;
      char buffer[4096];
      (void)::recv(peer, buffer, sizeof buffer, 0);
      for (std::size_t sent = 0; sent < response.size() && !done_;) {
        const auto n = ::send(peer, response.data() + sent, response.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += std::size_t(n);
      }
      while (response.empty() && !done_) std::this_thread::sleep_for(10ms);
      ::close(peer);
    });
  }
  ~CannedCoordinator() {
    done_ = true;
    ::shutdown(listener_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<bool> done_{false};
  std::thread thread_;
};

std::string response(int status, const std::string& body) {
  return "HTTP/1.1 " + std::to_string(status) +
         " X\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
         body;
}

TEST(CoordinatorClient, ACoordinatorThatMisbehavesCostsOnlyItsRequest) {
  struct Case {
    std::string response;
    std::string words;
  };
  const std::string badRelay =
      R"({"token":"AQ","relays":[{"region":"sin","host":"h","port":70000}],"expires_at":5})";
  const std::vector<Case> cases{
      {"", "Can't reach the relay"},  // it never answers
      {response(500, "<html>"), "The relay answered 500."},
      {response(401, R"({"error":"something_else"})"), "The relay answered 401: something_else."},
      {response(403, "{}"), "The relay answered 403."},
      {response(429, "slow down"), "Too many tries. Wait a minute and try again"},
      {response(200, std::string(10'000'000, '{')), "The relay sent an unexpected response."},
      {response(200, "{not json"), "The relay sent an unexpected response."},
      {response(200, badRelay), "The relay sent an unexpected response."},
      {response(200, R"({"token":"","relays":[],"expires_at":5})"),
       "The relay sent an unexpected response."},
  };
  const auto session =
      std::make_shared<CurlHttpSession>(CurlHttpSession::Options{1s, 256 * 1024, std::nullopt});
  const auto host = std::make_shared<P256RelaySigner>(P256PrivateKey::generate());
  for (const auto& c : cases) {
    const CannedCoordinator coordinator(c.response);
    std::string words;
    test::runAsync([&](asio::io_context&) -> asio::awaitable<void> {
      try {
        CoordinatorClient client(coordinator.url(), host, session);
        const RelayAdmission ignored = co_await client.admission(false);
      } catch (const CoordinatorError& error) {
        words = error.what();
      }
    });
    EXPECT_EQ(words, c.words) << c.response.substr(0, 60);
  }
  for (const char* url : {"ftp://x", "https://", "  http:///path", "coordinator.example"}) {
    EXPECT_THROW(CoordinatorClient(url, host, session), CoordinatorError) << url;
  }
}

}  // namespace
}  // namespace kelvaron::coordinator
