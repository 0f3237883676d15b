#include "Platform/Foundation/FolderMaking.h"

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

}  // namespace skelda::platform
