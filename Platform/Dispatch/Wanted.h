#pragma once

#include <atomic>
#include <cstdint>

#include "Platform/Dispatch/Time.h"

namespace skelda::platform {

/// What the layer needs of the system and was refused: a thread, a descriptor. It is asked for
/// again until it is there: by every submission, by whoever waits, and with a growing delay by the
/// event thread, or by an idle worker where that thread is among what is wanted. Lives for ever.
class Wanted {
 public:
  Wanted() = default;
  Wanted(const Wanted&) = delete;
  Wanted& operator=(const Wanted&) = delete;

  /// The system has refused. Any thread, whatever locks it holds.
  void askAgain() noexcept;

  /// Whether anything is wanted. One load.
  static bool any() noexcept { return count_.load(std::memory_order_seq_cst) > 0; }
  /// Asks for all of it once, and has somebody do so again if that was not enough.
  static void askForAll() noexcept;
  /// The end of every submission.
  static void afterSubmission() noexcept {
    if (any()) [[unlikely]]
      askForAll();
  }
  /// futexWait() for those who may be waiting for what could not even begin: they ask meanwhile.
  static bool wait(std::atomic<std::uint32_t>& word, std::uint32_t expected,
                   DispatchTime deadline = DispatchTime::forever) noexcept;

 protected:
  ~Wanted() = default;
  /// False while the system refuses. Submits nothing; called without any lock, also when there is
  /// nothing wanted any more.
  virtual bool obtain() noexcept = 0;

 private:
  static std::atomic<std::uint32_t> count_;
  static std::atomic<Wanted*> all_;  // that have ever been refused

  std::atomic<bool> isWanted_{false};
  std::atomic<bool> isListed_{false};
  Wanted* next_ = nullptr;
};

}  // namespace skelda::platform
