#pragma once

#include "Analytics/Streaming/SourceModules/Entities/SkeldaSessionInitInfo.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamAppInfo.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamAppOrientation.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamAppState.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCCPADelete.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCCPAOptOut.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamConsent.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCounter.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamDeviceProperties.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEvent.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEventSummary.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamLocaleInfo.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamNetworkStatus.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamReportedIdentifers.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionDeviceProperties.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionId.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamTimeZoneInfo.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserBirthdate.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserGender.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserId.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserProperties.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessage.h"
#include "Tests/Support/Testing.h"

namespace skelda::testing {

/// The bytes of a frame, laid out by hand so that the agent's writer and reader are held against
/// something else. A footer is the caller's affair.
inline std::string frameBytes(int version, std::uint32_t type, std::string_view payload,
                              std::int64_t epoch = 1600000000000, std::int64_t relative = 5000) {
  std::string bytes(24, '\0');
  bytes[0] = static_cast<char>(version);
  for (unsigned i = 0; i < 3; ++i) bytes[1 + i] = static_cast<char>(type >> (8 * i));
  const auto length = static_cast<std::uint32_t>(payload.size());
  for (unsigned i = 0; i < 8; ++i) {
    bytes[4 + i] = static_cast<char>(static_cast<std::uint64_t>(epoch) >> (8 * i));
    bytes[12 + i] = static_cast<char>(static_cast<std::uint64_t>(relative) >> (8 * i));
    if (i < 4) bytes[20 + i] = static_cast<char>(length >> (8 * i));
  }
  return bytes.append(payload);
}

/// A frame of version 1 and type 134 that is `length` bytes long in all.
inline std::string frameOfLength(std::size_t length, char fill = 'x') {
  return frameBytes(1, 134, std::string(length - 24, fill));
}

inline SkeldaStreamMessage message(std::int8_t version, std::int32_t type,
                                   std::optional<std::string> payload) {
  SkeldaStreamMessage message;
  message.setFrameVersion(version);
  message.setFrameType(type);
  message.setEpochTimeStamp(1600000000000);
  message.setRelativeTimeStamp(5000);
  if (payload) message.setPayload(Data(*std::move(payload)));
  return message;
}

/// An entry of docs/frame-catalogue.md, whose example is the sample.
struct EntitySample {
  std::string name;
  std::int32_t frameType = 0;  ///< 0 for what reaches no log
  std::set<std::string> keys;
  std::string payload;
  std::shared_ptr<SkeldaStreamRecord> entity;
  std::shared_ptr<SkeldaStreamRecord> (*readBack)(const Data&) = nullptr;
};

std::vector<EntitySample> entitySamples();

}  // namespace skelda::testing
