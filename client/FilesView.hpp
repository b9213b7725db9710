#pragma once

#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "kit/transport/AsyncQueue.hpp"
#include "kit/transport/Connection.hpp"

namespace kelvaron::client {

// What a viewer sends the host: files, to land in its inbox and on its clipboard.
struct FilesOptions {
  std::vector<std::filesystem::path> files;
  FileTransferKind kind = FileTransferKind::attach;
  bool wanted() const { return !files.empty(); }
};

// The type identifier the device gives a file, by its extension.
std::string fileTypeID(const std::filesystem::path& path);

// Files sent to the host for a person at a terminal, for the send command, which leaves once the
// host said how it went: one offer, then, once the host accepted it, every file's chunks in order
// and the end; progress lines as they go, "Done" or the host's reason at the end.
class FilesView {
 public:
  static constexpr std::size_t chunkBytes = 65536;

  FilesView(Connection& connection, FilesOptions options, std::ostream& out);

  // Once the host has greeted: offers the files and sends them once accepted. Returns when all is
  // sent, the host said no, or the connection went away.
  asio::awaitable<void> send();
  // False for a message that is not about this transfer.
  bool handle(const Message& message);
  // The host's messages ended: a send still waiting for its answer gives up.
  void connectionEnded() { answers_.finish(); }
  bool done() const { return finished_; }
  // Why the errand failed, if it did; asked when leaving.
  std::optional<std::string> failure() const;

 private:
  bool sendFile(std::uint16_t index, const std::filesystem::path& path);

  Connection& connection_;
  const FilesOptions options_;
  std::ostream& out_;
  std::uint32_t transferID_ = 0;
  bool offered_ = false, finished_ = false;
  std::optional<std::string> failure_;
  // The host's answers to the offer, for `send`: accepted, or the end of the transfer.
  AsyncQueue<FileTransferState> answers_;
};

}  // namespace kelvaron::client
