#include "kit/relay/CoordinatorWire.hpp"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/relay/CoordinatorError.hpp"

namespace kelvaron::CoordinatorWire {

namespace {

using nlohmann::json;

json parsedObject(std::string_view body) {
  json parsed = json::parse(body, nullptr, false);
  return parsed.is_object() ? parsed : json();
}

std::optional<std::string> text(const json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

std::optional<std::uint64_t> seconds(const json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_number_unsigned()) return std::nullopt;
  return found->get<std::uint64_t>();
}

std::optional<Data> base64URL(const json& object, const char* key) {
  const auto value = text(object, key);
  return value ? AuthCrypto::base64URLDecode(*value) : std::nullopt;
}

// What proves every request: the host's key, the time and the signature over both.
struct Proved {
  Data hostKey;
  std::uint64_t ts;
  Data proof;
};

std::optional<Proved> provedBy(const json& object) {
  auto hostKey = base64URL(object, "host_key"), proof = base64URL(object, "host_proof");
  const auto ts = seconds(object, "ts");
  if (!hostKey || !proof || !ts) return std::nullopt;
  return Proved{std::move(*hostKey), *ts, std::move(*proof)};
}

std::optional<RelayCandidate> candidate(const json& entry) {
  if (!entry.is_object()) return std::nullopt;
  const auto region = text(entry, "region"), host = text(entry, "host");
  const auto port = seconds(entry, "port");
  if (!region || !host || !port || *port > 65535) return std::nullopt;
  return RelayCandidate{*region, *host, std::uint16_t(*port)};
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) ==
           std::tolower(static_cast<unsigned char>(y));
  });
}

std::string_view trimmed(std::string_view text) {
  const auto space = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  while (!text.empty() && space(text.front())) text.remove_prefix(1);
  while (!text.empty() && space(text.back())) text.remove_suffix(1);
  return text;
}

// The host of an authority "user@host:port", IPv6 literals in brackets.
std::string_view hostOf(std::string_view authority) {
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
    authority.remove_prefix(at + 1);
  }
  if (authority.starts_with('[')) {
    const auto close = authority.find(']');
    return close == std::string_view::npos ? std::string_view() : authority.substr(1, close - 1);
  }
  return authority.substr(0, authority.find(':'));
}

}  // namespace

std::string encode(const EnrollRequest& request) {
  return json{{"invite", request.invite},
              {"host_key", AuthCrypto::base64URLEncode(request.hostKey)},
              {"ts", request.ts},
              {"host_proof", AuthCrypto::base64URLEncode(request.proof)}}
      .dump();
}

std::string encode(const TokenRequest& request) {
  json body{{"role", request.role},
            {"host_key", AuthCrypto::base64URLEncode(request.hostKey)},
            {"ts", request.ts},
            {"host_proof", AuthCrypto::base64URLEncode(request.proof)}};
  if (request.region) body["region"] = *request.region;
  return body.dump();
}

std::optional<EnrollRequest> decodeEnrollRequest(std::string_view body) {
  const json object = parsedObject(body);
  auto invite = text(object, "invite");
  auto proved = provedBy(object);
  if (!invite || !proved) return std::nullopt;
  return EnrollRequest{std::move(*invite), std::move(proved->hostKey), proved->ts,
                       std::move(proved->proof)};
}

std::optional<TokenRequest> decodeTokenRequest(std::string_view body) {
  const json object = parsedObject(body);
  auto role = text(object, "role");
  auto proved = provedBy(object);
  auto region = text(object, "region");
  if (!role || !proved || (object.contains("region") && !region)) return std::nullopt;
  return TokenRequest{std::move(*role), std::move(proved->hostKey), proved->ts,
                      std::move(proved->proof), std::move(region)};
}

std::string encodeAccount(const std::string& account) { return json{{"account", account}}.dump(); }

std::string encodeAdmission(const RelayAdmission& admission) {
  json relays = json::array();
  for (const auto& relay : admission.relays) {
    relays.push_back({{"region", relay.region}, {"host", relay.host}, {"port", relay.port}});
  }
  const auto expiresAt =
      std::chrono::duration_cast<std::chrono::seconds>(admission.expiresAt.time_since_epoch());
  return json{{"token", AuthCrypto::base64URLEncode(admission.token)},
              {"relays", relays},
              {"expires_at", std::uint64_t(std::max<std::int64_t>(expiresAt.count(), 0))}}
      .dump();
}

std::string encodeError(std::string_view error) { return json{{"error", error}}.dump(); }

std::string decodeAccount(std::string_view body) {
  const auto account = text(parsedObject(body), "account");
  if (!account) throw CoordinatorError(CoordinatorError::Kind::badResponse);
  return *account;
}

RelayAdmission decodeAdmission(std::string_view body) {
  const CoordinatorError bad(CoordinatorError::Kind::badResponse);
  const json object = parsedObject(body);
  if (object.is_null()) throw bad;
  auto token = base64URL(object, "token");
  const auto expiresAt = seconds(object, "expires_at");
  const auto relays = object.find("relays");
  // Later than year 2200 is no expiry a coordinator means, and past what the clock can hold.
  constexpr std::uint64_t kLatest = 7'258'118'400;
  if (!token || token->empty() || !expiresAt || *expiresAt > kLatest || relays == object.end() ||
      !relays->is_array()) {
    throw bad;
  }
  RelayAdmission admission{std::move(*token),
                           {},
                           std::chrono::system_clock::time_point(std::chrono::seconds(*expiresAt))};
  for (const auto& entry : *relays) {
    const auto relay = candidate(entry);
    if (!relay) throw bad;
    admission.relays.push_back(*relay);
  }
  return admission;
}

bool isFresh(const RelayAdmission& admission, std::chrono::system_clock::time_point now,
             std::chrono::duration<double> margin) {
  return std::chrono::duration<double>(admission.expiresAt - now) > margin;
}

std::string checkedBaseURL(std::string_view typed) {
  const std::string_view url = trimmed(typed);
  const auto separator = url.find("://");
  const CoordinatorError bad(CoordinatorError::Kind::badBaseURL);
  if (separator == std::string_view::npos) throw bad;
  const std::string_view scheme = url.substr(0, separator);
  if (!equalsIgnoringCase(scheme, "https") && !equalsIgnoringCase(scheme, "http")) throw bad;
  const std::string_view rest = url.substr(separator + 3);
  const std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  const bool spaced = std::ranges::any_of(url, [](char c) {
    return std::isspace(static_cast<unsigned char>(c)) ||
           std::iscntrl(static_cast<unsigned char>(c));
  });
  if (hostOf(authority).empty() || spaced) throw bad;
  return std::string(url);
}

std::string endpointURL(std::string_view base, std::string_view endpoint) {
  const std::size_t queryAt = std::min(base.find_first_of("?#"), base.size());
  std::string url(base.substr(0, queryAt));
  if (!url.ends_with('/')) url += '/';
  url += "v1/";
  url += endpoint;
  url += base.substr(queryAt);
  return url;
}

}  // namespace kelvaron::CoordinatorWire
