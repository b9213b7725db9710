#include "host/files/FileReceiver.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "host/files/FileNames.hpp"
#include "kit/log/Logger.hpp"
#include "kit/wire/FileTransfer.hpp"

namespace kelvaron::host {

namespace fs = std::filesystem;

namespace {

constexpr const char* kCouldNotSave = "Couldn’t save files on this computer";
constexpr const char* kCouldNotWrite = "Couldn’t write the file on this computer";
constexpr const char* kCouldNotFinish = "Couldn’t set the clipboard";

const Logger& log() {
  static const Logger logger("io.dovka.tovu.host", "files");
  return logger;
}

}  // namespace

FileReceiver::FileReceiver(HostInbox inbox, Clock now, Reply reply, Finish finish)
    : inbox_(std::move(inbox)),
      now_(std::move(now)),
      reply_(std::move(reply)),
      finish_(std::move(finish)) {}

FileReceiver::~FileReceiver() { abort(); }

void FileReceiver::status(std::uint32_t transferID, FileTransferState state, std::uint64_t bytes,
                          std::string detail) {
  reply_(msg::fileStatus{transferID, state, bytes, std::move(detail)});
}

void FileReceiver::offer(std::uint32_t transferID, const std::vector<FileMeta>& files,
                         FileTransferKind kind) {
  if (active_) {
    log().info("file offer %u refused: transfer %u is running", transferID, active_->id);
    status(transferID, FileTransferState::rejected, 0, "Another transfer is in progress");
    return;
  }
  std::vector<std::uint64_t> sizes;
  std::uint64_t totalBytes = 0;
  for (const FileMeta& file : files) {
    sizes.push_back(file.size);
    totalBytes += file.size;
  }
  if (std::optional<std::string> problem = fileOfferProblem(sizes)) {
    log().info("file offer %u refused: %s", transferID, problem->c_str());
    status(transferID, FileTransferState::rejected, 0, std::move(*problem));
    return;
  }

  Active record;
  record.id = transferID;
  record.files = files;
  record.folder = inbox_.folder(transferID);
  record.received.assign(files.size(), 0);
  try {
    inbox_.makeRoot();
    std::error_code ignored;
    fs::remove_all(record.folder, ignored);
    fs::create_directories(record.folder);
    std::set<std::string> taken;
    for (const FileMeta& file : files) {
      fs::path path = record.folder / uniqueFileName(sanitizedFileName(file.name), taken);
      const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
      if (fd < 0)
        throw fs::filesystem_error("create", path, std::error_code(errno, std::system_category()));
      ::close(fd);
      record.paths.push_back(std::move(path));
    }
  } catch (const std::exception& e) {
    log().error("file offer %u: %s", transferID, e.what());
    std::error_code ignored;
    fs::remove_all(record.folder, ignored);
    status(transferID, FileTransferState::rejected, 0, kCouldNotSave);
    return;
  }
  record.lastProgress = now_();
  active_ = std::move(record);
  log().info("file offer %u files=%zu bytes=%llu kind=%u", transferID, files.size(),
             static_cast<unsigned long long>(totalBytes), static_cast<unsigned>(kind));
  status(transferID, FileTransferState::accepted, 0, "");
}

void FileReceiver::chunk(std::uint32_t transferID, std::uint16_t fileIndex, std::uint64_t offset,
                         std::span<const std::uint8_t> data) {
  if (!active_ || active_->id != transferID) return;
  Active& a = *active_;
  std::size_t due = 0;
  while (due < a.files.size() && a.received[due] >= a.files[due].size) ++due;
  if (fileIndex != due || due == a.files.size() || offset != a.received[due]) {
    return fail("Chunk out of order");
  }
  if (data.empty() || data.size() > maxChunkBytes) return fail("Bad chunk size");
  if (data.size() > a.files[due].size - a.received[due]) {
    return fail("Chunk past the declared size");
  }
  if (std::optional<std::string> problem = write(due, data)) return fail(kCouldNotWrite, *problem);
  a.received[due] += data.size();
  a.total += data.size();
  const double now = now_();
  if (now - a.lastProgress >= progressInterval) {
    a.lastProgress = now;
    status(a.id, FileTransferState::progress, a.total, "");
  }
}

std::optional<std::string> FileReceiver::write(std::size_t fileIndex,
                                               std::span<const std::uint8_t> data) {
  Active& a = *active_;
  if (a.openFile < 0 || a.openIndex != fileIndex) {
    closeFile();
    a.openFile = ::open(a.paths[fileIndex].c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
    if (a.openFile < 0)
      return "cannot open " + a.paths[fileIndex].string() + ": " + std::strerror(errno);
    a.openIndex = fileIndex;
  }
  while (!data.empty()) {
    const ssize_t written = ::write(a.openFile, data.data(), data.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      return "cannot write " + a.paths[fileIndex].string() + ": " +
             (written < 0 ? std::strerror(errno) : "nothing written");
    }
    data = data.subspan(static_cast<std::size_t>(written));
  }
  return std::nullopt;
}

void FileReceiver::closeFile() {
  if (active_ && active_->openFile >= 0) {
    ::close(active_->openFile);
    active_->openFile = -1;
  }
}

void FileReceiver::end(std::uint32_t transferID) {
  if (!active_ || active_->id != transferID) return;
  closeFile();
  Active& a = *active_;
  for (std::size_t i = 0; i < a.files.size(); ++i) {
    if (a.received[i] != a.files[i].size) return fail("Size mismatch");
  }
  std::vector<PasteboardFile> files;
  for (std::size_t i = 0; i < a.files.size(); ++i) {
    files.push_back(pasteboardFile(a.paths[i], a.files[i].typeID));
  }
  if (!finish_(std::move(files))) return fail(kCouldNotFinish);
  const std::uint64_t total = a.total;
  active_.reset();
  lastCompletedID_ = transferID;
  status(transferID, FileTransferState::done, total, "");
  log().info("file transfer %u done", transferID);
  inbox_.prune(fs::file_time_type::clock::now(), {std::to_string(transferID)},
               std::chrono::seconds(86400));
}

void FileReceiver::fail(const std::string& detail, const std::string& cause) {
  log().error("file transfer %u failed: %s%s%s", active_->id, detail.c_str(),
              cause.empty() ? "" : " (", cause.empty() ? "" : (cause + ")").c_str());
  status(active_->id, FileTransferState::failed, active_->total, detail);
  abort();
}

void FileReceiver::abort() {
  if (!active_) return;
  closeFile();
  std::error_code ignored;
  fs::remove_all(active_->folder, ignored);
  active_.reset();
}

}  // namespace kelvaron::host
