#include "kit/wire/FileTransfer.hpp"

#include <cmath>
#include <cstdio>
#include <limits>

namespace kelvaron {

namespace {
std::string format(const char* pattern, double value) {
  char text[64];
  std::snprintf(text, sizeof text, pattern, value);
  return text;
}
}  // namespace

std::string sizeText(std::uint64_t bytes) {
  const double megabytes = static_cast<double>(bytes) / 1048576.0;
  if (megabytes >= 10) return format("%.0f MB", std::round(megabytes));
  if (megabytes >= 1) {
    const double tenths = std::round(megabytes * 10) / 10;
    return format(tenths == std::floor(tenths) ? "%.0f MB" : "%.1f MB", tenths);
  }
  return format("%.0f KB", std::round(static_cast<double>(bytes) / 1024.0));
}

std::optional<std::string> fileOfferProblem(std::span<const std::uint64_t> sizes) {
  if (sizes.empty()) return "Nothing to send";
  if (sizes.size() > FileTransferLimits::maxFiles) {
    return "Too many files: " + std::to_string(sizes.size()) + " (limit 10)";
  }
  std::uint64_t total = 0;
  for (std::uint64_t size : sizes) {
    total = size > std::numeric_limits<std::uint64_t>::max() - total
                ? std::numeric_limits<std::uint64_t>::max()
                : total + size;
  }
  if (total > FileTransferLimits::maxTotalBytes) {
    return "Too large to send: " + sizeText(total) + " (limit 100 MB)";
  }
  return std::nullopt;
}

}  // namespace kelvaron
