#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"
#include "Platform/Foundation/Object.h"

/// Keeps a copy of every frame log on its way to the server, so that what was received can be held
/// against what was sent. The copies have no bound.
class SentLogKeeper : public skelda::platform::Object, public ISkeldaStreamingDataObserver {
 public:
  /// Copies go to `folder`, which is made, under the names of the logs. Before the first event.
  static void install(const std::filesystem::path& folder);

  explicit SentLogKeeper(std::filesystem::path folder) : folder_(std::move(folder)) {}
  std::string_view className() const noexcept override { return "SkeldaStreamingObserver"; }
  void frameLogFileDidUpdate(const std::string& fullPath) override;

 private:
  const std::filesystem::path folder_;
};
