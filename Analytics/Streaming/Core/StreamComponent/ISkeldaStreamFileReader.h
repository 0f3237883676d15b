#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Platform/Foundation/Error.h"
#include "Platform/Platform.h"

/// Who hears what became of a file that a reader was given: exactly one call per file.
class ISkeldaStreamFileReaderDelegate {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamFileReaderDelegate";
  virtual void processingCompleteForFile(const std::string& fileName) = 0;
  /// `error` is null when the file was merely empty.
  virtual void processingFailedForFile(const std::string& fileName, platform::ErrorRef error) = 0;

 protected:
  ~ISkeldaStreamFileReaderDelegate() = default;
};

/// A stage of the transfer side that reads committed frame logs.
class ISkeldaStreamFileReader {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamFileReader";

  /// Reads the file `fileName` of the folder `path`. Any thread; returns at once.
  virtual void processFile(const std::string& fileName, const std::string& path) = 0;
  /// Held weakly.
  virtual void setDelegate(std::weak_ptr<ISkeldaStreamFileReaderDelegate> delegate) = 0;

 protected:
  ~ISkeldaStreamFileReader() = default;
};
