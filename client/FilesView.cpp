#include "client/FilesView.hpp"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <fstream>
#include <ostream>
#include <random>

#include "kit/wire/FileTransfer.hpp"

namespace kelvaron::client {

namespace {

using Clock = std::chrono::steady_clock;

// The least time between two progress lines, or two drawings of the bar; the last always comes.
constexpr std::chrono::milliseconds kLineInterval{500};
constexpr std::chrono::milliseconds kBarInterval{250};
constexpr int kBarWidth = 20;

std::string timeLeftText(double seconds) {
  const auto whole = static_cast<std::uint64_t>(std::ceil(seconds));
  if (whole < 60) return std::to_string(whole) + " s left";
  std::string text = std::to_string(whole / 60) + " min ";
  text += std::to_string(whole % 60);
  text += " s left";
  return text;
}

// "Done: 100 MB in 0.82 s (1023 Mbit/s)": the time from the offer to the host's word.
std::string doneLine(std::uint64_t bytes, Clock::duration took) {
  const double seconds = std::chrono::duration<double>(took).count();
  char figures[64];
  std::snprintf(figures, sizeof figures, " in %.2f s (%.0f Mbit/s)", seconds,
                seconds > 0 ? double(bytes) * 8 / seconds / 1e6 : 0.0);
  std::string line = "Done: ";
  line += sizeText(bytes);
  line += figures;
  return line;
}

}  // namespace

struct FilesView::Transfer {
  std::vector<std::filesystem::path> paths;
  std::string prefix;
  std::uint32_t id = 0;  // once offered
  bool finished = false;
  bool barDrawn = false;  // the bar's line waits for its end
  std::optional<std::string> failure;
  Clock::time_point offered, started, lastShown;
  // The host's answers to the offer: accepted, else the queue finishes.
  AsyncQueue<FileTransferState> answers;
};

std::string fileTypeID(const std::filesystem::path& path) {
  std::string extension = path.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  if (extension == ".png") return "public.png";
  if (extension == ".jpg" || extension == ".jpeg") return "public.jpeg";
  if (extension == ".txt") return "public.plain-text";
  return "public.data";
}

std::string progressLine(std::uint64_t sent, std::uint64_t total, double seconds) {
  const double share = total == 0 ? 1 : double(sent) / double(total);
  const int filled = int(share * kBarWidth);
  std::string line = "[";
  line.append(std::size_t(filled), '#').append(std::size_t(kBarWidth - filled), '-') += "] ";
  char percent[8];
  std::snprintf(percent, sizeof percent, "%3d %%", int(share * 100));
  line += percent;
  line += "  ";
  line += sizeText(sent);
  line += " of ";
  line += sizeText(total);
  if (seconds <= 0 || sent == 0) return line;
  const double rate = double(sent) / seconds;
  line += "  ";
  line += sizeText(std::uint64_t(rate));
  line += "/s";
  if (sent < total) {
    line += "  ";
    line += timeLeftText(double(total - sent) / rate);
  }
  return line;
}

FilesView::FilesView(Connection& connection, FilesOptions options, std::ostream& out)
    : connection_(connection), options_(std::move(options)), out_(out) {
  for (const auto& paths : options_.transfers) {
    auto transfer = std::make_unique<Transfer>();
    transfer->paths = paths;
    if (options_.transfers.size() > 1 && !paths.empty()) {
      transfer->prefix = paths.front().filename().string() + ": ";
    }
    transfers_.push_back(std::move(transfer));
  }
}

FilesView::~FilesView() = default;

asio::awaitable<void> FilesView::send(std::size_t index) {
  Transfer& transfer = *transfers_.at(index);
  if (transfer.id != 0 || transfer.finished) co_return;
  std::vector<FileMeta> files;
  std::vector<std::uint64_t> sizes;
  for (const auto& path : transfer.paths) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (error) {
      end(transfer, {}, "cannot read " + path.string() + ": " + error.message());
      co_return;
    }
    files.push_back({path.filename().string(), fileTypeID(path), size});
    sizes.push_back(size);
  }
  // What the host would refuse is not offered: the reason is the same.
  if (auto problem = fileOfferProblem(sizes)) {
    end(transfer, {}, std::move(*problem));
    co_return;
  }
  // The host names the transfer's folder after its ID: a new one for each transfer.
  std::random_device random;
  transfer.id = std::uniform_int_distribution<std::uint32_t>(1)(random);
  transfer.offered = Clock::now();
  connection_.send(msg::fileOffer{transfer.id, files, options_.kind});
  const auto answer = co_await transfer.answers.next();
  if (answer != FileTransferState::accepted) co_return;
  co_await sendChunks(transfer, files);
  // Until the host says how it went: the next transfer would come too soon before.
  while (co_await transfer.answers.next()) {
  }
}

asio::awaitable<void> FilesView::sendChunks(Transfer& transfer,
                                            const std::vector<FileMeta>& files) {
  std::uint64_t total = 0, sent = 0;
  for (const FileMeta& file : files) total += file.size;
  transfer.started = transfer.lastShown = Clock::now();
  for (std::size_t index = 0; index < files.size(); ++index) {
    std::ifstream in(transfer.paths[index], std::ios::binary);
    for (std::uint64_t offset = 0; offset < files[index].size;) {
      if (transfer.finished) co_return;  // the host gave up on it, or the person did
      Data chunk(std::size_t(std::min<std::uint64_t>(chunkBytes, files[index].size - offset)));
      if (!in.read(reinterpret_cast<char*>(chunk.data()), std::streamsize(chunk.size()))) {
        connection_.send(msg::fileCancel{transfer.id});
        end(transfer, {}, "cannot read " + transfer.paths[index].string());
        co_return;
      }
      const Message message = msg::fileChunk{transfer.id, std::uint16_t(index), offset, chunk};
      if (!co_await connection_.sendTransfer(message)) {
        end(transfer, {}, "the connection went away");
        co_return;
      }
      offset += chunk.size();
      sent += chunk.size();
      showProgress(transfer, sent, total);
    }
  }
  if (transfer.finished) co_return;
  if (total == 0) showProgress(transfer, 0, 0);
  const Message last = msg::fileEnd{transfer.id};
  if (!co_await connection_.sendTransfer(last)) end(transfer, {}, "the connection went away");
}

void FilesView::showProgress(Transfer& transfer, std::uint64_t sent, std::uint64_t total) {
  const auto now = Clock::now();
  const bool last = sent == total;
  const auto interval = options_.progressBar ? kBarInterval : kLineInterval;
  if (!last && now - transfer.lastShown < interval) return;
  transfer.lastShown = now;
  if (!options_.progressBar) {
    out_ << transfer.prefix << "Sent " << sent << " of " << total << " bytes" << std::endl;
    return;
  }
  const std::chrono::duration<double> seconds = now - transfer.started;
  out_ << '\r' << transfer.prefix << progressLine(sent, total, seconds.count());
  transfer.barDrawn = !last;
  out_ << (last ? "\n" : "") << std::flush;
}

void FilesView::end(Transfer& transfer, const std::string& line,
                    std::optional<std::string> failure) {
  if (transfer.finished) return;
  transfer.finished = true;
  transfer.failure = std::move(failure);
  if (transfer.barDrawn) out_ << '\n';
  transfer.barDrawn = false;
  if (!line.empty()) out_ << transfer.prefix << line << std::endl;
  transfer.answers.finish();
}

bool FilesView::handle(const Message& message) {
  const auto* status = std::get_if<msg::fileStatus>(&message);
  if (!status) return false;
  for (const auto& transfer : transfers_) {
    if (transfer->id == 0 || transfer->id != status->transferID) continue;
    const std::string reason = "the host did not take the files: " + status->detail;
    switch (status->state) {
      case FileTransferState::accepted:
        transfer->answers.push(status->state);
        break;
      case FileTransferState::progress:
        break;
      case FileTransferState::done:
        end(*transfer, doneLine(status->bytes, Clock::now() - transfer->offered), std::nullopt);
        break;
      case FileTransferState::rejected:
        end(*transfer, "Rejected: " + status->detail, reason);
        break;
      case FileTransferState::failed:
        end(*transfer, "Failed: " + status->detail, reason);
        break;
    }
  }
  return true;
}

void FilesView::cancel() {
  for (const auto& transfer : transfers_) {
    if (transfer->finished) continue;
    if (transfer->id != 0) connection_.send(msg::fileCancel{transfer->id});
    end(*transfer, "Cancelled", "cancelled");
  }
}

void FilesView::connectionEnded() {
  for (const auto& transfer : transfers_) {
    end(*transfer, {}, "the host did not say whether it took the files");
  }
}

bool FilesView::done() const {
  return std::all_of(transfers_.begin(), transfers_.end(),
                     [](const auto& transfer) { return transfer->finished; });
}

std::optional<std::string> FilesView::failure() const {
  for (const auto& transfer : transfers_) {
    if (transfer->failure) return transfer->failure;
    if (!transfer->finished) return "the host did not say whether it took the files";
  }
  return std::nullopt;
}

}  // namespace kelvaron::client
