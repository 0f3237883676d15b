#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

extern char** environ;

namespace skelda::testing {

/// A part of a test that needs a process of its own: the test program runs itself again with the
/// scenario's name in the environment, and its main() then does nothing else. What it prints and
/// logs comes back, with the status that it ended with.
class Scenario {
 public:
  static constexpr const char* kVariable = "SKELDA_SCENARIO";
  using Body = int (*)();

  Scenario(const char* name, Body body) { all()[name] = body; }

  /// The name of the scenario this process is for; empty in the test program itself.
  static std::string_view requested() {
    const char* name = ::getenv(kVariable);
    return name == nullptr ? "" : name;
  }
  static int runRequested() {
    const auto found = all().find(requested());
    if (found == all().end()) return 127;
    const int failures = found->second();
    std::fflush(stdout);
    return failures;
  }

  struct Outcome {
    int status = -1;  // -1 where a signal ended it
    std::string output;

    std::size_t count(std::string_view part) const {
      std::size_t found = 0;
      for (auto at = output.find(part); at != std::string::npos; at = output.find(part, at + 1)) {
        ++found;
      }
      return found;
    }
  };

  /// Runs it to its end in the environment of this moment.
  static Outcome run(const char* name) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    ::posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    ::setenv(kVariable, name, 1);
    ::setenv("SKELDA_LOG", "stderr", 1);
    std::string self = "/proc/self/exe";
    char* arguments[] = {self.data(), nullptr};
    ::pid_t child = 0;
    const int failed = ::posix_spawn(&child, self.c_str(), &actions, nullptr, arguments, environ);
    ::unsetenv(kVariable);
    ::unsetenv("SKELDA_LOG");
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(ends[1]);
    if (failed != 0) throw std::runtime_error("posix_spawn");

    Outcome outcome;
    char buffer[4096];
    for (ssize_t got = 0; (got = ::read(ends[0], buffer, sizeof buffer)) > 0;) {
      outcome.output.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFEXITED(status)) outcome.status = WEXITSTATUS(status);
    return outcome;
  }

 private:
  static std::map<std::string, Body, std::less<>>& all() {
    static auto& scenarios = *new std::map<std::string, Body, std::less<>>();
    return scenarios;
  }
};

}  // namespace skelda::testing
