// Linked beside a watch application: from before its main on, whatever becomes of a committed log
// or a block, it stays in the folder of SKELDA_TEST_KEEP under its name. And the name server hangs
// where a name in "hangs" is looked up.

#include <dlfcn.h>
#include <netdb.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Platform/Foundation/FileCalls.h"

namespace {

class Keeping : public skelda::platform::FileCalls {
 public:
  explicit Keeping(std::string folder) : folder_(std::move(folder)) {}
  int unlink(const char* path) override {
    const std::string_view name =
        std::string_view(path).substr(std::string_view(path).rfind('/') + 1);
    const bool isBlock = name.size() == 36 && name[0] != '.' && std::ranges::count(name, '-') == 4;
    if (isBlock || name.starts_with(".skeldaCommitedFrameLog_")) {
      // It may be there: a kill fell between this and the removal.
      if (::link(path, (folder_ + '/' + std::string(name)).c_str()) != 0 && errno != EEXIST)
        return -1;
    }
    return FileCalls::unlink(path);
  }

 private:
  const std::string folder_;
};

const bool kKept = [] {
  const char* folder = std::getenv("SKELDA_TEST_KEEP");
  if (folder != nullptr) skelda::platform::FileCalls::install(new Keeping(folder));
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
