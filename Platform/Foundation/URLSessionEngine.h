#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

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
  void startThread();

  // On the network thread.
  void run();
  bool setUp();
  void runCommands();
  bool waitForCommands();
  void startTransfer(const URLSessionTaskRef& task);
  void goOn(URLSessionTransfer& transfer, std::optional<URLRequest> request);
  bool addToMulti(URLSessionTransfer& transfer);
  void collectFinished();
  void didFinish(URLSessionTransfer& transfer, int result);
  void proposeRedirect(URLSessionTransfer& transfer, URLRequest proposed);
  void expire();
  void poll();
  void complete(URLSessionTransfer& transfer, ErrorRef error);
  /// With the lock held.
  void failEverything(std::string_view reason);

  static void restOnExit();
  [[noreturn]] void restForever();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Command> commands_;  // guarded, as are the four below
  bool threadRuns_ = false;
  bool resting_ = false;   // exit() has begun
  bool atRest_ = false;    // and the thread has seen it
  void* multi_ = nullptr;  // changed by the thread only, under the lock

  // The thread's own.
  void* share_ = nullptr;
  bool canBeWoken_ = false;
  std::unordered_map<URLSessionTask*, std::unique_ptr<URLSessionTransfer>> transfers_;
};

}  // namespace skelda::platform
