#include "kit/relay/InviteCode.hpp"

#include <algorithm>
#include <cctype>

namespace kelvaron {

namespace {

constexpr std::size_t kLength = 10;

}  // namespace

std::optional<std::string> InviteCode::normalize(std::string_view text) {
  std::string code;
  for (const char raw : text) {
    const char c = char(std::toupper(static_cast<unsigned char>(raw)));
    if (c == '-' || std::isspace(static_cast<unsigned char>(c))) continue;
    const char read = c == 'O' ? '0' : (c == 'I' || c == 'L') ? '1' : c;
    if (InviteCode::alphabet.find(read) == std::string_view::npos) return std::nullopt;
    code += read;
  }
  if (code.size() != kLength) return std::nullopt;
  return code;
}

std::string InviteCode::display(std::string_view text) {
  if (text.size() != kLength) return std::string(text);
  std::string shown(text.substr(0, 5));
  shown += '-';
  shown += text.substr(5);
  return shown;
}

std::string RelayRegion::displayName(std::string_view code) {
  const auto isSin = std::ranges::equal(code, std::string_view("sin"), [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) == b;
  });
  return isSin ? "Singapore" : std::string(code);
}

}  // namespace kelvaron
