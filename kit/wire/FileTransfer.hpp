#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace kelvaron {

struct FileTransferLimits {
  static constexpr std::size_t maxFiles = 10;
  static constexpr std::uint64_t maxTotalBytes = 104857600;  // 100 MiB
};

// A byte count for a person: "20 MB", "1.5 MB", "2 KB".
std::string sizeText(std::uint64_t bytes);

// Checks a list of file sizes before they are offered; yields the reason for a person when they
// cannot be sent.
std::optional<std::string> fileOfferProblem(std::span<const std::uint64_t> sizes);

}  // namespace kelvaron
