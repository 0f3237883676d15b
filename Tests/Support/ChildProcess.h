#pragma once

#include "Tests/Support/Basics.h"

namespace skelda::testing {

/// A forked child that runs `body` and ends with its result. The body starts no threads.
class ChildProcess {
 public:
  template <class Body>
  explicit ChildProcess(Body body) : pid_(::fork()) {
    if (pid_ == 0) ::_exit(body());
  }
  ~ChildProcess() {
    if (pid_ > 0) kill();
  }
  ChildProcess(ChildProcess&&) = delete;

  /// The exit status; -1 where a signal ended it.
  int wait() {
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) continue;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  /// At once, without a word to it.
  void kill() {
    ::kill(pid_, SIGKILL);
    wait();
  }

 private:
  ::pid_t pid_;
};

}  // namespace skelda::testing
