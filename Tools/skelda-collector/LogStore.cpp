#include "Tools/skelda-collector/LogStore.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "Tools/Shared/Digest.h"

using skelda::platform::MutexLock;
using skelda::tools::digestOf;

namespace {

constexpr std::string_view kReceived = "received.jsonl";

[[noreturn]] void fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), path);
}

class Descriptor {
 public:
  Descriptor(const std::string& path, int flags)
      : fd_(::open(path.c_str(), flags | O_CLOEXEC, 0600)) {
    if (fd_ < 0) fail(path);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { ::close(fd_); }
  int fd() const { return fd_; }

 private:
  const int fd_;
};

void writeAll(int fd, std::string_view bytes, const std::string& path) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) fail(path);
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

void synchronise(int fd, const std::string& path) {
  if (::fsync(fd) != 0) fail(path);
}

void synchroniseFolder(const std::string& folder) {
  synchronise(Descriptor(folder, O_RDONLY | O_DIRECTORY).fd(), folder);
}

std::uint64_t fileSize(int fd, std::uint64_t otherwise) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : otherwise;
}

/// One of the folder's own files, wherever a line may point.
bool isFileName(const std::string& name) {
  return !name.empty() && name[0] != '.' && name.find('/') == std::string::npos &&
         name.ends_with(".framelog");
}

std::optional<std::array<unsigned char, 16>> keyOf(const std::string& hexadecimal) {
  std::array<unsigned char, 16> digest{};
  if (hexadecimal.size() != 64) return std::nullopt;
  for (std::size_t at = 0; at < digest.size(); ++at) {
    const char* begin = hexadecimal.data() + 2 * at;
    if (std::from_chars(begin, begin + 2, digest[at], 16).ptr != begin + 2) return std::nullopt;
  }
  return digest;
}

std::string nowAsText(const char* format) {
  const auto now = std::chrono::system_clock::now();
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch());
  const auto seconds = std::chrono::system_clock::to_time_t(now);
  return fmt::format(fmt::runtime(format), fmt::gmtime(seconds), micros.count() % 1'000'000);
}

}  // namespace

std::string LogStore::textIn(const Json& line, const char* key) {
  const auto found = line.find(key);
  return found != line.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::uint64_t LogStore::numberIn(const Json& line, const char* key) {
  const auto found = line.find(key);
  return found != line.end() && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

std::size_t LogStore::DigestHash::operator()(const Digest& digest) const {
  std::size_t hash = 0;
  std::memcpy(&hash, digest.data(), sizeof(hash));
  return hash;
}

LogStore::LogStore(std::string folder) : folder_(std::move(folder)) {
  std::filesystem::create_directories(folder_);
  const MutexLock lock(mutex_);
  std::ifstream received(pathOf(kReceived));
  bool whole = true;
  for (std::string line; std::getline(received, line);) {
    const auto begin = end_;
    whole = !received.eof();
    end_ += line.size() + (whole ? 1 : 0);
    const auto entry = Json::parse(line, nullptr, false);
    if (entry.is_object()) note(entry, begin, begin + line.size());
  }
  lines_ = ::open(pathOf(kReceived).c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (lines_ < 0) fail(pathOf(kReceived));
  // A line that a loss of power cut short is ended, so that the next one stands alone.
  if (!whole) {
    writeAll(lines_, "\n", pathOf(kReceived));
    ++end_;
  }
}

LogStore::~LogStore() {
  ::close(lines_);
}

void LogStore::note(const Json& line, std::uint64_t offset, std::uint64_t end) {
  places_.push_back({offset, end});
  if (line.contains("repeat")) {
    ++totals_.repeats;
  } else {
    ++totals_.logs;
    totals_.bytes += numberIn(line, "bytes");
    totals_.events += numberIn(line, "events");
  }
  if (const auto digest = keyOf(textIn(line, "sha256"))) numbers_[*digest] = places_.size();
}

LogStore::Entry LogStore::add(std::string_view log, const FrameLogReport& report,
                              std::string_view apiKey) {
  const std::string digest = digestOf(log);
  const MutexLock lock(mutex_);
  const auto known = numbers_.find(*keyOf(digest));
  const bool repeat = known != numbers_.end();
  std::string name = repeat ? textIn(lineAt(known->second), "file") : "";
  if (!isFileName(name) || !std::filesystem::exists(pathOf(name))) {
    name = nowAsText("{:%Y%m%dT%H%M%S}.{:06}Z") +
           fmt::format("-{:06}-{}.framelog", places_.size() + 1, digest.substr(0, 8));
    keep(log, name);
  }

  Json line{
      {"time", nowAsText("{:%Y-%m-%dT%H:%M:%S}.{:06}Z")},
      {"key", std::string(apiKey.substr(apiKey.size() - std::min<std::size_t>(4, apiKey.size())))},
      {"bytes", log.size()},
      {"frames", report.frames},
      {"sessions", report.sessions},
      {"events", report.events},
      {"sha256", digest},
      {"file", name}};
  if (report.counter > 0) line["counter"] = static_cast<std::uint64_t>(report.counter);
  if (!report.installation.empty()) line["installation"] = report.installation;
  if (repeat) line["repeat"] = known->second;
  const auto text = line.dump(-1, ' ', false, Json::error_handler_t::replace);
  try {
    writeAll(lines_, text + "\n", pathOf(kReceived));
    synchronise(lines_, pathOf(kReceived));
  } catch (...) {
    // No half a line, and none for what is answered with a failure.
    if (::ftruncate(lines_, static_cast<off_t>(end_)) != 0) end_ = fileSize(lines_, end_);
    throw;
  }
  synchroniseFolder(folder_);
  note(line, end_, end_ + text.size());
  end_ += text.size() + 1;
  return {places_.size(), std::move(line)};
}

void LogStore::keep(std::string_view log, const std::string& name) const {
  const std::string temporary = pathOf("." + name);
  try {
    const Descriptor file(temporary, O_WRONLY | O_CREAT | O_TRUNC);
    writeAll(file.fd(), log, temporary);
    synchronise(file.fd(), temporary);
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
  if (::rename(temporary.c_str(), pathOf(name).c_str()) != 0) fail(pathOf(name));
}

LogStore::Json LogStore::lineAt(std::size_t number) const {
  const auto [offset, end] = places_[number - 1];
  std::string text(static_cast<std::size_t>(end - offset), '\0');
  for (std::size_t done = 0; done < text.size();) {
    const auto got =
        ::pread(lines_, text.data() + done, text.size() - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return Json::object();
    done += static_cast<std::size_t>(got);
  }
  auto line = Json::parse(text, nullptr, false);
  return line.is_object() ? line : Json::object();
}

std::vector<LogStore::Entry> LogStore::newestFirst(std::uint64_t below, std::size_t limit) const {
  const MutexLock lock(mutex_);
  std::vector<Entry> entries;
  auto number = static_cast<std::size_t>(std::min<std::uint64_t>(below, places_.size() + 1));
  for (; number-- > 1 && entries.size() < limit;) entries.push_back({number, lineAt(number)});
  return entries;
}

std::optional<LogStore::Entry> LogStore::entry(std::uint64_t number) const {
  const MutexLock lock(mutex_);
  if (number == 0 || number > places_.size()) return std::nullopt;
  const auto at = static_cast<std::size_t>(number);
  return Entry{at, lineAt(at)};
}

std::optional<std::string> LogStore::bytesOf(const Json& line) const {
  const auto name = textIn(line, "file");
  if (!isFileName(name)) return std::nullopt;
  std::ifstream file(pathOf(name), std::ios::binary);
  if (!file) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

LogStore::Totals LogStore::totals() const {
  const MutexLock lock(mutex_);
  return totals_;
}
