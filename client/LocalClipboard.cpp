#include "client/LocalClipboard.hpp"

#include <cstdio>
#include <memory>

namespace kelvaron::client {

namespace {

using Pipe = std::unique_ptr<FILE, int (*)(FILE*)>;

// xclip's own output goes nowhere: the copy it leaves in the background must not hold our
// standard output open.
Pipe open(const char* command, const char* mode) { return {::popen(command, mode), &::pclose}; }

}  // namespace

std::optional<std::string> LocalClipboard::read() {
  Pipe xclip = open("timeout 3 xclip -o -selection clipboard 2>/dev/null", "r");
  if (!xclip) return std::nullopt;
  std::string text;
  char buffer[65536];
  while (const std::size_t got = std::fread(buffer, 1, sizeof buffer, xclip.get())) {
    text.append(buffer, got);
  }
  if (::pclose(xclip.release()) != 0 || text.empty()) return std::nullopt;
  return text;
}

bool LocalClipboard::write(const std::string& text) {
  Pipe xclip = open("xclip -i -selection clipboard >/dev/null 2>&1", "w");
  if (!xclip) return false;
  const bool written = std::fwrite(text.data(), 1, text.size(), xclip.get()) == text.size();
  return ::pclose(xclip.release()) == 0 && written;
}

}  // namespace kelvaron::client
