#include "Platform/Foundation/SystemFiles.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/FileCalls.h"
#include "Platform/Foundation/FileDescriptor.h"
#include "Platform/Foundation/FileManager.h"

namespace skelda::platform {

namespace {

std::string& root() {
  static NeverDestroyed<std::string> shared;
  return *shared;
}

}  // namespace

void setSystemRoot(std::string newRoot) {
  root() = std::move(newRoot);
}

std::string systemPath(std::string_view path) {
  return root() + std::string(path);
}

std::optional<std::string> readSystemFile(std::string_view path, int* error) {
  constexpr std::size_t kMaximum = std::size_t{1} << 20;
  int failure = 0;
  const FileDescriptor file = FileDescriptor::open(systemPath(path), O_RDONLY, failure);
  std::string text;
  while (file && text.size() < kMaximum) {
    char step[4096];
    const ::ssize_t n = fileCall<&FileCalls::read>(file.get(), step, sizeof step,
                                                   static_cast<::off_t>(text.size()));
    if (n < 0) failure = errno;
    if (n <= 0) break;
    text.append(step, static_cast<std::size_t>(n));
    // The kernel writes such a file anew for each reader, as whole lines: that was all of it.
    if (static_cast<std::size_t>(n) < sizeof step && text.back() == '\n') break;
  }
  if (error != nullptr) *error = failure;
  if (failure != 0) return std::nullopt;
  return text;
}

std::optional<std::string> readSystemLine(std::string_view path, int* error) {
  constexpr std::string_view kBlank(" \t\r\n\0", 5);
  auto text = readSystemFile(path, error);
  if (!text) return std::nullopt;
  const std::size_t first = text->find_first_not_of(kBlank);
  if (first == std::string::npos) return std::nullopt;
  return text->substr(first, text->find_last_not_of(kBlank) + 1 - first);
}

std::vector<std::string> systemFolderEntries(std::string_view path) {
  auto names = FileManager::defaultManager()->contentsOfDirectoryAtPath(systemPath(path));
  if (!names) return {};
  std::sort(names->begin(), names->end());
  return *std::move(names);
}

std::optional<std::string> machineID(int* error) {
  int failure = 0;
  auto line = readSystemLine("/etc/machine-id", &failure);
  if (error != nullptr) *error = failure == ENOENT || failure == ENOTDIR ? 0 : failure;
  // A machine that is being set up has the word "uninitialized" there.
  if (!line || line->size() != 32 ||
      line->find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    return std::nullopt;
  }
  return line;
}

}  // namespace skelda::platform
