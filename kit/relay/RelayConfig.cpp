#include "kit/relay/RelayConfig.hpp"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/relay/RelayJoinGrant.hpp"

namespace kelvaron {

namespace {

using nlohmann::json;

std::optional<RelayConfig> decoded(const json& entry) {
  if (!entry.is_object() || !entry.contains("relays") || !entry["relays"].is_array() ||
      !entry.contains("grant") || !entry["grant"].is_string()) {
    return std::nullopt;
  }
  RelayConfig config;
  for (const json& relay : entry["relays"]) {
    if (!relay.is_object() || !relay.contains("host") || !relay["host"].is_string() ||
        !relay.contains("port") || !relay["port"].is_number_unsigned() ||
        relay["port"].get<std::uint64_t>() > 65535) {
      return std::nullopt;
    }
    config.relays.push_back(
        {relay["host"].get<std::string>(), std::uint16_t(relay["port"].get<std::uint64_t>())});
  }
  auto grant = AuthCrypto::base64Decode(entry["grant"].get<std::string>());
  if (!grant) return std::nullopt;
  config.grant = std::move(*grant);
  return config;
}

json encoded(const RelayConfig& config) {
  json relays = json::array();
  for (const auto& relay : config.relays)
    relays.push_back({{"host", relay.host}, {"port", relay.port}});
  return {{"relays", relays}, {"grant", AuthCrypto::base64Encode(config.grant)}};
}

}  // namespace

bool RelayConfig::isValidFor(ByteView clientPublicKey) const {
  if (relays.empty() || relays.size() > 8) return false;
  if (std::ranges::any_of(relays, [](const auto& r) { return r.host.empty() || r.port == 0; })) {
    return false;
  }
  const auto parsed = RelayJoinGrant::parse(grant);
  return parsed && std::ranges::equal(parsed->clientPublicKey, clientPublicKey);
}

std::optional<RelayConfig> RelayConfigStore::config(const UUID& hostID) const {
  std::lock_guard guard(lock_);
  for (auto& [id, config] : load()) {
    if (id == hostID) return std::move(config);
  }
  return std::nullopt;
}

void RelayConfigStore::save(const RelayConfig& config, const UUID& hostID) {
  std::lock_guard guard(lock_);
  Configs configs = load();
  std::erase_if(configs, [&](const auto& entry) { return entry.first == hostID; });
  configs.emplace_back(hostID, config);
  store(configs);
}

void RelayConfigStore::remove(const UUID& hostID) {
  std::lock_guard guard(lock_);
  Configs configs = load();
  if (std::erase_if(configs, [&](const auto& entry) { return entry.first == hostID; })) {
    store(configs);
  }
}

std::vector<UUID> RelayConfigStore::hostIDs() const {
  std::lock_guard guard(lock_);
  std::vector<UUID> ids;
  for (const auto& [id, config] : load()) ids.push_back(id);
  return ids;
}

RelayConfigStore::Configs RelayConfigStore::load() const {
  std::optional<Data> bytes;
  try {
    bytes = store_->read();
  } catch (const SecretStoreError&) {
    return {};
  }
  if (!bytes) return {};
  const json all = json::parse(bytes->begin(), bytes->end(), nullptr, false);
  if (!all.is_object()) return {};  // nothing stored that we can read; left as it is
  Configs configs;
  for (const auto& [key, entry] : all.items()) {
    const auto id = UUID::parse(key);
    auto config = decoded(entry);
    if (id && config) configs.emplace_back(*id, std::move(*config));
  }
  if (configs.size() != all.size()) store(configs);
  return configs;
}

void RelayConfigStore::store(const Configs& configs) const {
  if (configs.empty()) return store_->remove();
  json all = json::object();
  for (const auto& [id, config] : configs) all[id.string()] = encoded(config);
  const std::string text = all.dump();
  try {
    store_->write(Data(text.begin(), text.end()));
  } catch (const SecretStoreError&) {
  }
}

}  // namespace kelvaron
