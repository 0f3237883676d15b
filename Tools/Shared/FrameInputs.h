#pragma once

#include <string>
#include <vector>

namespace skelda::tools {

/// Standard input, as an input's name.
inline constexpr const char* kStandardInput = "-";

/// One thing to read: a file, or standard input.
struct FrameInput {
  std::string path;
  /// Found in a folder rather than named: it may be gone by the time it is opened.
  bool isFound = false;
};

/// What could not be looked at, and why.
struct FrameInputProblem {
  std::string path;
  std::string reason;
};

/// The files to read for the arguments of the command line. A file stands for itself. A folder
/// stands for the frame logs in it and in the folders below, by name: files that are called as the
/// agent calls its logs, and any others that begin as a frame does.
std::vector<FrameInput> frameInputs(const std::vector<std::string>& arguments,
                                    std::vector<FrameInputProblem>& problems);

}  // namespace skelda::tools
