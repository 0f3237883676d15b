// Linked into a host that follows words: one of the system's calls goes wrong under it, as the file
// FAULT_PAGE says.

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include "Tests/Support/FaultyFiles.h"

/// Of the host: whether this thread is in a call of the agent.
extern constinit thread_local bool isInside;

namespace {

/// That file, which outlives a kill.
struct Page {
  char under[256];  // only files in that folder count
  char kind[24];    // of the call that goes wrong, from the `at`th on, for so many milliseconds
  std::uint64_t at, milliseconds, error, isShort, killsBefore, killsBehind;
  std::atomic<std::uint64_t> happened;
  // Those that count: methods of platform::FileCalls, calls that are wrapped below, allocations of
  // the caller and of the agent.
  struct {
    char name[24];
    std::atomic<std::uint64_t> calls;
  } kinds[64];
};

/// The one fault of this process. It allocates nothing: allocations may be what fails.
class Plan : public FaultPlan {
 public:
  explicit Plan(Page& page) : page_(page) {}

  std::optional<Fault> next(std::string_view kind) override {
    std::size_t index = 0;
    while (index + 1 < std::size(page_.kinds) && kind != page_.kinds[index].name) ++index;
    const std::uint64_t number = ++page_.kinds[index].calls;
    if (kind != page_.kind || number < page_.at) return std::nullopt;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    if (number == page_.at) began_ = now;
    const bool isOver = now >= began_.load() + std::chrono::milliseconds(page_.milliseconds);
    if (number > page_.at && isOver) return std::nullopt;
    ++page_.happened;
    if (page_.killsBefore != 0) ::kill(::getpid(), SIGKILL);
    Fault fault{.error = static_cast<int>(page_.error), .kills = page_.killsBehind != 0};
    if (page_.isShort != 0) fault.shortLength = Fault::kHalf;
    return fault;
  }

 private:
  Page& page_;
  std::atomic<std::chrono::nanoseconds> began_{std::chrono::nanoseconds::max() / 2};
};

std::atomic<Plan*> plan = nullptr;

/// Of the thread that main() runs on only what happens within a call of the agent counts.
bool fails(std::string_view kind) {
  const bool isMain = ::getpid() == static_cast<pid_t>(::syscall(SYS_gettid));
  Plan* const now = isMain && !isInside ? nullptr : plan.load();
  if (now == nullptr) return false;
  if (kind == "new") kind = isMain ? "new_caller" : "new_agent";
  const auto fault = now->next(kind);
  if (fault) errno = fault->error;
  return fault.has_value();
}

const bool kHasPlan = [] {
  const char* const path = std::getenv("FAULT_PAGE");
  if (path == nullptr) return false;
  const int fd = ::open(path, O_RDWR | O_CLOEXEC);
  void* page = ::mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (page == MAP_FAILED) std::abort();
  ::close(fd);
  const auto made = std::make_shared<Plan>(*static_cast<Page*>(page));
  // For ever: the agent goes on behind the end of main.
  new FaultyFileCalls(made, static_cast<Page*>(page)->under);
  plan = made.get();
  return true;
}();

}  // namespace

// Not inlined: the compiler would see the system's one in the place of the other of a pair.
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return fails("new") ? nullptr : std::malloc(size == 0 ? 1 : size);
}
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const memory = operator new(size, std::nothrow);
  return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

// The linker gives the library these in the place of the system's.
#define WRAPPED(failure, name, parameters, ...)                  \
  extern "C" decltype(::name) __real_##name;                     \
  extern "C" decltype(::name) __wrap_##name;                     \
  auto __wrap_##name parameters->decltype(::name(__VA_ARGS__)) { \
    return fails(#name) ? failure : __real_##name(__VA_ARGS__);  \
  }
WRAPPED(MAP_FAILED, mmap,
        (void* at, std::size_t length, int access, int flags, int fd, ::off_t from) noexcept, at,
        length, access, flags, fd, from)
WRAPPED(-1, inotify_init1, (int flags) noexcept, flags)
WRAPPED(-1, inotify_add_watch, (int fd, const char* path, unsigned mask) noexcept, fd, path, mask)
WRAPPED(-1, epoll_create1, (int flags) noexcept, flags)
WRAPPED(-1, epoll_ctl, (int epoll, int how, int fd, epoll_event* to) noexcept, epoll, how, fd, to)
WRAPPED(-1, epoll_wait, (int epoll, epoll_event* to, int most, int time), epoll, to, most, time)
WRAPPED(errno, pthread_create,
        (::pthread_t * thread, const ::pthread_attr_t* attributes, void* (*body)(void*),
         void* argument) noexcept,
        thread, attributes, body, argument)
