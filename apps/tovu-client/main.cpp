// tovu-client: the reference client. Pairs with a host, connects, decodes its video, prints what
// it sees, and can type into it. Headless: for tests, benchmarks and a first look.

#include <unistd.h>

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/address.hpp>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "client/VideoDecoder.hpp"
#include "kit/crypto/SecretStore.hpp"
#include "kit/media/CaptureClock.hpp"
#include "kit/media/CodecProfileNames.hpp"
#include "kit/security/ClientHandshake.hpp"
#include "kit/security/PairingURL.hpp"
#include "kit/security/Stores.hpp"
#include "kit/transport/QUICConnection.hpp"
#include "kit/transport/QUICHostBrowser.hpp"

using namespace kelvaron;

namespace {

constexpr const char* kUsage = R"(Usage:
  tovu-client list [--seconds N]
      the hosts on the local network (DNS-SD), looked for during N seconds (default 3)
  tovu-client pair <link> [--address HOST:PORT] [--name NAME]
      pair with the host of a pairing link (as tovu-host --pair prints it)
  tovu-client pair --compare <host> [--address HOST:PORT] [--name NAME]
      pair by comparing the six digits shown here with those the host shows
  tovu-client connect <host> [--address HOST:PORT] [options]
      connect to a paired host (its name or ID), show statistics every second
        --seconds N        stay connected for N seconds (default 10)
        --save-frame FILE  save the last picture as PNG when leaving
        --type TEXT        type TEXT on the host once the picture is there
  tovu-client hosts
      list the paired hosts

Without --address the host is found on the local network.

The client's identity and paired hosts live in $XDG_DATA_HOME/tovu-client/.
)";

using Clock = std::chrono::steady_clock;

struct Options {
  std::string command;
  std::string subject;  // the link, or the host
  std::optional<QUICConnection::Endpoint> address;
  std::string name;
  double seconds = 10;
  std::string saveFrame;
  std::string type;
  bool compare = false;
};

[[noreturn]] void fail(const std::string& text) {
  std::cerr << "tovu-client: " << text << "\n";
  std::exit(2);
}

QUICConnection::Endpoint parseAddress(const std::string& text) {
  const auto colon = text.rfind(':');
  if (colon == std::string::npos) fail("--address wants HOST:PORT");
  asio::error_code error;
  const auto address = asio::ip::make_address(text.substr(0, colon), error);
  const long port = std::strtol(text.c_str() + colon + 1, nullptr, 10);
  if (error || port < 1 || port > 65535) fail("--address wants an IP address and a port");
  return {address, std::uint16_t(port)};
}

Options parse(int argc, char** argv) {
  Options options;
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  options.name = std::string("tovu-client on ") + host;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) fail(arg + " needs a value");
      return argv[++i];
    };
    if (arg == "--help" || arg == "-h") {
      std::cout << kUsage;
      std::exit(0);
    } else if (arg == "--address") {
      options.address = parseAddress(value());
    } else if (arg == "--name") {
      options.name = value();
    } else if (arg == "--seconds") {
      options.seconds = std::strtod(value().c_str(), nullptr);
    } else if (arg == "--save-frame") {
      options.saveFrame = value();
    } else if (arg == "--type") {
      options.type = value();
    } else if (arg == "--compare") {
      options.compare = true;
    } else if (options.command.empty()) {
      options.command = arg;
    } else if (options.subject.empty()) {
      options.subject = arg;
    } else {
      fail("unexpected " + arg + " (see --help)");
    }
  }
  if (options.command.empty()) fail("no command (see --help)");
  return options;
}

// What persists of the client: its device identity and the hosts it paired with.
struct ClientData {
  std::filesystem::path directory = userDataDirectory("tovu-client");
  FileSecretStore identityStore{directory / "identity"};
  PairedHostStore hosts{std::make_shared<FileSecretStore>(directory / "paired-hosts.json")};
  ClientIdentity identity = ClientIdentity::loadOrCreate(identityStore);
};

// The host at `--address`, or the first one on the local network that `wanted` accepts.
asio::awaitable<std::shared_ptr<Connection>> dial(
    const Options& options, const std::function<bool(const DiscoveredHost&)>& wanted,
    ServerTrust trust) {
  const auto executor = co_await asio::this_coro::executor;
  if (options.address) {
    auto connection = co_await QUICConnection::connect(executor, *options.address, trust);
    co_return connection;
  }
  const auto browser = QUICHostBrowser::start(executor);
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline) {
    const auto list = co_await nextWithin(browser->hosts(), std::chrono::seconds(1));
    if (!list) continue;
    const auto found = std::ranges::find_if(*list, wanted);
    if (found == list->end()) continue;
    auto connection = co_await browser->connect(found->id, trust);
    browser->stop();
    co_return connection;
  }
  browser->stop();
  fail("no such host on the local network (is avahi-daemon running? else use --address)");
}

asio::awaitable<int> list(const Options& options, ClientData& data) {
  const auto executor = co_await asio::this_coro::executor;
  const auto browser = QUICHostBrowser::start(executor);
  std::vector<DiscoveredHost> seen;
  const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                           std::chrono::duration<double>(options.seconds));
  while (Clock::now() < deadline) {
    if (auto hosts = co_await nextWithin(browser->hosts(), std::chrono::milliseconds(200))) {
      seen = std::move(*hosts);
    }
  }
  browser->stop();
  for (const DiscoveredHost& host : seen) {
    const bool paired = data.hosts.match(host.hostID, host.name).has_value();
    std::cout << host.name << "  " << (host.hostID ? host.hostID->string() : "-")
              << (paired ? "  paired" : "") << "\n";
  }
  if (seen.empty()) std::cout << "No hosts found." << std::endl;
  co_return 0;
}

// Pairing by code comparison: the first contact trusts the certificate it is shown, the person
// compares the digits, and the host's ID and name come with its answer to hello.
asio::awaitable<int> pairByComparison(const Options& options, ClientData& data) {
  const auto id = UUID::parse(options.subject);
  const std::string name = options.subject;
  // Named: GCC 12 destroys temporaries that live across a suspension twice.
  const std::function<bool(const DiscoveredHost&)> wanted = [id, name](const DiscoveredHost& h) {
    return (id && h.hostID == id) || h.name == name;
  };
  const ServerTrust trust = ServerTrust::unpinned();
  const auto connection = co_await dial(options, wanted, trust);
  const std::function<std::optional<Data>()> shown = [connection] {
    return connection->peerCertificateFingerprint();
  };
  const std::function<void(const std::string&)> showCode = [](const std::string& code) {
    std::cout << "Code: " << code << " - check that the host shows the same" << std::endl;
  };
  const auto purpose = ClientHandshake::Purpose::pairByComparison();
  const auto event = co_await ClientHandshake::run(connection, data.identity, purpose, options.name,
                                                   shown, std::chrono::seconds(120), showCode);
  if (event.kind != ClientHandshake::Event::Kind::authenticated) {
    std::cerr << "tovu-client: pairing failed" << (event.text.empty() ? "" : ": " + event.text)
              << std::endl;
    connection->close();
    co_return 1;
  }
  const msg::hello hello{16,
                         data.identity.deviceID,
                         options.name,
                         {{CodecProfile::hevcMain}, 1920, 1080, 2, "tovu-client", false}};
  connection->send(hello);
  std::optional<msg::helloAck> ack;
  while (const auto message =
             co_await nextWithin(connection->messages(), std::chrono::seconds(5))) {
    if (const auto* found = std::get_if<msg::helloAck>(&*message)) {
      ack = *found;
      break;
    }
  }
  const auto fingerprint = connection->peerCertificateFingerprint();
  connection->close();
  if (!ack || !fingerprint) {
    std::cerr << "tovu-client: paired, but the host did not say who it is" << std::endl;
    co_return 1;
  }
  data.hosts.save({ack->hostID, ack->hostName, *fingerprint, WallClock::now(), {}});
  std::cout << "Paired with " << ack->hostName << " (" << ack->hostID.string() << ")" << std::endl;
  co_return 0;
}

asio::awaitable<int> pair(const Options& options, ClientData& data) {
  if (options.compare) {
    const int result = co_await pairByComparison(options, data);
    co_return result;
  }
  const auto link = PairingURL::parse(options.subject);
  if (!link) fail("that is no pairing link");
  const UUID hostID = link->hostID;
  const std::function<bool(const DiscoveredHost&)> wanted = [hostID](const DiscoveredHost& h) {
    return h.hostID == hostID;
  };
  const ServerTrust trust = ServerTrust::pinned(link->fingerprint);
  const auto connection = co_await dial(options, wanted, trust);
  const Data fingerprint = link->fingerprint;
  const std::function<std::optional<Data>()> pinned = [fingerprint] { return fingerprint; };
  const std::function<void(const std::string&)> showCode = [](const std::string& code) {
    std::cout << "Code: " << code << std::endl;
  };
  const auto purpose = ClientHandshake::Purpose::pairWithToken(link->token);
  const auto event = co_await ClientHandshake::run(connection, data.identity, purpose, options.name,
                                                   pinned, std::chrono::seconds(30), showCode);
  connection->close();
  if (event.kind != ClientHandshake::Event::Kind::authenticated) {
    std::cerr << "tovu-client: pairing failed" << (event.text.empty() ? "" : ": " + event.text)
              << std::endl;
    co_return 1;
  }
  data.hosts.save({link->hostID, link->hostName, link->fingerprint, WallClock::now(), {}});
  std::cout << "Paired with " << link->hostName << " (" << link->hostID.string() << ")"
            << std::endl;
  co_return 0;
}

// A session with a host: what it says, its pictures, and the statistics of each second.
class Viewer : public std::enable_shared_from_this<Viewer> {
 public:
  // `since`: when the client began to connect, for the time to the first picture.
  Viewer(std::shared_ptr<Connection> connection, const Options& options, Clock::time_point since)
      : connection_(std::move(connection)), options_(options), since_(since) {}

  asio::awaitable<int> run(const ClientData& data) {
    const auto executor = co_await asio::this_coro::executor;
    const msg::hello hello{
        16,
        data.identity.deviceID,
        options_.name,
        {{CodecProfile::hevcMain, CodecProfile::hevcMain444}, 1920, 1080, 2, "tovu-client", false}};
    connection_->send(hello);
    // The readers keep the viewer alive: they may wake once more after it has closed.
    asio::co_spawn(
        executor, [self = shared_from_this()] { return self->messages(); }, asio::detached);
    asio::co_spawn(
        executor, [self = shared_from_this()] { return self->video(); }, asio::detached);
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(options_.seconds));
    int second = 0;
    while (Clock::now() < end && !ended_) {
      co_await sleepFor(std::chrono::seconds(1));
      report(++second);
    }
    connection_->close();
    if (!options_.saveFrame.empty()) {
      if (latest_ && client::writePNG(options_.saveFrame, *latest_)) {
        std::cout << "Saved the last picture (" << latest_->width << "x" << latest_->height
                  << ") to " << options_.saveFrame << std::endl;
      } else {
        std::cerr << "tovu-client: no picture to save" << std::endl;
      }
    }
    std::cout << "Received " << totalFrames_ << " frames, " << decoded_ << " decoded, " << gaps_
              << " gaps" << std::endl;
    co_return totalFrames_ > 0 && !rejected_ ? 0 : 1;
  }

 private:
  asio::awaitable<void> messages() {
    while (const auto message = co_await connection_->messages().next()) {
      if (const auto* ack = std::get_if<msg::helloAck>(&*message)) {
        std::cout << "Connected to " << ack->hostName << "; profile "
                  << profileLabel(ack->profile) << std::endl;
      } else if (const auto* reject = std::get_if<msg::helloReject>(&*message)) {
        std::cerr << "tovu-client: refused: " << reject->reason << std::endl;
        rejected_ = true;
        ended_ = true;
      } else if (const auto* info = std::get_if<msg::streamInfo>(&*message)) {
        std::cout << "Stream: display " << info->displayID << ", " << info->width << "x"
                  << info->height << std::endl;
      } else if (const auto* status = std::get_if<msg::hostStatus>(&*message)) {
        if (status->detail) std::cout << "Host status: " << *status->detail << std::endl;
      } else if (const auto* replaced = std::get_if<msg::sessionReplaced>(&*message)) {
        std::cout << "Replaced by " << replaced->byDeviceName << std::endl;
        ended_ = true;
      }
    }
    ended_ = true;
  }

  asio::awaitable<void> video() {
    client::VideoDecoder decoder;
    while (const auto frame = co_await connection_->videoFrames().next()) {
      ++totalFrames_;
      ++frames_;
      bytes_ += frame->payload.size();
      // A jump in frame numbers is a gap: only a key frame mends it, so one is asked for now.
      if (lastFrameNumber_ && frame->frameNumber != *lastFrameNumber_ + 1) {
        ++gaps_;
        connection_->send(msg::feedback{{frames_, 1, 0, true}});
      }
      lastFrameNumber_ = frame->frameNumber;
      const auto started = Clock::now();
      if (auto picture = decoder.decode(*frame)) {
        decodeMs_ += std::chrono::duration<double, std::milli>(Clock::now() - started).count();
        ++decoded_;
        // Host and client on one machine share the clock of the capture time.
        const double sinceCapture = double(monotonicRawNs() - frame->captureTimeNs) / 1e6;
        // The least of the second: an idle refresh re-sends a picture captured earlier.
        if (sinceCapture >= 0 && sinceCapture < 10000) {
          captureToShown_ = std::min(captureToShown_.value_or(sinceCapture), sinceCapture);
        }
        if (!latest_) {
          std::printf("First picture %.0f ms after connecting\n",
                      std::chrono::duration<double, std::milli>(Clock::now() - since_).count());
        }
        latest_ = std::move(picture);
        if (!typed_ && !options_.type.empty()) {
          connection_->send(msg::text{options_.type});
          std::cout << "Typed " << options_.type.size() << " characters" << std::endl;
          typed_ = true;
        }
      }
    }
  }

  void report(int second) {
    std::printf("[%3ds] %5.1f fps  %6.2f Mbit/s  decode %5.1f ms", second, double(frames_),
                double(bytes_) * 8 / 1e6, decoded_ ? decodeMs_ / double(frames_ ? frames_ : 1) : 0);
    if (captureToShown_) std::printf("  capture to picture %5.1f ms", *captureToShown_);
    std::printf("\n");
    std::fflush(stdout);
    connection_->send(msg::feedback{{frames_, 0, 0, false}});
    if (second % 5 == 0) connection_->send(msg::ping{std::uint64_t(second)});
    frames_ = 0;
    bytes_ = 0;
    decodeMs_ = 0;
    captureToShown_.reset();
  }

  std::shared_ptr<Connection> connection_;
  const Options& options_;
  const Clock::time_point since_;
  std::optional<client::Picture> latest_;
  std::optional<std::uint64_t> lastFrameNumber_;
  std::uint32_t frames_ = 0;
  std::size_t bytes_ = 0;
  double decodeMs_ = 0;
  std::optional<double> captureToShown_;
  long totalFrames_ = 0, decoded_ = 0, gaps_ = 0;
  bool typed_ = false, ended_ = false, rejected_ = false;
};

asio::awaitable<int> connect(const Options& options, ClientData& data) {
  const auto id = UUID::parse(options.subject);
  const auto host = data.hosts.match(id, options.subject);
  if (!host) fail("not paired with " + options.subject + " (see tovu-client hosts)");
  const auto since = Clock::now();
  const UUID hostID = host->hostID;
  const std::function<bool(const DiscoveredHost&)> wanted = [&data,
                                                             hostID](const DiscoveredHost& h) {
    const auto paired = data.hosts.match(h.hostID, h.name);
    return paired && paired->hostID == hostID;
  };
  const ServerTrust trust = ServerTrust::pinned(host->fingerprint);
  const auto connection = co_await dial(options, wanted, trust);
  const Data fingerprint = host->fingerprint;
  const std::function<std::optional<Data>()> pinned = [fingerprint] { return fingerprint; };
  const std::function<void(const std::string&)> noCode;
  const auto purpose = ClientHandshake::Purpose::authenticate();
  const auto event = co_await ClientHandshake::run(connection, data.identity, purpose, options.name,
                                                   pinned, std::chrono::seconds(10), noCode);
  if (event.kind != ClientHandshake::Event::Kind::authenticated) {
    std::cerr << "tovu-client: the host did not let this device in" << std::endl;
    co_return 1;
  }
  data.hosts.touch(host->hostID, WallClock::now());
  const auto viewer = std::make_shared<Viewer>(connection, options, since);
  const int result = co_await viewer->run(data);
  co_return result;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  ClientData data;
  if (options.command == "hosts") {
    for (const PairedHost& host : data.hosts.all()) {
      std::cout << host.hostID.string() << "  " << host.name << "\n";
    }
    return 0;
  }
  if (options.command != "pair" && options.command != "connect" && options.command != "list") {
    fail("unknown command " + options.command + " (see --help)");
  }
  asio::io_context io;
  int result = 1;
  asio::co_spawn(
      io,
      [&]() -> asio::awaitable<int> {
        if (options.command == "pair") return pair(options, data);
        if (options.command == "list") return list(options, data);
        return connect(options, data);
      }(),
      [&](std::exception_ptr failure, int code) {
        if (failure) {
          try {
            std::rethrow_exception(failure);
          } catch (const std::exception& error) {
            std::cerr << "tovu-client: " << error.what() << std::endl;
          }
          result = 1;
        } else {
          result = code;
        }
        io.stop();
      });
  io.run();
  return result;
}
