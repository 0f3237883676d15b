#include "Tools/skelda-collector/Stream/IngestServer.h"

#include <fmt/format.h>
#include <microhttpd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <utility>

using skelda::platform::MutexLock;

namespace {

constexpr std::string_view kLogPath = "/v1/skd.do";
constexpr std::string_view kGetPaths[] = {"/healthz", "/readyz", "/metrics"};
constexpr const char* kApiKeyHeader = "X-Skelda-Api-Key";
constexpr std::size_t kMemoryOfConnection = 8 << 10;
constexpr std::size_t kSlowestBody = 1 << 10;  // bytes a second
constexpr std::uint64_t kWorthReading =
    64 << 10;                                // of a body that is refused; else the end is cheaper
constexpr std::size_t kReserved = 64 << 10;  // of what is only announced
constexpr std::chrono::milliseconds kBetweenLooks{500};

std::string contentsOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(file), {}};
  if (text.empty()) throw std::runtime_error(path + " cannot be read");
  return text;
}

constexpr auto kNotAnnounced = std::numeric_limits<std::uint64_t>::max();

std::string headerOf(MHD_Connection* connection, const char* name) {
  const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value != nullptr ? value : "";
}

/// Bytes of the body that is to come, as its head says it: 0 for none.
std::uint64_t announcedLength(MHD_Connection* connection) {
  if (!headerOf(connection, "Transfer-Encoding").empty()) return kNotAnnounced;
  return std::strtoull(headerOf(connection, "Content-Length").c_str(), nullptr, 10);
}

}  // namespace

/// A connection: until when its peer has to have done what it is waited for.
struct IngestServer::Peer {
  int fd = -1;
  std::atomic<Clock::rep> deadline = 0;

  void await(Clock::time_point until) { deadline = until.time_since_epoch().count(); }
  void awaitNothing() { await(Clock::time_point::max()); }
};

struct IngestServer::Request {
  enum class Stage { head, body, waiting, decided };

  Stage stage = Stage::head;
  bool isLog = false;
  std::uint64_t announced = 0;  // bytes of the body
  unsigned status = 0;
  std::string text;          // of the answer
  std::size_t received = 0;  // bytes of the body
  ArrivedLog log;
  Peer* peer = nullptr;
  Clock::time_point began = Clock::now();

  void decide(unsigned with, std::string why) {
    if (stage == Stage::decided) return;
    stage = Stage::decided;
    status = with;
    text = std::move(why);
  }
};

struct IngestServer::Callbacks {
  static MHD_Result handle(void* self, MHD_Connection* connection, const char* path,
                           const char* method, const char*, const char* upload,
                           std::size_t* uploadLength, void** state) {
    auto& server = *static_cast<IngestServer*>(self);
    auto* request = static_cast<Request*>(*state);
    if (request == nullptr) {
      request = server.begin(connection, path, method);
      *state = request;
      // A large body that is refused is not read: the answer comes first, and the end.
      const bool isRefused = request->stage == Request::Stage::decided;
      if (!isRefused || request->announced <= kWorthReading) return MHD_YES;
    }
    if (*uploadLength > 0) {
      server.receive(*request, {upload, std::exchange(*uploadLength, 0)});
      return MHD_YES;
    }
    // One that waits for the sink is asked for again once it is resumed.
    if (request->stage == Request::Stage::body && server.take(*request, connection)) return MHD_YES;
    return server.answer(*request, connection) == MHD_YES ? MHD_YES : MHD_NO;
  }

  static void ended(void* self, MHD_Connection*, void** state, MHD_RequestTerminationCode) {
    static_cast<IngestServer*>(self)->end(static_cast<Request*>(std::exchange(*state, nullptr)));
  }

  /// The second is called while the socket is still open.
  static void connection(void* self, MHD_Connection* connection, void** context,
                         MHD_ConnectionNotificationCode what) {
    auto& server = *static_cast<IngestServer*>(self);
    if (what == MHD_CONNECTION_NOTIFY_STARTED) server.greet(connection, context);
    if (what == MHD_CONNECTION_NOTIFY_CLOSED) server.part(context);
  }
};

IngestServer::IngestServer(Options options, LogSink& sink, int listener,
                           const Certificates* certificates)
    : options_(std::move(options)), sink_(sink), admission_(options_.logsASecondByKey) {
  start(listener, certificates);
  reaper_ = std::thread([this] { breakOffSlow(); });
}

void IngestServer::start(int listener, const Certificates* certificates) {
  unsigned flags =
      MHD_USE_EPOLL | MHD_USE_INTERNAL_POLLING_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ITC;
  std::string certificate, key, versions = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";
  if (certificates != nullptr) {
    certificate = contentsOf(certificates->certificatePath);
    key = contentsOf(certificates->keyPath);
    flags |= MHD_USE_TLS;
  }
  const MHD_OptionItem tls[] = {{MHD_OPTION_HTTPS_MEM_CERT, 0, certificate.data()},
                                {MHD_OPTION_HTTPS_MEM_KEY, 0, key.data()},
                                {MHD_OPTION_HTTPS_PRIORITIES, 0, versions.data()},
                                {MHD_OPTION_END, 0, nullptr}};
  const MHD_OptionItem none[] = {{MHD_OPTION_END, 0, nullptr}};
  daemon_ =
      MHD_start_daemon(flags, 0, nullptr, nullptr, &Callbacks::handle, this,               //
                       MHD_OPTION_LISTEN_SOCKET, listener,                                 //
                       MHD_OPTION_THREAD_POOL_SIZE, options_.threads,                      //
                       MHD_OPTION_CONNECTION_LIMIT, options_.connections,                  //
                       MHD_OPTION_PER_IP_CONNECTION_LIMIT, options_.connectionsByAddress,  //
                       MHD_OPTION_CONNECTION_TIMEOUT, options_.idleSeconds,                //
                       MHD_OPTION_CONNECTION_MEMORY_LIMIT, kMemoryOfConnection,            //
                       MHD_OPTION_NOTIFY_COMPLETED, &Callbacks::ended, this,               //
                       MHD_OPTION_NOTIFY_CONNECTION, &Callbacks::connection, this,         //
                       MHD_OPTION_ARRAY, certificates != nullptr ? tls : none, MHD_OPTION_END);
  if (daemon_ == nullptr) throw std::runtime_error("the server cannot be started");
}

IngestServer::~IngestServer() {
  awaitAnswers();
  MHD_stop_daemon(daemon_);
  {
    const MutexLock lock(mutex_);
    isStopping_ = true;
  }
  stopped_.notifyAll();
  reaper_.join();
}

void IngestServer::quiesce() {
  isQuiet_ = true;
  const int listener = MHD_quiesce_daemon(daemon_);
  if (listener >= 0) ::close(listener);
}

void IngestServer::awaitAnswers() const {
  while (const std::size_t left = waiting_) waiting_.wait(left);
}

// -- Connections

void IngestServer::greet(MHD_Connection* connection, void** context) {
  auto peer = std::make_unique<Peer>();
  peer->fd = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
  peer->await(Clock::now() + std::chrono::seconds(options_.headSeconds));
  ++connections_;
  const MutexLock lock(mutex_);
  peers_.insert(peer.get());
  *context = peer.release();
}

void IngestServer::part(void** context) {
  const std::unique_ptr<Peer> peer(static_cast<Peer*>(std::exchange(*context, nullptr)));
  --connections_;
  const MutexLock lock(mutex_);
  peers_.erase(peer.get());
}

IngestServer::Peer* IngestServer::peerOf(MHD_Connection* connection) const {
  const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  return static_cast<Peer*>(info->socket_context);
}

/// The library ends what does not move at all; a byte now and then keeps a connection for ever.
void IngestServer::breakOffSlow() {
  MutexLock lock(mutex_);
  while (!isStopping_) {
    const auto now = Clock::now().time_since_epoch().count();
    for (auto* peer : peers_) {
      if (peer->deadline > now) continue;
      peer->awaitNothing();
      ::shutdown(peer->fd, SHUT_RDWR);  // the library sees the end, and closes it
    }
    stopped_.waitFor(lock, kBetweenLooks);
  }
}

// -- Requests

IngestServer::Request* IngestServer::begin(MHD_Connection* connection, const char* path,
                                           const char* method) {
  auto request = std::make_unique<Request>();
  request->peer = peerOf(connection);
  request->announced = announcedLength(connection);
  request->peer->await(request->began + std::chrono::seconds(options_.bodySeconds));
  const std::string_view at = path;
  const bool isGet = std::strcmp(method, "GET") == 0;
  const bool isGetPath = std::ranges::find(kGetPaths, at) != std::end(kGetPaths);
  request->isLog = at == kLogPath;
  if (request->isLog && std::strcmp(method, "POST") == 0) {
    beginLog(*request, connection);
  } else if (request->isLog || (isGetPath && !isGet)) {
    request->decide(MHD_HTTP_METHOD_NOT_ALLOWED, "method not allowed\n");
  } else if (at == "/healthz") {
    request->decide(MHD_HTTP_OK, "ok\n");
  } else if (at == "/readyz") {
    const bool isReady = sink_.isReady() && !isQuiet_;
    request->decide(isReady ? MHD_HTTP_OK : MHD_HTTP_SERVICE_UNAVAILABLE,
                    isReady ? "ready\n" : "not ready\n");
  } else if (at == "/metrics") {
    request->decide(MHD_HTTP_OK, metrics());
  } else {
    request->decide(MHD_HTTP_NOT_FOUND, "not found\n");
  }
  return request.release();
}

void IngestServer::beginLog(Request& request, MHD_Connection* connection) {
  request.log.apiKey = headerOf(connection, kApiKeyHeader);
  if (request.log.apiKey.empty() ||
      (!options_.apiKeys.empty() && !options_.apiKeys.contains(request.log.apiKey))) {
    return request.decide(MHD_HTTP_UNAUTHORIZED, "unknown API key\n");
  }
  // How large the others are cannot be known before they have been read. Agents always say it.
  if (request.announced == kNotAnnounced) {
    return request.decide(MHD_HTTP_LENGTH_REQUIRED, "length required\n");
  }
  if (request.announced > std::min(options_.maxBytes, sink_.largest())) {
    return request.decide(MHD_HTTP_CONTENT_TOO_LARGE, "too large\n");
  }
  if (!admission_.admit(request.log.apiKey, request.began)) {
    return request.decide(MHD_HTTP_TOO_MANY_REQUESTS, "this key sends too much\n");
  }
  if (!sink_.isReady() || isQuiet_) {
    return request.decide(MHD_HTTP_SERVICE_UNAVAILABLE, "not now\n");
  }
  request.stage = Request::Stage::body;
  request.log.bytes.reserve(std::min<std::size_t>(request.announced, kReserved));
}

void IngestServer::receive(Request& request, std::string_view bytes) {
  // What is not taken is read and dropped, until the time is up: the answer can only come after it.
  if (request.stage != Request::Stage::body) return;
  request.received += bytes.size();
  request.peer->await(request.began +
                      std::chrono::seconds(options_.bodySeconds + request.received / kSlowestBody));
  if (held_ + bytes.size() > options_.maxHeldBytes) {
    held_ -= std::exchange(request.log.bytes, {}).size();
    request.peer->await(request.began + std::chrono::seconds(options_.bodySeconds));
    return request.decide(MHD_HTTP_SERVICE_UNAVAILABLE, "too much at once\n");
  }
  held_ += bytes.size();
  request.log.bytes.append(bytes);
}

/// The body is whole. True where the answer is the sink's to give, which it may have done by now.
bool IngestServer::take(Request& request, MHD_Connection* connection) {
  request.peer->awaitNothing();
  auto& log = request.log;
  log.check = LogCheck::of(log.bytes);
  // 400 makes the agent drop it, so one that is damaged further on is kept.
  if (log.bytes.empty() || (!log.check.isLog && !options_.acceptsAll)) {
    request.decide(MHD_HTTP_BAD_REQUEST, "no frame log: " + log.check.fault + "\n");
    return false;
  }
  damaged_ += log.check.fault.empty() ? 0 : 1;
  bytes_ += log.bytes.size();
  request.stage = Request::Stage::waiting;
  ++waiting_;
  MHD_suspend_connection(connection);
  const std::size_t length = log.bytes.size();
  sink_.keep(std::exchange(log, {}),
             [this, &request, connection, length](LogSink::Outcome outcome, const auto&) {
               using enum LogSink::Outcome;
               held_ -= length;
               repeats_ += outcome == repeat ? 1 : 0;
               request.decide(outcome == notNow ? MHD_HTTP_SERVICE_UNAVAILABLE : MHD_HTTP_OK,
                              outcome == kept     ? "kept\n"
                              : outcome == repeat ? "kept before\n"
                                                  : "not now\n");
               MHD_resume_connection(connection);
               --waiting_;
               waiting_.notify_all();
             });
  return true;
}

int IngestServer::answer(Request& request, MHD_Connection* connection) {
  MHD_Response* response = MHD_create_response_from_buffer(request.text.size(), request.text.data(),
                                                           MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) return MHD_NO;
  MHD_add_response_header(response, "Content-Type", "text/plain; charset=utf-8");
  if (request.status == MHD_HTTP_SERVICE_UNAVAILABLE ||
      request.status == MHD_HTTP_TOO_MANY_REQUESTS) {
    MHD_add_response_header(response, "Retry-After", std::to_string(options_.retryAfter).c_str());
  }
  if (request.status == MHD_HTTP_METHOD_NOT_ALLOWED) {
    MHD_add_response_header(response, "Allow", request.isLog ? "POST" : "GET");
  }
  const int queued = MHD_queue_response(connection, request.status, response);
  MHD_destroy_response(response);
  // The answer has to be read, and the next request's head to come, within this.
  request.peer->await(Clock::now() + std::chrono::seconds(options_.headSeconds));
  if (request.isLog) {
    ++answers_[request.status];
    noteTook(Clock::now() - request.began);
  }
  return queued;
}

void IngestServer::end(Request* request) {
  if (request == nullptr) return;
  if (request->isLog && request->stage != Request::Stage::decided) ++brokenOff_;
  held_ -= request->log.bytes.size();
  delete request;
}

// -- Figures

void IngestServer::noteTook(Clock::duration took) {
  const double inSeconds = std::chrono::duration<double>(took).count();
  std::size_t bucket = 0;
  while (bucket < kBuckets.size() && inSeconds > kBuckets[bucket]) ++bucket;
  ++took_[bucket];
  tookMicroseconds_ += static_cast<std::uint64_t>(inSeconds * 1e6);
}

std::string IngestServer::metrics() const {
  std::string text = answersText();
  const auto add = [&text](const char* type, const char* name, std::uint64_t value) {
    text += fmt::format("# TYPE skelda_collector_{0} {1}\nskelda_collector_{0} {2}\n", name, type,
                        value);
  };
  add("counter", "log_bytes_total", bytes_);
  add("counter", "repeats_total", repeats_);
  add("counter", "damaged_logs_total", damaged_);
  add("counter", "broken_off_total", brokenOff_);
  add("gauge", "ready", sink_.isReady() ? 1 : 0);
  add("gauge", "held_bytes", held_);
  add("gauge", "waiting_requests", waiting_);
  add("gauge", "connections", connections_);
  return text + sink_.figures() + timesText();
}

std::string IngestServer::answersText() const {
  std::string text = "# TYPE skelda_collector_logs_total counter\n";
  for (std::size_t status = 0; status < answers_.size(); ++status) {
    if (answers_[status] == 0) continue;
    text += fmt::format("skelda_collector_logs_total{{status=\"{}\"}} {}\n", status,
                        answers_[status].load());
  }
  return text;
}

std::string IngestServer::timesText() const {
  std::string text = "# TYPE skelda_collector_answer_seconds histogram\n";
  std::uint64_t count = 0;
  for (std::size_t bucket = 0; bucket < took_.size(); ++bucket) {
    count += took_[bucket];
    const std::string bound =
        bucket < kBuckets.size() ? fmt::format("{}", kBuckets[bucket]) : "+Inf";
    text += fmt::format("skelda_collector_answer_seconds_bucket{{le=\"{}\"}} {}\n", bound, count);
  }
  text += fmt::format("skelda_collector_answer_seconds_sum {}\n",
                      static_cast<double>(tookMicroseconds_.load()) / 1e6);
  text += fmt::format("skelda_collector_answer_seconds_count {}\n", count);
  return text;
}
