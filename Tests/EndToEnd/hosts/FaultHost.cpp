// Logs numbered events and closes a log half way, while one of the system's calls goes wrong.
// Prints what each call of the agent answered.
//
//   FaultHost START EVENTS     START names the run in every event
//
//   FAULT_KINDS=KIND[:KIND]    the kinds of calls that count: methods of platform::FileCalls, calls
//                              that are wrapped below, allocations of the caller and of the agent
//   FAULT_UNDER=FOLDER         only files in that folder count
//   FAULT_PAGE=FILE            64-bit counts of each kind and then of the faults that happened: in
//                              a file that outlives a kill
//   FAULT=KIND:N:WHAT[:MS]     the N-th call of KIND (from 1); with MS, all from then on for as
//                              long. WHAT is the number of an error, "short" (half of what was
//                              asked for), "kill", or "torn" (half is written, then a kill)

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include "Examples/MorningRun/QuietFolder.h"
#include "Skelda_Watch/SkeldaCCPA.h"
#include "Skelda_Watch/SkeldaUserProperties.h"
#include "Skelda_Watch/SkeldaWatch.h"
#include "Tests/Support/FaultyFiles.h"

using namespace std::chrono_literals;

namespace {

using skelda::testing::Fault;

std::string_view variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

/// What stands before the next ':', which is taken away.
std::string_view takeWord(std::string_view& text) {
  const std::string_view word = text.substr(0, text.find(':'));
  text.remove_prefix(std::min(text.size(), word.size() + 1));
  return word;
}

/// The one fault of this process. It allocates nothing: allocations may be what fails.
class Plan : public skelda::testing::FaultPlan {
 public:
  Plan() {
    const int fd = ::open(variable("FAULT_PAGE").data(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ::ftruncate(fd, 4096) != 0) std::abort();
    void* page = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (page == MAP_FAILED) std::abort();
    ::close(fd);
    counts_ = static_cast<std::atomic<std::uint64_t>*>(page);
    std::string_view text = variable("FAULT");
    kind_ = takeWord(text);
    at_ = std::strtoull(takeWord(text).data(), nullptr, 10);
    const std::string_view what = takeWord(text);
    kills_ = what == "kill";
    fault_.error = what.empty() ? 0 : std::atoi(what.data());
    fault_.kills = what == "torn";
    if (what == "short" || what == "torn") fault_.shortLength = Fault::kHalf;
    time_ = std::chrono::milliseconds(text.empty() ? 0 : std::atoi(text.data()));
  }

  std::optional<Fault> next(std::string_view kind) override {
    std::size_t index = 0;
    std::optional<std::size_t> found;
    for (std::string_view kinds = kinds_; !kinds.empty(); ++index) {
      if (takeWord(kinds) == kind) found = index;
    }
    if (!found) return std::nullopt;
    const std::uint64_t number = ++counts_[*found];
    if (kind != kind_ || number < at_) return std::nullopt;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    if (number == at_) began_ = now;
    if (number > at_ && now >= began_.load() + time_) return std::nullopt;
    ++counts_[index];
    if (kills_) ::kill(::getpid(), SIGKILL);
    return fault_;
  }

 private:
  const std::string_view kinds_ = variable("FAULT_KINDS");
  std::atomic<std::uint64_t>* counts_ = nullptr;
  std::string_view kind_;
  std::uint64_t at_ = 0;
  bool kills_ = false;
  Fault fault_;
  std::chrono::nanoseconds time_{};
  std::atomic<std::chrono::nanoseconds> began_{std::chrono::nanoseconds::max()};
};

std::atomic<Plan*> plan = nullptr;
thread_local bool isInside = false;

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

unsigned inside(auto call) {
  isInside = true;
  const unsigned answer = call();
  isInside = false;
  return answer;
}

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

int main(int, char** argv) {
  const std::string start = argv[1];
  const int events = std::atoi(argv[2]);
  if (!variable("FAULT_PAGE").empty()) {
    const auto made = std::make_shared<Plan>();
    // For ever: the agent goes on behind the end of main.
    new skelda::testing::FaultyFileCalls(made, std::string(variable("FAULT_UNDER")));
    plan = made.get();
  }
  // Values are made outside and given away: what is allocated inside is the agent's.
  SkeldaValue address = "https://127.0.0.1:9/v1/skd.do";
  inside([&] { return SkeldaWatch::setServerURL(std::move(address)), 1; });
  SkeldaValue property = "shoes", kind = "Wolke 7";
  inside([&] { return SkeldaUserProperties::setValue(std::move(property), std::move(kind)), 1; });
  for (int number = 1; number <= events; ++number) {
    SkeldaValue name = "event";
    SkeldaValue parameters = {{"start", start}, {"number", number}};
    const unsigned answer =
        inside([&] { return SkeldaWatch::logWatchEvent(std::move(name), std::move(parameters)); });
    std::printf("event %d: %u\n", number, answer);
    std::fflush(stdout);
    if (number == events / 2) inside([] { return SkeldaCCPA::setDelete(), 1; });
  }
  std::printf("stored: %d\n", SkeldaWatch::waitUntilStored(3s));
  const auto storage =
      std::filesystem::path(std::getenv("XDG_DATA_HOME")) / BUNDLE_IDENTIFIER / "SkeldaFiles";
  std::printf("rest: %d\n", QuietFolder(storage).wait(300ms, 10s));
}
