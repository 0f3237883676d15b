#include "Tools/skelda-collector/LogStore.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <openssl/sha.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

namespace {

constexpr std::string_view kReceived = "received.jsonl";

[[noreturn]] void fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), path);
}

class Descriptor {
 public:
  Descriptor(const std::string& path, int flags)
      : path_(path), fd_(::open(path.c_str(), flags | O_CLOEXEC, 0600)) {
    if (fd_ < 0) fail(path_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { ::close(fd_); }

  void write(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t written = ::write(fd_, bytes.data(), bytes.size());
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) fail(path_);
      bytes.remove_prefix(static_cast<std::size_t>(written));
    }
  }
  void synchronise() const {
    if (::fsync(fd_) != 0) fail(path_);
  }

 private:
  const std::string path_;
  const int fd_;
};

std::string nowAsText(const char* format) {
  const auto now = std::chrono::system_clock::now();
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch());
  const auto seconds = std::chrono::system_clock::to_time_t(now);
  return fmt::format(fmt::runtime(format), fmt::gmtime(seconds), micros.count() % 1'000'000);
}

}  // namespace

std::string LogStore::sha256(std::string_view bytes) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
  return fmt::format("{:02x}", fmt::join(digest, ""));
}

LogStore::LogStore(std::string folder) : folder_(std::move(folder)) {
  std::filesystem::create_directories(folder_);
  std::ifstream received(pathOf(kReceived));
  for (std::string line; std::getline(received, line);) {
    const auto entry = nlohmann::json::parse(line, nullptr, false);
    if (!entry.is_object()) continue;
    ++logs_;
    bytes_ += entry.value("bytes", std::uint64_t{0});
  }
}

nlohmann::ordered_json LogStore::add(std::string_view log, const FrameLogReport& report,
                                     std::string_view apiKey) {
  const std::lock_guard lock(mutex_);
  const std::string digest = sha256(log);
  const std::string name = nowAsText("{:%Y%m%dT%H%M%S}.{:06}Z") +
                           fmt::format("-{:06}-{}.framelog", logs_ + 1, digest.substr(0, 8));
  const std::string temporary = pathOf("." + name);
  {
    const Descriptor file(temporary, O_WRONLY | O_CREAT | O_TRUNC);
    file.write(log);
    file.synchronise();
  }
  if (::rename(temporary.c_str(), pathOf(name).c_str()) != 0) fail(pathOf(name));

  const nlohmann::ordered_json entry{
      {"time", nowAsText("{:%Y-%m-%dT%H:%M:%S}.{:06}Z")},
      {"key", std::string(apiKey.substr(apiKey.size() - std::min<std::size_t>(4, apiKey.size())))},
      {"bytes", log.size()},
      {"frames", report.frames},
      {"sessions", report.sessions},
      {"events", report.events},
      {"sha256", digest},
      {"file", name}};
  const auto line = entry.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  const Descriptor received(pathOf(kReceived), O_WRONLY | O_CREAT | O_APPEND);
  received.write(line);
  received.synchronise();
  Descriptor(folder_, O_RDONLY | O_DIRECTORY).synchronise();
  ++logs_;
  bytes_ += log.size();
  return entry;
}

nlohmann::ordered_json LogStore::newestFirst(std::size_t limit) const {
  const std::lock_guard lock(mutex_);
  std::ifstream received(pathOf(kReceived));
  std::vector<std::string> lines;
  for (std::string line; std::getline(received, line);) lines.push_back(std::move(line));
  auto logs = nlohmann::ordered_json::array();
  for (auto line = lines.rbegin(); line != lines.rend() && logs.size() < limit; ++line) {
    auto entry = nlohmann::ordered_json::parse(*line, nullptr, false);
    if (entry.is_object()) logs.push_back(std::move(entry));
  }
  return logs;
}

nlohmann::ordered_json LogStore::totals() const {
  const std::lock_guard lock(mutex_);
  return {{"logs", logs_}, {"bytes", bytes_}};
}
