// A hostile server on the loopback: it answers a request with the given bytes, in pieces, and hangs
// up. The task ends once, soon, with a bounded body, and no request goes anywhere else.

#include "Fuzz/Fuzz.h"
#include "Tests/Support/SessionProbe.h"

using namespace skelda::testing;

namespace {

class OnceEnded final : public SessionProbe {
 public:
  using SessionProbe::SessionProbe;
  void didCompleteWithError(URLSession& session, URLSessionTask& task,
                            const ErrorRef& error) override {
    SessionProbe::didCompleteWithError(session, task, error);
    require(size() == 1);
  }
  void didReceiveData(URLSession& session, URLSessionTask& task, Data data) override {
    SessionProbe::didReceiveData(session, task, std::move(data));
    require(body.length() <= session.configuration().responseBodyLimit);
  }
};

}  // namespace

void fuzz(std::string_view input) {
  const std::size_t piece = takeByte(input) + 1;
  const LoopbackServer server([=](ServerConnection& connection) {
    ReceivedRequest ignored;
    connection.readRequest(ignored);
    for (std::size_t at = 0; at < input.size(); at += piece) {
      if (!connection.send(input.substr(at, piece))) break;
    }
  });
  const std::string home = server.url("");
  int redirects = 0;
  const auto probe = std::make_shared<OnceEnded>([&](URLRequest proposed) {
    require(isWellFormedURL(proposed.url));
    const bool isHome = proposed.url == home || proposed.url.starts_with(home + "/");
    return ++redirects < 4 && isHome ? std::optional(std::move(proposed)) : std::nullopt;
  });
  URLRequest request = postRequest(server.url(), "bytes");
  request.timeoutInterval = 10s;
  startRequest(probe, std::move(request));
  require(probe->ends());
  require(probe->code != kURLErrorTimedOut && (probe->code != 0 || probe->response != nullptr));
}
