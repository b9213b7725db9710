#pragma once

// What authentication remembers across restarts: on the host, the devices it trusts
// ("paired-devices.json"); on a client, its own identity and the hosts it has paired with.

#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/crypto/P256.hpp"
#include "kit/crypto/SecretStore.hpp"
#include "kit/wire/Bytes.hpp"

namespace kelvaron {

using WallClock = std::chrono::system_clock;

struct PairedDevice {
  UUID deviceID;
  std::string name;
  Data publicKey;  // 65-byte X9.63
  WallClock::time_point pairedAt;
  std::optional<WallClock::time_point> lastSeen;
  friend bool operator==(const PairedDevice&, const PairedDevice&) = default;
};

struct PairedHost {
  UUID hostID;
  std::string name;
  Data fingerprint;
  WallClock::time_point pairedAt;
  std::optional<WallClock::time_point> lastUsed;
  friend bool operator==(const PairedHost&, const PairedHost&) = default;
};

// ISO 8601 in UTC to the second, "2026-11-23T10:00:00Z"; parsing also takes "+hh:mm" offsets and
// fractional seconds.
std::string iso8601(WallClock::time_point time);
std::optional<WallClock::time_point> parseISO8601(std::string_view text);

// The JSON forms: arrays of records with upper-case UUIDs, standard base64 and ISO 8601 dates.
// Decoding yields nothing unless every record is whole.
std::string encodePairedDevices(const std::vector<PairedDevice>& devices);
std::optional<std::vector<PairedDevice>> decodePairedDevices(std::string_view json);
std::string encodePairedHosts(const std::vector<PairedHost>& hosts);
std::optional<std::vector<PairedHost>> decodePairedHosts(std::string_view json);

// The devices this host trusts, in a JSON file (owner-only, replaced atomically), or in memory
// when it has no file. A file that does not parse counts as no devices; before anything is
// written over it, it is kept aside beside itself as "<name>.corrupt-<seconds since 1970>".
class PairedDeviceStore {
 public:
  explicit PairedDeviceStore(std::optional<std::filesystem::path> file);
  // "paired-devices.json" in the host's data folder.
  static std::filesystem::path defaultLocation();

  std::vector<PairedDevice> all() const;
  std::optional<PairedDevice> device(const UUID& deviceID) const;
  // Replaces any record of the same device; the new one goes last.
  void add(PairedDevice device);
  bool remove(const UUID& deviceID);
  void touch(const UUID& deviceID, WallClock::time_point date);

 private:
  void save();

  std::optional<std::filesystem::path> file_;
  mutable std::mutex lock_;
  std::vector<PairedDevice> items_;
  bool fileIsCorrupt_ = false;
};

// The hosts a client has paired with, kept in a secret store; nothing cached.
class PairedHostStore {
 public:
  explicit PairedHostStore(std::shared_ptr<SecretStore> store) : store_(std::move(store)) {}

  std::vector<PairedHost> all() const;
  std::optional<PairedHost> host(const UUID& hostID) const;
  // By ID when the discovered host has one (its name is then not consulted); else by exact name.
  std::optional<PairedHost> match(const std::optional<UUID>& hostID, const std::string& name) const;
  void save(PairedHost host);
  void touch(const UUID& hostID, WallClock::time_point date);
  void remove(const UUID& hostID);

 private:
  std::vector<PairedHost> read() const;
  void write(const std::vector<PairedHost>& hosts);

  std::shared_ptr<SecretStore> store_;
  mutable std::mutex lock_;
};

// A client's own device identity: 48 bytes stored, the UUID then the private scalar.
struct ClientIdentity {
  UUID deviceID;
  P256PrivateKey privateKey;

  // The stored identity, or a new one written in its place when nothing whole is stored. Read and
  // write failures of the store are passed on.
  static ClientIdentity loadOrCreate(SecretStore& store);
  Data storedForm() const;
  static std::optional<ClientIdentity> fromStoredForm(ByteView bytes);
};

}  // namespace kelvaron
