#include "Platform/Foundation/FileManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>

#include <fmt/format.h>

#include "Platform/Base/Counted.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/FileCalls.h"
#include "Platform/Foundation/FileDescriptor.h"
#include "Platform/Foundation/FolderMaking.h"
#include "Platform/Foundation/StorageReserve.h"
#include "Platform/Foundation/UUID.h"

namespace skelda::platform {

namespace {

/// True for 0, else false with a POSIX error for the caller.
bool succeeded(int code, const std::string& path, ErrorRef* error) {
  if (code != 0) setError(error, posixError(code, path));
  return code == 0;
}

/// Asked of the system once, and once more in a forked child.
::pid_t processID() {
  static constinit std::atomic<::pid_t> known{0};
  static const int atFork = ::pthread_atfork(nullptr, nullptr, [] { known.store(0); });
  if (atFork != 0) return ::getpid();
  if (known.load(std::memory_order_relaxed) == 0) known.store(::getpid());
  return known.load(std::memory_order_relaxed);
}

/// `folder` and a slash, or nothing, and what the temporary names of this process begin with: a
/// sweep passes over them. The process id tells a forked child, and the random number a later
/// process with the same id.
std::string ownTemporaryPrefix(std::string_view folder = {}) {
  static NeverDestroyed<std::string> name(
      [] { return fmt::format("{}{}-", FileManager::kTemporaryPrefix, newUUIDString()); });
  constexpr std::size_t kRoom = 96;  // for the rest of the name
  std::string prefix;
  prefix.reserve(folder.size() + kRoom);
  prefix.append(folder).append(folder.empty() ? "" : "/").append(*name);
  return prefix.append(std::to_string(processID())).append("-");
}

std::string temporaryPath(std::string_view folder) {
  static constinit std::atomic<std::uint64_t> count{0};
  return ownTemporaryPrefix(folder).append(std::to_string(++count));
}

/// Moves `from` to `to`, which must not exist. File systems that have no such rename still have
/// links, which never replace anything.
int publish(const std::string& from, const std::string& to) {
  int error = fileError<&FileCalls::renameNoReplace>(from.c_str(), to.c_str());
  if (error != EINVAL && error != ENOSYS && error != EOPNOTSUPP) return error;
  error = fileError<&FileCalls::link>(from.c_str(), to.c_str());
  // A name that cannot be removed now is swept at the next start.
  if (error == 0) fileError<&FileCalls::unlink>(from.c_str());
  return error;
}

int copyRegularFile(const std::string& source, const std::string& destination) {
  int error = 0;
  const FileDescriptor from = FileDescriptor::openFile(source, O_RDONLY, error);
  if (!from) return error;
  if (destination.find('\0') != std::string::npos) return EINVAL;

  const std::string folder = parentFolder(destination);
  const std::string staging = folder + "/..";
  const std::string temporary = temporaryPath(staging);
  FileDescriptor to =
      FileDescriptor::open(temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, error);
  if (!to) return error;
  error = to.copyFrom(from);
  if (error == 0) error = to.syncData();
  if (const int closed = to.close(); error == 0) error = closed;
  if (error == 0) error = publish(temporary, destination);
  if (error != 0) {
    fileError<&FileCalls::unlink>(temporary.c_str());
    return error;
  }
  return synchronizeFolder(folder);
}

int overwrite(const std::string& path, std::string_view bytes) {
  int error = 0;
  FileDescriptor file = FileDescriptor::openFile(path, O_WRONLY | O_CREAT | O_EXCL, error);
  const bool isNew = static_cast<bool>(file);
  if (error == EEXIST) file = FileDescriptor::openFile(path, O_WRONLY | O_TRUNC, error);
  if (!file) return error;
  error = file.write(bytes, 0);
  if (const int closed = file.close(); error == 0) error = closed;
  // A log that is appended to and synchronised later must still have its name after a loss of
  // power.
  if (error == 0 && isNew) error = synchronizeFolder(parentFolder(path));
  if (error != 0 && isNew) fileError<&FileCalls::unlink>(path.c_str());
  return error;
}

/// A file of a name that was free.
int store(const std::string& path, std::string_view bytes) {
  int error = 0;
  FileDescriptor file = FileDescriptor::openFile(path, O_WRONLY | O_CREAT | O_EXCL, error);
  if (!file) return error;
  error = file.write(bytes, 0);
  if (error == 0) error = file.syncData();
  if (const int closed = file.close(); error == 0) error = closed;
  if (error != 0) fileError<&FileCalls::unlink>(path.c_str());
  return error;
}

int makeFolder(const std::string& path) {
  const int error = fileError<&FileCalls::makeDirectory>(path.c_str(), ::mode_t{0700});
  return error == 0 ? synchronizeFolder(parentFolder(path)) : error;
}

/// An absolute path from the environment; what is relative there means nothing.
std::optional<std::string> environmentPath(const char* name) {
  const char* value = ::secure_getenv(name);
  if (value == nullptr || value[0] != '/') return std::nullopt;
  return std::string(value);
}

std::string homeDirectory() {
  if (auto home = environmentPath("HOME")) return *home;
  struct ::passwd entry;
  struct ::passwd* found = nullptr;
  std::vector<char> buffer(16384);
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
      found != nullptr && found->pw_dir != nullptr && found->pw_dir[0] == '/') {
    return found->pw_dir;
  }
  return "/";
}

/// A bundle identifier as one component of a path, whatever stands in it.
std::string pathComponent(std::string name) {
  std::replace(name.begin(), name.end(), '/', '_');
  std::replace(name.begin(), name.end(), '\0', '_');
  if (name == "." || name == "..") name.front() = '_';
  return name;
}

}  // namespace

const std::shared_ptr<FileManager>& FileManager::defaultManager() {
  static NeverDestroyed<std::shared_ptr<FileManager>> manager(makeCounted<FileManager>());
  return *manager;
}

bool FileManager::fileExistsAtPath(const std::string& path) const {
  if (path.find('\0') != std::string::npos) return false;
  struct ::stat ignored;
  const int error = fileError<&FileCalls::statusAt>(path.c_str(), &ignored);
  return error != ENOENT && error != ENOTDIR && error != ENAMETOOLONG;
}

bool FileManager::createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                                        ErrorRef* error) {
  if (path.find('\0') != std::string::npos) return succeeded(EINVAL, path, error);
  if (!withIntermediateDirectories) return succeeded(makeFolder(path), path, error);
  std::vector<std::string> changed;
  return makeFolders(path, changed, error) && synchronizeFolders(changed, error);
}

bool FileManager::copyItemAtPath(const std::string& source, const std::string& destination,
                                 ErrorRef* error) {
  return succeeded(withReserve([&] { return copyRegularFile(source, destination); }), destination,
                   error);
}

bool FileManager::removeItemAtPath(const std::string& path, ErrorRef* error) {
  if (path.find('\0') != std::string::npos) return succeeded(EINVAL, path, error);
  const int code = fileError<&FileCalls::unlink>(path.c_str());
  if (code != EISDIR) return succeeded(code, path, error);
  const auto names = contentsOfDirectoryAtPath(path, error);
  if (!names) return false;
  for (const std::string& name : *names) {
    if (!removeItemAtPath(path + "/" + name, error)) return false;
  }
  return succeeded(fileError<&FileCalls::removeDirectory>(path.c_str()), path, error);
}

bool FileManager::createFileAtPath(const std::string& path, const Data& contents, ErrorRef* error) {
  return succeeded(withReserve([&] { return overwrite(path, contents.view()); }), path, error);
}

bool FileManager::storeNewFile(const Data& data, const std::string& path, ErrorRef* error) {
  return succeeded(withReserve([&] { return store(path, data.view()); }), path, error);
}

std::optional<std::vector<std::string>> FileManager::contentsOfDirectoryAtPath(
    const std::string& path, ErrorRef* error) const {
  int code = 0;
  const FileDescriptor folder = FileDescriptor::open(path, O_RDONLY | O_DIRECTORY, code);
  std::vector<std::string> names;
  ::ssize_t length = 0;
  do {
    alignas(::dirent64) char room[4096];
    length = folder ? fileCall<&FileCalls::entries>(folder.get(), room, sizeof room) : 0;
    if (length < 0) code = errno;
    constexpr ::ssize_t kLeastEntry = 24;
    if (names.empty() && length > 0) names.reserve(static_cast<std::size_t>(length / kLeastEntry));
    for (::ssize_t at = 0; at < length;) {
      const auto& entry = *reinterpret_cast<const ::dirent64*>(room + at);
      const std::string_view name = entry.d_name;
      if (name != "." && name != "..") names.emplace_back(name);
      at += entry.d_reclen;
    }
  } while (length > 0);
  if (!succeeded(code, path, error)) return std::nullopt;
  return names;
}

std::optional<Data> FileManager::contentsAtPath(const std::string& path, ErrorRef* error) const {
  int code = 0;
  auto bytes = readWholeFile(path, code);
  if (!succeeded(code, path, error)) return std::nullopt;
  return Data(std::move(*bytes));
}

bool FileManager::writeData(const Data& data, const std::string& path, bool atomically,
                            ErrorRef* error) {
  if (atomically) {
    return succeeded(withReserve([&] {
                       return replaceFile(path, temporaryPath(parentFolder(path)), data.view());
                     }),
                     path, error);
  }
  return createFileAtPath(path, data, error);
}

std::optional<FileSystemAttributes> FileManager::attributesOfFileSystemForPath(
    const std::string& path, ErrorRef* error) const {
  struct ::statvfs status;
  if (!succeeded(fileError<&FileCalls::fileSystemAt>(path.c_str(), &status), path, error)) {
    return std::nullopt;
  }
  const std::uint64_t block = status.f_frsize;
  return FileSystemAttributes{block * status.f_blocks, block * status.f_bavail};
}

bool FileManager::excludeFromBackup(const std::string& path, ErrorRef* error) {
  static constexpr std::string_view kValue = "false";
  const int code = fileError<&FileCalls::setAttribute>(path.c_str(), "user.xdg.robots.backup",
                                                       kValue.data(), kValue.size());
  return succeeded(code == ENOTSUP ? 0 : code, path, error);
}

std::size_t FileManager::sweepTemporaryFiles(const std::string& folder, ErrorRef* error) {
  const auto names = contentsOfDirectoryAtPath(folder, error);
  if (!names) return 0;
  const std::string own = ownTemporaryPrefix();
  std::size_t removed = 0;
  for (const std::string& name : *names) {
    if (!name.starts_with(kTemporaryPrefix) || name.starts_with(own)) continue;
    if (removeItemAtPath(folder + "/" + name, error)) ++removed;
  }
  return removed;
}

std::string FileManager::applicationSupportDirectory() {
  const auto data = environmentPath("XDG_DATA_HOME");
  const std::string base = data ? *data : homeDirectory() + "/.local/share";
  return base + "/" + pathComponent(Bundle::main()->storageName());
}

std::string FileManager::documentsDirectory() {
  const auto documents = environmentPath("XDG_DOCUMENTS_DIR");
  return documents ? *documents : homeDirectory();
}

std::string FileManager::stateDirectory() {
  const auto state = environmentPath("XDG_STATE_HOME");
  return state ? *state : homeDirectory() + "/.local/state";
}

}  // namespace skelda::platform
