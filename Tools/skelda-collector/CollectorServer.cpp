#include "Tools/skelda-collector/CollectorServer.h"

#include <algorithm>
#include <cstdio>
#include <memory>

#include "Tools/Shared/Digest.h"
#include "Tools/Shared/PayloadText.h"
#include "Tools/skelda-collector/Connection.h"
#include "Tools/skelda-collector/FrameLogReport.h"

using skelda::platform::MutexLock;

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kLogPath = "/v1/skd.do";
constexpr const char* kApiKeyHeader = "X-Skelda-Api-Key";
// What is not for anybody is read so far that the client reads the answer, and no farther.
constexpr std::size_t kMostDiscarded = 16u << 20;
// Of the bodies that arrive at once, so many of the largest ones are held.
constexpr std::size_t kBodiesHeld = 4;
constexpr std::size_t kLinesAtOnce = 200;

/// What came from outside does nothing to the terminal.
void print(const std::string& line) {
  std::string visible;
  skelda::tools::appendVisible(visible, line);
  std::printf("%s\n", visible.c_str());
  std::fflush(stdout);
}

std::string textOf(const Json& content) {
  return content.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void answer(httplib::Response& response, int status, const Json& content) {
  response.status = status;
  response.set_content(textOf(content) + "\n", "application/json");
}

/// The connection ends with this answer.
void leave(httplib::Response& response) {
  Connection::current().leaveUnread();
  response.set_header("Connection", "close");
}

std::string lastFour(const std::string& key) {
  return key.size() > 4 ? key.substr(key.size() - 4) : key;
}

}  // namespace

/// The bytes of a request's body, as far as they are wanted.
class CollectorServer::Body {
 public:
  explicit Body(CollectorServer& server) : server_(server) {}
  Body(const Body&) = delete;
  Body& operator=(const Body&) = delete;
  ~Body() { server_.held_ -= bytes_.size(); }

  /// False when there is no more sense in reading on.
  bool add(const char* bytes, std::size_t length) {
    const auto most = server_.options_.maxBytes;
    tooLarge_ = tooLarge_ || bytes_.size() + length > most;
    if (!tooLarge_ && !tooMuch_) {
      tooMuch_ = (server_.held_ += length) > kBodiesHeld * most;
      if (!tooMuch_) bytes_.append(bytes, length);
      if (tooMuch_) server_.held_ -= length;
      return true;
    }
    discarded_ += length;
    return discarded_ <= kMostDiscarded;
  }

  const std::string& bytes() const { return bytes_; }
  bool isTooLarge() const { return tooLarge_; }
  /// With the other ones that are here.
  bool isTooMuch() const { return tooMuch_; }

 private:
  CollectorServer& server_;
  std::string bytes_;
  bool tooLarge_ = false;
  bool tooMuch_ = false;
  std::size_t discarded_ = 0;
};

CollectorServer::CollectorServer(Options options, LogStore& store, FaultSequence& faults,
                                 const Certificates* certificates)
    : options_(std::move(options)),
      store_(store),
      faults_(faults),
      arrivals_(store),
      page_(options_.page, store_, arrivals_, faults_),
      server_(certificates, options_.connections) {
  server_.set_keep_alive_max_count(1'000'000);
  server_.set_keep_alive_timeout(
      std::chrono::duration_cast<std::chrono::seconds>(options_.connections.idle).count());
  route();
}

bool CollectorServer::serve(int listener) {
  server_.setListener(listener);
  const bool well = server_.listen_after_bind();
  {
    const MutexLock lock(mutex_);
    served_ = true;
  }
  changed_.notifyAll();
  return well;
}

void CollectorServer::stop() {
  MutexLock lock(mutex_);
  stopping_ = true;
  changed_.notifyAll();
  arrivals_.stop();
  server_.stopReading();
  for (bool told = false; !served_;) {
    // The library takes no notice before it accepts, and bears being told once.
    if (!told && server_.is_running()) {
      server_.stop();
      told = true;
    }
    changed_.waitFor(lock, std::chrono::milliseconds(50));
  }
}

void CollectorServer::wait(std::chrono::milliseconds duration) {
  const auto until = std::chrono::steady_clock::now() + duration;
  MutexLock lock(mutex_);
  while (!stopping_ && std::chrono::steady_clock::now() < until) changed_.waitUntil(lock, until);
}

void CollectorServer::route() {
  server_.Post(kLogPath, [this](const auto& request, auto& response, const auto& read) {
    receive(request, response, read);
  });
  server_.Get("/healthz", [this](const auto&, auto& response) {
    const auto totals = store_.totals();
    answer(response, 200,
           {{"status", "ok"},
            {"logs", totals.logs},
            {"bytes", totals.bytes},
            {"repeats", totals.repeats}});
  });
  routeLines();
  page_.route(server_);
  routeTheRest();
  server_.set_error_handler([](const auto& request, auto& response) {
    if (!response.body.empty()) return;
    answer(response, response.status,
           {{"error", response.status == 404 ? "not found" : "refused"}});
    print("refused " + request.method + " " + request.path + ": " +
          std::to_string(response.status));
  });
  server_.set_exception_handler([](const auto&, auto& response, std::exception_ptr thrown) {
    try {
      std::rethrow_exception(thrown);
    } catch (const std::exception& error) {
      print(std::string("failed: ") + error.what());
      answer(response, 500, {{"error", error.what()}});
    } catch (...) {
      answer(response, 500, {{"error", "unknown"}});
    }
  });
}

/// Sent as they are read: there may be any number of them.
void CollectorServer::routeLines() {
  server_.Get("/v1/logs", [this](const auto& request, auto& response) {
    struct Progress {
      std::size_t below = SIZE_MAX - 1;
      std::size_t left = SIZE_MAX;
      bool begun = false;
    };
    auto progress = std::make_shared<Progress>();
    if (const auto limit = request.get_param_value("limit"); !limit.empty())
      progress->left = static_cast<std::size_t>(
          std::min<std::uint64_t>(std::strtoull(limit.c_str(), nullptr, 10), SIZE_MAX));
    response.set_chunked_content_provider(
        "application/json", [this, progress](std::size_t, httplib::DataSink& sink) {
          const auto lines =
              store_.newestFirst(progress->below, std::min(progress->left, kLinesAtOnce));
          std::string text;
          for (const auto& entry : lines) {
            text += (progress->begun ? "," : "[") + textOf(entry.line);
            progress->begun = true;
            progress->below = entry.number;
          }
          progress->left -= lines.size();
          const bool over = lines.size() < kLinesAtOnce;
          if (over) text += progress->begun ? "]\n" : "[]\n";
          if (!sink.write(text.data(), text.size())) return false;
          if (over) sink.done();
          return true;
        });
  });
}

/// Bodies that nobody wants are never held, whatever the method and the path.
void CollectorServer::routeTheRest() {
  const auto refuseAfter = [this](const httplib::Request& request, httplib::Response& response,
                                  const httplib::ContentReader& read) {
    std::size_t discarded = 0;
    const bool whole = read([&discarded](const char*, std::size_t length) {
      return (discarded += length) <= kMostDiscarded;
    });
    if (!whole) leave(response);
    const bool isLogPath = request.path == kLogPath;
    if (!isLogPath && request.path != "/healthz" && request.path != "/v1/logs")
      return refuse(request, response, 404, {{"error", "not found"}});
    response.set_header("Allow", isLogPath ? "POST" : "GET");
    refuse(request, response, 405, {{"error", "method not allowed"}});
  };
  const auto refuseAtOnce = [refuseAfter](const auto& request, auto& response) {
    refuseAfter(request, response,
                {[](httplib::ContentReceiver) { return true; },
                 [](httplib::MultipartContentHeader, httplib::ContentReceiver) { return true; }});
  };
  server_.Get(kLogPath, refuseAtOnce);
  server_.Options(".*", refuseAtOnce);
  server_.Post(".*", refuseAfter);
  server_.Put(".*", refuseAfter);
  server_.Patch(".*", refuseAfter);
  server_.Delete(".*", refuseAfter);
  server_.set_pre_routing_handler([](const auto& request, auto& response) {
    // The one method with a body that can have no handler.
    if (request.method != "PRI") return httplib::Server::HandlerResponse::Unhandled;
    answer(response, 405, {{"error", "method not allowed"}});
    leave(response);
    return httplib::Server::HandlerResponse::Handled;
  });
}

void CollectorServer::refuse(const httplib::Request& request, httplib::Response& response,
                             int status, Json why) {
  answer(response, status, why);
  print("refused " + request.method + " " + request.path + ": " + std::to_string(status) + " " +
        textOf(why));
  if (request.method == "POST" && request.path == kLogPath)
    arrivals_.refused(status, why.value("error", std::string()));
}

void CollectorServer::receive(const httplib::Request& request, httplib::Response& response,
                              const httplib::ContentReader& read) {
  const auto fault = faults_.next();
  if (fault) page_.tellFaults();
  if (fault && fault->delay) {
    print("fault: delay");
    wait(*fault->delay);
  }

  Body body(*this);
  std::uint64_t arrived = 0;
  bool cut = false;
  const bool whole = read([&](const char* bytes, std::size_t length) {
    arrived += length;
    if (fault && fault->resetAfter && arrived >= *fault->resetAfter) {
      print("fault: reset in the request");
      Connection::current().reset();
      cut = true;
      return false;
    }
    return body.add(bytes, length);
  });
  if (!whole) leave(response);
  if (cut) return answer(response, 400, {{"error", "nobody is there to read this"}});
  if (body.isTooLarge())
    return refuse(request, response, 413, {{"error", "too large"}, {"limit", options_.maxBytes}});
  if (body.isTooMuch()) return refuse(request, response, 503, {{"error", "too much at once"}});
  if (!whole) {
    print("broken off after " + std::to_string(arrived) + " bytes");
    return answer(response, 400, {{"error", "nobody is there to read this"}});
  }
  if (fault && !meet(*fault, request, response, body.bytes())) return;
  if (!fault || response.status < 200) accept(request, response, body.bytes(), 200);
}

bool CollectorServer::meet(const Fault& fault, const httplib::Request& request,
                           httplib::Response& response, const std::string& body) {
  if (fault.redirect) {
    print("fault: redirect " + std::to_string(fault.redirect->first) + " to " +
          fault.redirect->second);
    response.set_header("Location", fault.redirect->second);
    answer(response, fault.redirect->first, {{"redirect", fault.redirect->second}});
    return true;
  }
  if (fault.status && *fault.status / 100 != 2) {
    print("fault: status " + std::to_string(*fault.status) + " for " +
          skelda::tools::digestOf(body).substr(0, 16));
    answer(response, *fault.status, {{"error", "as asked for"}});
    return true;
  }
  if (!fault.status && !fault.dropAnswer && !fault.resetAnswer && !fault.resetAfter) return true;

  // What is left lets the log in, and then does not answer as it should.
  accept(request, response, body, fault.status.value_or(200));
  if (fault.dropAnswer) {
    print("fault: no answer");
    Connection::current().close();
    return false;
  }
  if (fault.resetAnswer || fault.resetAfter) {
    print("fault: reset in the answer");
    const auto whole = "HTTP/1.1 " + std::to_string(response.status) +
                       " As it is\r\nContent-Type: application/json\r\nContent-Length: " +
                       std::to_string(response.body.size()) + "\r\n\r\n" + response.body;
    const auto sent =
        std::min<std::uint64_t>(fault.resetAnswer.value_or(whole.size() / 2), whole.size());
    auto& connection = Connection::current();
    connection.write(whole.data(), static_cast<std::size_t>(sent));
    connection.reset();
    return false;
  }
  return true;
}

void CollectorServer::accept(const httplib::Request& request, httplib::Response& response,
                             const std::string& body, int status) {
  const auto key = request.get_header_value(kApiKeyHeader);
  if (key.empty() || (!options_.apiKeys.empty() && !options_.apiKeys.contains(key)))
    return refuse(request, response, 401,
                  {{"error", key.empty() ? "no API key" : "unknown API key"}});
  const auto report = FrameLogReport::of(body);
  if (!report.whole())
    return refuse(request, response, 400,
                  {{"error", report.fault},
                   {"offset", report.offset},
                   {"frames", report.frames},
                   {"bytes", body.size()}});
  sink_.keep({body, key, {}}, [&](LogSink::Outcome outcome, const Json& line) {
    if (outcome == LogSink::Outcome::notNow) {
      print("failed: " + LogStore::textIn(line, "error"));
      return answer(response, 500, line);
    }
    answer(response, status, line);
    const auto repeat = LogStore::numberIn(line, "repeat");
    print("log from " + lastFour(key) + ": " + std::to_string(body.size()) + " bytes, " +
          std::to_string(report.frames) + " frames, " + std::to_string(report.sessions) +
          " sessions, " + std::to_string(report.events) + " events, sha256 " +
          LogStore::textIn(line, "sha256").substr(0, 16) +
          (repeat ? ", a repeat of log " + std::to_string(repeat) : ""));
  });
}
