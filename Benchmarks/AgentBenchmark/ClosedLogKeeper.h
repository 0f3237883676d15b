#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"
#include "Platform/Foundation/Object.h"

/// Keeps every closed log, so that what became of a process's events can be counted whatever the
/// limits of what may wait have deleted since: links them when the writer says that it has closed
/// one, and the one that is about to be sent, which may be gone by then.
class ClosedLogKeeper : public skelda::platform::Object, public ISkeldaStreamingDataObserver {
 public:
  /// Links go to `folder`, which is made, on the agent's file system, under the names of the logs;
  /// of those that lie there already as well. Before the first event, once a process.
  static void install(const std::filesystem::path& folder);

  explicit ClosedLogKeeper(std::filesystem::path folder) : folder_(std::move(folder)) {}
  std::string_view className() const noexcept override { return "SkeldaStreamingObserver"; }
  void frameLogFileDidUpdate(const std::string& fullPath) override;

 private:
  const std::filesystem::path folder_;
};
