// Preloaded before a host: counts the host's calls of each kind, and lets one of them fail, come
// short, or be the last thing the process does.
//
//   FAULT_UNDER=FOLDER[:FOLDER]   only files in these folders count
//   FAULT_PAGE=FILE               the counts, mapped shared, so that they outlive a kill: one
//   64-bit
//                                 number for each kind in the order of kNames, then the number of
//                                 faults that happened
//   FAULT=KIND:N:WHAT[:MS]        the N-th call of KIND (from 1); with MS, every call of the kind
//   from
//                                 then on for so many milliseconds. WHAT is the number of an error,
//                                 "short" (half of what was asked for), "kill", or "torn" (half of
//                                 it is written, and then the process is killed)
//
// Whatever is set, the name server hangs where a name in "hangs" is looked up.

#include <dirent.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <string_view>

namespace {

enum Kind : std::size_t {
  kOpen,
  kRead,
  kWrite,
  kPwrite,
  kFsync,
  kFdatasync,
  kRename,
  kRenameat2,
  kLink,
  kCopyFileRange,
  kFtruncate,
  kFallocate,
  kMkdir,
  kUnlink,
  kStat,
  kReaddir,
  kFlock,
  kXattr,
  kMmap,
  kInotifyInit,
  kInotifyAdd,
  kEpollCreate,
  kEpollCtl,
  kEpollWait,
  kThread,
  kNewCaller,
  kNewAgent,
  kKinds
};
constexpr std::array<std::string_view, kKinds> kNames{"open",
                                                      "read",
                                                      "write",
                                                      "pwrite",
                                                      "fsync",
                                                      "fdatasync",
                                                      "rename",
                                                      "renameat2",
                                                      "link",
                                                      "copy_file_range",
                                                      "ftruncate",
                                                      "fallocate",
                                                      "mkdir",
                                                      "unlink",
                                                      "stat",
                                                      "readdir",
                                                      "flock",
                                                      "xattr",
                                                      "mmap",
                                                      "inotify_init",
                                                      "inotify_add_watch",
                                                      "epoll_create",
                                                      "epoll_ctl",
                                                      "epoll_wait",
                                                      "pthread_create",
                                                      "new_caller",
                                                      "new_agent"};

using Counters = std::array<std::atomic<std::uint64_t>, kKinds + 1>;
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

enum class What { error, cut, kill, torn };

struct Plan {
  Counters* counters = nullptr;
  std::string_view under;  // folders, with ':' between them
  std::size_t kind = kKinds;
  std::uint64_t at = 0;
  What what = What::error;
  int error = 0;
  std::int64_t milliseconds = 0;
};
Plan plan;
std::atomic<bool> isReady{false};
std::atomic<std::int64_t> began{0};
thread_local bool isInsideCall = false;

std::int64_t now() {
  timespec time{};
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * 1000 + time.tv_nsec / 1'000'000;
}

template <class F>
F next(const char* name) {
  return reinterpret_cast<F>(::dlsym(RTLD_NEXT, name));
}
#define NEXT(name) static const auto real = next<decltype(&::name)>(#name)

[[noreturn]] void die() {
  ::syscall(SYS_kill, ::getpid(), SIGKILL);
  for (;;) ::pause();
}

/// Of the thread that main() runs on only what happens within a call of the agent counts.
bool isMain() {
  thread_local const bool is = ::getpid() == static_cast<pid_t>(::syscall(SYS_gettid));
  return is;
}

/// Counts a call of the kind, and says whether it is one that goes wrong.
bool isDue(Kind kind) {
  if (!isReady.load(std::memory_order_acquire) || (isMain() && !isInsideCall)) return false;
  const std::uint64_t number = (*plan.counters)[kind].fetch_add(1) + 1;
  if (kind != plan.kind || number < plan.at) return false;
  if (number > plan.at) {
    const std::int64_t first = began.load();
    if (plan.milliseconds == 0 || (first != 0 && now() - first >= plan.milliseconds)) return false;
  } else {
    began = now();
  }
  (*plan.counters)[kKinds].fetch_add(1);
  if (plan.what == What::kill) die();
  return true;
}

/// Whether it fails with the plan's error; errno is set.
bool fails(Kind kind) {
  if (!isDue(kind)) return false;
  errno = plan.error != 0 ? plan.error : EIO;
  return true;
}

bool isUnder(std::string_view path) {
  for (std::string_view left = plan.under; !left.empty();) {
    const std::string_view folder = left.substr(0, left.find(':'));
    if (path.starts_with(folder)) return true;
    left.remove_prefix(std::min(left.size(), folder.size() + 1));
  }
  return false;
}

bool isFileUnder(int fd) {
  if (!isReady.load(std::memory_order_acquire) || fd < 0) return false;
  const int error = errno;
  char link[32];
  char path[4096];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t length = ::readlink(link, path, sizeof path);
  errno = error;
  return length > 0 && isUnder({path, static_cast<std::size_t>(length)});
}

bool isPathUnder(int folder, const char* path) {
  if (!isReady.load(std::memory_order_acquire) || path == nullptr) return false;
  return path[0] == '/' ? isUnder(path) : folder != AT_FDCWD && isFileUnder(folder);
}

/// How much of `length` a call may do, and whether it is the last thing; nothing where it fails.
struct Share {
  std::size_t length;
  bool isLast = false;
};
std::optional<Share> shareOf(Kind kind, int fd, std::size_t length) {
  if (!isFileUnder(fd) || !isDue(kind)) return Share{length};
  if (plan.what == What::error) {
    errno = plan.error;
    return std::nullopt;
  }
  // Half of one byte would be the end of the file.
  return Share{std::max<std::size_t>(length / 2, std::min<std::size_t>(length, 1)),
               plan.what == What::torn};
}

template <class Call>
ssize_t partly(Kind kind, int fd, std::size_t length, Call call) {
  const auto share = shareOf(kind, fd, length);
  if (!share) return -1;
  const ssize_t done = call(share->length);
  if (share->isLast) die();
  return done;
}

void readPlan(std::string_view text) {
  const auto word = [&text] {
    const std::string_view found = text.substr(0, text.find(':'));
    text.remove_prefix(std::min(text.size(), found.size() + 1));
    return found;
  };
  const auto number = [&word] { return std::strtoll(word().data(), nullptr, 10); };
  const auto kind = std::find(kNames.begin(), kNames.end(), word());
  plan.kind = static_cast<std::size_t>(kind - kNames.begin());
  plan.at = static_cast<std::uint64_t>(number());
  const std::string_view what = word();
  plan.what = what == "short"  ? What::cut
              : what == "kill" ? What::kill
              : what == "torn" ? What::torn
                               : What::error;
  if (plan.what == What::error) plan.error = std::atoi(what.data());
  plan.milliseconds = number();
}

/// Says where, before it ends the process: addr2line -Cfie HOST OFFSET ... reads it.
void sayWhere() {
  std::array<void*, 40> frames{};
  ::backtrace_symbols_fd(frames.data(), ::backtrace(frames.data(), frames.size()), STDERR_FILENO);
  std::abort();
}

[[gnu::constructor]] void setUp() {
  const char* page = std::getenv("FAULT_PAGE");
  const char* under = std::getenv("FAULT_UNDER");
  if (page == nullptr || under == nullptr) return;
  const int fd = ::open(page, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ::ftruncate(fd, sizeof(Counters)) != 0) std::abort();
  void* memory = ::mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (memory == MAP_FAILED) std::abort();
  ::close(fd);
  plan.counters = static_cast<Counters*>(memory);
  plan.under = under;
  if (const char* fault = std::getenv("FAULT")) readPlan(fault);
  void* first = nullptr;
  ::backtrace(&first, 1);  // loads what it needs while nothing goes wrong
  std::set_terminate(sayWhere);
  isReady.store(true, std::memory_order_release);
}

void* newMemory(std::size_t size, std::size_t alignment) {
  if (fails(isMain() ? kNewCaller : kNewAgent)) return nullptr;
  if (size == 0) size = 1;
  return alignment <= alignof(std::max_align_t)
             ? std::malloc(size)
             : std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
}

void* newOrThrow(std::size_t size, std::size_t alignment) {
  void* memory = newMemory(size, alignment);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

#define SHOWN [[gnu::visibility("default")]]

void* operator new(std::size_t size) {
  return newOrThrow(size, 0);
}
void* operator new[](std::size_t size) {
  return newOrThrow(size, 0);
}
void* operator new(std::size_t size, std::align_val_t to) {
  return newOrThrow(size, static_cast<std::size_t>(to));
}
void* operator new[](std::size_t size, std::align_val_t to) {
  return newOrThrow(size, static_cast<std::size_t>(to));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return newMemory(size, 0);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return newMemory(size, 0);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}

extern "C" {

/// The host says that its main thread is inside a call of the agent.
SHOWN void faultShimInsideCall(bool isInside) {
  isInsideCall = isInside;
}

#define OPENING(name)                                                             \
  SHOWN int name(const char* path, int flags, ...) {                              \
    va_list more;                                                                 \
    va_start(more, flags);                                                        \
    const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(more, mode_t) : 0; \
    va_end(more);                                                                 \
    NEXT(name);                                                                   \
    if (isPathUnder(AT_FDCWD, path) && fails(kOpen)) return -1;                   \
    return real(path, flags, mode);                                               \
  }
OPENING(open)
OPENING(open64)

#define OPENING_AT(name)                                                          \
  SHOWN int name(int folder, const char* path, int flags, ...) {                  \
    va_list more;                                                                 \
    va_start(more, flags);                                                        \
    const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(more, mode_t) : 0; \
    va_end(more);                                                                 \
    NEXT(name);                                                                   \
    if (isPathUnder(folder, path) && fails(kOpen)) return -1;                     \
    return real(folder, path, flags, mode);                                       \
  }
OPENING_AT(openat)
OPENING_AT(openat64)

SHOWN DIR* opendir(const char* path) {
  NEXT(opendir);
  return isPathUnder(AT_FDCWD, path) && fails(kOpen) ? nullptr : real(path);
}

SHOWN ssize_t read(int fd, void* to, size_t length) {
  NEXT(read);
  return partly(kRead, fd, length, [&](std::size_t part) { return real(fd, to, part); });
}
#define READING_AT(name)                                                                        \
  SHOWN ssize_t name(int fd, void* to, size_t length, off_t at) {                               \
    NEXT(name);                                                                                 \
    return partly(kRead, fd, length, [&](std::size_t part) { return real(fd, to, part, at); }); \
  }
READING_AT(pread)
READING_AT(pread64)

SHOWN ssize_t write(int fd, const void* from, size_t length) {
  NEXT(write);
  return partly(kWrite, fd, length, [&](std::size_t part) { return real(fd, from, part); });
}
#define WRITING_AT(name)                                                       \
  SHOWN ssize_t name(int fd, const void* from, size_t length, off_t at) {      \
    NEXT(name);                                                                \
    return partly(kPwrite, fd, length,                                         \
                  [&](std::size_t part) { return real(fd, from, part, at); }); \
  }
WRITING_AT(pwrite)
WRITING_AT(pwrite64)

SHOWN ssize_t copy_file_range(int from, off64_t* fromAt, int to, off64_t* toAt, size_t length,
                              unsigned flags) {
  NEXT(copy_file_range);
  return partly(kCopyFileRange, to, length,
                [&](std::size_t part) { return real(from, fromAt, to, toAt, part, flags); });
}

// What takes a descriptor or a path first, and answers -1 when it fails.
#define ON_FILE(kind, name, parameters, arguments)               \
  SHOWN int name parameters {                                    \
    NEXT(name);                                                  \
    return isFileUnder(fd) && fails(kind) ? -1 : real arguments; \
  }
#define ON_PATH(kind, name, parameters, arguments)                           \
  SHOWN int name parameters {                                                \
    NEXT(name);                                                              \
    return isPathUnder(AT_FDCWD, path) && fails(kind) ? -1 : real arguments; \
  }
#define ON_PATH_AT(kind, name, parameters, arguments)                      \
  SHOWN int name parameters {                                              \
    NEXT(name);                                                            \
    return isPathUnder(folder, path) && fails(kind) ? -1 : real arguments; \
  }

ON_FILE(kFsync, fsync, (int fd), (fd))
ON_FILE(kFdatasync, fdatasync, (int fd), (fd))
ON_FILE(kFtruncate, ftruncate, (int fd, off_t length) noexcept, (fd, length))
ON_FILE(kFtruncate, ftruncate64, (int fd, off64_t length) noexcept, (fd, length))
ON_FILE(kFallocate, fallocate, (int fd, int mode, off_t at, off_t length), (fd, mode, at, length))
ON_FILE(kFallocate, fallocate64, (int fd, int mode, off64_t at, off64_t length),
        (fd, mode, at, length))
ON_FILE(kFlock, flock, (int fd, int operation) noexcept, (fd, operation))
ON_FILE(kStat, fstat, (int fd, struct stat* status) noexcept, (fd, status))
ON_FILE(kStat, fstat64, (int fd, struct stat64* status) noexcept, (fd, status))
ON_FILE(kXattr, fsetxattr,
        (int fd, const char* name, const void* value, size_t size, int flags) noexcept,
        (fd, name, value, size, flags))
ON_PATH(kStat, stat, (const char* path, struct stat* status) noexcept, (path, status))
ON_PATH(kStat, stat64, (const char* path, struct stat64* status) noexcept, (path, status))
ON_PATH(kStat, lstat, (const char* path, struct stat* status) noexcept, (path, status))
ON_PATH(kStat, lstat64, (const char* path, struct stat64* status) noexcept, (path, status))
ON_PATH_AT(kStat, fstatat, (int folder, const char* path, struct stat* status, int flags) noexcept,
           (folder, path, status, flags))
ON_PATH_AT(kStat, fstatat64,
           (int folder, const char* path, struct stat64* status, int flags) noexcept,
           (folder, path, status, flags))
ON_PATH(kMkdir, mkdir, (const char* path, mode_t mode) noexcept, (path, mode))
ON_PATH(kUnlink, unlink, (const char* path) noexcept, (path))
ON_PATH(kUnlink, rmdir, (const char* path) noexcept, (path))
ON_PATH(kUnlink, remove, (const char* path) noexcept, (path))
ON_PATH_AT(kUnlink, unlinkat, (int folder, const char* path, int flags) noexcept,
           (folder, path, flags))
ON_PATH(kRename, rename, (const char* path, const char* to) noexcept, (path, to))
ON_PATH_AT(kRename, renameat, (int folder, const char* path, int toFolder, const char* to) noexcept,
           (folder, path, toFolder, to))
ON_PATH_AT(kRenameat2, renameat2,
           (int folder, const char* path, int toFolder, const char* to, unsigned flags) noexcept,
           (folder, path, toFolder, to, flags))
ON_PATH(kLink, link, (const char* path, const char* to) noexcept, (path, to))
ON_PATH_AT(kLink, linkat,
           (int folder, const char* path, int toFolder, const char* to, int flags) noexcept,
           (folder, path, toFolder, to, flags))

#define READING_FOLDER(name, Entry)                                                  \
  SHOWN Entry* name(DIR* folder) {                                                   \
    NEXT(name);                                                                      \
    return isFileUnder(::dirfd(folder)) && fails(kReaddir) ? nullptr : real(folder); \
  }
READING_FOLDER(readdir, struct dirent)
READING_FOLDER(readdir64, struct dirent64)
SHOWN ssize_t getdents64(int fd, void* room, size_t length) noexcept {
  NEXT(getdents64);
  return isFileUnder(fd) && fails(kReaddir) ? -1 : real(fd, room, length);
}

#define MAPPING(name)                                                                             \
  SHOWN void* name(void* at, size_t length, int access, int flags, int fd, off_t from) noexcept { \
    NEXT(name);                                                                                   \
    return isFileUnder(fd) && fails(kMmap) ? MAP_FAILED                                           \
                                           : real(at, length, access, flags, fd, from);           \
  }
MAPPING(mmap)
MAPPING(mmap64)

SHOWN int inotify_init1(int flags) noexcept {
  NEXT(inotify_init1);
  return fails(kInotifyInit) ? -1 : real(flags);
}
SHOWN int inotify_add_watch(int fd, const char* path, uint32_t mask) noexcept {
  NEXT(inotify_add_watch);
  return fails(kInotifyAdd) ? -1 : real(fd, path, mask);
}
SHOWN int epoll_create1(int flags) noexcept {
  NEXT(epoll_create1);
  return fails(kEpollCreate) ? -1 : real(flags);
}
SHOWN int epoll_ctl(int epoll, int how, int fd, struct epoll_event* event) noexcept {
  NEXT(epoll_ctl);
  return fails(kEpollCtl) ? -1 : real(epoll, how, fd, event);
}
SHOWN int epoll_wait(int epoll, struct epoll_event* events, int most, int timeout) {
  NEXT(epoll_wait);
  return fails(kEpollWait) ? -1 : real(epoll, events, most, timeout);
}
SHOWN int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                         void* argument) noexcept {
  NEXT(pthread_create);
  return fails(kThread) ? errno : real(thread, attributes, body, argument);
}

SHOWN int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                      addrinfo** found) {
  NEXT(getaddrinfo);
  if (name == nullptr || !std::string_view(name).ends_with(".hangs"))
    return real(name, service, hints, found);
  ::sleep(45);
  return EAI_AGAIN;
}

}  // extern "C"
