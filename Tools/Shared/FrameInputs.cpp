#include "Tools/Shared/FrameInputs.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "Tools/Shared/FrameLogReader.h"

namespace skelda::tools {
namespace {

namespace fs = std::filesystem;

bool isCalledLikeALog(const std::string& name) {
  return name.starts_with(".skeldaFrameLog_") || name.starts_with(".skeldaCommitedFrameLog_");
}

bool beginsLikeALog(const fs::path& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return false;
  FrameLogReader reader(fd, 0);
  FrameRecord frame;
  const bool isFrame =
      reader.next(frame) == FrameLogReader::Result::frame && !frame.className.empty();
  ::close(fd);
  return isFrame;
}

void addFolder(const std::string& folder, std::vector<FrameInput>& inputs,
               std::vector<FrameInputProblem>& problems) {
  std::vector<std::string> found;
  std::error_code error;
  auto entry = fs::recursive_directory_iterator(
      folder, fs::directory_options::skip_permission_denied, error);
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    std::error_code ignored;
    if (!fs::is_regular_file(entry->symlink_status(ignored))) continue;
    if (isCalledLikeALog(entry->path().filename()) || beginsLikeALog(entry->path())) {
      found.push_back(entry->path().string());
    }
  }
  if (error) problems.push_back({folder, error.message()});
  std::sort(found.begin(), found.end());
  for (std::string& path : found) inputs.push_back({std::move(path), true});
}

}  // namespace

std::vector<FrameInput> frameInputs(const std::vector<std::string>& arguments,
                                    std::vector<FrameInputProblem>& problems) {
  std::vector<FrameInput> inputs;
  for (const std::string& argument : arguments) {
    std::error_code error;
    if (argument != kStandardInput && fs::is_directory(argument, error)) {
      addFolder(argument, inputs, problems);
    } else {
      inputs.push_back({argument, false});
    }
  }
  return inputs;
}

}  // namespace skelda::tools
