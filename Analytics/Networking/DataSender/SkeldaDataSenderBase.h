#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "Analytics/Networking/DataSender/SkeldaBackgroundTaskTracker.h"
#include "Analytics/Networking/DataSender/SkeldaURLSessionTask.h"
#include "Platform/Dispatch/Queue.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Platform.h"

/// One more than this many tasks can run: the test is inclusive.
inline constexpr std::size_t kSkeldaMaxOngoingHTTPTasksNumber = 8;

/// Keeps the running HTTP tasks and asks for a retransmission when there is hope for one. All its
/// state belongs to `queue`, on which every method is called that does not say otherwise (their
/// names are fixed and have no prefix for it).
class SkeldaDataSenderBase : public platform::Object,
                             public std::enable_shared_from_this<SkeldaDataSenderBase> {
 public:
  using TaskRef = std::shared_ptr<SkeldaURLSessionTask>;
  using CompletionHandler = std::function<void()>;

  ~SkeldaDataSenderBase();

  const platform::QueueRef& queue() const noexcept { return queue_; }
  const std::vector<TaskRef>& runningTasks() const noexcept { return runningTasks_; }
  void registerNewTask(const TaskRef& task);
  /// The task must be a running one: platform assertion.
  void unregisterTask(const TaskRef& task, bool completedSuccessfuly);
  /// Inclusive: true with 8 running tasks, so a ninth may start.
  bool hasOngoingTasksWindow() const noexcept;
  /// Any thread.
  void networkStatusChanged(const platform::Notification& notification);

  // -- Fixed by the system, and not called by the agent itself
  void cancelTasks();

 protected:
  SkeldaDataSenderBase(platform::QueueRef queue,
                       std::shared_ptr<SkeldaBackgroundTaskTracker> backgroundTaskTracker);
  /// Called by the factory, once the object is owned.
  void didInit();

  virtual void performRetransmitNotSentBlocks() = 0;
  virtual void didCompleteAllTasks() {}
  bool isRunning(const TaskRef& task) const noexcept;
  void setCompletionHandler(CompletionHandler handler) { completionHandler_ = std::move(handler); }

  /// Posts to `queue`, guarded: what the work throws is reported, counted and dropped.
  void post(std::function<void()> work);
  /// Runs on `queue` and waits; at once where the caller is on it. What the work throws passes.
  void runOnQueue(const std::function<void()>& work);

 private:
  platform::QueueRef queue_;
  std::shared_ptr<SkeldaBackgroundTaskTracker> backgroundTaskTracker_;
  std::vector<TaskRef> runningTasks_;
  CompletionHandler completionHandler_;
  platform::NotificationCenter::Token networkToken_ = 0;
};
