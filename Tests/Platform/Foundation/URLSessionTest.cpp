#include <dlfcn.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <openssl/ssl.h>

#include "Tests/Support/SessionProbe.h"

namespace {

/// While it lives, whoever asks for the address of its host waits.
struct HangingNameServer {
  static constexpr const char* kHost = "hangs.example";
  static inline std::atomic<bool> hangs{false};
  static inline std::atomic<int> waiting{0};

  HangingNameServer() { hangs = true; }
  ~HangingNameServer() {
    hangs = false;
    hangs.notify_all();
    EXPECT_TRUE(becomes([] { return waiting == 0; }));
  }
  static void ask() {
    ++waiting;
    hangs.wait(true);
    --waiting;
  }
};

std::shared_ptr<SessionProbe> perform(URLRequest request, SessionProbe::RedirectRule rule = nullptr,
                                      URLSessionConfiguration configuration = {}) {
  auto probe = std::make_shared<SessionProbe>(std::move(rule));
  startRequest(probe, std::move(request), configuration);
  EXPECT_TRUE(probe->ends());
  return probe;
}

URLRequest getRequest(const std::string& url, std::optional<std::chrono::milliseconds> limit = {}) {
  URLRequest request;
  request.url = url;
  if (limit) request.timeoutInterval = *limit;
  return request;
}

TEST(URLSession, EveryAnswerOfAServerCompletesWithoutAnError) {
  LoopbackServer server([](auto& connection, auto& request) {
    const int status = std::stoi(request.target.substr(1));
    connection.send("HTTP/1.1 103 Early\r\nlink: interim\r\n\r\n");
    connection.answer(status, status == 204 ? "" : "as told", "A: 1\r\na: 2\r\n: nameless\r\n");
  });
  for (const int status : {200, 204, 299, 300, 304, 400, 404, 429, 500, 503, 599}) {
    const auto probe = perform(getRequest(server.url("/" + std::to_string(status))));
    EXPECT_EQ(probe->status(), status);
    EXPECT_EQ(probe->code, 0);
    EXPECT_EQ(probe->body.view(), status == 204 || status == 304 ? "" : "as told");
    EXPECT_TRUE(probe->wasOnQueue);
    // The interim answer's fields are not the answer's.
    EXPECT_EQ(probe->response->headerFields.find("link"), nullptr);
    EXPECT_EQ(probe->response->headerFields.find("A")->description(), "1, 2");
  }
}

TEST(URLSession, OnTheWireStandsWhatWasAskedAndWhatHTTPNeeds) {
  LoopbackServer server(answering(200));
  const std::string body(3 * 1024 * 1024, 'b');  // large enough to be asked for leave first
  for (const std::string_view method : {"POST", "PUT", "GET", "HEAD", "DELETE", "OPTIONS"}) {
    const bool hasBody = method == "POST" || method == "PUT";
    auto request = postRequest(server.url(), body);
    request.method = method;
    if (!hasBody) request.body = nullptr;
    EXPECT_EQ(perform(std::move(request))->status(), 200) << method;
    const auto received = server.requests().back();
    EXPECT_EQ(received.method, method);
    std::set<std::string> names, expected{"host", "content-type", "x-key"};
    for (const auto& [name, value] : received.fields) names.insert(name);
    if (hasBody) expected.insert("content-length");
    EXPECT_EQ(names, expected) << method;
    EXPECT_TRUE(received.body == (hasBody ? body : "")) << method;
  }
}

TEST(URLSession, ProposesAndFollowsRedirects) {
  LoopbackServer server([](auto& connection, auto& request) {
    if (request.target == "/end") return connection.answer(200, "here"), void();
    connection.answer(std::stoi(request.target.substr(1)), "elsewhere", "Location: end\r\n");
  });
  for (const int status : {301, 302, 303, 307, 308}) {
    const auto url = server.url("/" + std::to_string(status));
    const auto followed = perform(postRequest(url, "bytes"));
    EXPECT_EQ(followed->status(), 200);
    EXPECT_EQ(followed->body.view(), "here");
    EXPECT_EQ(followed->redirects, std::vector<std::int64_t>{status});
    const auto last = server.requests().back();
    EXPECT_EQ(last.method + " " + last.body, status == 303 ? "GET " : "POST bytes") << status;
    EXPECT_EQ(last.field("x-key"), "secret");
    EXPECT_EQ(last.field("content-type").empty(), status == 303);

    auto head = getRequest(url);
    head.method = "HEAD";
    perform(std::move(head));
    EXPECT_EQ(server.requests().back().method, "HEAD") << status;
    const auto refused = perform(postRequest(url, "bytes"), [](auto) { return std::nullopt; });
    EXPECT_EQ(refused->status(), status);
    EXPECT_EQ(refused->code, 0);
    EXPECT_EQ(refused->body.view(), "elsewhere");
  }
}

TEST(URLSession, FollowsTheTenthRedirectAndThoseBehindItSlower) {
  LoopbackServer server(answering(302, "", "Location: /again\r\n"));
  URLSessionConfiguration brief;
  brief.resourceTimeout = 2s;  // the tenth waits a second, the eleventh two
  EXPECT_EQ(perform(postRequest(server.url(), "bytes"), nullptr, brief)->code, kURLErrorTimedOut);
  EXPECT_EQ(server.requestCount(), 11u);
}

TEST(URLSession, NeverGoesFromHTTPSToAnythingElse) {
  TestAuthority authority;
  LoopbackServer plain(answering(200));
  std::string location;
  const auto redirect = [&](auto& connection, auto&) {
    connection.answer(302, "", "Location: " + location + "\r\n");
  };
  LoopbackServer secure(redirect, {authority.issue()});
  for (const auto& target : {plain.url(), std::string("ftp://127.0.0.1/"), std::string("//")}) {
    location = target;
    const auto probe = perform(postRequest(secure.url(), "bytes"));
    EXPECT_EQ(probe->status(), 302) << target;
    EXPECT_TRUE(probe->redirects.empty()) << "not even proposed: " << target;
  }
  // Nor when the delegate asks for it.
  location = secure.url("/again");
  const auto probe = perform(postRequest(secure.url(), "bytes"), [&](auto proposed) {
    proposed.url = plain.url();
    return proposed;
  });
  EXPECT_EQ(probe->code, kURLErrorUnsupportedURL);
  EXPECT_EQ(plain.connections(), 0u);
}

TEST(URLSession, FailuresCarryTheirCodes) {
  const TestAuthority before, authority;
  const auto after = [](auto read, LoopbackServer::ConnectionHandler act) {
    return LoopbackServer([read, act](ServerConnection& connection) {
      ReceivedRequest request;
      if ((connection.*read)(request)) act(connection);
    });
  };
  const auto afterHead = [&](auto act) { return after(&ServerConnection::readHead, act); };
  const auto afterRequest = [&](auto act) { return after(&ServerConnection::readRequest, act); };
  const auto saying = [&](std::string bytes) {
    return afterRequest([bytes](auto& connection) { connection.send(bytes); });
  };
  const auto secure = [](Certificates certificate, int newestTLS = 0) {
    return LoopbackServer(answering(200), {certificate, newestTLS});
  };
  const std::string body(16 * 1024 * 1024, 'x');  // more than lies in the sockets between
  const auto check = [&](const char* what, const auto& server, std::int64_t code) {
    const auto probe = perform(postRequest(server.url(), body));
    EXPECT_EQ(probe->code, code) << what;
    EXPECT_TRUE(probe->isURLError) << what;
    EXPECT_EQ(probe->size(), 1u) << what;
    EXPECT_TRUE(code != kURLErrorServerCertificateUntrusted || server.requests().empty()) << what;
  };
  auto code = kURLErrorNetworkConnectionLost;
  check("reset in the request", afterHead([](auto& connection) { connection.reset(); }), code);
  check("reset for an answer", afterRequest([](auto& connection) { connection.reset(); }), code);
  check("no answer", saying(""), code);
  check("half an answer", saying("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf"), code);
  check("an answer that ends in its status line", saying("HTTP/1.1 200 OK"), code);
  check("an answer that ends in its head", saying("HTTP/1.1 200 OK\r\nX-One: 1\r\n"), code);
  const auto tooEarly = [](ServerConnection& connection) {
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    connection.server().hold();
  };
  check("a 200 before the body was sent", afterHead(tooEarly), code);
  code = kURLErrorBadServerResponse;
  check("an answer that is none", saying("SSH-2.0-server\r\n\r\n"), code);
  check("a status line without a status", saying("HTTP/200 OK\r\n\r\n"), code);
  using enum Certificates::Kind;
  code = kURLErrorServerCertificateUntrusted;
  for (const auto flaw : {selfSigned, expired, wrongName})
    check("a certificate with a flaw", secure(authority.issue(flaw)), code);
  check("an authority made anew under its name", secure(before.issue()), code);
  check("an old TLS", secure(authority.issue(), TLS1_1_VERSION), kURLErrorSecureConnectionFailed);

  const auto sayPlain = [](ServerConnection& connection) { connection.send("plain"); };
  std::optional<LoopbackServer> plain(std::in_place, sayPlain);
  const std::string address = "127.0.0.1:" + std::to_string(plain->port());
  EXPECT_EQ(perform(getRequest("https://" + address))->code, kURLErrorSecureConnectionFailed);
  plain.reset();
  EXPECT_EQ(perform(getRequest("http://" + address))->code, kURLErrorCannotConnectToHost);
  EXPECT_EQ(perform(getRequest("http:// no url"))->code, kURLErrorBadURL);
  EXPECT_EQ(perform(getRequest("file:///etc/hostname"))->code, kURLErrorUnsupportedURL);
  auto injected = getRequest("http://" + address);
  injected.headerFields = {{"X-Key", "a\r\nX-Other: b"}};
  EXPECT_EQ(perform(std::move(injected))->code, kURLErrorBadURL);
}

TEST(URLSession, TimesOutWithoutProgressAndAsAWhole) {
  const LoopbackServer server([](ServerConnection& connection) {
    ReceivedRequest request;
    if (!connection.readRequest(request)) return;
    if (request.target == "/hang") return connection.server().hold();
    // Slowly, but never still for long.
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\n");
    for (int i = 0; i < 20 && connection.send("."); ++i) std::this_thread::sleep_for(50ms);
  });
  EXPECT_EQ(perform(getRequest(server.url("/hang"), 300ms))->code, kURLErrorTimedOut);

  const auto slow = getRequest(server.url("/slow"), 600ms);
  const auto done = perform(slow);
  EXPECT_EQ(done->code, 0);
  EXPECT_EQ(done->body.length(), 20u);

  URLSessionConfiguration brief;
  brief.resourceTimeout = 400ms;
  EXPECT_EQ(perform(slow, nullptr, brief)->code, kURLErrorTimedOut);
  // Nor does a delegate that never decides hold a task for ever.
  LoopbackServer redirecting(answering(302, "", "Location: /there\r\n"));
  struct Undecided : SessionProbe {
    void willPerformHTTPRedirection(URLSession&, URLSessionTask&, const HTTPURLResponse&,
                                    URLRequest, RedirectDecision) override {}
  };
  const auto undecided = std::make_shared<Undecided>();
  startRequest(undecided, getRequest(redirecting.url()), brief);
  ASSERT_TRUE(undecided->ends());
  EXPECT_EQ(undecided->code, kURLErrorTimedOut);
}

constexpr const char* kUnknownHost = "unknown.example";
unsigned interfaceFlags = 0;  // of the only interface that the machine has

TEST(URLSession, AHostIsNotFoundOnlyWhereThereIsANetwork) {
  const std::pair<unsigned, std::int64_t> cases[] = {
      {IFF_UP | IFF_RUNNING, kURLErrorCannotFindHost},
      {IFF_UP, kURLErrorNotConnectedToInternet},
      {IFF_UP | IFF_RUNNING | IFF_LOOPBACK, kURLErrorNotConnectedToInternet}};
  for (const auto& [flags, code] : cases) {
    interfaceFlags = flags;
    EXPECT_EQ(perform(getRequest(std::string("http://") + kUnknownHost))->code, code) << flags;
  }
}

TEST(URLSession, ANameServerThatHangsHoldsNeitherItsRequestNorOthers) {
  LoopbackServer server(answering(200));
  const HangingNameServer hanging;
  const auto probe = std::make_shared<SessionProbe>();
  startRequest(probe, getRequest("http://" + std::string(HangingNameServer::kHost) + "/", 300ms));
  ASSERT_TRUE(becomes([&] { return hanging.waiting > 0; }));
  EXPECT_EQ(perform(postRequest(server.url(), "bytes"))->status(), 200);
  ASSERT_TRUE(probe->ends());
  EXPECT_EQ(probe->code, kURLErrorTimedOut);
  EXPECT_EQ(perform(postRequest(server.url(), "bytes"))->status(), 200) << "while it still hangs";
}

std::size_t residentBytes() {
  std::size_t total = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * 4096;
}

TEST(URLSession, AnAnswerWithoutEndIsCutOffAndCountsByItsStatus) {
  const std::string block(256 * 1024, 'z');
  std::atomic<std::size_t> sent = 0;
  LoopbackServer server([&](auto& connection, auto&) {
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 1073741824\r\nX-Long: ");
    connection.send(block.substr(0, 70'000) + "\r\n\r\n");
    while (sent < 1073741824 && connection.send(block)) sent += block.size();
  });
  perform(getRequest("http://127.0.0.1:1/"));  // what the library takes for itself is there now
  [[maybe_unused]] const std::size_t before = residentBytes();
  const auto probe = perform(postRequest(server.url(), "bytes"));
  EXPECT_EQ(probe->status(), 200);
  EXPECT_EQ(probe->code, 0);
  EXPECT_EQ(probe->response->headerFields.find("X-Long"), nullptr);
  EXPECT_EQ(probe->body.length(), 64u * 1024);
  EXPECT_LT(sent, 64u * 1024 * 1024);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(residentBytes(), before + 1024 * 1024);
#endif
}

TEST(URLSession, ACancelledTaskEndsOnceWhateverItWasDoing) {
  LoopbackServer server([](auto& connection, auto& request) {
    if (request.target == "/hold") connection.server().hold();
    connection.answer(200);
  });
  std::vector<std::shared_ptr<SessionProbe>> probes;
  const auto newProbe = [&] { return probes.emplace_back(std::make_shared<SessionProbe>()); };
  const auto session = URLSession::session({}, newProbe());
  const auto unstarted = session->dataTask(getRequest(server.url("/never")));
  unstarted->cancel();
  unstarted->resume();

  const auto running = startRequest(newProbe(), postRequest(server.url("/hold"), "bytes"));
  ASSERT_TRUE(server.waitForRequests(1));
  running->cancel();
  running->cancel();
  for (const auto& each : probes) {
    ASSERT_TRUE(each->ends());
    EXPECT_EQ(each->code, kURLErrorCancelled);
  }
  // Cancelled from another thread while it is starting or ending.
  for (int i = 0; i < 50; ++i) {
    const auto raced = startRequest(newProbe(), getRequest(server.url()));
    if (i % 2 == 0) std::this_thread::yield();
    raced->cancel();
  }
  for (const auto& each : probes) ASSERT_TRUE(each->ends());
  perform(getRequest(server.url()));  // whatever came late has come
  for (const auto& each : probes) EXPECT_EQ(each->size(), 1u);
}

bool networkThreadRuns() {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
    if (readFile(task.path() / "comm") == "skelda.network\n") return true;
  return false;
}

TEST(URLSession, SessionsShareConnectionsAndLeaveNothingBehindWhenIdle) {
  TestAuthority authority;
  LoopbackServer server(answering(200), {authority.issue()});
  for (int i = 0; i < 20; ++i) EXPECT_EQ(perform(postRequest(server.url(), "b"))->status(), 200);
  EXPECT_EQ(server.connections(), 1u);
  EXPECT_TRUE(networkThreadRuns());
  EXPECT_TRUE(server.waitUntil([&] { return server.openConnections() == 0; }));
  EXPECT_TRUE(server.waitUntil([] { return !networkThreadRuns(); }));
  EXPECT_EQ(perform(postRequest(server.url(), "b"))->status(), 200) << "and it starts again";
  EXPECT_EQ(server.connections(), 2u);
}

TEST(URLSession, ADeadConnectionIsReplacedAndTheBodySentAgain) {
  LoopbackServer server([](auto& connection, auto& request) {
    connection.answer(200, "ok");
    if (request.connection == 1) connection.close();  // without saying so
  });
  EXPECT_EQ(perform(postRequest(server.url(), "first"))->status(), 200);
  const std::string body(500'000, 'y');
  EXPECT_EQ(perform(postRequest(server.url(), body))->status(), 200);
  EXPECT_TRUE(server.requests().back().body == body);
}

TEST(URLSessionDeathTest, TakesNoStandardDescriptorAndExitIsCleanInTheMiddleOfATransfer) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  constexpr const char* kServer = "SKELDA_TEST_SERVER";
  std::optional<TestAuthority> authority;
  std::optional<LoopbackServer> server;
  ScopedEnvironment environment;
  // In the parent: the child exits, its server would as well.
  if (std::getenv(kServer) == nullptr) {
    server.emplace(answering(200), LoopbackServer::Options{authority.emplace().issue()});
    environment.set(kServer, server->url());
  }
  EXPECT_EXIT(
      {
        for (const int descriptor : {0, 1, 2}) ::close(descriptor);
        if (perform(postRequest(std::getenv(kServer), "bytes"))->status() != 200) ::_exit(1);
        // Its connection is kept.
        for (const int descriptor : {0, 1, 2})
          if (::fcntl(descriptor, F_GETFD) >= 0) ::_exit(2);
        std::vector<std::shared_ptr<SessionProbe>> probes;
        for (int i = 0; i < 20; ++i) {
          probes.push_back(std::make_shared<SessionProbe>());
          startRequest(probes.back(), postRequest(std::getenv(kServer), "bytes"));
        }
        std::exit(probes.front()->ends() ? 7 : 1);
      },
      testing::ExitedWithCode(7), "");
}

}  // namespace

/// In the place of the system's, for the whole program.
#define SEEN_BY_ALL extern "C" __attribute__((visibility("default")))
SEEN_BY_ALL int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                            addrinfo** result) {
  const std::string_view host(node != nullptr ? node : "");
  if (host == HangingNameServer::kHost) return HangingNameServer::ask(), EAI_AGAIN;
  if (host == kUnknownHost) return EAI_NONAME;
  using Function = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
  static const auto systems = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  return systems(node, service, hints, result);
}
SEEN_BY_ALL int getifaddrs(ifaddrs** all) noexcept {
  static sockaddr address{.sa_family = AF_INET, .sa_data = {}};
  static ifaddrs only{};
  only.ifa_addr = &address;
  only.ifa_flags = interfaceFlags;
  *all = &only;
  return 0;
}
SEEN_BY_ALL void freeifaddrs(ifaddrs*) noexcept {}
