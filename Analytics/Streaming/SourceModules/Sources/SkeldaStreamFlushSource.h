#pragma once

#include "Analytics/Streaming/SourceModules/Sources/ISkeldaStreamFlushSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"

class SkeldaStreamFlushSource
    : public SkeldaSource<SkeldaStreamFlushSource, ISkeldaStreamFlushSource> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamFlushSource";
  void flushWithStatus(std::int32_t status) override;

 private:
  friend SkeldaSource;
  SkeldaStreamFlushSource() = default;
  void onqueue_flushWithStatus(std::int32_t status);
};
