#include "kit/security/Stores.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "kit/crypto/AuthCrypto.hpp"

namespace kelvaron {

namespace fs = std::filesystem;
using nlohmann::json;

// ---- Dates ----

std::string iso8601(WallClock::time_point time) {
  const std::time_t seconds = WallClock::to_time_t(time);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  return text;
}

std::optional<WallClock::time_point> parseISO8601(std::string_view text) {
  int year, month, day, hour, minute, second, consumed = 0;
  const std::string s(text);
  if (std::sscanf(s.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &year, &month, &day, &hour, &minute,
                  &second, &consumed) != 6 ||
      consumed != 19) {
    return std::nullopt;
  }
  std::string_view rest = text.substr(19);
  if (!rest.empty() && rest.front() == '.') {  // fractional seconds: dropped
    rest.remove_prefix(1);
    while (!rest.empty() && rest.front() >= '0' && rest.front() <= '9') rest.remove_prefix(1);
  }
  long offset = 0;
  if (rest == "Z") {
  } else if (rest.size() == 6 && (rest[0] == '+' || rest[0] == '-') && rest[3] == ':') {
    int h, m;
    if (std::sscanf(std::string(rest.substr(1)).c_str(), "%2d:%2d", &h, &m) != 2)
      return std::nullopt;
    offset = (rest[0] == '+' ? 1 : -1) * (h * 3600L + m * 60L);
  } else {
    return std::nullopt;
  }
  // The years a nanosecond clock can hold, with room to spare.
  if (year < 1700 || year > 2200 || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 ||
      minute > 59 || second > 60) {
    return std::nullopt;
  }
  std::tm utc{};
  utc.tm_year = year - 1900;
  utc.tm_mon = month - 1;
  utc.tm_mday = day;
  utc.tm_hour = hour;
  utc.tm_min = minute;
  utc.tm_sec = second;
  return WallClock::from_time_t(timegm(&utc) - offset);
}

// ---- JSON forms ----

namespace {

// Throws on anything missing or malformed; the decoders turn that into "nothing".
std::string textField(const json& object, const char* key) {
  return object.at(key).get<std::string>();
}

UUID uuidField(const json& object, const char* key) {
  auto id = UUID::parse(textField(object, key));
  if (!id) throw std::invalid_argument(key);
  return *id;
}

Data bytesField(const json& object, const char* key) {
  auto bytes = AuthCrypto::base64Decode(textField(object, key));
  if (!bytes) throw std::invalid_argument(key);
  return *bytes;
}

WallClock::time_point dateField(const json& object, const char* key) {
  auto date = parseISO8601(textField(object, key));
  if (!date) throw std::invalid_argument(key);
  return *date;
}

std::optional<WallClock::time_point> optionalDate(const json& object, const char* key) {
  if (!object.contains(key)) return std::nullopt;
  return dateField(object, key);
}

template <class Record, class FromJSON>
std::optional<std::vector<Record>> decodeArray(std::string_view text, FromJSON fromJSON) {
  try {
    const json array = json::parse(text);
    if (!array.is_array()) return std::nullopt;
    std::vector<Record> records;
    for (const json& item : array) records.push_back(fromJSON(item));
    return records;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

std::string encodePairedDevices(const std::vector<PairedDevice>& devices) {
  json array = json::array();
  for (const auto& d : devices) {
    json item = {{"deviceID", d.deviceID.string()},
                 {"name", d.name},
                 {"publicKey", AuthCrypto::base64Encode(d.publicKey)},
                 {"pairedAt", iso8601(d.pairedAt)}};
    if (d.lastSeen) item["lastSeen"] = iso8601(*d.lastSeen);
    array.push_back(std::move(item));
  }
  return array.dump(2);  // keys sorted, as objects keep them
}

std::optional<std::vector<PairedDevice>> decodePairedDevices(std::string_view text) {
  return decodeArray<PairedDevice>(text, [](const nlohmann::json& o) {
    return PairedDevice{uuidField(o, "deviceID"), textField(o, "name"), bytesField(o, "publicKey"),
                        dateField(o, "pairedAt"), optionalDate(o, "lastSeen")};
  });
}

std::string encodePairedHosts(const std::vector<PairedHost>& hosts) {
  json array = json::array();
  for (const auto& h : hosts) {
    json item = {{"hostID", h.hostID.string()},
                 {"name", h.name},
                 {"fingerprint", AuthCrypto::base64Encode(h.fingerprint)},
                 {"pairedAt", iso8601(h.pairedAt)}};
    if (h.lastUsed) item["lastUsed"] = iso8601(*h.lastUsed);
    array.push_back(std::move(item));
  }
  return array.dump();
}

std::optional<std::vector<PairedHost>> decodePairedHosts(std::string_view text) {
  return decodeArray<PairedHost>(text, [](const nlohmann::json& o) {
    return PairedHost{uuidField(o, "hostID"), textField(o, "name"), bytesField(o, "fingerprint"),
                      dateField(o, "pairedAt"), optionalDate(o, "lastUsed")};
  });
}

// ---- PairedDeviceStore ----

PairedDeviceStore::PairedDeviceStore(std::optional<fs::path> file) : file_(std::move(file)) {
  if (!file_) return;
  FileSecretStore source(*file_);
  std::optional<Data> bytes;
  try {
    bytes = source.read();
  } catch (const SecretStoreError&) {
    fileIsCorrupt_ = true;  // there, but unreadable: never written over blindly
    return;
  }
  if (!bytes) return;
  if (auto devices =
          decodePairedDevices({reinterpret_cast<const char*>(bytes->data()), bytes->size()})) {
    items_ = std::move(*devices);
  } else {
    fileIsCorrupt_ = true;
  }
}

fs::path PairedDeviceStore::defaultLocation() {
  return userDataDirectory("tovu-host") / "paired-devices.json";
}

std::vector<PairedDevice> PairedDeviceStore::all() const {
  std::lock_guard guard(lock_);
  return items_;
}

std::optional<PairedDevice> PairedDeviceStore::device(const UUID& deviceID) const {
  std::lock_guard guard(lock_);
  for (const auto& d : items_) {
    if (d.deviceID == deviceID) return d;
  }
  return std::nullopt;
}

void PairedDeviceStore::add(PairedDevice device) {
  std::lock_guard guard(lock_);
  std::erase_if(items_, [&](const PairedDevice& d) { return d.deviceID == device.deviceID; });
  items_.push_back(std::move(device));
  save();
}

bool PairedDeviceStore::remove(const UUID& deviceID) {
  std::lock_guard guard(lock_);
  if (std::erase_if(items_, [&](const PairedDevice& d) { return d.deviceID == deviceID; }) == 0) {
    return false;
  }
  save();
  return true;
}

void PairedDeviceStore::touch(const UUID& deviceID, WallClock::time_point date) {
  std::lock_guard guard(lock_);
  for (auto& d : items_) {
    if (d.deviceID != deviceID) continue;
    d.lastSeen = date;
    save();
    return;
  }
}

// Errors are swallowed: the list in memory is the authority until the next start.
void PairedDeviceStore::save() {
  if (!file_) return;
  std::error_code error;
  if (fileIsCorrupt_) {
    fs::path aside = *file_;
    aside += ".corrupt-" + std::to_string(WallClock::to_time_t(WallClock::now()));
    fs::rename(*file_, aside, error);
    if (error && fs::exists(*file_)) return;  // could not keep it: leave it alone
    fileIsCorrupt_ = false;
  }
  const std::string text = encodePairedDevices(items_);
  try {
    writeFileAtomically(*file_, Data(text.begin(), text.end()));
  } catch (const SecretStoreError&) {
  }
}

// ---- PairedHostStore ----

std::vector<PairedHost> PairedHostStore::read() const {
  try {
    const auto bytes = store_->read();
    if (!bytes) return {};
    return decodePairedHosts({reinterpret_cast<const char*>(bytes->data()), bytes->size()})
        .value_or(std::vector<PairedHost>{});
  } catch (const SecretStoreError&) {
    return {};
  }
}

void PairedHostStore::write(const std::vector<PairedHost>& hosts) {
  const std::string text = encodePairedHosts(hosts);
  try {
    store_->write(Data(text.begin(), text.end()));
  } catch (const SecretStoreError&) {
  }
}

std::vector<PairedHost> PairedHostStore::all() const {
  std::lock_guard guard(lock_);
  return read();
}

std::optional<PairedHost> PairedHostStore::host(const UUID& hostID) const {
  return match(hostID, "");
}

std::optional<PairedHost> PairedHostStore::match(const std::optional<UUID>& hostID,
                                                 const std::string& name) const {
  std::lock_guard guard(lock_);
  for (const auto& h : read()) {
    if (hostID ? h.hostID == *hostID : h.name == name) return h;
  }
  return std::nullopt;
}

void PairedHostStore::save(PairedHost host) {
  std::lock_guard guard(lock_);
  auto hosts = read();
  std::erase_if(hosts, [&](const PairedHost& h) { return h.hostID == host.hostID; });
  hosts.push_back(std::move(host));
  write(hosts);
}

void PairedHostStore::touch(const UUID& hostID, WallClock::time_point date) {
  std::lock_guard guard(lock_);
  auto hosts = read();
  for (auto& h : hosts) {
    if (h.hostID != hostID) continue;
    h.lastUsed = date;
    write(hosts);
    return;
  }
}

void PairedHostStore::remove(const UUID& hostID) {
  std::lock_guard guard(lock_);
  auto hosts = read();
  if (std::erase_if(hosts, [&](const PairedHost& h) { return h.hostID == hostID; }) > 0) {
    write(hosts);
  }
}

// ---- ClientIdentity ----

Data ClientIdentity::storedForm() const {
  Data bytes(deviceID.bytes.begin(), deviceID.bytes.end());
  const Data scalar = privateKey.rawRepresentation();
  bytes.insert(bytes.end(), scalar.begin(), scalar.end());
  return bytes;
}

std::optional<ClientIdentity> ClientIdentity::fromStoredForm(ByteView bytes) {
  if (bytes.size() != 48) return std::nullopt;
  auto key = P256PrivateKey::fromRaw(bytes.subspan(16));
  if (!key) return std::nullopt;
  UUID id;
  std::copy_n(bytes.begin(), 16, id.bytes.begin());
  return ClientIdentity{id, std::move(*key)};
}

ClientIdentity ClientIdentity::loadOrCreate(SecretStore& store) {
  if (const auto stored = store.read()) {
    if (auto identity = fromStoredForm(*stored)) return std::move(*identity);
  }
  ClientIdentity identity{AuthCrypto::randomUUID(), P256PrivateKey::generate()};
  store.write(identity.storedForm());
  return identity;
}

}  // namespace kelvaron
