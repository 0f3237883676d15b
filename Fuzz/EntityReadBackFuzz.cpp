// Any bytes taken for a payload make a record or none; a record that is written and read again is
// the same.

#include "Fuzz/Fuzz.h"
#include "Tests/Analytics/Streaming/SourceModules/Entities/FrameSamples.h"

void fuzz(std::string_view input) {
  static const auto& samples = *new auto(skelda::testing::entitySamples());
  const auto readBack = samples[takeByte(input) % samples.size()].readBack;
  const auto record = readBack(platform::Data(input.data(), input.size()));
  const auto payload = record != nullptr ? record->payload() : std::nullopt;
  if (!payload) return;
  const auto again = readBack(*payload);
  require(again != nullptr && again->payload() == payload);
  require(record->description().find('\n') == std::string::npos);
}
