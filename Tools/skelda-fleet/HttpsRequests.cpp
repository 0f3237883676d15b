#include "Tools/skelda-fleet/HttpsRequests.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace skelda::fleet {
namespace {

using Clock = std::chrono::steady_clock;

std::size_t discard(char*, std::size_t size, std::size_t count, void*) {
  return size * count;
}

template <typename Value>
void set(CURL* easy, CURLoption option, Value value) {
  const CURLcode code = curl_easy_setopt(easy, option, value);
  if (code != CURLE_OK) throw std::runtime_error(curl_easy_strerror(code));
}

}  // namespace

struct HttpsRequests::Transfer {
  Transfer() : easy(curl_easy_init()) {
    if (easy == nullptr) throw std::bad_alloc();
  }
  ~Transfer() {
    curl_easy_cleanup(easy);
    curl_slist_free_all(headers);
  }
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  void setHeaders(const std::string& apiKey) {
    curl_slist_free_all(std::exchange(headers, nullptr));
    for (const std::string& line :
         {std::string("Content-Type: application/octet-stream"), "X-Skelda-Api-Key: " + apiKey,
          std::string("Accept:"), std::string("Expect:")}) {
      curl_slist* longer = curl_slist_append(headers, line.c_str());
      if (longer == nullptr) throw std::bad_alloc();
      headers = longer;
    }
    set(easy, CURLOPT_HTTPHEADER, headers);
  }

  CURL* easy;
  curl_slist* headers = nullptr;
  Request request;
  std::string body;
  Clock::time_point began;
};

HttpsRequests::HttpsRequests(const Settings& settings)
    : settings_(settings), multi_(curl_multi_init()), epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
  if (multi_ == nullptr || epoll_ < 0) {
    throw std::system_error(errno, std::generic_category(), "cannot begin requests");
  }
  const long connections = static_cast<long>(settings_.connections);
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, connections);
  curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &socketChanged);
  curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &timerChanged);
  curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
}

HttpsRequests::~HttpsRequests() {
  for (const auto& transfer : transfers_) curl_multi_remove_handle(multi_, transfer->easy);
  transfers_.clear();
  curl_multi_cleanup(multi_);
  ::close(epoll_);
}

int HttpsRequests::socketChanged(CURL*, curl_socket_t socket, int what, void* self, void* known) {
  auto& requests = *static_cast<HttpsRequests*>(self);
  if (what == CURL_POLL_REMOVE) {
    ::epoll_ctl(requests.epoll_, EPOLL_CTL_DEL, socket,
                nullptr);  // gone already where it is closed
    return 0;
  }
  epoll_event event{};
  event.data.fd = socket;
  if ((what & CURL_POLL_IN) != 0) event.events |= EPOLLIN;
  if ((what & CURL_POLL_OUT) != 0) event.events |= EPOLLOUT;
  const int operation = known != nullptr ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  if (::epoll_ctl(requests.epoll_, operation, socket, &event) != 0) return -1;
  curl_multi_assign(requests.multi_, socket, self);
  return 0;
}

int HttpsRequests::timerChanged(CURLM*, long milliseconds, void* self) {
  static_cast<HttpsRequests*>(self)->timer_ =
      milliseconds < 0 ? Clock::time_point::max()
                       : Clock::now() + std::chrono::milliseconds(milliseconds);
  return 0;
}

void HttpsRequests::post(Request request) {
  waiting_.push_back(std::move(request));
}

void HttpsRequests::beginWaiting() {
  while (!waiting_.empty() && underWay_ < settings_.connections) {
    if (idle_.empty()) {
      transfers_.push_back(std::make_unique<Transfer>());
      idle_.push_back(transfers_.back().get());
    }
    Transfer& transfer = *idle_.back();
    idle_.pop_back();
    transfer.request = std::move(waiting_.front());
    waiting_.pop_front();
    begin(transfer);
  }
}

void HttpsRequests::begin(Transfer& transfer) {
  CURL* easy = transfer.easy;
  curl_easy_reset(easy);
  transfer.body = transfer.request.body();
  transfer.setHeaders(transfer.request.apiKey);
  set(easy, CURLOPT_PRIVATE, &transfer);
  set(easy, CURLOPT_NOSIGNAL, 1L);
  set(easy, CURLOPT_URL, transfer.request.url.c_str());
  set(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(easy, CURLOPT_POSTFIELDS, transfer.body.data());
  set(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(transfer.body.size()));
  set(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(settings_.timeOut.count()));
  set(easy, CURLOPT_WRITEFUNCTION, &discard);
  if (!settings_.authority.empty()) set(easy, CURLOPT_CAINFO, settings_.authority.c_str());
  if (!settings_.keepsConnections) set(easy, CURLOPT_FORBID_REUSE, 1L);
  transfer.began = Clock::now();
  const CURLMcode added = curl_multi_add_handle(multi_, easy);
  if (added != CURLM_OK) throw std::runtime_error(curl_multi_strerror(added));
  ++underWay_;
}

void HttpsRequests::run(std::chrono::milliseconds longest) {
  beginWaiting();
  const auto now = Clock::now();
  auto wait = longest;
  if (timer_ != Clock::time_point::max()) {
    const auto until = std::chrono::ceil<std::chrono::milliseconds>(timer_ - now);
    wait = std::clamp(until, std::chrono::milliseconds(0), longest);
  }
  std::array<epoll_event, 256> events;
  const int count = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()),
                                 static_cast<int>(wait.count()));
  int running = 0;
  for (int i = 0; i < count; ++i) {
    const std::uint32_t seen = events[static_cast<std::size_t>(i)].events;
    int what = 0;
    if ((seen & EPOLLIN) != 0) what |= CURL_CSELECT_IN;
    if ((seen & EPOLLOUT) != 0) what |= CURL_CSELECT_OUT;
    if ((seen & (EPOLLERR | EPOLLHUP)) != 0) what |= CURL_CSELECT_ERR;
    curl_multi_socket_action(multi_, events[static_cast<std::size_t>(i)].data.fd, what, &running);
  }
  if (Clock::now() >= timer_) {
    timer_ = Clock::time_point::max();
    curl_multi_socket_action(multi_, CURL_SOCKET_TIMEOUT, 0, &running);
  }
  takeResults();
}

void HttpsRequests::takeResults() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    CURL* easy = message->easy_handle;
    const CURLcode code = message->data.result;
    char* pointer = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &pointer);
    auto& transfer = *reinterpret_cast<Transfer*>(pointer);
    Result result;
    if (code == CURLE_OK) {
      curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &result.status);
    } else {
      result.problem = curl_easy_strerror(code);
    }
    result.took =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - transfer.began);
    curl_multi_remove_handle(multi_, easy);
    --underWay_;
    const Request request = std::move(transfer.request);
    std::string body = std::move(transfer.body);
    idle_.push_back(&transfer);
    request.done(result, std::move(body));
  }
}

}  // namespace skelda::fleet
