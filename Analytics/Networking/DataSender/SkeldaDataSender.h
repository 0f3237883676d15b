#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "Analytics/Networking/DataSender/SkeldaDataSenderBase.h"
#include "Analytics/Networking/DataSender/SkeldaDataSenderIndex.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Platform/Foundation/Data.h"
#include "Platform/Platform.h"

inline constexpr std::string_view kSkeldaSenderIndexFileName =
    SkeldaAgentFiles::kSenderIndexFileName;

/// What the frame log sender needs of a data sender.
class ISkeldaFrameLogDataSender {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaFrameLogDataSender";
  /// Returns once the bytes are a stored block that the index names, both synchronised. False where
  /// they could not be stored: then they are still the caller's to keep, and may be given again.
  virtual bool sendFrameLogData(platform::Data data) = 0;

 protected:
  ~ISkeldaFrameLogDataSender() = default;
};

/// Stores payloads as blocks, posts them to the ingestion server, and drops a block when the server
/// has accepted it or calls it malformed. Everything else is sent again after the next success or
/// network change. Public calls are safe from any thread but the main one and run on `queue`.
class SkeldaDataSender final : public SkeldaDataSenderBase,
                               public SkeldaURLSessionTaskDelegate,
                               public ISkeldaFrameLogDataSender {
 public:
  using TaskRef = SkeldaDataSenderBase::TaskRef;
  using Fate = SkeldaDataSenderIndex::Fate;

  /// Makes the process-wide instance, for the host's API key; once it is there, further calls
  /// change nothing.
  static void setupInstanceWithQueue(
      platform::QueueRef queue, std::shared_ptr<SkeldaBackgroundTaskTracker> backgroundTracker =
                                    SkeldaBackgroundTaskTracker::defaultTracker());
  /// Null before set-up.
  static std::shared_ptr<SkeldaDataSender> sharedInstance();
  /// Why the last request of this process had no answer; empty where it had one.
  static std::string lastFailure();
  /// An instance of one's own, with a key of one's own. Two must not use one storage folder.
  static std::shared_ptr<SkeldaDataSender> senderWithQueue(
      platform::QueueRef queue, std::shared_ptr<SkeldaBackgroundTaskTracker> backgroundTracker,
      std::optional<std::string> apiKey);

  std::string_view className() const noexcept override { return "SkeldaDataSender"; }
  bool sendFrameLogData(platform::Data data) override;

  /// The new block's identifier; nothing where it could not be stored.
  std::optional<std::string> storeData(const platform::Data& data);
  void removeStoredDataWithIdentifier(const std::string& identifier,
                                      Fate fate = Fate::acknowledged);
  /// Builds and starts one request; on `queue`.
  void sendData(std::shared_ptr<const platform::Data> data, const std::string& identifier);
  /// Sends the stored blocks that are not in flight, as far as the window goes. Posted.
  void retransmitNotSentBlocks();

  void skeldaUrlRequestDidSucceed(const TaskRef& task, const ResponseRef& response) override;
  void skeldaUrlRequestDidFail(const TaskRef& task, const ResponseRef& response) override;
  void skeldaUrlRequestDidCancel(const TaskRef& task, const ResponseRef& response) override;

  const std::shared_ptr<SkeldaDataSenderIndex>& dataIndex() const noexcept { return dataIndex_; }
  /// What the blocks are filed under; the first use prepares the index for it.
  const std::string& dataKey();

  // -- Fixed by the system, and not called by the agent itself
  bool sendFrameLogData(platform::Data data, CompletionHandler completionHandler);
  bool sendSessionsData(platform::Data data, CompletionHandler completionHandler = nullptr);
  bool everSentReportSuccessfully() const noexcept;
  /// Held weakly, and told nothing. Set before the first payload is given.
  void setDataSenderDelegate(const platform::ObjectRef& delegate) {
    dataSenderDelegate_ = delegate;
  }
  platform::ObjectRef dataSenderDelegate() const { return dataSenderDelegate_.lock(); }

 private:
  SkeldaDataSender(platform::QueueRef queue,
                   std::shared_ptr<SkeldaBackgroundTaskTracker> backgroundTracker,
                   std::optional<std::string> apiKey);

  enum class Outcome { notStored, stored, sent };
  Outcome storeAndSend(platform::Data data, CompletionHandler completionHandler);
  bool isFullAndBeingEmptied();
  std::set<std::string> onqueue_runningTags() const;
  // On `queue`, those without the prefix too: their names are fixed.
  void requestSuccessComplete(const TaskRef& task, const ResponseRef& response);
  void requestFailedComplete(const TaskRef& task, const ResponseRef& response);
  void onqueue_taskDidEnd(const TaskRef& task, bool completedSuccessfuly);
  void onqueue_retransmitNotSentBlocks();
  void performRetransmitNotSentBlocks() override;
  void didCompleteAllTasks() override;

  const std::optional<std::string> apiKey_;
  const std::string dataKey_;
  const std::shared_ptr<SkeldaDataSenderIndex> dataIndex_;
  bool indexPrepared_ = false;
  std::weak_ptr<platform::Object> dataSenderDelegate_;
};
