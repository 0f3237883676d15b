#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>

/// The one table of the frame types: the entity class of each, and what the pipeline makes of its
/// messages. A row takes a heading in the frame catalogue and a place on the privacy page.
/// Read-only, any thread.
class SkeldaStreamFrameTypeUtil {
 public:
  enum FrameType : std::int32_t {
    kFlush = 1,
    kCounter = 2,
    kSessionId = 128,
    kAppState = 132,
    kAppInfo = 133,
    kEvent = 134,
    kDeviceProperties = 139,
    kReportedIdentifers = 140,
    kSessionInitInfo = 141,
    kUserId = 146,
    kLocaleInfo = 148,
    kNetworkStatus = 149,
    kSessionDeviceProperties = 153,
    kAppOrientation = 156,
    kTimeZoneInfo = 162,
    kUserProperties = 171,
    kCCPAOptOut = 174,
    kCCPADelete = 175,
  };

  enum Role : std::uint8_t {
    kNoRole = 0,
    kSticky = 1,     ///< the last one is repeated at the head of every later log
    kMandatory = 2,  ///< no watch session is flushed before there was one
  };
  struct Row {
    std::int32_t frameType;
    std::string_view className;
    std::uint8_t roles;
  };
  /// Control frames are below 128; every record has bit 7 set.
  static constexpr auto kTable = std::to_array<Row>({
      {kFlush, "SkeldaStreamFlush", kNoRole},
      {kCounter, "SkeldaStreamCounter", kNoRole},
      // Not sticky: the session rule itself sends a copy after the flushes that leave it open.
      {kSessionId, "SkeldaStreamSessionId", kMandatory},
      {kAppState, "SkeldaStreamAppState", kSticky | kMandatory},
      {kAppInfo, "SkeldaStreamAppInfo", kSticky | kMandatory},
      {kEvent, "SkeldaStreamEvent", kNoRole},
      {kDeviceProperties, "SkeldaStreamDeviceProperties", kSticky | kMandatory},
      // Spelled without the second i: the name is part of the format.
      {kReportedIdentifers, "SkeldaStreamReportedIdentifers", kSticky | kMandatory},
      {kSessionInitInfo, "SkeldaSessionInitInfo", kSticky | kMandatory},
      {kUserId, "SkeldaStreamUserId", kSticky},
      {kLocaleInfo, "SkeldaStreamLocaleInfo", kSticky},
      {kNetworkStatus, "SkeldaStreamNetworkStatus", kSticky},
      {kSessionDeviceProperties, "SkeldaStreamSessionDeviceProperties", kNoRole},
      {kAppOrientation, "SkeldaStreamAppOrientation", kSticky},
      {kTimeZoneInfo, "SkeldaStreamTimeZoneInfo", kSticky},
      {kUserProperties, "SkeldaStreamUserProperties", kNoRole},
      {kCCPAOptOut, "SkeldaStreamCCPAOptOut", kNoRole},
      {kCCPADelete, "SkeldaStreamCCPADelete", kNoRole},
  });

  /// The class of a type; empty for a type that the table does not hold.
  static constexpr std::string_view classNameForFrameType(std::int32_t frameType) noexcept {
    for (const Row& row : kTable) {
      if (row.frameType == frameType) return row.className;
    }
    return {};
  }
  /// The type of a class; 0 for a class that never becomes a frame of its own.
  static constexpr std::int32_t frameTypeForClassName(std::string_view className) noexcept {
    for (const Row& row : kTable) {
      if (row.className == className) return row.frameType;
    }
    return 0;
  }

  /// The types whose messages have that role.
  static std::set<std::int32_t> frameTypesWithRole(Role role);
  /// Every type of the table.
  static const std::set<std::int32_t>& allFrameTypes();

  // -- Fixed by the system, and not called by the agent itself

  static const std::map<std::int32_t, std::string_view>& frameTypeToModelClass();
  static const std::map<std::string, std::int32_t, std::less<>>& classToFrameType();
};
