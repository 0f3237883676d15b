#include "Tools/skelda-collector/CollectorServer.h"

#include <cstdio>

#include "Tools/skelda-collector/Connection.h"
#include "Tools/skelda-collector/FrameLogReport.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kLogPath = "/v1/skd.do";
constexpr const char* kApiKeyHeader = "X-Skelda-Api-Key";
// A fault that waits holds a thread, and so does a connection that is kept open.
constexpr std::size_t kThreads = 64;

void print(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

std::string textOf(const Json& content) {
  return content.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void answer(httplib::Response& response, int status, const Json& content) {
  response.status = status;
  response.set_content(textOf(content) + "\n", "application/json");
}

std::string lastFour(const std::string& key) {
  return key.size() > 4 ? key.substr(key.size() - 4) : key;
}

}  // namespace

CollectorServer::CollectorServer(Options options, LogStore& store, FaultSequence& faults,
                                 const Certificates* certificates)
    : options_(std::move(options)), store_(store), faults_(faults) {
  if (certificates) {
    server_ = std::make_unique<httplib::SSLServer>(certificates->certificatePath.c_str(),
                                                   certificates->keyPath.c_str());
  } else {
    server_ = std::make_unique<httplib::Server>();
  }
  server_->new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
  server_->set_tcp_nodelay(true);
  server_->set_keep_alive_max_count(1'000'000);
  server_->set_read_timeout(std::chrono::seconds(30));
  route();
}

int CollectorServer::bind(const std::string& address, int port) {
  if (!server_->is_valid()) return -1;
  if (port == 0) {
    port_ = server_->bind_to_any_port(address);
  } else {
    port_ = server_->bind_to_port(address, port) ? port : -1;
  }
  return port_;
}

bool CollectorServer::serve() {
  const bool well = server_->listen_after_bind();
  {
    const std::lock_guard lock(mutex_);
    served_ = true;
  }
  changed_.notify_all();
  return well;
}

void CollectorServer::stop() {
  std::unique_lock lock(mutex_);
  stopping_ = true;
  changed_.notify_all();
  for (bool told = false; !served_;) {
    // The library takes no notice before it accepts, and bears being told once.
    if (!told && server_->is_running()) {
      server_->stop();
      told = true;
    }
    // It would wait for the next request of every connection that is kept open.
    Connection::stopReadingOn(port_);
    changed_.wait_for(lock, std::chrono::milliseconds(50), [this] { return served_; });
  }
}

void CollectorServer::wait(std::chrono::milliseconds duration) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, duration, [this] { return stopping_; });
}

void CollectorServer::route() {
  server_->Post(kLogPath, [this](const auto& request, auto& response, const auto& read) {
    receive(request, response, read);
  });
  server_->Get("/healthz", [this](const auto&, auto& response) {
    Json health{{"status", "ok"}};
    health.update(store_.totals());
    answer(response, 200, health);
  });
  server_->Get("/v1/logs", [this](const auto& request, auto& response) {
    const auto limit = request.get_param_value("limit");
    answer(
        response, 200,
        store_.newestFirst(limit.empty() ? SIZE_MAX : std::strtoull(limit.c_str(), nullptr, 10)));
  });

  const auto wrongMethod = [this](const char* allowed) {
    return [this, allowed](const httplib::Request& request, httplib::Response& response) {
      response.set_header("Allow", allowed);
      refuse(request, response, 405, {{"error", "method not allowed"}});
    };
  };
  server_->Get(kLogPath, wrongMethod("POST"));
  server_->Put(kLogPath, wrongMethod("POST"));
  server_->Patch(kLogPath, wrongMethod("POST"));
  server_->Delete(kLogPath, wrongMethod("POST"));
  server_->Options(kLogPath, wrongMethod("POST"));
  for (const char* path : {"/healthz", "/v1/logs"}) {
    server_->Post(path, wrongMethod("GET"));
    server_->Put(path, wrongMethod("GET"));
    server_->Patch(path, wrongMethod("GET"));
    server_->Delete(path, wrongMethod("GET"));
  }
  server_->set_error_handler([](const auto& request, auto& response) {
    if (!response.body.empty()) return;
    answer(response, response.status,
           {{"error", response.status == 404 ? "not found" : "refused"}});
    print("refused " + request.method + " " + request.path + ": " +
          std::to_string(response.status));
  });
  server_->set_exception_handler([](const auto&, auto& response, std::exception_ptr thrown) {
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

void CollectorServer::refuse(const httplib::Request& request, httplib::Response& response,
                             int status, Json why) {
  answer(response, status, why);
  print("refused " + request.method + " " + request.path + ": " + std::to_string(status) + " " +
        textOf(why));
}

void CollectorServer::receive(const httplib::Request& request, httplib::Response& response,
                              const httplib::ContentReader& read) {
  const auto fault = faults_.next();
  if (fault && fault->delay) {
    print("fault: delay");
    wait(*fault->delay);
  }

  std::string body;
  bool cut = false;
  bool tooLarge = false;
  const bool whole = read([&](const char* bytes, std::size_t length) {
    if (fault && fault->resetAfter && body.size() + length >= *fault->resetAfter) {
      print("fault: reset in the request");
      Connection(request).reset();
      cut = true;
      return false;
    }
    // What is too much is read all the same, so that the client reads the answer.
    tooLarge = tooLarge || body.size() + length > options_.maxBytes;
    if (!tooLarge) body.append(bytes, length);
    return true;
  });
  if (cut || !whole) {
    if (!cut) print("broken off after " + std::to_string(body.size()) + " bytes");
    return answer(response, 400, {{"error", "nobody is there to read this"}});
  }
  if (tooLarge)
    return refuse(request, response, 413, {{"error", "too large"}, {"limit", options_.maxBytes}});
  if (fault && !meet(*fault, request, response, body)) return;
  if (!fault || response.status < 200) accept(request, response, body, 200);
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
          LogStore::sha256(body).substr(0, 16));
    answer(response, *fault.status, {{"error", "as asked for"}});
    return true;
  }
  if (!fault.status && !fault.dropAnswer && !fault.resetAnswer && !fault.resetAfter) return true;

  // What is left lets the log in, and then does not answer as it should.
  accept(request, response, body, fault.status.value_or(200));
  if (fault.dropAnswer) {
    print("fault: no answer");
    Connection(request).close();
    return false;
  }
  if (fault.resetAnswer || fault.resetAfter) {
    print("fault: reset in the answer");
    const auto whole = "HTTP/1.1 " + std::to_string(response.status) +
                       " As it is\r\nContent-Type: application/json\r\nContent-Length: " +
                       std::to_string(response.body.size()) + "\r\n\r\n" + response.body;
    const auto sent = fault.resetAnswer.value_or(whole.size() / 2);
    Connection connection(request);
    connection.write(std::string_view(whole).substr(0, sent));
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
  const auto entry = store_.add(body, report, key);
  answer(response, status, entry);
  print("log from " + lastFour(key) + ": " + std::to_string(body.size()) + " bytes, " +
        std::to_string(report.frames) + " frames, " + std::to_string(report.sessions) +
        " sessions, " + std::to_string(report.events) + " events, sha256 " +
        entry["sha256"].get<std::string>().substr(0, 16));
}
