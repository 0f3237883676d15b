#include "Tests/Analytics/Streaming/SourceModules/Entities/FrameSamples.h"

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
#include "Analytics/Utils/SkeldaDateUtil.h"

namespace skelda::testing {
namespace {

using Types = SkeldaStreamFrameTypeUtil;
constexpr std::int32_t kNoFrameType = 0;

platform::Date dateAt(std::int64_t milliseconds) {
  return SkeldaDateUtil::dateWithTimeIntervalSince1970InMilliseconds(milliseconds);
}

template <class Entity>
EntitySample sample(std::int32_t type, std::shared_ptr<Entity> entity, std::string payload) {
  return {type, std::move(entity), std::move(payload),
          [](const platform::Data& json) -> std::shared_ptr<SkeldaStreamRecord> {
            return Entity::streamEntityFromJSONData(json);
          }};
}

std::shared_ptr<SkeldaStreamEvent> event() {
  auto event = SkeldaStreamEvent::streamEventWithEventName("LapDone", "CUSTOM_EVENT", true, true,
                                                           {{"lap", 3}, {"pace", "5:10"}}, nullptr,
                                                           dateAt(1600000000123));
  event->setSkeldaParameters({{"a", "b"}});
  event->setEventId(7);
  event->setDuration(1500);
  event->setUptime(5123);
  return event;
}

std::shared_ptr<SkeldaStreamSessionId> sessionId() {
  auto session = SkeldaStreamSessionId::sessionIdWithStartupTime(dateAt(1600000000123), 5123, 2);
  session->setElapsedEndTime(605123);
  return session;
}

SkeldaStreamSessionTrackedProperties snapshot(std::uint64_t seed) {
  return {.freeMemory = seed,
          .activeMemory = seed + 1,
          .wiredMemory = seed + 2,
          .inactiveMemory = seed + 3,
          .cpuUsage = 0.1F,
          .batteryLevel = seed == 10 ? 0.5F : -1.0F,
          .batteryCharging = 1};
}

std::shared_ptr<SkeldaStreamSessionDeviceProperties> sessionDeviceProperties() {
  auto properties = SkeldaStreamSessionDeviceProperties::sessionDeviceProperties();
  properties->setTotalDiskSize(18446744073709551615U);
  properties->setAvailableDiskSize(2000);
  properties->setUsedDiskSize(3000);
  properties->setTotalMemory(1073741824);
  properties->setLastBootTime(1599999995);
  properties->setCarrierName("unavailable");
  properties->setCarrierMNC("01");
  properties->setCarrierMCC("262");
  properties->setStartProperties(snapshot(10));
  properties->setEndProperties(snapshot(20));
  return properties;
}

std::string snapshotJSON(const char* suffix, const char* memory, const char* battery) {
  std::string json;
  const std::pair<const char*, std::string> members[] = {
      {"memory.available", memory + std::string("0")},
      {"memory.used.active", memory + std::string("1")},
      {"memory.used.wired", memory + std::string("2")},
      {"memory.used.inactive", memory + std::string("3")},
      {"cpu.load", "0.1"},
      {"battery.remaining", battery},
      {"battery.charging", "1"}};
  for (const auto& [name, value] : members) {
    json += ",\"" + std::string(name) + suffix + "\":{\"value\":\"" + value + "\"}";
  }
  return json;
}

std::shared_ptr<SkeldaStreamUserProperties> userProperties() {
  return SkeldaStreamUserProperties::updateUserPropertiesName("shoe \"A\"",
                                                              platform::Array{"44", "45"}, 2);
}

}  // namespace

std::vector<EntitySample> entitySamples() {
  const auto properties = userProperties();
  return {
      sample(Types::kFlush, SkeldaStreamFlush::streamFlushWithStatus(6),
             R"({"sk.flush.frame.code":6,)"
             R"("sk.flush.frame.reason":"App user has CCPA delete frame"})"),
      sample(Types::kCounter, SkeldaStreamCounter::counterFrameWithCounter(-12),
             R"({"sk.frame.log.counter":-12})"),
      sample(Types::kSessionId, sessionId(),
             R"({"sk.session.id":1600000000123,"sk.session.id.current.state":2,)"
             R"("sk.session.elapsed.start.time":5123,"sk.session.elapsed.end.time":605123})"),
      sample(Types::kAppState, SkeldaStreamAppState::appState(1, 2),
             R"({"sk.app.current.state":1,"sk.app.previous.state":2})"),
      sample(Types::kAppInfo,
             SkeldaStreamAppInfo::appInfoWithVersion("1.2", "34", "1.3", "org.example.run", 255),
             R"({"sk.app.version":"1.2","sk.bundle.id":"org.example.run",)"
             R"("sk.app.version.override":"1.3","sk.app.version.code":"34",)"
             R"("sk.build.environment":255})"),
      sample(Types::kEvent, event(),
             R"({"sk.event.id":7,"sk.event.name":"TGFwRG9uZQ==","sk.event.timed":true,)"
             R"("sk.event.type":"CUSTOM_EVENT","sk.timed.event.starting":true,)"
             R"("sk.event.timestamp":1600000000123,)"
             R"("sk.event.user.parameters":{"bGFw":"Mw==","cGFjZQ==":"NToxMA=="},)"
             R"("sk.event.skelda.parameters":{"a":"b"},)"
             R"("sk.timed.event.duration":1500,"sk.event.uptime":5123})"),
      sample(Types::kDeviceProperties,
             SkeldaStreamDeviceProperties::devicePropertiesWithDeviceModel("Watch6,2", "9.1",
                                                                           "arm32", "34", 396, 0),
             R"({"sk.device.properties":{"device.arch":"arm32","device.os.version":"9.1",)"
             R"("device.model.1":"Watch6,2","scr.height":"0","scr.width":"396",)"
             R"("bnd.ver":"34"}})"),
      sample(Types::kReportedIdentifers,
             SkeldaStreamReportedIdentifers::reportedIdentifiersWithSet(
                 {{15, "aW5z"}, {7, "adv"}, {6, "ven"}}, true),
             R"({"sk.reported.id":{"VendorId":"ven","iOSAdvertisingId":"adv",)"
             R"("iOSInstallationId":"aW5z"},"sk.ad.tracking":true})"),
      sample(Types::kSessionInitInfo,
             SkeldaSessionInitInfo::sessionInitInfoWithAgentPlatform(65535, 261, "KEY", 7, true),
             R"({"sk.apikey":"KEY","sk.agent.platform":65535,"sk.agent.report.key":7,)"
             R"("sk.agent.version":261,"sk.background.session.metrics":true,)"
             R"("sk.play.service.availability":-1})"),
      sample(Types::kUserId, SkeldaStreamUserId::userIdWithUserId("runner\n7"),
             R"({"sk.demo.userid":"runner\n7"})"),
      sample(Types::kLocaleInfo, SkeldaStreamLocaleInfo::streamLocaleInfoWithCountry("DE", "de"),
             R"({"sk.country":"DE","sk.language":"de"})"),
      sample(Types::kNetworkStatus,
             std::make_shared<SkeldaStreamNetworkStatus>(2, -70, "wifi", "none"),
             R"({"sk.network.status":2})"),
      sample(Types::kSessionDeviceProperties, sessionDeviceProperties(),
             R"({"sk.session.property":{"disk.size.total":{"value":"18446744073709551615"},)"
             R"("disk.size.available":{"value":"2000"},"boot.time":{"value":"1599999995"},)"
             R"("memory.total":{"value":"1073741824"},"disk.size.used":{"value":"3000"},)"
             R"("carrier.name":{"value":"unavailable"},"carrier.mnc":{"value":"01"},)"
             R"("carrier.mcc":{"value":"262"})" +
                 snapshotJSON(".start", "1", "0.5") + snapshotJSON(".end", "2", "-1") + "}}"),
      sample(Types::kAppOrientation, SkeldaStreamAppOrientation::appOrientationWithOrientation(1),
             R"({"sk.app.orientation":1})"),
      sample(Types::kTimeZoneInfo,
             SkeldaStreamTimeZoneInfo::streamTimeZoneInfoWithTimeZone("Europe/Berlin"),
             R"({"sk.timezone.value":"Europe/Berlin"})"),
      sample(Types::kUserProperties, properties,
             R"({"sk.user.property.id":)" + std::to_string(properties->userPropertyId()) +
                 R"(,"sk.user.property.uptime":)" + std::to_string(properties->uptime()) +
                 R"(,"sk.user.property.key":"shoe \"A\"","sk.user.property.values":["44","45"],)"
                 R"("sk.user.property.call.type":2})"),
      sample(Types::kCCPAOptOut, SkeldaStreamCCPAOptOut::updateCCPAOptOut(true),
             R"({"sk.ccpa.optout":true})"),
      sample(Types::kCCPADelete, SkeldaStreamCCPADelete::updateCCPADelete(), "{}"),
      sample(kNoFrameType, SkeldaStreamEventSummary::streamWithEventCount(4000000000U, false),
             R"({"sk.event.count":4000000000,"sk.event.set.complete":false})"),
      sample(kNoFrameType, SkeldaStreamUserGender::userGenderWithGender(-1),
             R"({"sk.demo.gender":-1})"),
      sample(kNoFrameType, SkeldaStreamUserBirthdate::userBirthdateWithDate(dateAt(-86400000)),
             R"({"sk.demo.birthdate":-86400000})"),
      sample(kNoFrameType,
             SkeldaStreamConsent::gdprScope(true, platform::Dictionary{{"IAB", "yes"}}),
             R"({"sk.consent.isGdprScope":true,"sk.consent.strings":{"IAB":"yes"}})"),
  };
}

}  // namespace skelda::testing
