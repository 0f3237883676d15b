#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/KeyedArchive.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"
#include "Platform/WatchKit/WKInterfaceDevice.h"

namespace skelda::platform {
class Queue;
struct FileSystemAttributes;
}  // namespace skelda::platform

/// What every other class leans on: log level, the sink of caught exceptions, soft assertions, the
/// storage folder, archives, text helpers, uptime, counters and device figures. Class methods only,
/// safe from any thread; none throws but the three queue and thread assertions.
class SkeldaUtil {
 public:
  SkeldaUtil() = delete;

  // -- Settings: atomic, written at start-up, read everywhere. All off at first.

  /// 0 is silent, 1 and up errors, 2 and up detail.
  static void setLogLevel(unsigned level) noexcept {
    logLevel_.store(level, std::memory_order_relaxed);
  }
  static unsigned logLevel() noexcept { return logLevel_.load(std::memory_order_relaxed); }
  /// Whether a line of that level is written; level 0 lines always are.
  static bool logs(unsigned minimumLevel) noexcept { return logLevel() >= minimumLevel; }
  /// Whether a line of that level is said, and somebody reads it: one call for each place that has
  /// one.
  static bool says(unsigned minimumLevel) noexcept;
  static void setShowErrorInLogEnabled(bool enabled) noexcept { showErrors_.store(enabled); }
  static bool isShowErrorInLogEnabled() noexcept { return showErrors_.load(); }
  static void setDebugAssertEnabled(bool enabled) noexcept { debugAsserts_.store(enabled); }
  static bool isDebugAssertEnabled() noexcept { return debugAsserts_.load(); }

  // -- Reporting

  /// The one sink of caught exceptions and errors. Logs when errors are shown and the level is 2 or
  /// more; never throws.
  static void handleException(const std::exception& exception) noexcept;
  static void handleException(const platform::ErrorRef& error) noexcept;
  static void handleException(const platform::Value& object) noexcept;
  /// Whatever was thrown; null is nothing.
  static void handleException(const std::exception_ptr& thrown) noexcept;

  /// Soft assertions return what was tested. Where it fails and debug assertions are enabled, they
  /// log and abort the process; otherwise the caller goes on to its own failure branch.
  static bool assert_(bool condition, std::string_view tag = {}) noexcept {
    if (condition) [[likely]]
      return true;
    assertionFailed(tag);
    return false;
  }
  /// For pointers, optionals and values: not nil.
  template <class T>
  static bool assertNotNil(const T& object, std::string_view tag = {}) noexcept {
    if (!isNil(object)) [[likely]]
      return true;
    nilAssertionFailed(tag);
    return false;
  }

  /// Platform assertions: raise platform::Exception.
  static void assertThreadIsNotMain();
  static void assertRunningOnQueue(const std::shared_ptr<platform::Queue>& queue);
  static void assertNotRunningOnQueue(const std::shared_ptr<platform::Queue>& queue);

  // -- The storage folder and archives (SkeldaUtilStorage.cpp)

  /// <application support>/SkeldaFiles, without a slash at its end; made, excluded from backup and
  /// logged once, then remembered. Where it cannot be made the path comes back all the same and the
  /// next call tries again.
  static std::string filePathDirectory();
  /// Puts the folder itself on disk for good: where it had to be made, a loss of power before that
  /// takes it with all that is in it. Waits for the disk.
  static bool synchronizeFilePathDirectory() noexcept;
  /// Forgets the folder, so that the next call follows the environment of that moment. For tests.
  static void resetFilePathDirectory();
  /// Takes a path; true as well where the file system has no attributes.
  static bool addSkipBackupAttributeToItemAtURL(const std::string& path) noexcept;

  /// Replaces the file atomically. A dictionary is archived under the class name "NSDictionary".
  static bool archiveObject(const platform::Value& object, const std::string& path) noexcept;
  static bool archiveObject(const platform::KeyedArchive& object, const std::string& path) noexcept;
  /// An archive that is a text already.
  static bool storeArchive(const platform::Data& archive, const std::string& path) noexcept;
  static bool archiveDictionary(const platform::Value& dictionary,
                                const std::string& path) noexcept;
  static bool _archiveObject(const platform::KeyedArchive& object,
                             const std::string& path) noexcept;
  /// Nothing and no error: the file is absent, or was malformed and has been deleted. Nothing and
  /// an error: it cannot be read just now (no descriptors, an input error); it is left as it is,
  /// and whoever overwrites it loses what it holds.
  static std::optional<platform::KeyedArchive> safeUnarchiveObjectWithFile(
      const std::optional<std::string>& path, platform::ErrorRef* error = nullptr) noexcept;
  static bool removeObjectAtPath(const std::string& path) noexcept;
  static bool _removeObjectAtPath(const std::string& path) noexcept;
  static bool dataExistsAtPath(const std::string& path) noexcept;

  // -- Text and identifiers (SkeldaUtilText.cpp)

  /// Nil and the empty text yield nil.
  static std::optional<std::string> string2Base64UTF8String(std::optional<std::string_view> text);
  /// Nil for what is not base64 of UTF-8, and for nil and the empty text.
  static std::optional<std::string> base64EncodedString2UTF8String(
      std::optional<std::string_view> text);
  /// Keys and values as base64 texts; what is not text goes through its "%@" first. An entry whose
  /// key or value encodes to nothing is left out with a log line.
  static platform::Dictionary dictionary2Base64UTF8Dictionary(
      const platform::Dictionary& dictionary);
  static std::string hexadecimalStringForData(const platform::Data& data);
  /// Either case; dashes are passed over, so that a UUID's text can be read. Nil for anything else.
  static std::optional<platform::Data> dataFromHexString(std::optional<std::string_view> text);
  static std::string generateCFUUID();
  /// At most `maxLength` bytes of UTF-8, never cut inside a character.
  static std::optional<std::string> trimString(std::optional<std::string_view> text,
                                               std::size_t maxLength);
  /// A UUID of this machine and application; nil while there is no machine id.
  static std::optional<std::string> getIdentifierForVendor();
  /// The agent's own device identifier: 32 hexadecimal digits hashed from the machine id and the
  /// bundle identifier, the same for the life of the installation; nil while there is no machine
  /// id. The machine id cannot be told from it.
  static std::optional<std::string> getSkeldaId();

  // -- Time

  /// Seconds since boot, suspension included; 0 where the system does not say.
  static double uptime() noexcept;
  /// Milliseconds since boot, truncated.
  static std::int64_t uptimeInMilliseconds() noexcept;
  /// Whole seconds since 1970 at which the machine booted; 0 where the system does not say.
  static std::int64_t lastBootTime() noexcept;

  // -- Named counters, for debugging. A lock guards them.

  static void incrementCounter(std::string_view name);
  static void decrementCounter(std::string_view name);
  static void incrementCounter(std::string_view name, std::string_view locationName);
  static void decrementCounter(std::string_view name, std::string_view locationName);
  static void printCounters();
  static std::map<std::string, std::int64_t, std::less<>> allCounters();

  // -- Host and device (SkeldaUtilDevice.cpp)

  static bool isInWatchExtension();
  static bool isInAppExtension();
  /// The model of the device.
  static std::string devicePlatform();
  /// 0 by 0 where no screen is known.
  static platform::ScreenBounds deviceScreenBounds();
  /// Of the file system that holds the user's documents, in bytes; 0 and a log line on failure.
  static platform::FileSystemAttributes documentsFileSystem();
  static std::uint64_t getDiskSize();
  static std::uint64_t getFreeDiskspace();
  /// Code of the environment that the program was built for: SKELDA_BUILD_ENVIRONMENT (0 to 255),
  /// else 0.
  static std::uint8_t buildEnvironment();
  /// Only when SKELDA_AD_TRACKING says 1, yes or true.
  static bool isAdTrackingEnabled();
  /// The value under `key` of a dictionary; the default where the instance is none or has no such
  /// key.
  static platform::Value getValueForKey(std::string_view key, const platform::Value& instance,
                                        const platform::Value& defaultValue);
  /// Whether the extension's application state is background.
  static bool isInBackground();

  // -- Checksums (SkeldaUtilChecksum.cpp)

  /// Says whether the table was there already; it always is, being made by the compiler.
  static void generateChecksumTable();
  /// CRC-32 (ISO-HDLC) of the bytes, as a signed number.
  static std::int32_t dataChecksum(const platform::Data& data) { return dataChecksum(data.view()); }
  static std::int32_t dataChecksum(std::string_view bytes);

 private:
  static bool isNil(const platform::Value& value) noexcept { return value.isNull(); }
  template <class T>
  requires(!std::same_as<T, platform::Value>) static bool isNil(const T& object) noexcept {
    return !static_cast<bool>(object);
  }
  static void assertionFailed(std::string_view tag) noexcept;
  static void nilAssertionFailed(std::string_view tag) noexcept;

  static inline constinit std::atomic<unsigned> logLevel_{0};
  static inline constinit std::atomic<bool> showErrors_{false};
  static inline constinit std::atomic<bool> debugAsserts_{false};
};
