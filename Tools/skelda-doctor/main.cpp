// skelda-doctor: why do the events of this application not arrive?

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <iostream>
#include <string>

#include "Analytics/Status/SkeldaSight.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkURLsDataProvider.h"
#include "Platform/Base/Log.h"
#include "Platform/Foundation/Bundle.h"
#include "Tools/Shared/BundlePath.h"
#include "Tools/skelda-doctor/Probe.h"
#include "Tools/skelda-doctor/Report.h"

namespace {

using URLs = SkeldaNetworkURLsDataProvider;

enum ExitCode { kNothingHoldsUp = 0, kHeldUp = 1, kCannotLook = 2 };

constexpr const char* kDescription =
    "Says in plain words what holds the events of a watch application up, and what to do next. It\n"
    "reads the bundle and the files of its agent, whether that runs or has ended, and changes\n"
    "nothing: it makes no folder, takes no lock and sends nothing that the server would count. "
    "Run\n"
    "it as the application's user and with its XDG_DATA_HOME, XDG_STATE_HOME and SSL_CERT_FILE.";

constexpr const char* kExitCodes =
    "BUNDLE is the folder Some.app/PlugIns/Extension.appex, a Some.app with one such folder in "
    "it,\n"
    "or the program itself.\n"
    "\n"
    "Exit status:\n"
    "  0  nothing holds events up\n"
    "  1  something does\n"
    "  2  it cannot look: no such bundle, or the command line makes no sense";

struct Options {
  std::string bundle;
  std::string server;
  double timeout = 5;
  bool noNetwork = false;
  bool json = false;
};

int run(const Options& options) {
  using skelda::platform::Bundle;
  // What the agent's code says while it reads is for its own log.
  skelda::platform::Log::setSink({});
  Bundle::setMain(Bundle::above(skelda::tools::programOfBundle(options.bundle)));
  auto sight = SkeldaSight::ofFiles();
  if (!options.server.empty()) sight.server = options.server;
  auto status = sight.status();
  if (!options.noNetwork && URLs::isAbsoluteHTTPAddress(status.server)) {
    for (auto& finding : skelda::tools::probe(
             status.server, std::chrono::milliseconds(static_cast<long>(options.timeout * 1000)))) {
      status.findings.push_back(std::move(finding));
    }
  }
  std::cout << (options.json ? skelda::tools::jsonOf(status) : skelda::tools::textOf(status))
            << std::flush;
  return status.holdsUp() ? kHeldUp : kNothingHoldsUp;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(kDescription, "skelda-doctor");
  app.footer(kExitCodes);
  Options options;
  app.add_option("bundle", options.bundle, "The bundle of the application")->required();
  app.add_option("--server", options.server,
                 "Ask this address, and not the one that the program set last");
  app.add_option("--timeout", options.timeout, "Seconds to wait for the server at most")
      ->check(CLI::Range(0.1, 600.0))
      ->capture_default_str();
  app.add_flag("--no-network", options.noNetwork, "Ask no server");
  app.add_flag("--json", options.json,
               "One JSON object: holdsUp, findings (code, blocking, text, next), account");
  try {
    app.parse(argc, argv);
    return run(options);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kNothingHoldsUp : kCannotLook;
  } catch (const std::exception& error) {
    fmt::print(stderr, "skelda-doctor: {}\n", error.what());
    return kCannotLook;
  }
}
