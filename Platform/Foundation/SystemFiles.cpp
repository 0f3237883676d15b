#include "Platform/Foundation/SystemFiles.h"

#include <fcntl.h>

#include <algorithm>

#include "Platform/Foundation/FileDescriptor.h"
#include "Platform/Foundation/FileManager.h"

namespace skelda::platform {

namespace {

std::string& root() {
  static std::string& shared = *new std::string;
  return shared;
}

}  // namespace

void setSystemRoot(std::string newRoot) {
  root() = std::move(newRoot);
}

std::string systemPath(std::string_view path) {
  return root() + std::string(path);
}

std::optional<std::string> readSystemFile(std::string_view path) {
  constexpr std::size_t kMaximum = std::size_t{1} << 20;
  int error = 0;
  const FileDescriptor file = FileDescriptor::open(systemPath(path), O_RDONLY, error);
  std::string text;
  if (!file || file.read(text, kMaximum, 0) != 0) return std::nullopt;
  return text;
}

std::optional<std::string> readSystemLine(std::string_view path) {
  constexpr std::string_view kBlank(" \t\r\n\0", 5);
  auto text = readSystemFile(path);
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

std::optional<std::string> machineID() {
  auto line = readSystemLine("/etc/machine-id");
  // A machine that is being set up has the word "uninitialized" there.
  if (!line || line->size() != 32 ||
      line->find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    return std::nullopt;
  }
  return line;
}

}  // namespace skelda::platform
