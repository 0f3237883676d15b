#include "Platform/Base/Thread.h"

#include <pthread.h>
#include <signal.h>

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
  start.body(start.argument);
  return nullptr;
}

sigset_t signalsOfTheHost() {
  sigset_t signals;
  sigfillset(&signals);
  // These tell of a fault of the thread itself and cannot wait.
  for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGPROF}) {
    sigdelset(&signals, fault);
  }
  return signals;
}

}  // namespace

bool startThread(const char* name, void (*body)(void*), void* argument) noexcept {
  std::unique_ptr<Start> start(new (std::nothrow) Start{name, body, argument});
  pthread_attr_t attributes;
  if (start == nullptr || pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);

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
