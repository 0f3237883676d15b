#include "Platform/Foundation/FolderMaking.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "Platform/Foundation/FileCalls.h"
#include "Platform/Foundation/FileDescriptor.h"

namespace skelda::platform {
namespace {

int makeOne(const std::string& path) {
  return fileError<&FileCalls::makeDirectory>(path.c_str(), ::mode_t{0700});
}

bool isFolder(const std::string& path) {
  struct ::stat status;
  return fileError<&FileCalls::statusAt>(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

int make(const std::string& path, std::vector<std::string>& changed) {
  const std::string parent = parentFolder(path);
  int error = makeOne(path);
  if (error == ENOENT && parent != path) {
    if ((error = make(parent, changed)) != 0) return error;
    error = makeOne(path);
  }
  if (error == 0) changed.push_back(parent);
  return error == EEXIST && isFolder(path) ? 0 : error;
}

std::string reasonOf(int error, const std::string& path) {
  return posixError(error, path)->localizedDescription();
}

}  // namespace

bool makeFolders(const std::string& path, std::vector<std::string>& changed, ErrorRef* error) {
  const int failure = path.find('\0') == std::string::npos ? make(path, changed) : EINVAL;
  setError(error, failure == 0 ? nullptr : posixError(failure, path));
  return failure == 0;
}

bool synchronizeFolders(const std::vector<std::string>& folders, ErrorRef* error) {
  setError(error, nullptr);
  bool all = true;
  for (const std::string& folder : folders) {
    const int failure = synchronizeFolder(folder);
    if (failure == 0) continue;
    all = false;
    setError(error, posixError(failure, folder));
  }
  return all;
}

std::string whyNotWritable(const std::string& path) {
  // What is not there is made in the nearest folder that is.
  std::string at = path;
  struct ::stat status;
  int error = 0;
  while ((error = fileError<&FileCalls::statusAt>(at.c_str(), &status)) == ENOENT) {
    if (at == "/" || at == ".") break;
    at = parentFolder(at);
  }
  // Above a file nothing can be found: it is named, rather than what would be below it.
  while (error == ENOTDIR) {
    at = parentFolder(at);
    if (fileError<&FileCalls::statusAt>(at.c_str(), &status) == 0) break;
  }
  if (error == ENOTDIR || (error == 0 && !S_ISDIR(status.st_mode))) return reasonOf(ENOTDIR, at);
  if (error != 0) return reasonOf(error, at);
  // As the process may write, not as its real user may.
  if (::faccessat(AT_FDCWD, at.c_str(), W_OK | X_OK, AT_EACCESS) != 0) return reasonOf(errno, at);
  struct ::statvfs disk;
  if (fileError<&FileCalls::fileSystemAt>(at.c_str(), &disk) == 0 && disk.f_blocks != 0 &&
      disk.f_bavail == 0) {
    return reasonOf(ENOSPC, at);
  }
  return {};
}

}  // namespace skelda::platform
