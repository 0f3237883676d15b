#pragma once

#include "Analytics/Streaming/SourceModules/Sources/ISkeldaCCPASource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"

class SkeldaCCPASource : public SkeldaSource<SkeldaCCPASource, ISkeldaCCPASource> {
 public:
  static constexpr std::string_view kClassName = "SkeldaCCPASource";
  void setCCPAOptOut(bool optOut, SkeldaIntakeOrigin origin = {}) override;
  void setCCPADelete(SkeldaIntakeOrigin origin = {}) override;

 private:
  friend SkeldaSource;
  SkeldaCCPASource() = default;
  void onqueue_setCCPAOptOut(bool optOut, SkeldaIntakeOrigin origin);
  void onqueue_setCCPADelete(SkeldaIntakeOrigin origin);
};
