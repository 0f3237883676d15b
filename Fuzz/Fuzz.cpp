#include "Fuzz/Fuzz.h"

#include "Platform/Base/Log.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  skelda::platform::Log::setSink({});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  fuzz({reinterpret_cast<const char*>(bytes), size});
  return 0;
}
