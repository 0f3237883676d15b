// What the layer does without when the system refuses it something, in a process of its own each
// time, so that the refusal meets the very first use.

#include "Platform/Dispatch/Wanted.h"

#include <sys/epoll.h>

#include "Platform/Dispatch/FolderSource.h"
#include "Platform/Dispatch/ReadSource.h"
#include "Tests/Platform/Dispatch/Waiting.h"

namespace {

/// A call of the system that is refused the next few times.
struct Refusable {
  const char* name;
  int error;
  std::atomic<int> refusals{0};

  bool refuses() {
    if (refusals.load() <= 0 || refusals.fetch_sub(1) <= 0) return false;
    errno = error;
    return true;
  }
};
Refusable threads{"pthread_create", EAGAIN};
Refusable epolls{"epoll_create1", EMFILE};
Refusable watches{"epoll_ctl", ENOSPC};
Refusable timers{"timerfd_create", EMFILE};
Refusable inotifies{"inotify_init1", EMFILE};
Refusable folders{"inotify_add_watch", ENOSPC};

}  // namespace

#define SKELDA_REFUSABLE(call, refusable, parameters, arguments, refused) \
  extern "C" int __real_##call parameters;                                \
  extern "C" int __wrap_##call parameters {                               \
    return refusable.refuses() ? refused : __real_##call arguments;       \
  }
SKELDA_REFUSABLE(pthread_create, threads,
                 (pthread_t * thread, const pthread_attr_t* how, void* (*body)(void*), void* with),
                 (thread, how, body, with), EAGAIN)
SKELDA_REFUSABLE(epoll_create1, epolls, (int flags), (flags), -1)
SKELDA_REFUSABLE(epoll_ctl, watches, (int epoll, int how, int descriptor, epoll_event* event),
                 (epoll, how, descriptor, event), -1)
SKELDA_REFUSABLE(timerfd_create, timers, (int clock, int flags), (clock, flags), -1)
SKELDA_REFUSABLE(inotify_init1, inotifies, (int flags), (flags), -1)
SKELDA_REFUSABLE(inotify_add_watch, folders, (int inotify, const char* path, unsigned mask),
                 (inotify, path, mask), -1)

namespace {

/// Waits in a way that the layer does not see, so that nobody but itself helps it.
class Unseen {
 public:
  void happen() { semaphore_.release(); }
  void expect(const char* what) {
    if (semaphore_.try_acquire_for(20s)) return;
    std::fprintf(stderr, "never: %s\n", what);
    std::_Exit(1);
  }

 private:
  std::counting_semaphore<> semaphore_{0};
};

void useEverything() {
  static Unseen delayed, onMain, onWorker, folderChanged, canBeRead;  // outlive an early end
  Queue::global()->after(dispatchTimeAfter(5ms), [] { delayed.happen(); });
  Queue::main()->async([] { onMain.happen(); });
  Queue::global()->async([] { onWorker.happen(); });

  const TemporaryDirectory folder;
  const int descriptor = open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  auto source = FolderSource::make(descriptor, Queue::serial("folder"));
  while (!source->stands()) source = FolderSource::make(descriptor, Queue::serial("folder"));
  source->setEventHandler([](unsigned) { folderChanged.happen(); });
  source->resume();
  std::ofstream(folder / "entry") << "new";

  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0 || write(ends[1], "x", 1) != 1) std::abort();
  const auto reader = ReadSource::make(ends[0], Queue::serial("pipe"));
  reader->setEventHandler([&reader] {
    canBeRead.happen();
    reader->suspend();
  });
  reader->resume();

  delayed.expect("a delayed block");
  onMain.expect("a block of the main queue");
  onWorker.expect("a block on a worker");
  folderChanged.expect("an event of a folder");
  canBeRead.expect("an event of a descriptor");
  Queue::main()->sync([] {});
  source->cancel();
  reader->cancel();
}

struct WantedDeathTest : testing::Test {
  WantedDeathTest() { testing::GTEST_FLAG(death_test_style) = "threadsafe"; }
};

TEST_F(WantedDeathTest, WhatTheSystemRefusesOnceOrSeveralTimesIsHadLater) {
  for (Refusable* call : {&threads, &epolls, &watches, &timers, &inotifies, &folders}) {
    for (const int times : {1, 4}) {
      const auto useWithRefusals = [&] {
        call->refusals = times;
        useEverything();
        const bool isHad = becomes([] { return !Wanted::any(); });
        std::_Exit(call->refusals > 0 ? 2 : isHad ? 0 : 3);
      };
      EXPECT_EXIT(useWithRefusals(), testing::ExitedWithCode(0), "") << call->name << " " << times;
    }
  }
}

TEST_F(WantedDeathTest, ADelayedBlockComesThoughNobodySubmitsAnythingAfterIt) {
  // Of threads no more are refused than one submission asks for: after that nobody is left.
  const std::pair<Refusable*, int> cases[] = {
      {&threads, 2}, {&epolls, 20}, {&watches, 20}, {&timers, 20}};
  for (const auto& [call, times] : cases) {
    const auto delayOne = [call = call, refusals = times] {
      static Unseen delayed;
      call->refusals = refusals;
      // Long enough for it not to be due before anything is asked for, wherever this runs.
      Queue::global()->after(dispatchTimeAfter(50ms), [] { delayed.happen(); });
      delayed.expect("the delayed block");
      std::_Exit(call->refusals > 0 ? 2 : 0);
    };
    EXPECT_EXIT(delayOne(), testing::ExitedWithCode(0), "") << call->name;
  }
}

TEST_F(WantedDeathTest, AReaderIsToldThoughNobodySubmitsAnythingAfterIt) {
  const auto readOne = [] {
    static Unseen canBeRead;
    Queue::global()->sync([] {});
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0 || write(ends[1], "x", 1) != 1) std::abort();
    const auto reader = ReadSource::make(ends[0], Queue::serial("pipe"));
    reader->setEventHandler([] { canBeRead.happen(); });
    watches.refusals = 4;
    reader->resume();
    canBeRead.expect("the reader");
    std::_Exit(watches.refusals > 0 ? 2 : 0);
  };
  EXPECT_EXIT(readOne(), testing::ExitedWithCode(0), "");
}

TEST_F(WantedDeathTest, NothingOfTheLayerTakesTheNumberOfAStandardDescriptor) {
  if (std::getenv("SKELDA_EMULATED") != nullptr) GTEST_SKIP() << "the emulator has files, too";
  const auto useWithoutThem = [] {
    for (const int standard : {0, 1, 2}) close(standard);
    Queue::global()->after(dispatchTimeAfter(1ms), [] {});
    const auto source = FolderSource::make(open("/", O_PATH), Queue::serial("folder"));
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) std::abort();
    const auto reader = ReadSource::make(fcntl(ends[0], F_DUPFD, 5), Queue::serial("pipe"));
    for (const int own : {ends[0], ends[1]}) close(own);
    int taken = 0;
    for (const int standard : {0, 1, 2}) {
      std::error_code isFree;
      const auto link = "/proc/self/fd/" + std::to_string(standard);
      const auto target = std::filesystem::read_symlink(link, isFree);
      taken += !isFree && target != "/";  // the test's own folder may have one of them
    }
    std::_Exit(taken);
  };
  EXPECT_EXIT(useWithoutThem(), testing::ExitedWithCode(0), "");
}

/// Of the threads of the layer, what is not as the process has it.
std::string strangeThreads() {
  std::string strange;
  cpu_set_t ofProcess;
  sched_getaffinity(getpid(), sizeof ofProcess, &ofProcess);
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    const std::string status = readFile(task.path() / "status");
    if (!status.starts_with("Name:\tskelda-")) continue;
    const std::string name = status.substr(6, status.find('\n') - 6);
    const pid_t id = std::stoi(task.path().filename().string());
    const auto blocked = std::stoull(status.substr(status.find("SigBlk:") + 8), nullptr, 16);
    for (const int signal : {SIGTERM, SIGUSR1, SIGPROF})
      if ((blocked >> (signal - 1) & 1) == 0) strange += name + " takes signals\n";
    cpu_set_t processors;
    sched_getaffinity(id, sizeof processors, &processors);
    if (CPU_EQUAL(&processors, &ofProcess) == 0) strange += name + " is pinned\n";
    if (sched_getscheduler(id) != SCHED_OTHER) strange += name + " runs in real time\n";
    const int niceness = getpriority(PRIO_PROCESS, static_cast<id_t>(id));
    if (geteuid() == 0 && niceness != getpriority(PRIO_PROCESS, static_cast<id_t>(getpid())))
      strange += name + " is as nice as its maker\n";
  }
  return strange;
}

TEST_F(WantedDeathTest, ThreadsHaveTheDefaultSchedulingWhoeverCallsFirst) {
  const auto callFromAnUnusualThread = [] {
    std::thread([] {
      cpu_set_t one;
      CPU_ZERO(&one);
      CPU_SET(sched_getcpu(), &one);
      sched_setaffinity(0, sizeof one, &one);
      const sched_param urgent{.sched_priority = 1};
      setpriority(PRIO_PROCESS, 0, 19);
      sched_setscheduler(0, SCHED_FIFO, &urgent);  // where the system lets us
      useEverything();
    }).join();
    const std::string strange = strangeThreads();
    std::fputs(strange.c_str(), stderr);
    std::_Exit(strange.empty() ? 0 : 1);
  };
  EXPECT_EXIT(callFromAnUnusualThread(), testing::ExitedWithCode(0), "");
}

}  // namespace
