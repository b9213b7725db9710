// Files from the device: written into the inbox as they come, then put on the clipboard.

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/dispatch.hpp>
#include <asio/use_awaitable.hpp>

#include "host/session/HostSession.hpp"
#include "kit/async/Uptime.hpp"

namespace kelvaron::host {

namespace {

// The MIME type under which a picture of the device's type goes on the clipboard; none for the
// others, which go as files only.
const char* clipboardType(const std::string& typeID) {
  if (typeID == "public.png") return "image/png";
  if (typeID == "public.jpeg") return "image/jpeg";
  return nullptr;
}

}  // namespace

FileReceiver& HostSession::fileReceiver() {
  if (fileReceiver_) return *fileReceiver_;
  HostInbox inbox(env_.inboxRoot.empty() ? HostInbox::defaultRoot() : env_.inboxRoot);
  // The end of a transfer runs off the strand: its answers come back to it, in order.
  auto reply = [connection = connection_, strand = strand_](Message message) {
    asio::dispatch(strand,
                   [connection, message = std::move(message)] { connection->send(message); });
  };
  // The receiver lives no longer than the session, and the session no longer than its strand's
  // work for it: `this` outlives every call.
  auto finish = [this](std::vector<PasteboardFile> files) {
    notifyArrival(files);
    return putFilesOnClipboard(std::move(files));
  };
  fileReceiver_ = std::make_unique<FileReceiver>(std::move(inbox), uptimeSeconds, std::move(reply),
                                                 std::move(finish));
  return *fileReceiver_;
}

// Writing a chunk, and at the end reading the files back and converting a picture, take the
// disk's time: the receiver works on the background executor while the strand goes on with the
// picture and the rest. No message is taken meanwhile, so nothing else touches the receiver, and
// the disk paces the transfer.
asio::awaitable<void> HostSession::withFileReceiver(std::function<void(FileReceiver&)> work) {
  FileReceiver& receiver = fileReceiver();
  const Executor background = env_.background ? env_.background : strand_;
  auto working = asio::co_spawn(
      background,
      [&receiver, work = std::move(work)]() -> asio::awaitable<void> {
        work(receiver);
        co_return;
      },
      asio::use_awaitable);
  co_await std::move(working);
}

// The X clipboard holds one picture: a single file's goes with it, several files go as files
// only. Without a clipboard the files stay in the inbox, which is success all the same.
bool HostSession::putFilesOnClipboard(std::vector<PasteboardFile> files) {
  if (!env_.pasteboard) return true;
  ClipboardFiles clipboard;
  for (const PasteboardFile& file : files) clipboard.paths.push_back(file.path);
  if (files.size() == 1) {
    for (const auto& [typeID, bytes] : files.front().representations) {
      if (const char* type = clipboardType(typeID)) {
        clipboard.contents.emplace_back(type, std::string(bytes.begin(), bytes.end()));
      }
    }
  }
  asio::co_spawn(strand_,
                 writeClipboardFiles(weak_from_this(), env_.pasteboard, std::move(clipboard)),
                 asio::detached);
  return true;
}

void HostSession::notifyArrival(const std::vector<PasteboardFile>& files) {
  if (!env_.notifications || files.empty()) return;
  std::string summary = "Received ";
  summary += files.size() == 1 ? files.front().path.filename().string()
                               : std::to_string(files.size()) + " files";
  std::string body = env_.pasteboard ? "On the clipboard, and in " : "In ";
  body += files.front().path.parent_path().string();
  env_.notifications->notify(std::move(summary), std::move(body));
}

// Holds the session weakly: the files go on the clipboard even when it ended meanwhile.
asio::awaitable<void> HostSession::writeClipboardFiles(
    std::weak_ptr<HostSession> weak, std::shared_ptr<PasteboardProviding> pasteboard,
    ClipboardFiles files) {
  try {
    auto writing = pasteboard->writeFiles(std::move(files));
    auto owned = writeOwnClipboard(weak, pasteboard, std::move(writing));
    co_await std::move(owned);
  } catch (const std::exception& thrown) {
    if (const auto self = weak.lock()) {
      self->log_.error("putting the files on the clipboard failed: %s", thrown.what());
    }
  }
}

}  // namespace kelvaron::host
