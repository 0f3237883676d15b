// skelda-collector: a local ingestion endpoint for frame logs.

#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <thread>

#include "Platform/Base/Log.h"
#include "Tools/skelda-collector/Addresses.h"
#include "Tools/skelda-collector/Certificates.h"
#include "Tools/skelda-collector/CollectorServer.h"
#include "Tools/skelda-collector/Faults.h"
#include "Tools/skelda-collector/LogStore.h"
#include "Tools/skelda-collector/Page.h"
#ifdef SKELDA_FLEET
#include "Tools/skelda-collector/Stream/StreamCollector.h"
#endif

namespace {

struct Options {
  std::string listen = "127.0.0.1:8443";
  std::string store = "collected";
  std::string tlsFolder = "collector-tls";
  std::vector<std::string> names;
  std::string certificatePath;
  std::string keyPath;
  Page::Reach page = Page::Reach::loopback;
  bool plain = false;
  Certificates::Kind certificate = Certificates::Kind::good;
  std::vector<std::string> apiKeys;
  std::vector<std::string> faults;
  std::size_t maxBytes = CollectorServer::Options{}.maxBytes;
#ifdef SKELDA_FLEET
  StreamCollector stream;
#endif
};

void describe(CLI::App& app, Options& options) {
  using Kind = Certificates::Kind;
  app.add_option(
         "--listen", options.listen,
         "ADDRESS:PORT, as 127.0.0.1:8443 or [::1]:8443; 0.0.0.0 and [::] are every address "
         "of this machine, port 0 is a free one, without a port it is 8443")
      ->capture_default_str();
  app.add_option("--store", options.store,
                 "Folder for received logs and received.jsonl; or, where the build has it, the "
                 "servers of a stream that keeps them, nats://HOST:PORT[,HOST:PORT...]")
      ->capture_default_str();
  app.add_option("--page", options.page,
                 "Who may see the page with the logs and the buttons for faults: loopback, whoever "
                 "asks from this machine; anyone, who reaches the address; off, nobody. Default: "
                 "loopback")
      ->option_text("loopback|anyone|off")
      ->transform(CLI::CheckedTransformer(
          std::map<std::string, Page::Reach>{{"loopback", Page::Reach::loopback},
                                             {"anyone", Page::Reach::anyone},
                                             {"off", Page::Reach::off}}));
  app.add_option("--name", options.names,
                 "A name or an address that clients call this machine by, for the certificate and "
                 "the page; may be repeated. This machine's own need not be said");
  auto* folder = app.add_option("--tls-dir", options.tlsFolder,
                                "Folder for the authority and certificate, made on the first start "
                                "and made again when it runs out or a name is new")
                     ->capture_default_str();
  auto* key = app.add_option("--key", options.keyPath, "The key of --cert, in PEM");
  auto* given = app.add_option("--cert", options.certificatePath,
                               "A certificate of your own, in PEM, instead of one that is made")
                    ->needs(key)
                    ->excludes(folder);
  key->needs(given);
  auto* plain =
      app.add_flag("--http", options.plain, "Plain HTTP instead of HTTPS")->excludes(given);
  app.add_option("--certificate", options.certificate,
                 "What kind of certificate to show, to see that clients refuse it")
      ->option_text("good|expired|self-signed|wrong-name")
      ->excludes(given)
      ->excludes(plain)
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
#ifdef SKELDA_FLEET
  options.stream.describe(app);
#endif
}

/// The names and addresses that a client may call it by.
std::set<std::string> namesOf(const Options& options, const ListenAddress& address) {
  std::set<std::string> names(options.names.begin(), options.names.end());
  for (const auto& name : names)
    if (!Certificates::isName(name))
      throw std::invalid_argument("--name " + name + ": neither a host name nor an address");
  if (!address.isEvery()) names.insert(address.host);
  for (const auto& name : machineNames(address.isEvery()))
    if (Certificates::isName(name)) names.insert(name);
  if (address.isEvery()) names.merge(machineAddresses());
  return names;
}

std::optional<Certificates> certificatesFor(const Options& options,
                                            const std::set<std::string>& names) {
  if (options.plain) return std::nullopt;
  if (options.certificatePath.empty())
    return Certificates::prepare(options.tlsFolder, names, options.certificate);
  return Certificates::given(options.certificatePath, options.keyPath);
}

/// Where it listens, what to trust, and what an application has to be told.
void printAddresses(const Options& options, const ListenAddress& address,
                    const std::optional<Certificates>& certificates) {
  const char* scheme = options.plain ? "http" : "https";
  const auto port = std::to_string(address.port);
  auto hosts = address.reachableHosts();
  hosts.insert(hosts.end(), options.names.begin(), options.names.end());
  std::string url;
  for (auto host = hosts.rbegin(); host != hosts.rend(); ++host) {
    url = std::string(scheme) + "://" + inURL(*host) + ":" + port + "/v1/skd.do";
    std::printf("listening on %s\n", url.c_str());
  }
  if (options.page != Page::Reach::off) {
    const auto& shown = address.isEvery() && options.page == Page::Reach::loopback
                            ? std::string("localhost")
                            : hosts.front();
    std::printf("page: %s://%s:%s/\n", scheme, inURL(shown).c_str(), port.c_str());
  }
  if (certificates && !certificates->authorityPath.empty()) {
    const auto authority = std::filesystem::absolute(certificates->authorityPath).string();
    std::printf("authority: %s\n", certificates->authorityPath.c_str());
    std::printf("in the application's environment: SSL_CERT_FILE=%s\n", authority.c_str());
  } else if (certificates) {
    for (const auto& name : certificates->missing({hosts.begin(), hosts.end()}))
      std::printf("the certificate is not for %s: who calls it so is refused\n", name.c_str());
    std::printf(
        "in the application's environment, unless the system trusts it: "
        "SSL_CERT_FILE=(the certificate of its authority)\n");
  }
  std::printf("in the application: SkeldaWatch::setServerURL(\"%s\");\n", url.c_str());
}

bool isStream(const std::string& store) {
  return store.starts_with("nats://") || store.starts_with("tls://");
}

/// In front of a stream of several servers, without a state of its own.
void runStream(const Options& options, int listener,
               const std::optional<Certificates>& certificates) {
#ifdef SKELDA_FLEET
  StreamCollector stream = options.stream;
  stream.sink.access.servers = options.store;
  stream.server.apiKeys = stream.keys({options.apiKeys.begin(), options.apiKeys.end()});
  stream.server.maxBytes = options.maxBytes;
  stream.run(listener, certificates ? &*certificates : nullptr);
#else
  static_cast<void>(listener);
  static_cast<void>(certificates);
  throw std::invalid_argument("--store " + options.store +
                              ": this build keeps logs in a folder only");
#endif
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

  auto address = ListenAddress::parse(options.listen);
  std::vector<Fault> faults;
  for (const auto& text : options.faults) faults.push_back(Fault::parse(text));
  FaultSequence sequence(std::move(faults));
  auto names = namesOf(options, address);
  const auto certificates = certificatesFor(options, names);
  const int listener = address.open();
  if (isStream(options.store)) {
    auto shown = options;
    shown.page = Page::Reach::off;
    printAddresses(shown, address, certificates);
    std::fflush(stdout);
    runStream(options, listener, certificates);
    std::printf("stopped\n");
    return 0;
  }
  LogStore store(options.store);
  names.insert({"localhost", "127.0.0.1", "::1"});
  CollectorServer server({.apiKeys = {options.apiKeys.begin(), options.apiKeys.end()},
                          .maxBytes = options.maxBytes,
                          .page = {options.page, !options.plain, names}},
                         store, sequence, certificates ? &*certificates : nullptr);
  printAddresses(options, address, certificates);
  std::fflush(stdout);

  std::jthread ender([&server, &ends] {
    int signal = 0;
    sigwait(&ends, &signal);
    server.stop();
  });
  const bool served = server.serve(listener);
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
