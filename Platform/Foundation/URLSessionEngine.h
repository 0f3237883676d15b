#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string_view>

#include "Platform/Foundation/URLSession.h"

namespace skelda::platform {

class URLSessionTransfer;

/// Runs the transfers of all sessions on one thread with one set of connections. The thread starts
/// with the first transfer and sleeps in the sockets' poll; when none has run for a few seconds it
/// closes the connections and ends, so that an idle process has neither. Never destroyed; on exit()
/// the thread is brought to rest before the TLS library goes. Any thread.
class URLSessionEngine {
 public:
  static URLSessionEngine& shared();

  void start(URLSessionTaskRef task);
  /// Does nothing for a task that has ended.
  void cancel(URLSessionTaskRef task);
  /// The delegate's answer to a redirect; without a request the redirecting answer stands.
  void decideRedirect(URLSessionTaskRef task, std::optional<URLRequest> request);

 private:
  struct Command {
    enum class Kind { start, cancel, redirect } kind;
    URLSessionTaskRef task;
    std::optional<URLRequest> request;
  };

  URLSessionEngine() = default;
  void submit(Command command);
  void startThread() REQUIRES(mutex_);

  // On the network thread.
  void run();
  bool setUp();
  bool step();
  void runCommands();
  void runCommand(const Command& command);
  bool waitForCommands();
  void startTransfer(const URLSessionTaskRef& task);
  void goOn(URLSessionTransfer& transfer, std::optional<URLRequest> request);
  void putOnWire(URLSessionTransfer& transfer);
  void collectFinished();
  void didFinish(URLSessionTransfer& transfer, int result);
  void proposeRedirect(URLSessionTransfer& transfer, URLRequest proposed);
  void expire();
  void startWhatWaited();
  void poll();
  void complete(URLSessionTransfer& transfer, ErrorRef error);
  void failEverything(std::string_view reason) REQUIRES(mutex_);

  static void restOnExit();
  [[noreturn]] void restForever();

  Mutex mutex_;
  Condition changed_;
  std::list<Command> commands_ GUARDED_BY(mutex_);
  bool threadRuns_ GUARDED_BY(mutex_) = false;
  bool waits_ GUARDED_BY(mutex_) = false;    // the thread has no transfer, and sleeps on changed_
  bool resting_ GUARDED_BY(mutex_) = false;  // exit() has begun
  bool atRest_ GUARDED_BY(mutex_) = false;   // and the thread has seen it
  void* wakeable_ GUARDED_BY(mutex_) = nullptr;  // multi_ while others may wake it

  // The thread's own.
  void* multi_ = nullptr;
  void* share_ = nullptr;
  bool canBeWoken_ = false;
  std::map<URLSessionTask*, std::unique_ptr<URLSessionTransfer>> transfers_;
};

}  // namespace skelda::platform
