#include "Benchmarks/AgentBenchmark/ClosedLogKeeper.h"

#include <cstdio>
#include <system_error>

#include "Analytics/Streaming/Data Providers/ISkeldaNodeDataProvider.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Benchmarks/AgentBenchmark/Measurements.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Platform/Foundation/NotificationCenter.h"

namespace fs = std::filesystem;

namespace {

void keep(const fs::path& log, const fs::path& folder) {
  std::error_code error;
  fs::create_hard_link(log, folder / log.filename(), error);
  // Kept before, or sent or deleted meanwhile.
  if (!error || error == std::errc::file_exists || error == std::errc::no_such_file_or_directory) {
    return;
  }
  std::fprintf(stderr, "closed log: %s: %s\n", log.c_str(), error.message().c_str());
}

void keepAll(const fs::path& folder) {
  const fs::path closed = measure::storageFolder() / SkeldaAgentFiles::kStorageFolderName /
                          SkeldaAgentFiles::kCommitedFrameLogsFolderName;
  std::error_code none;
  for (const auto& entry : fs::directory_iterator(closed, none)) keep(entry.path(), folder);
}

}  // namespace

void ClosedLogKeeper::install(const fs::path& folder) {
  fs::create_directories(folder);
  keepAll(folder);
  skelda::platform::NotificationCenter::defaultCenter().addObserver(
      kSkeldaFrameLogWasCommitedNotification, [folder](const auto&) { keepAll(folder); });
  skelda::platform::ClassRegistry::shared().registerClass(
      {.name = "SkeldaStreamingObserver",
       .superclass = {},
       .protocols = {std::string(ISkeldaStreamingDataObserver::kProtocolName)},
       .factory = [folder] { return std::make_shared<ClosedLogKeeper>(folder); }});
}

void ClosedLogKeeper::frameLogFileDidUpdate(const std::string& fullPath) {
  keep(fullPath, folder_);
}
