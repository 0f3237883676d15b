#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <unordered_set>

#include "Platform/Base/Mutex.h"
#include "Tools/skelda-collector/Certificates.h"
#include "Tools/skelda-collector/LogSink.h"
#include "Tools/skelda-collector/Stream/KeyAdmission.h"

struct MHD_Connection;
struct MHD_Daemon;

/// The ingestion endpoint without a state of its own:
///  - POST /v1/skd.do: a frame log; 200 once the sink has it, else 503 with Retry-After
///  - GET /healthz: whether the process serves
///  - GET /readyz: 200 where a log that came now could be kept, else 503
///  - GET /metrics: figures, in the text form of Prometheus
///
/// A few threads serve all connections; one that waits for its peer, or for the sink, holds none.
/// Whoever is slower than a bound for each step, from the handshake to the end of the body, is
/// broken off.
class IngestServer {
 public:
  struct Options {
    std::set<std::string> apiKeys;                      // none: every key is taken
    double logsASecondByKey = 0;                        // 0: no limit
    std::size_t maxBytes = std::size_t{64} << 20;       // of a log, as far as the sink takes them
    std::size_t maxHeldBytes = std::size_t{256} << 20;  // of all bodies in memory
    unsigned connections = 12'000;
    unsigned connectionsByAddress = 0;  // 0: no limit; behind a balancer all come from one
    unsigned idleSeconds = 10;          // nothing moves
    unsigned headSeconds = 15;          // from the connection, or the last answer, to a whole head
    unsigned bodySeconds = 30;          // and one more for each KiB that has come
    bool acceptsAll = false;            // also what is no frame log
    unsigned threads = 2;
    unsigned retryAfter = 30;  // seconds
  };

  /// Serves `listener` from here on, plain HTTP without certificates. Throws std::runtime_error.
  IngestServer(Options options, LogSink& sink, int listener, const Certificates* certificates);
  /// The sink is stopped by then, so that no request waits for it.
  ~IngestServer();
  IngestServer(const IngestServer&) = delete;
  IngestServer& operator=(const IngestServer&) = delete;

  /// From here on no connection is taken, and no log.
  void quiesce();
  /// Returns once no request that has come whole waits for the sink.
  void awaitAnswers() const;
  std::string metrics() const;

 private:
  struct Peer;
  struct Request;
  struct Callbacks;
  using Clock = std::chrono::steady_clock;

  void start(int listener, const Certificates* certificates);
  Request* begin(MHD_Connection* connection, const char* path, const char* method);
  void beginLog(Request& request, MHD_Connection* connection);
  void receive(Request& request, std::string_view bytes);
  bool take(Request& request, MHD_Connection* connection);
  int answer(Request& request, MHD_Connection* connection);
  void end(Request* request);
  void noteTook(Clock::duration took);
  std::string answersText() const;
  std::string timesText() const;

  Peer* peerOf(MHD_Connection* connection) const;
  void greet(MHD_Connection* connection, void** context);
  void part(void** context);
  void breakOffSlow();

  static constexpr std::array<double, 10> kBuckets{.005, .01, .025, .05, .1, .25, .5, 1, 2.5, 10};

  const Options options_;
  LogSink& sink_;
  KeyAdmission admission_;
  MHD_Daemon* daemon_ = nullptr;

  skelda::platform::Mutex mutex_;
  skelda::platform::Condition stopped_;
  bool isStopping_ GUARDED_BY(mutex_) = false;
  std::unordered_set<Peer*> peers_ GUARDED_BY(mutex_);
  std::thread reaper_;

  std::atomic<bool> isQuiet_ = false;
  std::atomic<std::size_t> connections_ = 0;
  std::atomic<std::size_t> held_ = 0;
  std::atomic<std::size_t> waiting_ = 0;
  std::array<std::atomic<std::uint64_t>, 600> answers_{};  // by status
  std::array<std::atomic<std::uint64_t>, kBuckets.size() + 1> took_{};
  std::atomic<std::uint64_t> tookMicroseconds_ = 0;
  std::atomic<std::uint64_t> bytes_ = 0;
  std::atomic<std::uint64_t> repeats_ = 0;
  std::atomic<std::uint64_t> damaged_ = 0;
  std::atomic<std::uint64_t> brokenOff_ = 0;
};
