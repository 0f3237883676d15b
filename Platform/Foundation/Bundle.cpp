#include "Platform/Foundation/Bundle.h"

#include <limits.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "Platform/Base/Counted.h"
#include "Platform/Base/LogFormat.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/PropertyList.h"
#include "Platform/Foundation/PropertyListScreen.h"
#include "Platform/Foundation/SmallFile.h"

namespace skelda::platform {
namespace {

struct MainBundle {
  Mutex mutex;
  std::shared_ptr<const Bundle> found GUARDED_BY(mutex);
  std::shared_ptr<const Bundle> set GUARDED_BY(mutex);
};

MainBundle& mainBundle() {
  // Never destroyed: the bundle is asked for until the last instant of the process.
  static NeverDestroyed<MainBundle> instance;
  return *instance;
}

std::string runningExecutable() {
  std::array<char, PATH_MAX> path{};
  const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  if (length > 0) return std::string(path.data(), static_cast<std::size_t>(length));
  // A jail may have no /proc: then the name that the program was started by has to do.
  const auto name = ::getauxval(AT_EXECFN);
  if (name == 0 || ::realpath(reinterpret_cast<const char*>(name), path.data()) == nullptr) {
    return {};
  }
  return path.data();
}

std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string informationPath(const std::string& folder) {
  return folder + "/Info.plist";
}

bool isBundleFolder(const std::string& folder) {
  return (folder.ends_with(".appex") || folder.ends_with(".app")) &&
         ::access(informationPath(folder).c_str(), F_OK) == 0;
}

/// The dictionary in `path`; an empty one, and a line that says why, where there is none.
Dictionary readInformation(const std::string& path) {
  std::optional<std::string> content = readSmallFile(path, PropertyListLimits::kMaximumBytes);
  if (!content) {
    SKELDA_PLATFORM_LOG("Bundle: {} cannot be read, or is too long", path);
    return {};
  }
  ErrorRef error;
  std::optional<Value> value = readPropertyList(Data(std::move(*content)), &error);
  if (value && value->dictionary() != nullptr) return std::move(*value->dictionary());
  SKELDA_PLATFORM_LOG("Bundle: {} is not an information dictionary: {}", path,
                      value ? "its root is not a dictionary" : error->localizedDescription());
  return {};
}

}  // namespace

Bundle::Bundle(std::string path, std::string executablePath, Dictionary information)
    : path_(std::move(path)),
      executablePath_(std::move(executablePath)),
      information_(std::move(information)) {}

std::shared_ptr<const Bundle> Bundle::above(const std::string& executablePath) {
  const std::string own = folderOf(executablePath);
  for (std::string folder = own; folder != "/" && folder != "."; folder = folderOf(folder)) {
    if (isBundleFolder(folder))
      return makeCounted<const Bundle>(folder, executablePath,
                                       readInformation(informationPath(folder)));
  }
  SKELDA_PLATFORM_LOG("Bundle: no bundle with an Info.plist above {}", executablePath);
  return makeCounted<const Bundle>(own, executablePath, Dictionary());
}

std::shared_ptr<const Bundle> Bundle::main() {
  MainBundle& main = mainBundle();
  {
    const MutexLock lock(main.mutex);
    if (main.set != nullptr) return main.set;
    if (main.found != nullptr) return main.found;
  }
  // Outside the lock, since a log sink is called on the way. Two threads that come here at once
  // find the same bundle; the first one stays.
  std::shared_ptr<const Bundle> found = above(runningExecutable());
  const MutexLock lock(main.mutex);
  if (main.found == nullptr) main.found = std::move(found);
  return main.set != nullptr ? main.set : main.found;
}

void Bundle::setMain(std::shared_ptr<const Bundle> bundle) {
  MainBundle& main = mainBundle();
  const MutexLock lock(main.mutex);
  main.set.swap(bundle);
}

Value Bundle::objectForInfoDictionaryKey(std::string_view key) const {
  const Value* const value = information_.find(key);
  return value != nullptr ? *value : Value();
}

std::optional<std::string> Bundle::bundleIdentifier() const {
  const Value* const value = information_.find("CFBundleIdentifier");
  if (value == nullptr || value->text() == nullptr || value->text()->empty()) return std::nullopt;
  return *value->text();
}

std::string Bundle::storageName() const {
  if (auto identifier = bundleIdentifier()) return std::move(*identifier);
  const std::size_t end = path_.find_last_not_of('/');
  if (end == std::string::npos) return "_";
  return path_.substr(path_.rfind('/', end) + 1, end - path_.rfind('/', end));
}

}  // namespace skelda::platform
