#pragma once

// HTTP requests through libcurl (GnuTLS), for the coordinator. One thread of the session's own
// makes the requests one after another, so that a coordinator that hangs holds up nobody's
// executor; each answer is handed back on the executor of whoever awaits it.

#include <asio/awaitable.hpp>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

namespace kelvaron {

class CurlHttpSession {
 public:
  struct Options {
    std::chrono::milliseconds timeout{10'000};
    std::size_t maxBody = 256 * 1024;  // a larger answer is refused, not read on
    // The certificates to trust instead of the system's, for a coordinator of one's own.
    std::optional<std::filesystem::path> extraCA;
  };

  struct Response {
    long status = 0;
    std::string body;
  };

  class Error : public std::runtime_error {
   public:
    enum class Kind { unreachable, tooLarge };
    Error(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
    Kind kind() const { return kind_; }

   private:
    Kind kind_;
  };

  explicit CurlHttpSession(Options options);
  // Abandons what is under way and waits for the thread.
  ~CurlHttpSession();
  CurlHttpSession(const CurlHttpSession&) = delete;
  CurlHttpSession& operator=(const CurlHttpSession&) = delete;

  // POSTs `body` as JSON. Throws Error; cancelling the awaiting task abandons the request, which
  // then ends with asio's operation_aborted.
  asio::awaitable<Response> postJSON(std::string url, std::string body);

 private:
  struct Request;
  void enqueue(std::shared_ptr<Request> request);
  void work();
  void perform(Request& request) const;

  const Options options_;
  std::mutex lock_;
  std::condition_variable wake_;
  std::deque<std::shared_ptr<Request>> queue_;
  std::shared_ptr<Request> current_;
  bool stopping_ = false;
  std::thread worker_;
};

}  // namespace kelvaron
