#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "host/desktop/PasteboardProviding.hpp"

namespace kelvaron::host {

// The X11 CLIPBOARD selection, as an owner and as a requestor that keeps to the ICCCM. It has an X
// connection and a thread of its own, on which all X work runs: as the owner it must answer other
// programs whenever they ask, whoever awaits what. Its awaitables complete on the caller's
// executor. When the X server goes away, reads give nothing, writes do nothing and the count
// stays; the next call tries to connect again, and the count moves once it has.
class X11Pasteboard : public PasteboardProviding {
 public:
  struct Limits {
    // A read ends with nothing after this, however far it got.
    std::chrono::duration<double> readTimeout{2.0};
    // An owner that sends its text in pieces must send the next within this.
    std::chrono::duration<double> pieceTimeout{1.0};
    // A program that takes our data in pieces and stops taking them is dropped after this.
    std::chrono::duration<double> requestorStallTimeout{5.0};
    // Larger text read from another program gives nothing.
    std::size_t maxTextBytes = std::size_t(16) << 20;
  };

  // What the clipboard holds while we own it: each target another program may ask for (an atom's
  // name: "UTF8_STRING", "text/uri-list" …) with its bytes, answered with the target as their
  // type.
  using Content = std::map<std::string, std::shared_ptr<const std::string>>;

  // `displayName` empty: $DISPLAY. Connects before it returns; without a server it logs why and
  // tries again at later calls.
  explicit X11Pasteboard(std::string displayName, Limits limits);
  explicit X11Pasteboard(std::string displayName) : X11Pasteboard(std::move(displayName), {}) {}
  ~X11Pasteboard() override;
  X11Pasteboard(const X11Pasteboard&) = delete;
  X11Pasteboard& operator=(const X11Pasteboard&) = delete;

  std::int64_t changeCount() override;
  asio::awaitable<std::optional<std::string>> string() override;
  asio::awaitable<void> writeString(std::string text) override;
  asio::awaitable<void> writeFiles(ClipboardFiles files) override;

  // The targets under which text is offered, with their bytes: UTF8_STRING,
  // text/plain;charset=utf-8 and STRING.
  static Content textContent(const std::string& text);
  // The targets under which files are offered: text/uri-list, x-special/gnome-copied-files (for
  // file managers), their paths as text, one per line, and each of their contents' MIME types.
  static Content filesContent(const ClipboardFiles& files);

 private:
  struct Core;

  // Clears the clipboard and offers `content`, owned by this process; every write comes here.
  asio::awaitable<void> writeContent(Content content);

  asio::io_context context_;
  asio::executor_work_guard<asio::io_context::executor_type> keepRunning_;
  // Touched on the thread below only, but for the count.
  std::shared_ptr<Core> core_;
  std::thread thread_;
};

}  // namespace kelvaron::host
