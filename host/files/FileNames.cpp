#include "host/files/FileNames.hpp"

#include <glib.h>

#include <vector>

#include "kit/wire/FrameReader.hpp"

namespace kelvaron::host {

namespace {

// The code point starting at `text[at]` of well-formed UTF-8, and its length in bytes.
std::pair<char32_t, std::size_t> decode(std::string_view text, std::size_t at) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[at + i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return {lead, 1};
  if (lead < 0xE0) return {char32_t(lead & 0x1F) << 6 | (byte(1) & 0x3F), 2};
  if (lead < 0xF0) {
    return {char32_t(lead & 0x0F) << 12 | char32_t(byte(1) & 0x3F) << 6 | (byte(2) & 0x3F), 3};
  }
  return {char32_t(lead & 0x07) << 18 | char32_t(byte(1) & 0x3F) << 12 |
              char32_t(byte(2) & 0x3F) << 6 | (byte(3) & 0x3F),
          4};
}

bool isControl(char32_t c) { return c < 0x20 || (c >= 0x7F && c <= 0x9F); }

bool isWhiteSpace(char32_t c) {
  return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
         c == 0x3000;
}

// At most `limit` bytes of well-formed UTF-8 `text`, cut before a character, never inside one.
std::string cutUTF8(std::string text, std::size_t limit) {
  if (text.size() <= limit) return text;
  std::size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  text.resize(end);
  return text;
}

std::string folded(const std::string& name) {
  gchar* lower = g_utf8_strdown(name.data(), static_cast<gssize>(name.size()));
  std::string result(lower);
  g_free(lower);
  return result;
}

}  // namespace

std::string sanitizedFileName(std::string_view raw) {
  const std::string text = validUTF8(raw);
  // Separators become underscores; control characters go.
  std::string name;
  std::vector<std::size_t> starts;  // of each character kept, in `name`
  for (std::size_t at = 0; at < text.size();) {
    const auto [c, length] = decode(text, at);
    if (c == '/' || c == '\\') {
      starts.push_back(name.size());
      name += '_';
    } else if (!isControl(c)) {
      starts.push_back(name.size());
      name.append(text, at, length);
    }
    at += length;
  }
  // White space at both ends, then the leading dots that would hide the file.
  std::size_t first = 0, last = starts.size();
  while (first < last && isWhiteSpace(decode(name, starts[first]).first)) ++first;
  while (last > first && isWhiteSpace(decode(name, starts[last - 1]).first)) --last;
  const std::size_t begin = first < starts.size() ? starts[first] : name.size();
  const std::size_t end = last < starts.size() ? starts[last] : name.size();
  name = name.substr(begin, end - begin);
  name.erase(0, std::min(name.find_first_not_of('.'), name.size()));
  if (name.empty()) return "file";
  return cutUTF8(std::move(name), kMaxFileNameBytes);
}

std::string uniqueFileName(const std::string& name, std::set<std::string>& taken) {
  if (taken.insert(folded(name)).second) return name;
  const std::size_t dot = name.rfind('.');
  const bool hasExtension = dot != std::string::npos && dot > 0 && dot + 1 < name.size();
  for (unsigned n = 2;; ++n) {
    std::string number(" ");
    number += std::to_string(n);
    std::string stem = name, tail = number;
    // An extension too long to leave room for any of the stem counts as part of it.
    if (hasExtension && number.size() + name.size() - dot < kMaxFileNameBytes) {
      stem = name.substr(0, dot);
      tail = number + name.substr(dot);
    }
    std::string candidate = cutUTF8(std::move(stem), kMaxFileNameBytes - tail.size()) + tail;
    if (taken.insert(folded(candidate)).second) return candidate;
  }
}

}  // namespace kelvaron::host
