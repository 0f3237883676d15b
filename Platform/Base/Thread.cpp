#include "Platform/Base/Thread.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>
#include <new>

namespace skelda::platform {

namespace {

struct Start {
  const char* name;
  void (*body)(void*);
  void* argument;
};

void* enter(void* raw) {
  const Start start = *std::unique_ptr<Start>(static_cast<Start*>(raw));
  pthread_setname_np(pthread_self(), start.name);
  // Niceness is inherited whatever the attributes say.
  setpriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, static_cast<id_t>(getpid())));
  start.body(start.argument);
  return nullptr;
}

sigset_t signalsOfTheHost() {
  sigset_t signals;
  sigfillset(&signals);
  // A fault of the thread itself cannot wait: blocked, it would end the process past the handler
  // with which a host writes its crash report.
  for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) sigdelset(&signals, fault);
  return signals;
}

/// Scheduling is inherited from whoever happens to call first, who may be pinned to a processor and
/// run in real time: the thread takes the system's default and the process's processors instead.
void setScheduling(pthread_attr_t& attributes) noexcept {
  const sched_param ordinary{};
  pthread_attr_setschedpolicy(&attributes, SCHED_OTHER);
  pthread_attr_setschedparam(&attributes, &ordinary);
  pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
  cpu_set_t processors;
  if (sched_getaffinity(getpid(), sizeof processors, &processors) == 0) {
    pthread_attr_setaffinity_np(&attributes, sizeof processors, &processors);
  }
}

}  // namespace

bool startThread(const char* name, void (*body)(void*), void* argument) noexcept {
  std::unique_ptr<Start> start(new (std::nothrow) Start{name, body, argument});
  pthread_attr_t attributes;
  if (start == nullptr || pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  setScheduling(attributes);

  const sigset_t blocked = signalsOfTheHost();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  pthread_t thread;
  const bool started = pthread_create(&thread, &attributes, &enter, start.get()) == 0;
  if (started) static_cast<void>(start.release());
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  return started;
}

}  // namespace skelda::platform
