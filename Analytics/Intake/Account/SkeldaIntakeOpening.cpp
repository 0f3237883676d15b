// How the intake file comes to be: made, found, taken over from another version.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <new>
#include <vector>

#include "Analytics/Intake/Account/SkeldaIntakeFile.h"
#include "Analytics/Intake/Account/SkeldaIntakeLayout.h"
#include "Analytics/Intake/Account/SkeldaIntakeRepair.h"
#include "Platform/Foundation/FileCalls.h"
#include "Platform/Foundation/FileDescriptor.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/SystemFiles.h"
#include "Platform/Foundation/TextCoding.h"

using namespace SkeldaIntakeLayout;
using platform::FileCalls;
using platform::FileDescriptor;

namespace {

constexpr std::size_t kPageSize = 4096;
/// What an offset can tell; and at least a page.
constexpr std::size_t kLongestSegment =
    (Place::kOffsetMask + 1) * SkeldaIntakeFile::kAlignment - kPageSize;

std::size_t segmentLengthFor(std::size_t capacity) {
  const std::size_t each = std::min(capacity / SkeldaIntakeFile::kSegmentCount, kLongestSegment);
  return std::max(kPageSize, (each + kPageSize - 1) / kPageSize * kPageSize);
}

std::size_t fileLength(std::size_t segmentLength) {
  return SkeldaIntakeFile::kHeaderLength + SkeldaIntakeFile::kSegmentCount * segmentLength;
}

std::uint64_t newSalt() {
  std::uint64_t salt = 0;
  // Early in a boot there may be none yet: then the time has to do.
  if (::getrandom(&salt, sizeof salt, GRND_NONBLOCK) == sizeof salt) return salt;
  struct ::timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_nsec) * 0x9E3779B97F4A7C15;
}

std::uint32_t thisBoot() {
  const auto id = platform::readSystemLine("/proc/sys/kernel/random/boot_id");
  return id ? static_cast<std::uint32_t>(platform::stableHash(*id)) : 0;
}

/// The name up to the version, the version, and what follows.
struct Name {
  std::string folder, prefix, version, suffix;

  explicit Name(const std::string& path) : folder(platform::parentFolder(path)) {
    const std::string name = path.substr(path.rfind('/') + 1);
    const std::size_t end = std::min(name.rfind('.'), name.size());
    const std::size_t begin = std::min(name.rfind('_', end), end - 1) + 1;
    prefix = name.substr(0, begin);
    version = name.substr(begin, end - begin);
    suffix = name.substr(end);
  }
  std::array<char, 16> versionField() const {
    std::array<char, 16> field{};
    version.copy(field.data(), field.size());
    return field;
  }
  bool isOfOtherVersion(std::string_view name) const {
    return name.size() > prefix.size() + suffix.size() && name.starts_with(prefix) &&
           name.ends_with(suffix) && name != prefix + version + suffix;
  }
};

/// Calls `each` with a reference to every counter of two pages.
template <class Each>
void forBoth(SkeldaAccountPage& to, SkeldaAccountPage& from, Each each) {
  using Counter = SkeldaAccountPage::Counter;
  auto* counter = reinterpret_cast<Counter*>(&to);
  auto* other = reinterpret_cast<Counter*>(&from);
  for (std::size_t i = 0; i < sizeof(SkeldaAccountPage) / sizeof(Counter); ++i) {
    each(counter[i], other[i]);
  }
}

}  // namespace

/// One opening: the steps share the path, what was found and why there may be no file.
class SkeldaIntakeOpening {
 public:
  SkeldaIntakeOpening(const std::string& path, std::size_t capacity, std::uint64_t keyHash)
      : path_(path), name_(path), segmentLength_(segmentLengthFor(capacity)), keyHash_(keyHash) {}

  /// Errno or 0.
  int run() {
    FileCalls::current().unlink(temporary().c_str());
    takeOver();
    bool isMade = false;
    int error = load(path_, *file_);
    if (error == ENOENT) {
      isMade = true;
      error = make(nullptr);
    }
    if (error == EBADMSG) {
      isMade = true;
      error = setAside();
      if (error == 0) error = make(nullptr);
    }
    if (error == 0 && isMade) error = load(path_, *file_);
    if (error != 0) return error;
    SkeldaIntakeRepair(*file_, keyHash_, name_.versionField()).run();
    mergeOthers();
    return anewIfCapacityChanged();
  }

  static std::shared_ptr<SkeldaIntakeFile> made() {
    return std::shared_ptr<SkeldaIntakeFile>(new (std::nothrow) SkeldaIntakeFile);
  }

  static std::shared_ptr<SkeldaIntakeFile> inMemory(std::size_t capacity) {
    auto file = made();
    if (!file) return nullptr;
    const std::size_t segmentLength = segmentLengthFor(capacity);
    const std::size_t length = fileLength(segmentLength);
    // Shared as the file is: then pages can be given back without losing what is in them.
    void* mapping =
        ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED) return nullptr;
    begin(*static_cast<Page*>(mapping), segmentLength, 0, {});
    adopt(*file, mapping, length);
    return file;
  }

  const std::string& path() const { return path_; }
  std::shared_ptr<SkeldaIntakeFile> file_ = made();

 private:
  std::string temporary() const { return path_ + ".new"; }

  static void begin(Page& page, std::size_t segmentLength, std::uint64_t keyHash,
                    std::array<char, 16> version) {
    page.magic = kMagic;
    page.format = kFormat;
    page.headerLength = SkeldaIntakeFile::kHeaderLength;
    page.segmentLength = segmentLength;
    page.salt = newSalt();
    page.checksum = page.staticChecksum();
    page.keyHash.store(keyHash);
    page.version = version;
    page.tail.store(Place(Place::kFirstGeneration, 0).word());
  }

  static void adopt(SkeldaIntakeFile& file, void* mapping, std::size_t length) {
    ::madvise(mapping, length, MADV_DONTFORK);
    file.page_ = static_cast<Page*>(mapping);
    file.mappedLength_ = length;
    file.segmentLength_ = static_cast<std::size_t>(file.page_->segmentLength);
    file.salt_ = file.page_->salt;
    const platform::MutexLock lock(file.mutex_);
    file.earlierRuns_ = file.cursor_ = file.page_->tail.load();
  }

  // ---- Files of other versions

  std::vector<std::string> others() const {
    auto names = platform::FileManager::defaultManager()->contentsOfDirectoryAtPath(name_.folder);
    if (!names) return {};
    std::erase_if(*names, [this](const auto& name) { return !name_.isOfOtherVersion(name); });
    std::sort(names->begin(), names->end());
    for (std::string& name : *names) name = name_.folder + "/" + name;
    return *std::move(names);
  }

  /// The other version's file becomes this one's by one rename: no kill can count it twice.
  void takeOver() {
    const auto found = others();
    if (!found.empty()) {
      FileCalls::current().renameNoReplace(found.back().c_str(), path_.c_str());
    }
  }

  /// Those that stand beside this version's own all the same.
  void mergeOthers() {
    for (const std::string& other : others()) {
      const auto theirs = made();
      if (!theirs || load(other, *theirs) != 0) continue;
      theirs->page_->version = {};  // its name counts
      SkeldaIntakeRepair(*theirs, keyHash_, name_.versionField()).run();
      // First removed: counts that a kill cuts short are made good, those taken twice are not.
      if (FileCalls::current().unlink(other.c_str()) != 0) continue;
      file_->opening_.otherVersion += theirs->opening_.otherVersion;
      SkeldaAccountPage& page = file_->page();
      forBoth(page, theirs->page(), [&page](auto& to, auto& from) {
        if (&to != &page.lastAnswer && &to != &page.lastAnswerTime) to += from.load();
      });
    }
  }

  // ---- Making

  /// Under another name until it is whole, so that a file of the right name always is.
  int make(SkeldaAccountPage* account) {
    int error = 0;
    FileDescriptor file = FileDescriptor::open(
        temporary(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, error);
    if (!file) return error;
    error = allocate(file, fileLength(segmentLength_));
    if (error == 0) {
      alignas(Page) char bytes[sizeof(Page)] = {};
      Page& page = *new (bytes) Page{};
      begin(page, segmentLength_, keyHash_, name_.versionField());
      if (account != nullptr) {
        forBoth(page.account, *account, [](auto& to, auto& from) { to.store(from.load()); });
      }
      error = file.write({bytes, sizeof bytes}, 0);
    }
    if (error == 0 && FileCalls::current().rename(temporary().c_str(), path_.c_str()) != 0) {
      error = errno;
    }
    if (error != 0) FileCalls::current().unlink(temporary().c_str());
    return error;
  }

  /// Every byte gets its place on the disk now, where it can be refused.
  static int allocate(const FileDescriptor& file, std::size_t length) {
    int result = 0;
    do {
      result = FileCalls::current().allocate(file.get(), static_cast<::off_t>(length));
    } while (result != 0 && errno == EINTR);
    if (result == 0) return 0;
    if (errno != EOPNOTSUPP && errno != ENOSYS) return errno;
    const std::string zeros(std::size_t{64} << 10, '\0');
    for (std::size_t at = 0; at < length; at += zeros.size()) {
      const std::size_t step = std::min(zeros.size(), length - at);
      if (const int error = file.write({zeros.data(), step}, static_cast<::off_t>(at)))
        return error;
    }
    return 0;
  }

  // ---- Finding

  /// Errno or 0; EBADMSG where what is there is not such a file.
  static int load(const std::string& path, SkeldaIntakeFile& into) {
    int error = 0;
    FileDescriptor file =
        FileDescriptor::open(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, error);
    if (!file) return error == ELOOP || error == EISDIR || error == ENXIO ? EBADMSG : error;
    struct ::stat status;
    if ((error = file.status(status)) != 0) return error;
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (!S_ISREG(status.st_mode) || size < fileLength(kPageSize) ||
        size > fileLength(kLongestSegment)) {
      return EBADMSG;
    }
    const auto length = static_cast<std::size_t>(size);
    std::string head;
    if ((error = file.read(head, sizeof(Page), 0)) != 0) return error;
    if (head.size() != sizeof(Page)) return EBADMSG;
    alignas(Page) char bytes[sizeof(Page)];
    std::memcpy(bytes, head.data(), sizeof bytes);
    if (!isSound(*std::launder(reinterpret_cast<Page*>(bytes)), length)) return EBADMSG;
    // A copy of the file may have lost blocks that were nothing but zeros.
    if (status.st_blocks * 512 < status.st_size && (error = allocate(file, length)) != 0) {
      return error;
    }
    void* mapping = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (mapping == MAP_FAILED) return errno;
    // Else the first page that is touched brings with it as many as the disk likes to read at once,
    // which may be all of them, each to be filled with zeros first.
    ::madvise(mapping, length, MADV_RANDOM);
    into.isProtected_ = true;
    into.boot_ = thisBoot();
    adopt(into, mapping, length);
    return 0;
  }

  static bool isSound(const Page& page, std::size_t length) {
    const std::uint64_t units = page.segmentLength / SkeldaIntakeFile::kAlignment;
    const auto isSoundPlace = [&](std::uint64_t word, std::size_t segment) {
      const Place place(word);
      return word == 0 || (place.segment() == segment && place.units() <= units &&
                           place.generation() >= Place::kFirstGeneration);
    };
    if (page.magic != kMagic || page.format != kFormat ||
        page.headerLength != SkeldaIntakeFile::kHeaderLength ||
        page.checksum != page.staticChecksum() || page.segmentLength > kLongestSegment ||
        fileLength(static_cast<std::size_t>(page.segmentLength)) != length) {
      return false;
    }
    const Place tail(page.tail.load());
    if (tail.word() == 0 || !isSoundPlace(tail.word(), tail.segment())) return false;
    for (std::size_t i = 0; i < SkeldaIntakeFile::kSegmentCount; ++i) {
      if (!isSoundPlace(page.left[i].load(), i) || !isSoundPlace(page.settled[i].load(), i) ||
          page.settled[i].load() > tail.word() || page.left[i].load() > tail.word()) {
        return false;
      }
    }
    return true;
  }

  int setAside() {
    struct ::timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    std::string aside = fmt::format("{}.unread_{}.{:06}", path_, now.tv_sec, now.tv_nsec / 1000);
    if (FileCalls::current().rename(path_.c_str(), aside.c_str()) != 0) return errno;
    file_->opening_.setAside = std::move(aside);
    return 0;
  }

  /// The account goes over into the new file; where that cannot be made, the old one does.
  int anewIfCapacityChanged() {
    const auto& opening = file_->opening_;
    if (file_->segmentLength_ == segmentLength_ || opening.waiting[0] + opening.waiting[1] > 0) {
      return 0;
    }
    const auto anew = made();
    if (!anew || make(&file_->page()) != 0) return 0;
    if (const int error = load(path_, *anew)) return error;
    anew->opening_ = opening;
    file_ = anew;
    return 0;
  }

  const std::string& path_;
  const Name name_;
  const std::size_t segmentLength_;
  const std::uint64_t keyHash_;
};

std::shared_ptr<SkeldaIntakeFile> SkeldaIntakeFile::open(const std::string& path,
                                                         std::size_t capacity,
                                                         std::uint64_t keyHash,
                                                         platform::ErrorRef* error) noexcept {
  int failure = ENOMEM;
  Opening opening;
  try {
    SkeldaIntakeOpening steps(path, capacity, keyHash);
    if (steps.file_) failure = steps.run();
    if (failure == 0) {
      steps.file_->touchTail();
      return steps.file_;
    }
    if (steps.file_) opening = steps.file_->opening_;
    platform::setError(error, platform::posixError(failure, path));
  } catch (const std::bad_alloc&) {
    // The error object is more than there is memory for.
  }
  auto file = inMemory(capacity);
  if (file) file->opening_.setAside = std::move(opening.setAside);
  return file;
}

std::shared_ptr<SkeldaIntakeFile> SkeldaIntakeFile::inMemory(std::size_t capacity) noexcept {
  try {
    return SkeldaIntakeOpening::inMemory(capacity);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
