#pragma once

#include <functional>
#include <string_view>

#include "Platform/Foundation/Error.h"
#include "Platform/Platform.h"

/// Moves the files of a folder to a transfer agent, one by one and within limits.
class ISkeldaStreamTransferManager {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamTransferManager";
  using Completion = std::function<void(platform::ErrorRef)>;
  /// Starts watching and scans the folder once. The completion, which may be empty, gets the error
  /// of the folder monitor or null. Any thread.
  virtual void startup(Completion completion) = 0;

 protected:
  ~ISkeldaStreamTransferManager() = default;
};
