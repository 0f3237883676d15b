#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/KeyedArchive.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// The identifier that the agent keeps its items under.
inline constexpr std::string_view kSkeldaKeychainIdentifier = "example.skelda.analytics";

/// Small values in the platform's credential store, as generic-password items of one service: the
/// main bundle's identifier followed directly by the given one. Every failure is false or nil;
/// nothing is logged or thrown. Any thread.
class SkeldaKeychainWrapper : public platform::Object {
 public:
  static std::shared_ptr<SkeldaKeychainWrapper> keychainWrapperWithIdentifier(
      std::string_view identifier);
  explicit SkeldaKeychainWrapper(std::string_view identifier);
  std::string_view className() const noexcept override { return "SkeldaKeychainWrapper"; }
  const std::string& identifier() const noexcept { return identifier_; }

  // A key that is there already keeps its accessibility and takes the new value.

  /// Readable while the device is unlocked.
  bool setData(const std::optional<platform::Data>& data, std::string_view key) noexcept;
  bool setString(const std::optional<std::string>& text, std::string_view key) noexcept;
  /// Several texts by their keys, all in one write: all of them are kept, or none.
  bool setStrings(const platform::Dictionary& textsByKey) noexcept;
  bool setObject(const std::optional<platform::KeyedArchive>& object,
                 std::string_view key) noexcept;
  /// Readable after the first unlock, on this device only.
  bool setThisDeviceData(const std::optional<platform::Data>& data, std::string_view key) noexcept;
  bool setThisDeviceString(const std::optional<std::string>& text, std::string_view key) noexcept;

  /// Whether there is no such item, or none that will ever open again. False as well while that
  /// cannot be said: a device that is locked or short of descriptors has not lost anything.
  bool isAbsent(std::string_view key) const noexcept;
  std::optional<platform::Data> dataForKey(std::string_view key) const noexcept;
  /// Nil also for bytes that are not UTF-8.
  std::optional<std::string> stringForKey(std::string_view key) const noexcept;
  std::optional<platform::KeyedArchive> objectForKey(std::string_view key) const noexcept;
  /// Only an item that is there.
  bool updateValueData(const std::optional<platform::Data>& data, std::string_view key) noexcept;
  bool removeObjectForKey(std::string_view key) noexcept;

 private:
  std::string identifier_;
};
