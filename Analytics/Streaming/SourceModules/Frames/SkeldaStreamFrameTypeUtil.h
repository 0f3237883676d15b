#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>

/// The one table that ties each numeric frame type to its entity class. Read-only, any thread.
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

  struct Row {
    std::int32_t frameType;
    std::string_view className;
  };
  /// Control frames are below 128; every record has bit 7 set.
  static constexpr std::array<Row, 18> kTable{{
      {kFlush, "SkeldaStreamFlush"},
      {kCounter, "SkeldaStreamCounter"},
      {kSessionId, "SkeldaStreamSessionId"},
      {kAppState, "SkeldaStreamAppState"},
      {kAppInfo, "SkeldaStreamAppInfo"},
      {kEvent, "SkeldaStreamEvent"},
      {kDeviceProperties, "SkeldaStreamDeviceProperties"},
      // Spelled without the second i: the name is part of the format.
      {kReportedIdentifers, "SkeldaStreamReportedIdentifers"},
      {kSessionInitInfo, "SkeldaSessionInitInfo"},
      {kUserId, "SkeldaStreamUserId"},
      {kLocaleInfo, "SkeldaStreamLocaleInfo"},
      {kNetworkStatus, "SkeldaStreamNetworkStatus"},
      {kSessionDeviceProperties, "SkeldaStreamSessionDeviceProperties"},
      {kAppOrientation, "SkeldaStreamAppOrientation"},
      {kTimeZoneInfo, "SkeldaStreamTimeZoneInfo"},
      {kUserProperties, "SkeldaStreamUserProperties"},
      {kCCPAOptOut, "SkeldaStreamCCPAOptOut"},
      {kCCPADelete, "SkeldaStreamCCPADelete"},
  }};

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

  // The table as containers, each built once, on first use.
  static const std::map<std::int32_t, std::string_view>& frameTypeToModelClass();
  static const std::set<std::int32_t>& allFrameTypes();
  static const std::map<std::string, std::int32_t, std::less<>>& classToFrameType();
};
