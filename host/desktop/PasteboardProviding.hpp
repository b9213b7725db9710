#pragma once

#include <asio/awaitable.hpp>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kelvaron::host {

// Files as they go on the clipboard: their paths, for file managers and text fields, and other
// forms of their content (MIME type -> bytes), such as a picture's, for programs that paste those.
struct ClipboardFiles {
  std::vector<std::filesystem::path> paths;
  std::vector<std::pair<std::string, std::string>> contents;
  friend bool operator==(const ClipboardFiles&, const ClipboardFiles&) = default;
};

// The computer's clipboard as a session keeps it in step with the device. One for the process,
// shared by every session: what a session wrote stays on the clipboard after it ends, until
// somebody else copies something.
class PasteboardProviding {
 public:
  virtual ~PasteboardProviding() = default;
  // Moves on with every change of the clipboard's owner or content, ours included; a write has
  // moved it by the time it returns. Cheap: no round trip.
  virtual std::int64_t changeCount() = 0;
  // The clipboard's text as UTF-8; nothing when it holds none, the owner does not answer in
  // time, or what it gives is not text. Does its work off the caller's executor.
  virtual asio::awaitable<std::optional<std::string>> string() = 0;
  // Clears the clipboard and puts `text` on it, owned by this process.
  virtual asio::awaitable<void> writeString(std::string text) = 0;
  // Clears the clipboard and puts `files` on it, owned by this process: a file manager pastes the
  // files, a text field their paths, a picture editor the content.
  virtual asio::awaitable<void> writeFiles(ClipboardFiles files) = 0;
};

// The clipboard's change count as a session last saw or wrote it. Locked, since a finished file
// transfer writes it from outside the session's executor.
class ChangeCountBox {
 public:
  // The count that was stored.
  std::int64_t exchange(std::int64_t count) {
    std::lock_guard guard(lock_);
    return std::exchange(count_, count);
  }

 private:
  std::mutex lock_;
  std::int64_t count_ = 0;
};

}  // namespace kelvaron::host
