#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// Every key of the host's information dictionary that the agent reads, here and nowhere else. Read
/// from the main bundle at each call; what is to be read once is kept by who asks. Any thread.
namespace SkeldaHostSettings {

enum class Kind : std::uint8_t {
  text,
  flag,    ///< a number that is not 0, or the text YES in any case, switches it on
  number,  ///< held within its range
};

struct Setting {
  std::string_view key;
  Kind kind;
  bool isRequired;
  /// Of a number: what counts where there is none, and its range.
  std::int32_t whenAbsent;
  std::int32_t least;
  std::int32_t most;
  /// What a developer reads of it.
  std::string_view meaning;
};

inline constexpr Setting kAPIKey{
    "Skelda Watch API Key",
    Kind::text,
    true,
    0,
    0,
    0,
    "names the application to the server; without it no event is taken"};
inline constexpr Setting kAppVersion{"Skelda Watch App Version",
                                     Kind::text,
                                     false,
                                     0,
                                     0,
                                     0,
                                     "is reported in the place of the application's own version"};
inline constexpr Setting kDisableConnectivity{
    "Skelda Disable WatchConnectivity", Kind::flag, false, 0, 0, 0,
    "turns the link to the phone off"};
inline constexpr Setting kDebug{"Skelda Watch Debug",
                                Kind::flag,
                                false,
                                0,
                                0,
                                0,
                                "writes what the agent does to standard error"};
inline constexpr Setting kUserID{"Skelda Watch User ID",        Kind::text, false, 0, 0, 0,
                                 "is reported as the user's id"};
inline constexpr Setting kEventThreshold{
    "Skelda Watch Event Threshold",      Kind::number, false, 10, 5, 50,
    "events, after which a session ends"};
inline constexpr Setting kDurationThreshold{
    "Skelda Watch Duration Threshold",    Kind::number, false, 10, 5, 60,
    "minutes, after which a session ends"};
inline constexpr Setting kIntakeCapacity{
    "Skelda Watch Intake Capacity",
    Kind::number,
    false,
    8192,
    256,
    262144,
    "KiB that what was accepted and is not yet in a frame may take up"};

inline constexpr std::array kAll{kAPIKey, kAppVersion,     kDisableConnectivity, kDebug,
                                 kUserID, kEventThreshold, kDurationThreshold,   kIntakeCapacity};

/// As it stands there; null where it does not.
platform::Value valueOf(const Setting& setting);
bool isSwitchedOn(const Setting& setting);
/// Whether such a value switches a flag on.
bool isOn(const platform::Value& value);
/// Within the range; what was out of it is said at level 2.
std::int32_t numberOf(const Setting& setting);
/// What of such a value counts, null for none there; nothing is said.
std::int32_t inRange(const Setting& setting, const platform::Value& value);
/// A text that is not empty, or nothing.
std::optional<std::string> apiKey();

}  // namespace SkeldaHostSettings
