// skelda-collector: a local ingestion endpoint for frame logs.

#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <system_error>
#include <thread>

#include "Platform/Base/Log.h"
#include "Tools/skelda-collector/Certificates.h"
#include "Tools/skelda-collector/CollectorServer.h"
#include "Tools/skelda-collector/Faults.h"
#include "Tools/skelda-collector/LogStore.h"

namespace {

struct Options {
  std::string listen = "127.0.0.1:8443";
  std::string store = "collected";
  std::string tlsFolder = "collector-tls";
  bool plain = false;
  Certificates::Kind certificate = Certificates::Kind::good;
  std::vector<std::string> apiKeys;
  std::vector<std::string> faults;
  std::size_t maxBytes = CollectorServer::Options{}.maxBytes;
};

void describe(CLI::App& app, Options& options) {
  using Kind = Certificates::Kind;
  app.add_option("--listen", options.listen, "ADDRESS:PORT; port 0 takes a free one")
      ->capture_default_str();
  app.add_option("--store", options.store, "Folder for received logs and received.jsonl")
      ->capture_default_str();
  app.add_option("--tls-dir", options.tlsFolder,
                 "Folder for the authority and certificate, made on the first start")
      ->capture_default_str();
  app.add_flag("--http", options.plain, "Plain HTTP instead of HTTPS");
  app.add_option("--certificate", options.certificate,
                 "What to show: good, expired, self-signed or wrong-name")
      ->transform(
          CLI::CheckedTransformer(std::map<std::string, Kind>{{"good", Kind::good},
                                                              {"expired", Kind::expired},
                                                              {"self-signed", Kind::selfSigned},
                                                              {"wrong-name", Kind::wrongName}}));
  app.add_option("--api-key", options.apiKeys, "A key to accept; may be repeated. Default: any");
  app.add_option("--max-bytes", options.maxBytes, "The largest log to accept")
      ->capture_default_str();
  app.add_option("--fault", options.faults,
                 "What goes wrong: status=500, delay=30s, reset-after=100bytes, "
                 "reset-answer=12bytes, redirect=307:URL, drop-answer; with for=10s or times=3 as "
                 "long as that. Repeated, they follow each other")
      ->delimiter('\0');
}

/// "127.0.0.1:8443", "[::1]:8443".
std::pair<std::string, int> addressAndPort(const std::string& text) {
  const auto colon = text.rfind(':');
  if (colon == std::string::npos) throw std::invalid_argument(text + " is not ADDRESS:PORT");
  std::string address = text.substr(0, colon);
  if (address.starts_with('[') && address.ends_with(']'))
    address = address.substr(1, address.size() - 2);
  return {address, std::stoi(text.substr(colon + 1))};
}

int run(const Options& options) {
  // Taken by sigwait() below, so no other thread may have them; made before any thread is.
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);
  signal(SIGPIPE, SIG_IGN);
  skelda::platform::Log::setSink({});  // the reader of frames would tell what it does

  const auto [address, wantedPort] = addressAndPort(options.listen);
  std::vector<Fault> faults;
  for (const auto& text : options.faults) faults.push_back(Fault::parse(text));
  FaultSequence sequence(std::move(faults));
  LogStore store(options.store);
  std::optional<Certificates> certificates;
  if (!options.plain)
    certificates = Certificates::prepare(options.tlsFolder, address, options.certificate);

  CollectorServer server({{options.apiKeys.begin(), options.apiKeys.end()}, options.maxBytes},
                         store, sequence, certificates ? &*certificates : nullptr);
  const int port = server.bind(address, wantedPort);
  if (port < 0)
    throw std::system_error(errno, std::generic_category(), "cannot listen on " + options.listen);
  const std::string host = address.find(':') == std::string::npos ? address : "[" + address + "]";
  std::printf("listening on %s://%s:%d/v1/skd.do\n", options.plain ? "http" : "https", host.c_str(),
              port);
  if (certificates) std::printf("authority: %s\n", certificates->authorityPath.c_str());
  std::fflush(stdout);

  std::jthread ender([&server, &ends] {
    int signal = 0;
    sigwait(&ends, &signal);
    server.stop();
  });
  const bool served = server.serve();
  if (!served) pthread_kill(ender.native_handle(), SIGTERM);
  ender.join();
  std::printf("stopped\n");
  return served ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"A local ingestion endpoint for frame logs.", "skelda-collector"};
  Options options;
  describe(app, options);
  CLI11_PARSE(app, argc, argv);
  try {
    return run(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "skelda-collector: %s\n", error.what());
    return 1;
  }
}
