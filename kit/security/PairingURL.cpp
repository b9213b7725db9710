#include "kit/security/PairingURL.hpp"

#include <algorithm>
#include <cctype>
#include <map>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/wire/FrameReader.hpp"

namespace kelvaron {

namespace {

bool isUnreserved(unsigned char c) {
  return std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string lowercase(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

struct URLParts {
  std::string scheme;
  std::string host;
  // Query items by their first occurrence; an item without "=" has no value.
  std::map<std::string, std::optional<std::string>> query;
};

// scheme "://" [userinfo "@"] host [":" port] [path] ["?" query] ["#" fragment]
std::optional<URLParts> splitURL(std::string_view text) {
  const auto colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0 ||
      !std::isalpha(static_cast<unsigned char>(text[0]))) {
    return std::nullopt;
  }
  URLParts parts;
  parts.scheme = text.substr(0, colon);
  if (!std::ranges::all_of(parts.scheme, [](unsigned char c) {
        return std::isalnum(c) || c == '+' || c == '-' || c == '.';
      })) {
    return std::nullopt;
  }
  std::string_view rest = text.substr(colon + 1);
  if (!rest.starts_with("//")) return std::nullopt;
  rest.remove_prefix(2);
  if (const auto hash = rest.find('#'); hash != std::string_view::npos) rest = rest.substr(0, hash);
  const auto authorityEnd = rest.find_first_of("/?");
  std::string_view authority = rest.substr(0, authorityEnd);
  if (const auto at = authority.rfind('@'); at != std::string_view::npos)
    authority.remove_prefix(at + 1);
  if (const auto port = authority.find(':'); port != std::string_view::npos)
    authority = authority.substr(0, port);
  // The host stays as it was typed: "p%61ir" is not "pair".
  parts.host = authority;
  const auto question = rest.find('?');
  if (question == std::string_view::npos) return parts;
  std::string_view query = rest.substr(question + 1);
  while (!query.empty()) {
    const auto amp = query.find('&');
    const std::string_view item = query.substr(0, amp);
    query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
    const auto eq = item.find('=');
    auto name = percentDecode(item.substr(0, eq));
    if (!name) return std::nullopt;
    std::optional<std::string> value;
    if (eq != std::string_view::npos) {
      value = percentDecode(item.substr(eq + 1));
      if (!value) return std::nullopt;
      // A value that is no text counts as absent, like an item without one.
      if (!isValidUTF8({reinterpret_cast<const std::uint8_t*>(value->data()), value->size()})) {
        value.reset();
      }
    }
    parts.query.try_emplace(*name, std::move(value));
  }
  return parts;
}

}  // namespace

std::string percentEncode(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (isUnreserved(c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

std::optional<std::string> percentDecode(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    const int high = hexValue(text[i + 1]), low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    out += static_cast<char>(high << 4 | low);
    i += 2;
  }
  return out;
}

std::string PairingURL::url() const {
  return "tovu://pair?v=1&h=" + percentEncode(hostID.string()) + "&n=" + percentEncode(hostName) +
         "&fp=" + percentEncode(AuthCrypto::base64URLEncode(fingerprint)) +
         "&t=" + percentEncode(AuthCrypto::base64URLEncode(token)) +
         (address ? "&a=" + percentEncode(*address) : "");
}

std::optional<PairingURL> PairingURL::parse(std::string_view text) {
  const auto parts = splitURL(text);
  if (!parts) return std::nullopt;
  if (std::ranges::find(acceptedSchemes, lowercase(parts->scheme)) == acceptedSchemes.end()) {
    return std::nullopt;
  }
  if (parts->host != "pair") return std::nullopt;
  auto item = [&](const char* key) -> std::optional<std::string> {
    const auto found = parts->query.find(key);
    return found == parts->query.end() ? std::nullopt : found->second;
  };
  if (item("v") != "1") return std::nullopt;
  const auto hostText = item("h");
  const auto hostID = hostText ? UUID::parse(*hostText) : std::nullopt;
  const auto name = item("n");
  const auto fpText = item("fp"), tokenText = item("t");
  const auto fingerprint = fpText ? AuthCrypto::base64URLDecode(*fpText) : std::nullopt;
  const auto token = tokenText ? AuthCrypto::base64URLDecode(*tokenText) : std::nullopt;
  if (!hostID || !name || !fingerprint || fingerprint->size() != 32 || !token ||
      token->size() != 16) {
    return std::nullopt;
  }
  return PairingURL{*hostID, *name, *fingerprint, *token, item("a")};
}

}  // namespace kelvaron
