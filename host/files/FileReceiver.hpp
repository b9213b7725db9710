#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "host/files/FileNames.hpp"
#include "host/files/HostInbox.hpp"
#include "host/files/PasteboardFile.hpp"
#include "kit/wire/Message.hpp"

namespace kelvaron::host {

// Receives the files the device sends: one transfer at a time, an offer, its files' chunks in
// order, and an end, written into the inbox's folder of the transfer. Every answer goes to `reply`
// as a fileStatus; at the end the files go to `finish` (which puts them on the clipboard) and
// their folder stays. A failure or an abort removes the folder.
//
// Not thread-safe: one caller at a time. Offers and chunks do a little file-system work each
// (a chunk is at most 64 KiB); `end` reads the images back and may convert one to PNG, which for a
// large picture takes a while, so a caller that must stay responsive runs it off its executor.
class FileReceiver {
 public:
  using Clock = std::function<double()>;  // a steady time, in seconds
  using Reply = std::function<void(Message)>;
  using Finish = std::function<bool(std::vector<PasteboardFile>)>;

  // The least time between two progress reports.
  static constexpr double progressInterval = 0.25;
  static constexpr std::size_t maxChunkBytes = 65536;

  FileReceiver(HostInbox inbox, Clock now, Reply reply, Finish finish);
  ~FileReceiver();
  FileReceiver(const FileReceiver&) = delete;
  FileReceiver& operator=(const FileReceiver&) = delete;

  void offer(std::uint32_t transferID, const std::vector<FileMeta>& files, FileTransferKind kind);
  void chunk(std::uint32_t transferID, std::uint16_t fileIndex, std::uint64_t offset,
             std::span<const std::uint8_t> data);
  void end(std::uint32_t transferID);
  // Drops the running transfer, if any, and its folder, without a word to the device: for its
  // cancel and for the session's end.
  void abort();

  std::optional<std::uint32_t> activeID() const {
    return active_ ? std::optional(active_->id) : std::nullopt;
  }
  std::optional<std::uint32_t> lastCompletedID() const { return lastCompletedID_; }
  const HostInbox& inbox() const { return inbox_; }

 private:
  struct Active {
    std::uint32_t id = 0;
    std::vector<FileMeta> files;
    std::filesystem::path folder;
    std::vector<std::filesystem::path> paths;
    std::vector<std::uint64_t> received;
    int openFile = -1;  // a descriptor
    std::size_t openIndex = 0;
    std::uint64_t total = 0;
    double lastProgress = 0;
  };

  // Reports `detail` to the device and drops the transfer; `cause` goes only to the log.
  void fail(const std::string& detail, const std::string& cause = "");
  void closeFile();
  // Appends to the file `fileIndex`, opening it if it is not the open one; yields what went wrong.
  std::optional<std::string> write(std::size_t fileIndex, std::span<const std::uint8_t> data);
  void status(std::uint32_t transferID, FileTransferState state, std::uint64_t bytes,
              std::string detail);

  HostInbox inbox_;
  Clock now_;
  Reply reply_;
  Finish finish_;
  std::optional<Active> active_;
  std::optional<std::uint32_t> lastCompletedID_;
};

}  // namespace kelvaron::host
