#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Analytics/Streaming/Transfer/SkeldaFileState.h"
#include "Platform/Foundation/Error.h"
#include "Platform/Platform.h"

/// Hears from a transfer agent how transfers end. Any thread; implementations re-post.
class ISkeldaFileTransferAgentDelegate {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaFileTransferAgentDelegate";
  /// A null error is success.
  virtual void didCompleteTransfer(const std::string& fileName, platform::ErrorRef withError) = 0;
  /// The agent gave a file up without a transfer (there is no such file): its state has changed,
  /// and the place it held may go to another.
  virtual void didAbandonTransfer() {}

 protected:
  ~ISkeldaFileTransferAgentDelegate() = default;
};

/// Takes files to be transferred and reports their end to its delegate. Any thread.
class ISkeldaFileTransferAgent {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaFileTransferAgent";
  virtual void setDelegate(std::weak_ptr<ISkeldaFileTransferAgentDelegate> delegate) = 0;
  virtual void startTransfer(SkeldaFileStateRef file) = 0;
  virtual void cancelTransfer(SkeldaFileStateRef file) = 0;

  // -- Fixed by the system, and not called by the agent itself
  virtual void resumeTransfer(SkeldaFileStateRef file) = 0;
  /// The files handed over and not finished, in that order; a copy.
  virtual std::vector<SkeldaFileStateRef> listTransfers() = 0;

 protected:
  ~ISkeldaFileTransferAgent() = default;
};
