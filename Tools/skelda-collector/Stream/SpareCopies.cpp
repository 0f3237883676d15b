#include "Tools/skelda-collector/Stream/SpareCopies.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <utility>

using skelda::platform::MutexLock;

namespace {

constexpr std::string_view kPrefix = "copies-";
constexpr std::uint64_t kSmallest = std::uint64_t{1} << 20;
constexpr std::uint64_t kParts = 16;  // of the room; the oldest goes as a whole

/// Before each record. Read again by the same build of the program or by another on the same
/// machine.
struct Head {
  std::array<char, 4> mark{'S', 'C', 'P', '1'};
  std::uint32_t length = 0;
  std::int64_t milliseconds = 0;
  std::array<char, 64> id{};
};
static_assert(sizeof(Head) == 80);

}  // namespace

/// A file of copies, which ends with the last that holds it.
class SpareCopies::Segment {
 public:
  Segment(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
  ~Segment() { ::close(fd_); }
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;

  /// All parts or, as far as anybody who reads it sees, none.
  bool append(std::span<iovec> parts) {
    std::uint64_t end = size;
    while (!parts.empty()) {
      const auto wrote =
          ::pwritev(fd_, parts.data(), static_cast<int>(parts.size()), static_cast<off_t>(end));
      if (wrote < 0 && errno == EINTR) continue;
      if (wrote <= 0) return false;
      end += static_cast<std::uint64_t>(wrote);
      for (auto left = static_cast<std::size_t>(wrote); !parts.empty();) {
        auto& part = parts.front();
        const std::size_t some = std::min(left, part.iov_len);
        part = {static_cast<char*>(part.iov_base) + some, part.iov_len - some};
        left -= some;
        if (part.iov_len > 0) break;
        parts = parts.subspan(1);
      }
    }
    size = end;
    return true;
  }
  bool read(std::uint64_t at, char* into, std::size_t length) const {
    return ::pread(fd_, into, length, static_cast<off_t>(at)) == static_cast<ssize_t>(length);
  }
  /// Readers go on.
  void remove() const {
    if (!path_.empty()) ::unlink(path_.c_str());
  }

  std::uint64_t size = 0;
  std::uint64_t copies = 0;
  Time last{};

 private:
  const int fd_;
  const std::string path_;
};

std::string SpareCopies::Copy::read() const {
  std::string record(length, '\0');
  return segment->read(offset, record.data(), record.size()) ? record : std::string();
}

SpareCopies::SpareCopies(Options options) : options_(std::move(options)) {
  const MutexLock lock(mutex_);
  if (!options_.folder.empty()) {
    std::filesystem::create_directories(options_.folder);
    recover();
  }
  begin();
}

SpareCopies::~SpareCopies() = default;

void SpareCopies::begin() {
  const std::string path =
      options_.folder.empty() ? "" : fmt::format("{}/{}{}", options_.folder, kPrefix, next_++);
  const int fd = path.empty() ? ::memfd_create("skelda-copies", MFD_CLOEXEC)
                              : ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    if (segments_.empty()) throw std::runtime_error(path + ": " + std::strerror(errno));
    return;  // the last one goes on growing
  }
  segments_.push_back(std::make_shared<Segment>(fd, path));
}

void SpareCopies::recover() {
  std::vector<std::uint64_t> numbers;
  for (const auto& entry : std::filesystem::directory_iterator(options_.folder)) {
    const std::string name = entry.path().filename();
    std::uint64_t number = 0;
    if (!name.starts_with(kPrefix)) continue;
    const auto* end = name.data() + name.size();
    if (std::from_chars(name.data() + kPrefix.size(), end, number).ptr == end) {
      numbers.push_back(number);
    }
  }
  std::ranges::sort(numbers);
  for (const std::uint64_t number : numbers) {
    const std::string path = fmt::format("{}/{}{}", options_.folder, kPrefix, number);
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || ::fstat(fd, &status) != 0) {
      throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    const auto segment = std::make_shared<Segment>(fd, path);
    const auto length = static_cast<std::uint64_t>(status.st_size);
    Head head;
    while (segment->size + sizeof head <= length &&
           segment->read(segment->size, reinterpret_cast<char*>(&head), sizeof head) &&
           head.mark == Head{}.mark && segment->size + sizeof head + head.length <= length) {
      segment->last = Time(std::chrono::milliseconds(head.milliseconds));
      copies_.push_back({std::string(head.id.data(), head.id.size()), segment->last, segment,
                         segment->size + sizeof head, head.length});
      segment->size += sizeof head + head.length;
      ++segment->copies;
    }
    bytes_ += segment->size;
    segments_.push_back(segment);
    next_ = number + 1;
  }
}

void SpareCopies::add(const std::string& id, std::string_view first, std::string_view second,
                      Time now) {
  Head head;
  head.length = static_cast<std::uint32_t>(first.size() + second.size());
  head.milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
  std::copy_n(id.begin(), std::min(id.size(), head.id.size()), head.id.begin());
  const auto part = [](std::string_view bytes) {
    return iovec{const_cast<char*>(bytes.data()), bytes.size()};
  };
  std::array parts{iovec{&head, sizeof head}, part(first), part(second)};
  const MutexLock lock(mutex_);
  if (segments_.back()->size > std::max(kSmallest, options_.maxBytes / kParts)) begin();
  drop(now);
  auto& segment = *segments_.back();
  const std::uint64_t offset = segment.size + sizeof head;
  if (!segment.append(parts)) {
    ++figures_.failed;
    return;
  }
  segment.last = now;
  ++segment.copies;
  bytes_ += sizeof head + head.length;
  copies_.push_back({id, now, segments_.back(), offset, head.length});
}

void SpareCopies::drop(Time now) {
  while (segments_.size() > 1) {
    const auto& oldest = *segments_.front();
    const bool isOld = oldest.last + options_.longest < now;
    if (!isOld && bytes_ <= options_.maxBytes) return;
    if (!isOld) figures_.early += oldest.copies;
    bytes_ -= oldest.size;
    copies_.erase(copies_.begin(), copies_.begin() + static_cast<std::ptrdiff_t>(oldest.copies));
    oldest.remove();
    segments_.pop_front();
  }
}

std::vector<SpareCopies::Copy> SpareCopies::all() const {
  const MutexLock lock(mutex_);
  return {copies_.begin(), copies_.end()};
}

SpareCopies::Figures SpareCopies::figures() const {
  const MutexLock lock(mutex_);
  Figures figures = figures_;
  figures.copies = copies_.size();
  figures.bytes = bytes_;
  return figures;
}
