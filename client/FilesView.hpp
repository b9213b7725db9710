#pragma once

#include <filesystem>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kit/transport/AsyncQueue.hpp"
#include "kit/transport/Connection.hpp"

namespace kelvaron::client {

// What a viewer sends the host: files, to land in its inbox and on its clipboard. Each transfer
// is an offer of its own. The host takes one at a time, so each waits for the one before to end;
// `atOnce` starts them together, as a person sharing again before the first ends would, and the
// host refuses all but one.
struct FilesOptions {
  std::vector<std::vector<std::filesystem::path>> transfers;
  FileTransferKind kind = FileTransferKind::attach;
  bool atOnce = false;
  bool leaveWhenDone = false;  // an errand: the viewer leaves once every transfer has ended
  bool progressBar = false;    // for a terminal: one line redrawn, with the rate and time left
};

// The type identifier the device gives a file, by its extension.
std::string fileTypeID(const std::filesystem::path& path);

// A transfer's progress for a person: a bar, the share and amount sent, the rate since the host
// accepted, and the time left at that rate.
std::string progressLine(std::uint64_t sent, std::uint64_t total, double seconds);

// Files sent to the host for a person at a terminal: for each transfer one offer, then, once the
// host accepted it, every file's chunks in order and the end; progress as they go, "Done" or the
// host's reason at the end. With several transfers each line begins with the first file's name.
class FilesView {
 public:
  static constexpr std::size_t chunkBytes = 65536;

  FilesView(Connection& connection, FilesOptions options, std::ostream& out);
  ~FilesView();

  // Once the host has greeted: offers transfer `index` and sends its files once accepted.
  // Returns when the host said how it went, or the connection went away.
  asio::awaitable<void> send(std::size_t index);
  // False for a message that is not about one of these transfers.
  bool handle(const Message& message);
  // A person's interrupt: each transfer under way is cancelled at the host.
  void cancel();
  // The host's messages ended: a send still waiting for its answer gives up.
  void connectionEnded();
  // Every transfer has ended, however.
  bool done() const;
  // Why a transfer failed, if one did; asked when leaving.
  std::optional<std::string> failure() const;

 private:
  struct Transfer;

  asio::awaitable<void> sendChunks(Transfer& transfer, const std::vector<FileMeta>& files);
  void showProgress(Transfer& transfer, std::uint64_t sent, std::uint64_t total);
  void end(Transfer& transfer, const std::string& line, std::optional<std::string> failure);

  Connection& connection_;
  const FilesOptions options_;
  std::ostream& out_;
  std::vector<std::unique_ptr<Transfer>> transfers_;
};

}  // namespace kelvaron::client
