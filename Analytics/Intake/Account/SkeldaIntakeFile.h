#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Analytics/Intake/Account/SkeldaAccountPage.h"
#include "Analytics/Intake/Account/SkeldaIntakeTicket.h"
#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Mutex.h"
#include "Platform/Platform.h"

/// The file behind the intake journal and the account: one page of counters, then four segments
/// that records are appended to. Mapped shared, so that what a call has stored is there whatever
/// kills the process after it; allocated in full when it is made, so that a full disk shows there.
/// Where no file can be had the same layout lies in memory alone and isProtected() is false.
///
/// Format: docs/intake-format.md. Any thread. append() takes no lock, makes no system call and does
/// not allocate; all else may take a lock.
class SkeldaIntakeFile {
 public:
  static constexpr std::size_t kHeaderLength = 4096;
  static constexpr std::size_t kSegmentCount = 4;
  /// Records begin at multiples of it.
  static constexpr std::size_t kAlignment = 16;

  enum class Kind : std::uint8_t { event = 1, choice = 2 };

  struct Record {
    SkeldaIntakeTicket ticket = kSkeldaNoTicket;
    Kind kind = Kind::event;
    /// Numbers the accepted records of a kind, from 1, over all runs.
    std::uint64_t sequence = 0;
    std::int64_t microsecondsSince1970 = 0;
    /// Since the boot of the run that took it.
    std::int64_t uptimeMilliseconds = 0;
    bool isOfThisBoot = true;
    /// Whether an earlier process took it.
    bool isReplayed = false;
    std::string payload;
  };

  /// Opens or makes the file for `capacity` bytes of records under the key of that hash, settles
  /// what a kill left half done, and drops with its reason what cannot be taken up. The caller
  /// holds the storage lock. Never null and never throws: where no file can be had the answer is in
  /// memory, and `error` says why.
  static std::shared_ptr<SkeldaIntakeFile> open(const std::string& path, std::size_t capacity,
                                                std::uint64_t keyHash,
                                                platform::ErrorRef* error = nullptr) noexcept;
  static std::shared_ptr<SkeldaIntakeFile> inMemory(std::size_t capacity) noexcept;
  ~SkeldaIntakeFile();
  SkeldaIntakeFile(const SkeldaIntakeFile&) = delete;
  SkeldaIntakeFile& operator=(const SkeldaIntakeFile&) = delete;

  /// Whether what is appended outlives the process.
  bool isProtected() const noexcept { return isProtected_; }
  std::size_t capacity() const noexcept;
  /// The longest payload that a record may have.
  std::size_t longestPayload() const noexcept;

  /// Appends one record; `write` fills exactly `length` bytes and throws nothing. 0 where there is
  /// no room. When it returns, the record is kept.
  template <class Write>
  SkeldaIntakeTicket append(Kind kind, std::int64_t microsecondsSince1970,
                            std::int64_t uptimeMilliseconds, std::size_t length,
                            Write&& write) noexcept {
    Reservation place = reserve(kind, length);
    if (place.payload == nullptr) return kSkeldaNoTicket;
    write(place.payload);
    return publish(place, kind, microsecondsSince1970, uptimeMilliseconds, length);
  }

  /// The oldest record that was not taken yet, in the order in which places were reserved; nothing
  /// where there is none, or where the next one is being written at this moment (then its publish
  /// comes before hasUntaken() answers true). Taken for this process; one taker at a time.
  std::optional<Record> takeOldest();
  bool hasUntaken() const noexcept;

  /// What became of a record: marks it and counts it, so that no kill in between makes the account
  /// untrue. Of a ticket that was settled already, or 0, nothing happens. True where this call
  /// settled it.
  bool settle(SkeldaIntakeTicket ticket, SkeldaIntakeOutcome outcome) noexcept;
  /// How many were taken and are not settled.
  std::size_t takenCount() const noexcept;
  /// How many were accepted and are not settled, taken or not.
  std::uint64_t waitingCount(Kind kind) const noexcept;
  /// Called after each settling, on its thread, without a lock. Set once, before the first append.
  void setDidSettle(std::function<void()> didSettle);

  /// True once every record appended before the call is settled; false at the deadline
  /// (CLOCK_MONOTONIC).
  bool waitUntilSettled(std::chrono::steady_clock::time_point deadline);

  /// The counters, alive: in the file's first page where there is one.
  SkeldaAccountPage& page() noexcept;

 private:
  struct Reservation {
    char* payload = nullptr;
    std::uint64_t position = 0;
    std::uint64_t sequence = 0;
  };

  SkeldaIntakeFile() = default;
  Reservation reserve(Kind kind, std::size_t length) noexcept;
  SkeldaIntakeTicket publish(const Reservation& place, Kind kind,
                             std::int64_t microsecondsSince1970, std::int64_t uptimeMilliseconds,
                             std::size_t length) noexcept;

  bool isProtected_ = false;
};
