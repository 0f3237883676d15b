// Any bytes taken for a payload make a record or none; a record that is written and read again is
// the same.

#include "Fuzz/Fuzz.h"
#include "Platform/Base/Log.h"
#include "Tests/Analytics/Streaming/SourceModules/Entities/FrameSamples.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  platform::Log::setSink({});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t length) {
  static const auto& samples = *new auto(skelda::testing::entitySamples());
  if (length == 0) return 0;
  const auto readBack = samples[input[0] % samples.size()].readBack;
  const auto record = readBack(platform::Data(input + 1, length - 1));
  if (record == nullptr) return 0;
  const auto payload = record->payload();
  if (!payload) return 0;
  const auto again = readBack(*payload);
  if (again == nullptr || again->payload() != payload) std::abort();
  if (record->description().find('\n') != std::string::npos) std::abort();
  return 0;
}
