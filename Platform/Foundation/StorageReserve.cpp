#include "Platform/Foundation/StorageReserve.h"

#include <fcntl.h>

#include <array>
#include <atomic>
#include <cerrno>

#include "Platform/Base/Mutex.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/FileCalls.h"
#include "Platform/Foundation/FileDescriptor.h"

namespace skelda::platform {

namespace {

struct Reserve {
  Mutex mutex;
  std::string path GUARDED_BY(mutex);
  bool hasFile GUARDED_BY(mutex) = false;
  std::array<FileDescriptor, 2> descriptors GUARDED_BY(mutex);
  /// Something of it is missing; read without the lock, since every write comes by.
  std::atomic<bool> incomplete{false};

  bool takeFile() REQUIRES(mutex) {
    int error = 0;
    FileDescriptor file = FileDescriptor::openFile(path, O_WRONLY | O_CREAT, error);
    if (file) error = fileError<&FileCalls::allocate>(file.get(), ::off_t{kLength});
    // A file system that cannot set room aside has none to give.
    if (error != 0 && file) fileError<&FileCalls::unlink>(path.c_str());
    return error == 0;
  }
  void fill() REQUIRES(mutex) {
    bool whole = true;
    for (FileDescriptor& descriptor : descriptors) {
      int error = 0;
      if (!descriptor) descriptor = FileDescriptor::open("/dev/null", O_RDONLY, error);
      whole = whole && descriptor;
    }
    if (!hasFile) hasFile = takeFile();
    incomplete.store(!whole || !hasFile, std::memory_order_relaxed);
  }
  static constexpr long kLength = StorageReserve::kFileLength;
};

Reserve& reserve() {
  static NeverDestroyed<Reserve> shared;
  return *shared;
}

}  // namespace

void StorageReserve::take(const std::string& path) {
  Reserve& own = reserve();
  const MutexLock lock(own.mutex);
  own.path = path;
  own.fill();
}

void StorageReserve::forget() {
  Reserve& own = reserve();
  const MutexLock lock(own.mutex);
  own.path.clear();
  own.hasFile = false;
  for (FileDescriptor& descriptor : own.descriptors) descriptor.close();
  own.incomplete.store(false, std::memory_order_relaxed);
}

bool StorageReserve::giveUp(int error) {
  Reserve& own = reserve();
  const MutexLock lock(own.mutex);
  bool given = false;
  if (error == EMFILE || error == ENFILE) {
    for (FileDescriptor& descriptor : own.descriptors) {
      given = given || descriptor;
      descriptor.close();
    }
  } else if (error == ENOSPC || error == EDQUOT) {
    given = own.hasFile && fileError<&FileCalls::unlink>(own.path.c_str()) == 0;
    own.hasFile = own.hasFile && !given;
  }
  if (given) own.incomplete.store(true, std::memory_order_relaxed);
  return given;
}

void StorageReserve::refill() {
  Reserve& own = reserve();
  if (!own.incomplete.load(std::memory_order_relaxed)) return;
  const MutexLock lock(own.mutex);
  if (!own.path.empty()) own.fill();
}

}  // namespace skelda::platform
