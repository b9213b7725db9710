#include "kit/relay/CurlHttpSession.hpp"

#include <curl/curl.h>

#include <asio/associated_cancellation_slot.hpp>
#include <asio/associated_executor.hpp>
#include <asio/async_result.hpp>
#include <asio/post.hpp>
#include <asio/use_awaitable.hpp>
#include <atomic>
#include <mutex>

namespace kelvaron {

struct CurlHttpSession::Request {
  std::string url;
  std::string body;
  std::atomic<bool> abandoned{false};
  std::function<void(std::exception_ptr, Response)> done;
};

namespace {

struct Reading {
  std::string body;
  std::size_t limit;
  bool tooLarge = false;
};

std::size_t collect(char* data, std::size_t size, std::size_t count, void* context) {
  auto& reading = *static_cast<Reading*>(context);
  if (reading.body.size() + size * count > reading.limit) {
    reading.tooLarge = true;
    return 0;  // ends the transfer
  }
  reading.body.append(data, size * count);
  return size * count;
}

int progress(void* context, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<std::atomic<bool>*>(context)->load() ? 1 : 0;
}

}  // namespace

CurlHttpSession::CurlHttpSession(Options options) : options_(std::move(options)) {
  // Once for the process, and never undone: libcurl's global state is not for threads to race on.
  static std::once_flag initialised;
  std::call_once(initialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  worker_ = std::thread([this] { work(); });
}

CurlHttpSession::~CurlHttpSession() {
  {
    std::lock_guard guard(lock_);
    stopping_ = true;
    if (current_) current_->abandoned = true;
    for (const auto& waiting : queue_) waiting->abandoned = true;
  }
  wake_.notify_all();
  worker_.join();
}

asio::awaitable<CurlHttpSession::Response> CurlHttpSession::postJSON(std::string url,
                                                                     std::string body) {
  auto request = std::make_shared<Request>();
  request->url = std::move(url);
  request->body = std::move(body);
  // The answer comes on the worker's thread and is handed to the awaiting coroutine's executor.
  // Named, not a temporary of the co_await expression (GCC 12).
  const auto initiate = [this, request](auto handler) {
    auto slot = asio::get_associated_cancellation_slot(handler);
    if (slot.is_connected()) {
      slot.assign([request](asio::cancellation_type) { request->abandoned = true; });
    }
    const auto executor = asio::get_associated_executor(handler);
    auto shared = std::make_shared<decltype(handler)>(std::move(handler));
    request->done = [executor, shared](std::exception_ptr failure, Response response) {
      asio::post(executor, [shared, failure, response = std::move(response)]() mutable {
        (*shared)(failure, std::move(response));
      });
    };
    enqueue(request);
  };
  Response response = co_await asio::async_initiate<decltype(asio::use_awaitable),
                                                    void(std::exception_ptr, Response)>(
      initiate, asio::use_awaitable);
  co_return response;
}

void CurlHttpSession::enqueue(std::shared_ptr<Request> request) {
  {
    std::lock_guard guard(lock_);
    if (stopping_) request->abandoned = true;
    queue_.push_back(std::move(request));
  }
  wake_.notify_one();
}

void CurlHttpSession::work() {
  for (;;) {
    std::unique_lock guard(lock_);
    wake_.wait(guard, [this] { return stopping_ || !queue_.empty(); });
    if (queue_.empty()) return;
    current_ = std::move(queue_.front());
    queue_.pop_front();
    const auto request = current_;
    guard.unlock();
    perform(*request);
    guard.lock();
    current_.reset();
  }
}

void CurlHttpSession::perform(Request& request) const {
  const auto abandon = [&] {
    request.done(std::make_exception_ptr(std::system_error(asio::error::operation_aborted)), {});
  };
  if (request.abandoned) return abandon();
  CURL* curl = curl_easy_init();
  if (!curl) {
    return request.done(
        std::make_exception_ptr(Error(Error::Kind::unreachable, "libcurl cannot start")), {});
  }
  Reading reading{{}, options_.maxBody};
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.c_str());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, long(request.body.size()));
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, long(options_.timeout.count()));
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reading);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, progress);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &request.abandoned);
  if (options_.extraCA) {
    curl_easy_setopt(curl, CURLOPT_CAINFO, options_.extraCA->c_str());
    curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr);  // those alone, not the system's folder too
  }
  const CURLcode result = curl_easy_perform(curl);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  if (request.abandoned) return abandon();
  if (reading.tooLarge) {
    return request.done(
        std::make_exception_ptr(Error(Error::Kind::tooLarge, "the answer is too large")), {});
  }
  if (result != CURLE_OK) {
    return request.done(
        std::make_exception_ptr(Error(Error::Kind::unreachable, curl_easy_strerror(result))), {});
  }
  request.done(nullptr, Response{status, std::move(reading.body)});
}

}  // namespace kelvaron
