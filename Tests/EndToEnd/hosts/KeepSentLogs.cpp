// Linked beside a watch application: before its main, copies of what is sent are asked for. The
// name server hangs where a name in "hangs" is looked up.

#include <dlfcn.h>
#include <netdb.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "Tests/Support/SentLogKeeper.h"

namespace {

const bool kKept = [] {
  const char* folder = std::getenv("SKELDA_TEST_KEEP_SENT");
  if (folder != nullptr) SentLogKeeper::install(folder);
  return folder != nullptr;
}();

}  // namespace

extern "C" [[gnu::visibility("default")]] int getaddrinfo(const char* name, const char* service,
                                                          const addrinfo* hints, addrinfo** found) {
  static const auto real =
      reinterpret_cast<decltype(&::getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  if (name == nullptr || !std::string_view(name).ends_with(".hangs"))
    return real(name, service, hints, found);
  ::sleep(45);
  return EAI_AGAIN;
}
