// tovu-coordinator: enrols hosts with invites and hands them the tokens and relay list that let
// them be reached from outside, over HTTPS. Its state lives in one SQLite file, or in a PostgreSQL
// database that several coordinators share behind a load balancer.

#include <csignal>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "apps/common/CommandLine.hpp"
#include "coordinator/CoordinatorServer.hpp"
#include "coordinator/PostgresDatabase.hpp"
#include "coordinator/SqliteDatabase.hpp"
#include "kit/crypto/AuthCrypto.hpp"
#include "kit/crypto/SecretStore.hpp"
#include "kit/relay/InviteCode.hpp"
#include "kit/wire/Hex.hpp"

using namespace kelvaron;
using namespace kelvaron::coordinator;

namespace {

constexpr const char* kUsage = R"(Usage:
  tovu-coordinator serve --tls-cert FILE --tls-key FILE --relay REGION:HOST:PORT... [options]
      serve hosts over HTTPS on port 8443 (--port N): enrolment with an invite, then tokens
      for the relays named by --relay (one or more, in the order hosts should try them)
        --token-minutes M  how long a token admits a host (default 60)
        --rate N           requests one address may make per minute (default 20)
        --threads N        threads taking requests (default 2)
  tovu-coordinator invite [--account NAME] [--days D]
      print a new invite, good for one host during D days (default 7), into the account NAME
      (default "home")
  tovu-coordinator hosts
      list the enrolled hosts: account, state and public key (hexadecimal)
  tovu-coordinator revoke HOSTKEY | --account NAME
      revoke a host (its public key as "hosts" prints it), or every host of an account: its
      next token request is refused, and its registration at the relay ends with that token
  tovu-coordinator public-key
      print the coordinator's public key, which relays are given (tovu-relay --coordinator-key)

Every command takes:
  --sqlite FILE      the state in this SQLite file (default
                     $XDG_DATA_HOME/tovu-coordinator/coordinator.db)
  --postgres CONN    the state in PostgreSQL instead (a libpq connection string)
  --key FILE         the coordinator's signing key (default
                     $XDG_DATA_HOME/tovu-coordinator/coordinator.key; made when missing)
)";

struct Arguments {
  std::string command;
  std::vector<std::string> operands;
  std::optional<std::string> sqlite, postgres, key, certificate, privateKey, account;
  std::vector<RelayCandidate> relays;
  std::uint16_t port = 8443;
  int tokenMinutes = 60, rate = 20, days = 7;
  unsigned threads = 2;
};

// "sin:relay.example.com:4433"; an IPv6 address may stand as the host ("sin:::1:4433").
RelayCandidate relayNamed(const std::string& text) {
  const auto first = text.find(':'), last = text.rfind(':');
  const auto port = last == std::string::npos
                        ? std::nullopt
                        : apps::parseNumber<std::uint16_t>(text.substr(last + 1), 1, 65535);
  if (first == last || first == 0 || last == first + 1 || !port) {
    throw apps::UsageError("--relay wants REGION:HOST:PORT");
  }
  return {text.substr(0, first), text.substr(first + 1, last - first - 1), *port};
}

template <class Number>
void setNumber(Number& into, const std::string& text, Number least, Number most,
               const char* option) {
  const auto number = apps::parseNumber<Number>(text, least, most);
  if (!number) throw apps::UsageError(std::string(option) + " wants a number");
  into = *number;
}

apps::CommandLine commandLine(Arguments& a) {
  apps::CommandLine line("tovu-coordinator", kUsage);
  line.option("--sqlite", [&](const std::string& v) { a.sqlite = v; })
      .option("--postgres", [&](const std::string& v) { a.postgres = v; })
      .option("--key", [&](const std::string& v) { a.key = v; })
      .option("--tls-cert", [&](const std::string& v) { a.certificate = v; })
      .option("--tls-key", [&](const std::string& v) { a.privateKey = v; })
      .option("--relay", [&](const std::string& v) { a.relays.push_back(relayNamed(v)); })
      .option(
          "--port",
          [&](const std::string& v) { setNumber<std::uint16_t>(a.port, v, 0, 65535, "--port"); })
      .option("--token-minutes",
              [&](const std::string& v) {
                setNumber(a.tokenMinutes, v, 1, 7 * 24 * 60, "--token-minutes");
              })
      .option("--rate", [&](const std::string& v) { setNumber(a.rate, v, 1, 1'000'000, "--rate"); })
      .option("--threads",
              [&](const std::string& v) { setNumber(a.threads, v, 1u, 64u, "--threads"); })
      .option("--days", [&](const std::string& v) { setNumber(a.days, v, 1, 365, "--days"); })
      .option("--account", [&](const std::string& v) { a.account = v; })
      .operands([&](const std::string& word) {
        (a.command.empty() ? a.command : a.operands.emplace_back()) = word;
      });
  return line;
}

std::shared_ptr<CoordinatorStore> openStore(const Arguments& a) {
  if (a.postgres)
    return std::make_shared<CoordinatorStore>(std::make_unique<PostgresDatabase>(*a.postgres));
  const auto file = a.sqlite ? std::filesystem::path(*a.sqlite)
                             : userDataDirectory("tovu-coordinator") / "coordinator.db";
  return std::make_shared<CoordinatorStore>(std::make_unique<SqliteDatabase>(file));
}

P256PrivateKey signingKey(const Arguments& a) {
  return keyInFile(a.key ? std::filesystem::path(*a.key)
                         : userDataDirectory("tovu-coordinator") / "coordinator.key");
}

std::string fileText(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + file);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Ten symbols of the invite alphabet, each from a random byte (32 divides 256: no bias).
std::string newInvite() {
  std::string code;
  for (const std::uint8_t byte : AuthCrypto::randomBytes(10)) {
    code += InviteCode::alphabet[byte % InviteCode::alphabet.size()];
  }
  return code;
}

int serve(const Arguments& a) {
  if (!a.certificate || !a.privateKey)
    throw apps::UsageError("serve needs --tls-cert and --tls-key");
  if (a.relays.empty()) throw apps::UsageError("serve needs at least one --relay");
  CoordinatorCore::Options options{a.relays, std::chrono::minutes(a.tokenMinutes)};
  options.burst = a.rate;
  options.period = std::chrono::duration<double>(60.0 / a.rate);
  const auto signer = std::make_shared<P256RelaySigner>(signingKey(a));
  const auto core = std::make_shared<CoordinatorCore>(openStore(a), signer, options);
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);  // before the server's threads, which inherit it
  const CoordinatorServer server(
      core, {a.port, fileText(*a.certificate), fileText(*a.privateKey), a.threads});
  std::cout << "tovu-coordinator: serving HTTPS on port " << server.port() << std::endl;
  int signal = 0;
  sigwait(&stop, &signal);
  std::cout << "tovu-coordinator: stopping" << std::endl;
  return 0;
}

int run(const Arguments& a) {
  const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  if (a.command == "serve") return serve(a);
  if (a.command == "public-key") {
    std::cout << hexText(P256RelaySigner(signingKey(a)).publicKeyX963()) << std::endl;
  } else if (a.command == "invite") {
    const std::string code = newInvite();
    openStore(a)->addInvite(code, a.account.value_or("home"), now + std::int64_t(a.days) * 86400);
    std::cout << InviteCode::display(code) << std::endl;
  } else if (a.command == "hosts") {
    for (const auto& host : openStore(a)->hosts()) {
      std::cout << host.account << "  " << (host.revoked ? "revoked" : "active") << "  "
                << hexText(host.hostKey) << "\n";
    }
  } else if (a.command == "revoke") {
    const auto key = a.operands.empty() ? std::nullopt : hexBytes(a.operands[0]);
    if (!key && !a.account) throw apps::UsageError("revoke wants a host's key or --account");
    const auto store = openStore(a);
    const std::size_t revoked =
        key ? store->revokeHost(*key, now) : store->revokeAccount(*a.account, now);
    std::cout << "revoked " << revoked << (revoked == 1 ? " host" : " hosts") << std::endl;
  } else {
    throw apps::UsageError(a.command.empty() ? "no command (see --help)"
                                             : "unknown command " + a.command + " (see --help)");
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  const apps::CommandLine line = commandLine(arguments);
  if (const auto status = line.parse(argc, argv)) return *status;
  try {
    return run(arguments);
  } catch (const apps::UsageError& mistake) {
    return line.fail(mistake.what());
  } catch (const std::exception& failure) {
    std::cerr << "tovu-coordinator: " << failure.what() << std::endl;
    return 1;
  }
}
