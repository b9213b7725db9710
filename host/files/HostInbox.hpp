#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace kelvaron::host {

// The folder where files sent from the device land: one folder per transfer, named after its
// decimal ID. The root is private to its owner (0700) and made when first needed.
class HostInbox {
 public:
  explicit HostInbox(std::filesystem::path root) : root_(std::move(root)) {}

  // $XDG_DATA_HOME/tovu-host/Inbox, XDG_DATA_HOME being ~/.local/share when unset or relative.
  static std::filesystem::path defaultRoot();

  const std::filesystem::path& root() const { return root_; }
  std::filesystem::path folder(std::uint32_t transferID) const {
    return root_ / std::to_string(transferID);
  }

  // Makes the root (and its parents) when missing, owner-only; throws std::filesystem_error.
  void makeRoot() const;

  // Removes the transfers' folders older than `maxAge` at `now`, apart from those named in
  // `keep`, and yields them. Only real folders count: files and links in the root stay, and
  // links are never followed. A root that cannot be listed yields nothing.
  std::vector<std::filesystem::path> prune(std::filesystem::file_time_type now,
                                           const std::set<std::string>& keep,
                                           std::chrono::seconds maxAge) const;

 private:
  std::filesystem::path root_;
};

}  // namespace kelvaron::host
