#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "Benchmarks/AgentBenchmark/Measurements.h"

namespace measure {

namespace {

namespace fs = std::filesystem;

void check(bool good, const char* what) {
  if (!good) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

class File {
 public:
  File(const fs::path& path, int flags) : fd_(::open(path.c_str(), flags | O_CLOEXEC, 0600)) {
    check(fd_ >= 0, path.c_str());
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() { ::close(fd_); }

  int descriptor() const { return fd_; }
  void write(std::string_view bytes) const {
    check(::write(fd_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "write");
  }
  void synchronise() const { check(::fdatasync(fd_) == 0, "fdatasync"); }

 private:
  const int fd_;
};

void synchroniseFolder(const fs::path& folder) {
  const File handle(folder, O_RDONLY | O_DIRECTORY);
  check(::fsync(handle.descriptor()) == 0, "fsync");
}

void replace(const fs::path& path, std::string_view content) {
  const fs::path temporary = path.string() + ".new";
  {
    const File file(temporary, O_WRONLY | O_CREAT | O_TRUNC);
    file.write(content);
    file.synchronise();
  }
  fs::rename(temporary, path);
  synchroniseFolder(path.parent_path());
}

/// Copies a log beside the folder, publishes it there, and synchronises both.
void publish(const fs::path& log, const fs::path& folder, const std::string& name) {
  const fs::path temporary = folder.parent_path() / (name + ".new");
  {
    const File in(log, O_RDONLY);
    const File out(temporary, O_WRONLY | O_CREAT | O_EXCL);
    ssize_t copied = 0;
    do {
      copied = ::copy_file_range(in.descriptor(), nullptr, out.descriptor(), nullptr, 1 << 20, 0);
      check(copied >= 0, "copy_file_range");
    } while (copied > 0);
    out.synchronise();
  }
  check(::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, (folder / name).c_str(),
                    RENAME_NOREPLACE) == 0,
        "rename");
  synchroniseFolder(folder);
}

/// How often the calling thread has given the processor up.
std::int64_t voluntarySwitches() {
  rusage usage{};
  ::getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nvcsw;
}

std::vector<std::string_view> framesOf(std::string_view log) {
  std::vector<std::string_view> frames;
  while (log.size() >= 24) {
    std::uint32_t payload = 0;
    std::memcpy(&payload, log.data() + 20, sizeof(payload));
    const std::size_t length = 24 + payload + ((log[0] & 15) == 0 ? 4 : 0);
    frames.push_back(log.substr(0, length));
    log.remove_prefix(std::min(length, log.size()));
  }
  return frames;
}

std::vector<std::string> logsIn(const fs::path& folder) {
  std::vector<fs::path> paths(fs::directory_iterator(folder), fs::directory_iterator{});
  std::sort(paths.begin(), paths.end());
  std::vector<std::string> logs;
  for (const auto& path : paths) {
    std::ifstream file(path, std::ios::binary);
    logs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return logs;
}

}  // namespace

Json bareLoop(const fs::path& folder, const fs::path& scratch, bool withTransfer) {
  const auto logs = logsIn(folder);
  const fs::path committed = scratch / "committed";
  fs::create_directories(committed);
  // As large as the agent's own store of settings.
  const std::string settings(200, 's');
  const std::string index(4500, 'i');

  const auto switchesBefore = voluntarySwitches();
  const auto began = std::chrono::steady_clock::now();
  const File log(scratch / "log", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
  std::uint64_t frames = 0;
  for (std::size_t i = 0; i < logs.size(); ++i) {
    for (const auto frame : framesOf(logs[i])) {
      log.write(frame);
      log.synchronise();
      ++frames;
    }
    replace(scratch / "settings", settings);  // counter and flag
    publish(scratch / "log", committed, "log_" + std::to_string(i));
    check(::ftruncate(log.descriptor(), 0) == 0, "ftruncate");
    if (!withTransfer) continue;
    const File block(scratch / ("block_" + std::to_string(i)), O_WRONLY | O_CREAT | O_EXCL);
    block.write(logs[i]);
    block.synchronise();
    replace(scratch / "index", index);
    fs::remove(committed / ("log_" + std::to_string(i)));
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  const auto switches = voluntarySwitches() - switchesBefore;
  fs::remove_all(scratch);
  return {{"frames", frames},
          {"logs", logs.size()},
          {"seconds", took.count()},
          {"voluntary_switches", switches}};
}

}  // namespace measure
