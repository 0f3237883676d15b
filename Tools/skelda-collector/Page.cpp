#include "Tools/skelda-collector/Page.h"

#include <fmt/format.h>
#include <openssl/rand.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <memory>
#include <stdexcept>

#include "Tools/skelda-collector/Addresses.h"
#include "Tools/skelda-collector/Connection.h"
#include "Tools/skelda-collector/LogReading.h"

using skelda::platform::MutexLock;
using Json = nlohmann::ordered_json;

namespace {

constexpr int kMostStreams = 24;
constexpr std::size_t kMostRequestBytes = 4096;
constexpr std::size_t kMostEvents = 100;
// What one request for events looks through at most; the next one goes on from there.
constexpr std::size_t kMostLogsSearched = 100;
constexpr std::size_t kMostBytesSearched = 8u << 20;
constexpr auto kHeartbeat = std::chrono::seconds(10);

const char* const kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'; "
    "require-trusted-types-for 'script'; trusted-types 'none'";

std::string randomToken() {
  unsigned char bytes[16];
  if (RAND_bytes(bytes, sizeof(bytes)) != 1) throw std::runtime_error("no random numbers");
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

/// Of "host", "host:port" and "[address]:port", the host.
std::string hostOf(const std::string& header) {
  if (header.starts_with('[')) return lower(header.substr(1, header.find(']') - 1));
  return lower(header.substr(0, header.rfind(':')));
}

std::uint64_t numberOf(const httplib::Request& request, const char* name, std::uint64_t otherwise) {
  const auto text = request.get_param_value(name);
  std::uint64_t number = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && stop == text.data() + text.size() ? number : otherwise;
}

void answer(httplib::Response& response, int status, const Json& content) {
  response.status = status;
  response.set_content(content.dump(-1, ' ', false, Json::error_handler_t::replace),
                       "application/json");
}

void guard(httplib::Response& response) {
  response.set_header("Content-Security-Policy", kPolicy);
  response.set_header("X-Content-Type-Options", "nosniff");
  response.set_header("Referrer-Policy", "no-referrer");
  response.set_header("Cross-Origin-Resource-Policy", "same-origin");
  response.set_header("Cross-Origin-Opener-Policy", "same-origin");
  response.set_header("Cache-Control", "no-store");
}

}  // namespace

Page::Page(Options options, const LogStore& store, Arrivals& arrivals, FaultSequence& faults)
    : options_(std::move(options)),
      token_(randomToken()),
      store_(store),
      arrivals_(arrivals),
      faults_(faults) {}

std::string Page::reasonAgainst(const httplib::Request& request) const {
  if (options_.reach == Reach::loopback && !isLoopback(request.remote_addr))
    return "the page is for this machine alone, unless the collector is started with --page anyone";
  const auto host = request.get_header_value("Host");
  if (!options_.hosts.contains(hostOf(host)))
    return "the page is not served under this name; --name gives the collector another one";
  if (request.has_header("Origin") &&
      request.get_header_value("Origin") != (options_.tls ? "https://" : "http://") + host)
    return "the request comes from another site";
  const auto site = request.get_header_value("Sec-Fetch-Site");
  const bool isOpened =
      request.path == "/" && request.get_header_value("Sec-Fetch-Mode") == "navigate";
  if (!site.empty() && site != "same-origin" && site != "none" && !isOpened)
    return "the request comes from another site";
  if (request.method == "POST" && request.get_header_value("X-Skelda-Token") != token_)
    return "no token; /page/state has it";
  return {};
}

bool Page::admits(const httplib::Request& request, httplib::Response& response) const {
  guard(response);
  const auto reason = reasonAgainst(request);
  if (!reason.empty()) answer(response, 403, {{"error", reason}});
  return reason.empty();
}

void Page::get(httplib::Server& server, const char* path,
               void (Page::*serve)(const httplib::Request&, httplib::Response&)) {
  server.Get(path, [this, serve](const auto& request, auto& response) {
    if (admits(request, response)) (this->*serve)(request, response);
  });
}

void Page::route(httplib::Server& server) {
  if (options_.reach == Reach::off) return;
  for (const auto& file : pageFiles()) {
    server.Get(file.path, [this, &file](const auto& request, auto& response) {
      if (admits(request, response))
        response.set_content(file.bytes.data(), file.bytes.size(), file.type);
    });
  }
  get(server, "/page/state", &Page::sendState);
  get(server, "/page/account", &Page::sendAccount);
  get(server, "/page/log", &Page::sendLog);
  get(server, "/page/events", &Page::sendEvents);
  get(server, "/page/stream", &Page::sendStream);
  server.Post("/page/faults", [this](const auto& request, auto& response, const auto& read) {
    changeFaults(request, response, read);
  });
}

Json Page::faultList() const {
  Json list = Json::array();
  for (const auto& fault : faults_.list())
    list.push_back({{"text", fault.text},
                    {"met", fault.met},
                    {"times", fault.times ? Json(*fault.times) : Json()},
                    {"remaining", fault.remaining ? Json(fault.remaining->count()) : Json()}});
  return list;
}

Json Page::faultState() const {
  // Read first: what is older than a message that a page has seen must not say that it is newer.
  const auto sequence = arrivals_.sequence();
  return {{"sequence", sequence}, {"list", faultList()}};
}

void Page::tellFaults() {
  const MutexLock inOrder(telling_);
  arrivals_.faultsChanged(faultList());
}

void Page::sendState(const httplib::Request&, httplib::Response& response) {
  auto state = arrivals_.state();
  state["token"] = token_;
  state["faults"] = faultState();
  answer(response, 200, state);
}

void Page::sendAccount(const httplib::Request&, httplib::Response& response) {
  auto account = arrivals_.account();
  account["faults"] = faultState();
  answer(response, 200, account);
}

void Page::sendLog(const httplib::Request& request, httplib::Response& response) {
  const auto entry = store_.entry(numberOf(request, "n", 0));
  if (!entry) return answer(response, 404, {{"error", "there is no log of that number"}});
  const MutexLock one(reading_);
  const auto log = store_.bytesOf(entry->line);
  if (!log) return answer(response, 404, {{"error", "the file of that log is not there any more"}});
  const auto from = numberOf(request, "from", 0);
  auto content = LogReading::frames(*log, from);
  content["line"] = entry->line;
  if (from == 0) content["environment"] = LogReading::environment(*log);
  answer(response, 200, content);
}

void Page::sendEvents(const httplib::Request& request, httplib::Response& response) {
  LogReading::Wanted wanted{.name = request.get_param_value("name"), .session = {}};
  if (request.has_param("session"))
    wanted.session = static_cast<std::int64_t>(numberOf(request, "session", 0));
  wanted.below = numberOf(request, "offset", UINT64_MAX);
  // A search that broke off inside a log goes on in it.
  auto below = numberOf(request, "below", SIZE_MAX - 1);
  if (wanted.below != UINT64_MAX) ++below;

  Json events = Json::array();
  Json next;
  std::size_t searched = 0;
  const MutexLock one(reading_);
  const auto entries = store_.newestFirst(below, kMostLogsSearched);
  for (const auto& entry : entries) {
    next = {{"below", entry.number}};
    if (searched > kMostBytesSearched) {
      ++next["below"].get_ref<std::uint64_t&>();
      break;
    }
    if (!entry.line.contains("repeat") && LogStore::numberIn(entry.line, "events") > 0) {
      const auto log = store_.bytesOf(entry.line).value_or("");
      searched += log.size();
      wanted.most = kMostEvents - events.size();
      for (auto& event : LogReading::events(log, wanted)) {
        event["n"] = entry.number;
        events.push_back(std::move(event));
      }
      if (events.size() >= kMostEvents) {
        next["offset"] = events.back()["offset"];
        break;
      }
    }
    wanted.below = UINT64_MAX;
    if (entry.number == 1) next = nullptr;
  }
  answer(response, 200, {{"events", std::move(events)}, {"next", next}});
}

void Page::sendStream(const httplib::Request& request, httplib::Response& response) {
  if (++streams_ > kMostStreams) {
    --streams_;
    return answer(response, 503, {{"error", "too many pages are open"}});
  }
  const auto lastSeen = request.get_header_value("Last-Event-ID");
  auto sequence = std::make_shared<std::uint64_t>(numberOf(request, "after", 0));
  std::from_chars(lastSeen.data(), lastSeen.data() + lastSeen.size(), *sequence);
  response.set_chunked_content_provider(
      "text/event-stream",
      [this, sequence](std::size_t, httplib::DataSink& sink) {
        auto text =
            arrivals_.messagesAfter(*sequence, std::chrono::steady_clock::now() + kHeartbeat);
        if (text.empty()) text = ":\n\n";
        if (arrivals_.isStopped()) sink.done();
        return arrivals_.isStopped() || sink.write(text.data(), text.size());
      },
      [this](bool) { --streams_; });
}

void Page::changeFaults(const httplib::Request& request, httplib::Response& response,
                        const httplib::ContentReader& read) {
  std::string body;
  const bool whole = read([&body](const char* bytes, std::size_t length) {
    body.append(bytes, length);
    return body.size() <= kMostRequestBytes;
  });
  if (!whole) {
    Connection::current().leaveUnread();
    return answer(response, 413, {{"error", "too large"}});
  }
  if (!admits(request, response)) return;
  const auto wanted = Json::parse(body, nullptr, false);
  try {
    if (wanted.is_object() && wanted.value("clear", false)) {
      faults_.clear();
    } else if (!wanted.is_object() || !wanted.contains("add") || !wanted["add"].is_string()) {
      return answer(response, 400, {{"error", "neither \"add\" nor \"clear\""}});
    } else if (!faults_.add(Fault::parse(wanted["add"].get<std::string>()))) {
      return answer(response, 400, {{"error", "as many faults wait as there may be"}});
    }
  } catch (const std::exception& error) {
    return answer(response, 400, {{"error", error.what()}});
  }
  tellFaults();
  answer(response, 200, faultState());
}
