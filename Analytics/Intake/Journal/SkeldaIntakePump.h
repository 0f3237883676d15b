#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "Analytics/Intake/Account/SkeldaIntakeFile.h"
#include "Analytics/Intake/Journal/SkeldaIntakeCall.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaCCPASource.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaEventFrameSource.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaUserDemographicsSource.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaUserPropertiesSource.h"
#include "Analytics/Utils/SkeldaActor/SkeldaActor.h"

/// Carries what the journal holds to the sources, oldest first, through the operations that they
/// have for everybody: calls of this moment, choices from before the first event and what an
/// earlier process left are one stream. At most kWindow records are on their way at a time, so that
/// what waits takes up the journal's memory and no other.
///
/// Two records that follow each other reach the core buffer in their order: before the pump turns
/// to another source it waits until the one before has handed on what it was given.
class SkeldaIntakePump : public SkeldaActor {
 public:
  static constexpr std::size_t kWindow = 64;

  /// Where calls go. One that is null is not there: what is for it is settled as unserialized.
  struct Sources {
    std::shared_ptr<ISkeldaEventFrameSource> events;
    std::shared_ptr<ISkeldaUserPropertiesSource> userProperties;
    std::shared_ptr<ISkeldaCCPASource> privacy;
    std::shared_ptr<ISkeldaUserDemographicsSource> user;
    /// Called before the first record is fed, on the pump's queue; may wait.
    std::function<void()> beforeFirst;
  };

  /// The file's didSettle belongs to the pump from here on.
  static std::shared_ptr<SkeldaIntakePump> pumpOf(std::shared_ptr<SkeldaIntakeFile> file);
  ~SkeldaIntakePump() override;
  std::string_view className() const noexcept override { return "SkeldaIntakePump"; }

  /// Keeps the call; false where it is refused, which is counted and said. Any thread. No lock, no
  /// allocation and no system call but the wake-up of a pump that has nothing to do, the asking for
  /// pages ahead (SkeldaIntakeFile), or for threads that the system has refused.
  bool accept(SkeldaIntakeCall::Kind kind, SkeldaIntakeCall::Values values) noexcept;
  /// Feeding begins. Once.
  void start(Sources sources);
  bool isStarted() const noexcept { return started_.load(std::memory_order_acquire); }
  /// There may be something to feed. Any thread.
  void signal() noexcept;

  const std::shared_ptr<SkeldaIntakeFile>& file() const noexcept { return file_; }

 protected:
  void didInit() override;

 private:
  explicit SkeldaIntakePump(std::shared_ptr<SkeldaIntakeFile> file);
  void refuse(SkeldaRefusal reason) noexcept;
  void didSettle() noexcept;
  bool hasRoom() noexcept;
  void onqueue_start(Sources& sources);
  void onqueue_pump();
  void onqueue_feed(const SkeldaIntakeFile::Record& record);
  bool onqueue_hand(SkeldaIntakeCall& call, const SkeldaIntakeFile::Record& record);
  bool onqueue_handChoice(SkeldaIntakeCall& call, const SkeldaIntakeFile::Record& record);
  template <class Source, class Feed>
  bool onqueue_turnTo(const std::shared_ptr<Source>& source, Feed&& feed);

  const std::shared_ptr<SkeldaIntakeFile> file_;
  std::atomic<bool> started_{false};
  std::atomic<bool> signalled_{false};
  std::atomic<unsigned> waitsForRoom_{0};
  /// A call was refused for want of room, and the pump has not caught up since.
  std::atomic<bool> overflowed_{false};
  /// Of what earlier runs left.
  std::uint64_t replaysLeft_;
  Sources sources_;
  const ISkeldaFrameSource* lastFed_ = nullptr;
  SkeldaActor* lastFedActor_ = nullptr;  // The same, where it is one.
};
