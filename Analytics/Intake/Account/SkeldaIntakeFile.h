#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Analytics/Intake/Account/SkeldaAccountPage.h"
#include "Analytics/Intake/Account/SkeldaIntakeTicket.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Foundation/Error.h"
#include "Platform/Platform.h"

namespace SkeldaIntakeLayout {
class Place;
struct Page;
struct Record;
}  // namespace SkeldaIntakeLayout

/// The file behind the intake journal and the account: one page of counters, then four segments
/// that records are appended to. Mapped shared, so that what a call has stored is there whatever
/// kills the process after it; allocated in full when it is made, so that a full disk shows there.
/// What a loss of power leaves of it is not promised: nothing here is synchronised. Where no file
/// can be had the same layout lies in memory alone and isProtected() is false.
///
/// Format: docs/intake-format.md. Any thread. append() takes no lock and does not allocate, and one
/// call in some hundred asks the system for the pages that the next ones will write to: one page at
/// a time, as a first store would, they cost each call that comes first to one, and more where
/// several threads come at once. All else may take a lock. Of no use in a forked child, which has
/// no part in it.
class SkeldaIntakeFile {
 public:
  static constexpr std::size_t kHeaderLength = 4096;
  static constexpr std::size_t kSegmentCount = 4;
  /// Bytes of an address that the page has room for.
  static constexpr std::size_t kLongestServer = 1024;
  /// Records begin at multiples of it.
  static constexpr std::size_t kAlignment = 16;
  /// A record that so many starts took up is taken up alone, and dropped after so many of these:
  /// whoever dies of a record must not take those down that were under way beside it.
  static constexpr unsigned kAttemptsBesideOthers = 2;
  static constexpr unsigned kAttemptsAlone = 3;
  /// More calls than this are not taken to have been under way at a kill.
  static constexpr std::uint64_t kMostCutOff = 64;

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

  /// What open() found and did, by kind - 1 where there are two.
  struct Opening {
    std::array<std::uint64_t, 2> waiting{};  ///< left by earlier runs, to be taken up
    std::array<std::uint64_t, 2> cutOff{};   ///< calls that the last kill fell into
    std::uint64_t otherKey = 0;              ///< dropped, as are the next two
    std::uint64_t otherVersion = 0;
    std::uint64_t replayedTooOften = 0;
    bool wasInconsistent = false;  ///< the account did not add up, and was corrected
    std::string setAside;          ///< where a file went that could not be read
  };

  /// Opens or makes the file for `capacity` bytes of records under the key of that hash, settles
  /// what a kill left half done, and drops with its reason what cannot be taken up. The caller
  /// holds the storage lock. The name of the file ends in "_<version>.<suffix>"; files of other
  /// versions beside it are taken over. Another capacity than the file's is taken on at a start
  /// that finds nothing waiting. Where no file can be had the answer is in memory, and `error` says
  /// why; null only where there is no memory for that either.
  static std::shared_ptr<SkeldaIntakeFile> open(const std::string& path, std::size_t capacity,
                                                std::uint64_t keyHash,
                                                platform::ErrorRef* error = nullptr) noexcept;
  /// Null where there is no memory for it.
  static std::shared_ptr<SkeldaIntakeFile> inMemory(std::size_t capacity) noexcept;
  ~SkeldaIntakeFile();
  SkeldaIntakeFile(const SkeldaIntakeFile&) = delete;
  SkeldaIntakeFile& operator=(const SkeldaIntakeFile&) = delete;

  const Opening& opening() const noexcept { return opening_; }
  /// Whether what is appended outlives the process.
  bool isProtected() const noexcept { return isProtected_; }
  std::size_t capacity() const noexcept { return kSegmentCount * segmentLength_; }
  /// The longest payload that a record may have.
  std::size_t longestPayload() const noexcept;

  /// Appends one record; `write` fills exactly `length` bytes and throws nothing. 0 where there is
  /// no room. When it returns, the record is kept.
  template <class Write>
  SkeldaIntakeTicket append(Kind kind, std::int64_t microsecondsSince1970,
                            std::int64_t uptimeMilliseconds, std::size_t length,
                            Write&& write) noexcept {
    const Reservation place = reserve(kind, length);
    if (place.payload == nullptr) return kSkeldaNoTicket;
    write(place.payload);
    return publish(place, kind, microsecondsSince1970, uptimeMilliseconds, length);
  }

  /// The oldest record that was not taken yet, in the order in which places were reserved; nothing
  /// where there is none, where the next one is being written at this moment (its append() returns
  /// later), or where it must go alone and others are under way (their settling comes later). Taken
  /// for this process. Throws std::bad_alloc, and then nothing is taken. `room` is memory for the
  /// payload.
  std::optional<Record> takeOldest(std::string room = {});
  /// Whether takeOldest() would find one.
  bool hasUntaken() const noexcept;

  /// What became of a record that was taken: marks it and counts it, so that no kill in between
  /// makes the account untrue. Of a ticket that was settled already, or 0, nothing happens. True
  /// where this call settled it.
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

  /// Where logs are sent: for whoever looks at the file, the agent never reads it.
  void setServer(std::string_view address) noexcept;
  /// The counters, alive: in the file's first page where there is one.
  SkeldaAccountPage& page() noexcept;

 private:
  friend class SkeldaIntakeOpening;
  friend class SkeldaIntakeRepair;
  using Place = SkeldaIntakeLayout::Place;
  using Slot = SkeldaIntakeLayout::Record;
  struct Reservation {
    char* payload = nullptr;
    std::uint64_t place = 0;
    std::uint64_t sequence = 0;
  };
  struct Waiter {
    std::uint64_t before = 0;  ///< the place at which it began to wait
    std::uint64_t units = 0;   ///< of records before that, not yet settled
    Waiter* next = nullptr;
  };

  SkeldaIntakeFile() = default;

  Reservation reserve(Kind kind, std::size_t length) noexcept;
  SkeldaIntakeTicket publish(const Reservation& place, Kind kind,
                             std::int64_t microsecondsSince1970, std::int64_t uptimeMilliseconds,
                             std::size_t length) noexcept;
  char* segment(std::size_t index) const noexcept;
  Slot& slot(Place place) const noexcept;
  Place tail() const noexcept;
  bool isFree(std::size_t segment) const noexcept;
  void leave(Place place) noexcept;

  Place nextUntaken(Place tail) const noexcept REQUIRES(mutex_);
  bool isUntaken(Place place, Place tail) const noexcept REQUIRES(mutex_);
  Place nextOfEarlierRuns(Place from) const noexcept;
  bool isWhole(Place place) const noexcept;
  bool settleLocked(Place place, SkeldaIntakeOutcome outcome) noexcept REQUIRES(mutex_);
  void countSettled(Place place, std::uint64_t units) noexcept REQUIRES(mutex_);
  std::uint64_t unsettledUnits(Place before) const noexcept REQUIRES(mutex_);
  void beginAnew() noexcept REQUIRES(mutex_);

  // Pages, as units of a segment; what lies behind its end is left out.
  void touchTail() const noexcept;
  void touchAhead(Place from, Place to) const noexcept;
  void touch(std::size_t segment, std::uint64_t begin, std::uint64_t end) const noexcept;
  void forget(std::size_t segment, std::uint64_t begin, std::uint64_t end) const noexcept;
  void forgetSettled(Place place, std::uint64_t units) const noexcept;
  void returnToBegin(Place from) const noexcept;
  void readAhead(std::size_t segment, std::uint64_t end) const noexcept;

  // Set before any other thread knows the object.
  SkeldaIntakeLayout::Page* page_ = nullptr;
  std::size_t mappedLength_ = 0;
  std::size_t segmentLength_ = 0;
  std::uint64_t salt_ = 0;
  std::uint32_t boot_ = 0;
  bool isProtected_ = false;
  /// Records before it are of earlier runs, and may have holes between them.
  std::uint64_t earlierRuns_ = 0;
  Opening opening_;
  std::function<void()> didSettle_;

  mutable platform::Mutex mutex_;
  platform::Condition waited_;
  std::uint64_t cursor_ GUARDED_BY(mutex_) = 0;
  std::size_t taken_ GUARDED_BY(mutex_) = 0;
  bool alone_ GUARDED_BY(mutex_) = false;  ///< what is taken goes alone
  Waiter* waiters_ GUARDED_BY(mutex_) = nullptr;
};
