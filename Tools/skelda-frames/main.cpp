// skelda-frames: shows, counts and checks the frames of frame logs.

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "Tools/Shared/FrameInputs.h"
#include "Tools/Shared/FrameLogReader.h"
#include "Tools/Shared/FrameSummary.h"
#include "Tools/Shared/PayloadText.h"
#include "Tools/skelda-frames/FrameLines.h"
#include "Tools/skelda-frames/Output.h"

namespace {

using namespace skelda::tools;
using Result = FrameLogReader::Result;

enum ExitCode { kFine = 0, kNotWhole = 1, kUsage = 2, kNotRead = 3, kNotWritten = 4 };

constexpr const char* kDescription =
    "Shows the frames of frame logs: one line a frame, with its offset in the log, version, type,\n"
    "class, wall-clock time, uptime, payload length, CRC and payload. A payload's control\n"
    "characters are shown as \\uXXXX, and bytes that are no UTF-8 as \\xXX.\n"
    "\n"
    "A log that ends inside a frame was torn by a crash; that is normal, and is said on standard\n"
    "error. So is a header that no writer makes, behind which nothing can be read.";

constexpr const char* kExitCodes =
    "Exit status:\n"
    "  0  everything was read\n"
    "  1  with --verify: a log is not whole, or holds a frame that the agent did not write\n"
    "  2  the command line makes no sense\n"
    "  3  an input could not be read\n"
    "  4  the output could not be written (without a word where its reader has gone)";

struct Options {
  std::vector<std::string> inputs;
  bool plain = false;
  bool json = false;
  bool summary = false;
  bool verify = false;
  std::size_t maximumPayload = std::size_t{1} << 20;
};

/// One run over all inputs.
class Run {
 public:
  explicit Run(Options options) : options_(std::move(options)) {}

  int operator()() {
    std::vector<FrameInputProblem> problems;
    const std::vector<FrameInput> inputs = frameInputs(options_.inputs, problems);
    for (const FrameInputProblem& problem : problems) notRead(problem.path, problem.reason);
    const bool showNames = inputs.size() > 1 && !options_.json && !options_.summary;
    for (const FrameInput& input : inputs) {
      if (output_.failed()) break;
      if (showNames && !options_.verify)
        output_.write(fmt::format("== {} ==\n", shown(input.path)));
      readInput(input);
    }
    if (options_.summary) output_.write(summary_.text());
    output_.flush();
    return exitCode();
  }

 private:
  static std::string shown(std::string_view text) {
    std::string visible;
    appendVisible(visible, text);
    return visible;
  }

  /// Standard output comes first, so that the two keep their order on a terminal.
  void complain(std::string_view path, std::string_view text) {
    output_.flush();
    fmt::print(stderr, "skelda-frames: {}: {}\n", shown(path), text);
  }

  void notRead(std::string_view path, std::string_view reason) {
    complain(path, reason);
    couldNotRead_ = true;
  }

  void readInput(const FrameInput& input) {
    int fd = STDIN_FILENO;
    if (input.path != kStandardInput) {
      fd = ::open(input.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
      // A committed log is removed as soon as it has been taken over.
      if (fd < 0 && errno == ENOENT && input.isFound) return;
      if (fd < 0) return notRead(input.path, std::strerror(errno));
    }
    FrameLogReader reader(fd, options_.maximumPayload, [this] { output_.flush(); });
    readLog(reader, input.path);
    if (fd != STDIN_FILENO) ::close(fd);
  }

  void readLog(FrameLogReader& reader, const std::string& path) {
    std::uint64_t frames = 0;
    FrameRecord frame;
    Result result = Result::end;
    while (!output_.failed() && (result = reader.next(frame)) == Result::frame) {
      ++frames;
      const std::string damage = options_.verify ? damageOf(frame) : std::string();
      if (!damage.empty()) return notWhole(path, frame.offset, "damaged frame: " + damage);
      show(frame, path);
    }
    switch (result) {
      case Result::failed:
        return notRead(path, std::strerror(reader.error()));
      case Result::torn:
        return notWhole(path, reader.offset(), "torn frame: " + reader.problem());
      case Result::damaged:
        return notWhole(path, reader.offset(), "damaged frame: " + reader.problem());
      case Result::frame:
      case Result::end:
        break;
    }
    if (options_.verify && !output_.failed()) {
      output_.write(
          fmt::format("{}: whole, {} frames, {} bytes\n", shown(path), frames, reader.offset()));
    }
  }

  void notWhole(std::string_view path, std::uint64_t offset, std::string_view what) {
    notWhole_ = true;
    const std::string text = fmt::format("offset {}: {}", offset, what);
    if (options_.verify) {
      output_.write(fmt::format("{}: {}\n", shown(path), text));
    } else {
      complain(path, text);
    }
  }

  void show(const FrameRecord& frame, const std::string& path) {
    if (options_.verify) return;
    if (options_.summary) return summary_.add(frame);
    output_.write(options_.json ? frameJSON(frame, path, options_.plain)
                                : frameLine(frame, options_.plain));
    output_.write("\n");
  }

  int exitCode() const {
    if (output_.failed()) {
      if (output_.error() != EPIPE) {
        fmt::print(stderr, "skelda-frames: standard output: {}\n", std::strerror(output_.error()));
      }
      return kNotWritten;
    }
    if (couldNotRead_) return kNotRead;
    return options_.verify && notWhole_ ? kNotWhole : kFine;
  }

  const Options options_;
  Output output_;
  FrameSummary summary_;
  bool couldNotRead_ = false;
  bool notWhole_ = false;
};

int run(int argc, char** argv) {
  Options options;
  CLI::App app(kDescription);
  app.footer(kExitCodes);
  app.add_option("input", options.inputs,
                 "Frame logs, folders that hold some, or - for standard input (the default)");
  app.add_flag("--plain", options.plain,
               "Show the texts that travel as base64 (event names, parameters) decoded");
  auto* json = app.add_flag("--json", options.json, "One JSON object a frame");
  auto* summary = app.add_flag("--summary", options.summary,
                               "Only count: frames by type, sessions, events by name");
  auto* verify = app.add_flag(
      "--verify", options.verify,
      "Only check: say for each log that it is whole, or at which offset it stops being so");
  json->excludes(summary)->excludes(verify);
  summary->excludes(verify);
  app.add_option("--max-payload", options.maximumPayload,
                 "Bytes of a payload that are shown and looked at; longer ones are cut off")
      ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 30))
      ->capture_default_str();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kFine : kUsage;
  }
  if (options.inputs.empty()) options.inputs.emplace_back(kStandardInput);
  return Run(std::move(options))();
}

}  // namespace

int main(int argc, char** argv) {
  // A reader that has gone is seen as a failed write.
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return run(argc, argv);
  } catch (const std::exception& exception) {
    fmt::print(stderr, "skelda-frames: {}\n", exception.what());
    return kNotRead;
  }
}
