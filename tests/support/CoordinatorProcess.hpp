#pragma once

// tovu-coordinator as a process on HTTPS with a certificate of its own, and its commands; and
// PostgreSQL, started from Debian's package for a test, for the coordinator's shared store.

#include <unistd.h>

#include <fstream>
#include <optional>
#include <thread>

#include "kit/wire/Hex.hpp"
#include "tests/support/ChildProcess.hpp"

namespace kelvaron::test {

// A self-signed certificate for `address` (an IP address) and its key, in `folder`, made with
// GnuTLS's certtool; the certificate is also what a client trusts. False when certtool failed.
inline bool makeCertificate(const std::filesystem::path& folder, const std::string& address) {
  std::ofstream(folder / "cert.cfg") << "cn = \"tovu coordinator\"\nip_address = \"" << address
                                     << "\"\ndns_name = \"localhost\"\nexpiration_days = 2\n"
                                        "tls_www_server\nca\n";
  const auto key = (folder / "tls.key").string(), certificate = (folder / "tls.pem").string();
  return runCommand({"certtool", "--generate-privkey", "--key-type", "ecdsa", "--outfile", key})
             .succeeded() &&
         runCommand({"certtool", "--generate-self-signed", "--load-privkey", key, "--template",
                     (folder / "cert.cfg").string(), "--outfile", certificate})
             .succeeded();
}

// `program` (tovu-coordinator) serving on any free port of `address`'s machine, in the network
// namespace `netns` when it is not empty, with its key and certificate in `folder` and its state
// where `store` says (its own options; a SQLite file in `folder` when empty). `extra`: more options
// of "serve". The port stays 0 when it did not start.
class CoordinatorProcess {
 public:
  CoordinatorProcess(const std::string& program, const std::filesystem::path& folder,
                     const std::string& relay, std::vector<std::string> store = {},
                     const std::vector<std::string>& extra = {},
                     const std::string& address = "127.0.0.1", const std::string& netns = {})
      : program_(program), folder_(folder), store_(std::move(store)) {
    if (store_.empty()) store_ = {"--sqlite", (folder / "coordinator.db").string()};
    if (!makeCertificate(folder, address)) return;
    std::vector<std::string> arguments =
        common({"serve", "--port", "0", "--relay", relay, "--tls-cert", certificate().string(),
                "--tls-key", (folder / "tls.key").string()});
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    if (!netns.empty()) arguments.insert(arguments.begin(), {"ip", "netns", "exec", netns});
    const auto log = folder / "coordinator.log";
    process_.emplace(arguments, log);
    port_ = announcedPort(*process_, log);
  }

  std::uint16_t port() const { return port_; }
  std::filesystem::path certificate() const { return folder_ / "tls.pem"; }
  // A command of the coordinator's on the same state; its output.
  CommandResult command(const std::vector<std::string>& words) const {
    return runCommand(common(words));
  }
  std::string invite(const std::string& account = "home") const {
    const auto output = command({"invite", "--account", account}).output;
    return output.substr(0, output.find('\n'));
  }
  Data publicKey() const {
    const auto output = command({"public-key"}).output;
    return hexBytes(output.substr(0, output.find('\n'))).value_or(Data{});
  }

 private:
  std::vector<std::string> common(std::vector<std::string> words) const {
    words.insert(words.begin(), program_);
    words.insert(words.end(), store_.begin(), store_.end());
    words.insert(words.end(), {"--key", (folder_ / "coordinator.key").string()});
    return words;
  }

  std::string program_;
  std::filesystem::path folder_;
  std::vector<std::string> store_;
  std::optional<ChildProcess> process_;
  std::uint16_t port_ = 0;
};

// A PostgreSQL server of the test's own, on a Unix socket in a private folder, as root runs it:
// as the postgres user. `skipReason()` says why there is none.
class PostgresServer {
 public:
  PostgresServer() {
    if (::geteuid() != 0) {
      reason_ = "PostgreSQL is started as root (as the postgres user); this is not root";
      return;
    }
    if (!std::filesystem::exists(std::string(kBin) + "/initdb")) {
      reason_ = "PostgreSQL 15 is not installed (scripts/install-deps.sh installs it)";
      return;
    }
    char pattern[] = "/tmp/tovu-postgres-XXXXXX";
    if (!::mkdtemp(pattern)) {
      reason_ = "no temporary folder";
      return;
    }
    folder_ = pattern;
    port_ = std::to_string(20000 + ::getpid() % 20000);
    const auto data = folder_ + "/data";
    runCommand({"chown", "postgres", folder_});
    const auto made = asPostgres({"initdb", "-D", data, "-A", "trust", "-U", "tovu"});
    const auto started =
        made.succeeded()
            ? asPostgres({"pg_ctl", "-D", data, "-l", folder_ + "/log", "-w", "-o",
                          "-k " + folder_ + " -c listen_addresses='' -p " + port_, "start"})
            : made;
    if (!started.succeeded()) reason_ = "PostgreSQL did not start: " + started.output;
  }
  ~PostgresServer() {
    if (folder_.empty()) return;
    if (reason_.empty())
      asPostgres({"pg_ctl", "-D", folder_ + "/data", "-m", "immediate", "-w", "stop"});
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  PostgresServer(const PostgresServer&) = delete;
  PostgresServer& operator=(const PostgresServer&) = delete;

  const std::string& skipReason() const { return reason_; }
  // libpq's connection string, to a database of its own.
  std::string connection(const std::string& database = "postgres") const {
    return "host=" + folder_ + " port=" + port_ + " user=tovu dbname=" + database;
  }
  // A fresh database, so that each test starts from nothing.
  std::string freshDatabase(const std::string& name) const {
    runCommand({"psql", "-q", connection(), "-c", "DROP DATABASE IF EXISTS " + name});
    runCommand({"psql", "-q", connection(), "-c", "CREATE DATABASE " + name});
    return connection(name);
  }

 private:
  static constexpr const char* kBin = "/usr/lib/postgresql/15/bin";
  CommandResult asPostgres(std::vector<std::string> words) const {
    words[0] = std::string(kBin) + "/" + words[0];
    words.insert(words.begin(), {"runuser", "-u", "postgres", "--"});
    return runCommand(words);
  }

  std::string folder_, port_, reason_;
};

}  // namespace kelvaron::test
