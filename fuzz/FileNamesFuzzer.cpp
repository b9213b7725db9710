// The names the device gives the files it sends (NUL between them): whatever their bytes, each
// file gets a name that is safe in a folder of ours, and no two of one transfer meet, whatever
// their case.

#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "host/files/FileNames.hpp"

namespace {

bool isSafe(const std::string& name) {
  if (name.empty() || name.size() > kelvaron::host::kMaxFileNameBytes || name.front() == '.') {
    return false;
  }
  for (const unsigned char c : name) {
    if (c < 0x20 || c == 0x7F || c == '/' || c == '\\') return false;
  }
  return g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  std::set<std::string> taken, folded;
  // The wire carries at most ten files in one offer; a few more do no harm.
  for (int files = 0; files < 16 && !rest.empty(); ++files) {
    const std::size_t cut = rest.find('\0');
    const std::string_view offered = rest.substr(0, cut);
    rest = cut == std::string_view::npos ? std::string_view() : rest.substr(cut + 1);
    const std::string name =
        kelvaron::host::uniqueFileName(kelvaron::host::sanitizedFileName(offered), taken);
    if (!isSafe(name)) __builtin_trap();
    gchar* lower = g_utf8_strdown(name.data(), static_cast<gssize>(name.size()));
    const bool unique = folded.insert(lower).second;
    g_free(lower);
    if (!unique) __builtin_trap();
  }
  return 0;
}
