// Discovery with real parts, each case in network namespaces of its own: the kernel's interfaces
// through netlink; avahi-daemon on a private bus, seen by our advertiser, browser and avahi-browse.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <ostream>
#include <ranges>
#include <sstream>
#include <thread>

#include "kit/transport/DNSSDAdvertiser.hpp"
#include "kit/transport/NetlinkPathMonitor.hpp"
#include "kit/transport/QUICHostBrowser.hpp"
#include "kit/transport/QUICHostListener.hpp"
#include "kit/transport/SelfSignedIdentity.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/NetworkNamespace.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron {

void PrintTo(const DiscoveredHost& host, std::ostream* out) {
  *out << "{" << host.id << ", " << host.name << ", "
       << (host.hostID ? host.hostID->string() : "no host ID") << "}";
}

namespace {

using namespace test;
using Hosts = std::vector<DiscoveredHost>;
using Names = std::vector<std::string>;

const UUID kHostID = *UUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
const DiscoveredHost kTestHost{"Test Host._tovu._udp.local", "Test Host", kHostID, false};
const Names kTestHostOnly{"Test Host"}, kNobody;

// A one-machine network in a network namespace of the test's own: "tovu0" (10.77.0.1/24,
// fd77::1/64) with its peer "tovu1" for a carrier, a private bus (dbus-daemon) that this process
// and its children reach as their system bus, and avahi-daemon on tovu0 alone, with a tmpfs of its
// own over /run, where the machine's own daemon may have its /run/avahi-daemon.
class DiscoveryNetwork {
 public:
  enum class Avahi { start, later };

  explicit DiscoveryNetwork(Avahi avahi = Avahi::start) {
    problem_ = network_.problem();
    for (const std::string program : {"dbus-daemon", "avahi-daemon", "avahi-browse"}) {
      if (problem_.empty() && !runCommand({"sh", "-c", "command -v " + program}).succeeded())
        problem_ = program + " is not installed";
    }
    if (!problem_.empty()) return;
    try {
      NetworkNamespace::addEthernet("tovu0", "tovu1", "10.77.0.1/24");
      NetworkNamespace::ip({"-6", "address", "add", "fd77::1/64", "dev", "tovu0", "nodad"});
    } catch (const std::exception& error) {
      problem_ = error.what();
      return;
    }
    // The session bus's configuration lets anyone own and call anything, which is all
    // avahi-daemon needs; at this address it is the system bus of this process and its children.
    const std::string address = "unix:path=" + (folder_ / "bus").string();
    bus_.emplace(std::vector<std::string>{"dbus-daemon", "--session", "--nofork", "--nopidfile",
                                          "--address=" + address},
                 folder_ / "dbus-daemon.log");
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    const auto ready = [&] { return std::filesystem::exists(folder_ / "bus"); };
    if (waitFor(*bus_, "dbus-daemon", ready) && avahi == Avahi::start) startAvahi();
  }

  // Empty when everything is up; otherwise why not.
  const std::string& problem() const { return problem_; }

  // Starts avahi-daemon and waits until it serves; false, with `problem()` set, if it does not.
  bool startAvahi() {
    std::ofstream(folder_ / "avahi-daemon.conf")
        << "[server]\nallow-interfaces=tovu0\nuse-ipv4=yes\nuse-ipv6=yes\nenable-dbus=yes\n"
           "[wide-area]\nenable-wide-area=no\n"
           "[publish]\npublish-hinfo=no\npublish-workstation=no\n";
    avahiDaemon_.emplace(
        std::vector<std::string>{"avahi-daemon", "--no-chroot", "--no-drop-root", "--no-rlimits",
                                 "-f", folder_ / "avahi-daemon.conf"},
        folder_ / "avahi-daemon.log", withPrivateRun);
    // It serves once an independent client of the bus can browse through it.
    return waitFor(*avahiDaemon_, "avahi-daemon", [] {
      return runCommand({"timeout", "5", "avahi-browse", "-at"}).succeeded();
    });
  }

  void stopAvahi() { avahiDaemon_.reset(); }

 private:
  // Whether `ready` holds within ten seconds while `process` runs; if not, `problem()` says so.
  bool waitFor(ChildProcess& process, const std::string& name, const std::function<bool()>& ready) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    for (; !ready(); std::this_thread::sleep_for(50ms)) {
      if (process.running() && std::chrono::steady_clock::now() < deadline) continue;
      std::ifstream log(folder_ / (name + ".log"));
      problem_ = name + " did not come up:\n" + std::string(std::istreambuf_iterator(log), {});
      return false;
    }
    return true;
  }

  // In the child, before exec: a mount namespace of its own with an empty /run.
  static bool withPrivateRun() {
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") == 0;
  }

  NetworkNamespace network_;
  // libdbus reads the bus address once per process, so a process keeps one folder for all its
  // tests; each test has a process of its own under CTest anyway.
  TempDirectory folder_{std::filesystem::temp_directory_path() /
                        ("tovu-discovery-" + std::to_string(::getpid()))};
  // Stopped in reverse order, avahi-daemon first, before the folder goes.
  std::optional<ChildProcess> bus_;
  std::optional<ChildProcess> avahiDaemon_;
  std::string problem_;
};

// Declares the network `name` (arguments: those of its constructor); skips the test without it.
#define START_DISCOVERY_NETWORK(name, ...) \
  DiscoveryNetwork name{__VA_ARGS__};      \
  if (!name.problem().empty()) GTEST_SKIP() << name.problem()

std::unique_ptr<DNSSDAdvertiser> advertise(asio::io_context& io, const std::string& name,
                                           std::uint16_t port, std::optional<UUID> hostID) {
  return std::make_unique<DNSSDAdvertiser>(makeStrand(io.get_executor()), name, port, hostID);
}

// In a network namespace where only "lo" is up at first, the first path is the network as it is; an
// interface is listed once up with an address, and goes when either goes. (Tunnels: see below.)
TEST(NetlinkPathMonitor, AnInterfaceIsListedWhileItIsUpWithAnAddressAndStopEndsThePaths) {
  NetworkNamespace network;
  if (!network.problem().empty()) GTEST_SKIP() << network.problem();
  NetworkNamespace::addEthernet("tovu0", "tovu1", "10.77.0.1/24");
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    const NetworkPath offline{false, {}}, wired{true, {{"tovu0", "wiredEthernet"}}};
    NetlinkPathMonitor monitor(makeStrand(io.get_executor()));
    const std::pair<std::vector<std::string>, NetworkPath> steps[] = {
        {{}, wired},  // never lists loopback
        {{"address", "del", "10.77.0.1/24", "dev", "tovu0"}, offline},
        {{"address", "add", "10.77.0.1/24", "dev", "tovu0"}, wired},
        {{"link", "set", "tovu0", "down"}, offline},
        {{"link", "set", "tovu0", "up"}, wired},
    };
    for (const auto& [command, path] : steps) {
      if (!command.empty()) NetworkNamespace::ip(command);
      EXPECT_EQ(co_await nextWithin(monitor.paths(), 10s), path) << testing::PrintToString(command);
    }
    monitor.stop();
    EXPECT_EQ(co_await monitor.paths().next(), std::nullopt);
  });
}

// The lines "=;interface;protocol;name;type;domain;host;address;port;txt" of the services that
// `avahi-browse -rpt`, a client of the daemon independent of ours, resolves over IPv4 once it
// lists exactly `names` (tried for ten seconds), by name as printed (" " as \032, "#" as \035).
asio::awaitable<std::optional<std::map<std::string, std::string>>> browseUntil(const Names& names) {
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (std::chrono::steady_clock::now() < deadline) {
    std::map<std::string, std::string> services;
    std::istringstream output(runCommand({"avahi-browse", "-rpt", "_tovu._udp"}).output);
    for (std::string line; std::getline(output, line);) {
      std::vector<std::string> fields;
      std::istringstream parts(line);
      for (std::string field; std::getline(parts, field, ';');) fields.push_back(field);
      if (fields.size() > 3 && fields[0] == "=" && fields[2] == "IPv4") services[fields[3]] = line;
    }
    if (std::ranges::equal(services | std::views::keys, names)) co_return services;
    co_await sleepFor(200ms);
  }
  co_return std::nullopt;
}

// Reads lists until one names the hosts `expected`; nothing if the lists end or none does in time.
asio::awaitable<std::optional<Hosts>> listWith(HostBrowser& browser, const Names& expected) {
  const auto deadline = std::chrono::steady_clock::now() + 15s;
  while (std::chrono::steady_clock::now() < deadline) {
    auto hosts = co_await nextWithin(browser.hosts(), deadline - std::chrono::steady_clock::now());
    if (!hosts) break;
    if (std::ranges::equal(*hosts | std::views::transform(&DiscoveredHost::name), expected))
      co_return hosts;
  }
  co_return std::nullopt;
}

// The listener is listed once with its host ID, over IPv4 or IPv6 alike, among the others by name,
// and a second service of its name under the name it gave way to; avahi-browse sees each with its
// address, port and any host ID. Both see the listener go when it stops advertising, while its
// connection goes on. A host not listed cannot be connected to, and stop ends the lists.
TEST(QUICHostBrowser, ListsEveryHostByNameConnectsOnlyToThoseAndSeesTheListenerGo) {
  START_DISCOVERY_NETWORK(network);
  runAsync(
      [](asio::io_context& io) -> asio::awaitable<void> {
        const auto identity = SelfSignedIdentity::temporary("Test Host");
        auto listener = QUICHostListener::make(
            io.get_executor(), identity,
            {.hostName = "Test Host", .hostID = kHostID, .port = 0, .advertise = true});
        const auto browser = QUICHostBrowser::start(io.get_executor());
        CO_EXPECT_EQ(listWith(*browser, kTestHostOnly), Hosts{kTestHost});
        const auto zeta = advertise(io, "Zeta", 4433, std::nullopt);
        const auto alpha = advertise(io, "Alpha", 4433, std::nullopt);
        const auto second = advertise(io, "Test Host", 4434, std::nullopt);
        const Names four{"Alpha", "Test Host", "Test Host #2", "Zeta"};
        const auto all = co_await listWith(*browser, four);
        CO_ASSERT_TRUE(all);
        EXPECT_EQ((*all)[1], kTestHost);
        EXPECT_EQ((*all)[2].id, "Test Host #2._tovu._udp.local");
        EXPECT_EQ((*all)[2].hostID, std::nullopt);
        const Names browsed{"Alpha", "Test\\032Host", "Test\\032Host\\032\\0352", "Zeta"};
        const auto services = co_await browseUntil(browsed);
        CO_ASSERT_TRUE(services);
        const std::string named = services->at(browsed[1]), anonymous = services->at(browsed[2]);
        const std::string address = ";10.77.0.1;" + std::to_string(listener->port()) + ";";
        EXPECT_NE(named.find(address), std::string::npos) << named;
        EXPECT_TRUE(named.ends_with(";\"id=E621E1F8-C36C-495A-93FC-0C247A3E6E5F\"")) << named;
        EXPECT_TRUE(anonymous.ends_with(";4434;")) << anonymous;

        const auto client =
            co_await browser->connect(kTestHost.id, ServerTrust::pinned(identity.fingerprint()));
        const auto host = co_await nextWithin(listener->connections(), 5s);
        CO_ASSERT_TRUE(host);
        (*host)->liftHandshakeLimits();  // as its gate would
        listener->stop();
        const Names without{"Alpha", "Test Host #2", "Zeta"};
        const auto gone = co_await listWith(*browser, without);
        const Names browsedWithout{"Alpha", "Test\\032Host\\032\\0352", "Zeta"};
        const auto withdrawn = co_await browseUntil(browsedWithout);
        EXPECT_TRUE(gone && withdrawn);
        client->send(msg::ping{4});
        EXPECT_EQ(co_await nextWithin((*host)->messages(), 5s), Message(msg::ping{4}));
        client->close();

        auto dialing = browser->connect("Nobody._tovu._udp.local", ServerTrust::unpinned());
        const auto error = co_await thrownBy<QUICError>(dialing);
        CO_ASSERT_TRUE(error);  // otherwise it connected to a host that was never listed
        EXPECT_EQ(error->kind(), QUICError::Kind::failed);
        EXPECT_STREQ(error->what(), "unknown host Nobody._tovu._udp.local");
        browser->stop();
        EXPECT_EQ(co_await nextWithin(browser->hosts(), 10s), std::nullopt);
      },
      30s);
}

TEST(QUICHostBrowser, ANewKindOfInterfaceEmptiesTheListAtOnceAndItFillsAgain) {
  START_DISCOVERY_NETWORK(network);
  if (::access("/dev/net/tun", R_OK | W_OK) != 0) GTEST_SKIP() << "no /dev/net/tun for a tunnel";
  runAsync(
      [](asio::io_context& io) -> asio::awaitable<void> {
        const auto browser = QUICHostBrowser::start(io.get_executor());
        const auto advertiser = advertise(io, "Test Host", 4433, kHostID);
        CO_ASSERT_TRUE(co_await listWith(*browser, kTestHostOnly));
        // Another wired interface is no new kind; a layer-3 tunnel is (it has a carrier while its
        // descriptor is open), and its quick removal right after belongs to the same burst.
        NetworkNamespace::addEthernet("tovu2", "tovu3", "10.79.0.1/24");
        ifreq request{};
        request.ifr_flags = IFF_TUN | IFF_NO_PI;
        std::strcpy(request.ifr_name, "tovutun0");
        const int tunnel = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC);
        CO_ASSERT_TRUE(tunnel >= 0 && ::ioctl(tunnel, TUNSETIFF, &request) == 0);
        NetworkNamespace::ip({"address", "add", "10.78.0.1/24", "dev", "tovutun0"});
        NetworkNamespace::ip({"link", "set", "tovutun0", "up"});
        ::close(tunnel);
        CO_EXPECT_EQ(nextWithin(browser->hosts(), 10s), Hosts{});
        CO_EXPECT_EQ(nextWithin(browser->hosts(), 10s), Hosts{kTestHost});
        browser->stop();
      },
      30s);
}

// Browser and advertiser alike wait for a daemon that is not there yet, and find it again when
// it restarts.
TEST(QUICHostBrowser, ADaemonThatComesLaterOrRestartsFillsTheListAgain) {
  START_DISCOVERY_NETWORK(network, DiscoveryNetwork::Avahi::later);
  runAsync(
      [&network](asio::io_context& io) -> asio::awaitable<void> {
        const auto browser = QUICHostBrowser::start(io.get_executor());
        const auto advertiser = advertise(io, "Test Host", 4433, kHostID);
        co_await sleepFor(100ms);  // both are waiting for a daemon by now
        CO_ASSERT_TRUE(network.startAvahi());
        const auto found = co_await listWith(*browser, kTestHostOnly);
        network.stopAvahi();
        const auto gone = co_await listWith(*browser, kNobody);
        EXPECT_TRUE(found && gone);
        CO_ASSERT_TRUE(network.startAvahi());
        const auto again = co_await listWith(*browser, kTestHostOnly);
        EXPECT_EQ(again, Hosts{kTestHost});
        browser->stop();
      },
      60s);
}

}  // namespace
}  // namespace kelvaron
