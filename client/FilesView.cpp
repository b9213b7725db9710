#include "client/FilesView.hpp"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <fstream>
#include <ostream>
#include <random>

#include "kit/wire/FileTransfer.hpp"

namespace kelvaron::client {

namespace {

using Clock = std::chrono::steady_clock;

// The least time between two progress lines; the last always comes.
constexpr std::chrono::milliseconds kProgressInterval{500};

}  // namespace

std::string fileTypeID(const std::filesystem::path& path) {
  std::string extension = path.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  if (extension == ".png") return "public.png";
  if (extension == ".jpg" || extension == ".jpeg") return "public.jpeg";
  if (extension == ".txt") return "public.plain-text";
  return "public.data";
}

FilesView::FilesView(Connection& connection, FilesOptions options, std::ostream& out)
    : connection_(connection), options_(std::move(options)), out_(out) {}

asio::awaitable<void> FilesView::send() {
  if (!options_.wanted() || offered_) co_return;
  offered_ = true;
  std::vector<FileMeta> files;
  std::vector<std::uint64_t> sizes;
  for (const auto& path : options_.files) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (error) {
      failure_ = "cannot read " + path.string() + ": " + error.message();
      finished_ = true;
      co_return;
    }
    files.push_back({path.filename().string(), fileTypeID(path), size});
    sizes.push_back(size);
  }
  if (auto problem = fileOfferProblem(sizes)) {
    failure_ = std::move(*problem);
    finished_ = true;
    co_return;
  }
  std::uint64_t total = 0;
  for (const std::uint64_t size : sizes) total += size;
  // The host names the transfer's folder after its ID: a new one for each send.
  std::random_device random;
  transferID_ = std::uniform_int_distribution<std::uint32_t>(1)(random);
  connection_.send(msg::fileOffer{transferID_, files, options_.kind});
  const auto answer = co_await answers_.next();
  if (answer != FileTransferState::accepted) co_return;

  std::uint64_t sent = 0;
  auto lastLine = Clock::now();
  for (std::size_t index = 0; index < options_.files.size(); ++index) {
    std::ifstream in(options_.files[index], std::ios::binary);
    std::uint64_t offset = 0;
    while (offset < files[index].size) {
      if (finished_) co_return;  // the host gave up on the transfer
      Data chunk(std::size_t(std::min<std::uint64_t>(chunkBytes, files[index].size - offset)));
      if (!in.read(reinterpret_cast<char*>(chunk.data()), std::streamsize(chunk.size()))) {
        failure_ = "cannot read " + options_.files[index].string();
        connection_.send(msg::fileCancel{transferID_});
        finished_ = true;
        co_return;
      }
      const Message message = msg::fileChunk{transferID_, std::uint16_t(index), offset, chunk};
      const bool taken = co_await connection_.sendTransfer(message);
      if (!taken) {
        failure_ = "the connection went away";
        co_return;
      }
      offset += chunk.size();
      sent += chunk.size();
      if (Clock::now() - lastLine >= kProgressInterval || sent == total) {
        lastLine = Clock::now();
        out_ << "Sent " << sent << " of " << total << " bytes" << std::endl;
      }
    }
  }
  if (total == 0) out_ << "Sent 0 of 0 bytes" << std::endl;
  const Message end = msg::fileEnd{transferID_};
  const bool taken = co_await connection_.sendTransfer(end);
  if (!taken) failure_ = "the connection went away";
}

bool FilesView::handle(const Message& message) {
  const auto* status = std::get_if<msg::fileStatus>(&message);
  if (!status) return false;
  if (!offered_ || status->transferID != transferID_ || finished_) return true;
  switch (status->state) {
    case FileTransferState::accepted:
      break;
    case FileTransferState::progress:
      return true;
    case FileTransferState::done:
      out_ << "Done" << std::endl;
      finished_ = true;
      break;
    case FileTransferState::rejected:
    case FileTransferState::failed:
      out_ << (status->state == FileTransferState::rejected ? "Rejected: " : "Failed: ")
           << status->detail << std::endl;
      failure_ = "the host did not take the files: " + status->detail;
      finished_ = true;
      break;
  }
  answers_.push(status->state);
  return true;
}

std::optional<std::string> FilesView::failure() const {
  if (failure_) return failure_;
  if (options_.wanted() && !finished_) return "the host did not say whether it took the files";
  return std::nullopt;
}

}  // namespace kelvaron::client
