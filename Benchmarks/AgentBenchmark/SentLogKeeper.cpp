#include "Benchmarks/AgentBenchmark/SentLogKeeper.h"

#include <cstdio>
#include <system_error>

#include "Platform/Foundation/ClassRegistry.h"

namespace fs = std::filesystem;

void SentLogKeeper::install(const fs::path& folder) {
  fs::create_directories(folder);
  skelda::platform::ClassRegistry::shared().registerClass(
      {.name = "SkeldaStreamingObserver",
       .superclass = {},
       .protocols = {std::string(ISkeldaStreamingDataObserver::kProtocolName)},
       .factory = [folder] { return std::make_shared<SentLogKeeper>(folder); }});
}

void SentLogKeeper::frameLogFileDidUpdate(const std::string& fullPath) {
  // Written beside its place first: a process that is killed meanwhile leaves no half a copy.
  const fs::path copy = folder_ / fs::path(fullPath).filename();
  const fs::path partial = copy.string() + ".part";
  std::error_code error;
  fs::copy_file(fullPath, partial, fs::copy_options::overwrite_existing, error);
  if (!error) fs::rename(partial, copy, error);
  if (error) std::fprintf(stderr, "sent log: %s: %s\n", copy.c_str(), error.message().c_str());
}
