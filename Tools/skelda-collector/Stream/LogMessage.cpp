#include "Tools/skelda-collector/Stream/LogMessage.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <utility>

#include "Tools/Shared/Digest.h"
#include "Tools/Shared/FleetStream.h"

namespace fleet = skelda::tools::fleet;
using skelda::tools::NatsMessage;

namespace {

constexpr const char* kHeaders[] = {fleet::kIdHeader, fleet::kReceivedHeader, fleet::kLengthHeader,
                                    fleet::kFramesHeader, fleet::kFaultHeader};

std::string nowText() {
  const auto now = std::chrono::system_clock::now();
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch());
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z",
                     fmt::gmtime(std::chrono::system_clock::to_time_t(now)),
                     micros.count() % 1'000'000);
}

}  // namespace

NatsMessage messageOfLog(const ArrivedLog& log) {
  natsMsg* made = nullptr;
  const std::string subject = fleet::kSubjectPrefix + skelda::tools::digestOf(log.apiKey);
  if (natsMsg_Create(&made, subject.c_str(), nullptr, log.bytes.data(),
                     static_cast<int>(log.bytes.size())) != NATS_OK) {
    return nullptr;
  }
  NatsMessage message(made);
  const std::pair<const char*, std::string> headers[] = {
      {fleet::kIdHeader, skelda::tools::digestOf(log.bytes)},
      {fleet::kReceivedHeader, nowText()},
      {fleet::kLengthHeader, std::to_string(log.bytes.size())},
      {fleet::kFramesHeader, std::to_string(log.check.frames)},
      {fleet::kFaultHeader, log.check.fault}};
  for (const auto& [name, value] : headers) {
    if (!value.empty() && natsMsgHeader_Set(message.get(), name, value.c_str()) != NATS_OK)
      return nullptr;
  }
  return message;
}

std::string headOfRecord(natsMsg* message) {
  std::string record = natsMsg_GetSubject(message);
  for (const char* name : kHeaders) {
    const char* value = nullptr;
    if (natsMsgHeader_Get(message, name, &value) != NATS_OK || value == nullptr) continue;
    record += fmt::format("\n{}: {}", name, value);
  }
  return record += "\n\n";
}

std::string_view bodyOf(natsMsg* message) {
  return {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))};
}

NatsMessage messageOfRecord(std::string_view record, const std::string& id) {
  const std::size_t head = record.find("\n\n");
  if (head == std::string_view::npos) return nullptr;
  const std::string_view body = record.substr(head + 2);
  std::string_view lines = record.substr(0, head + 1);
  const auto line = [&] {
    const std::size_t end = lines.find('\n');
    const std::string text(lines.substr(0, end));
    lines.remove_prefix(end + 1);
    return text;
  };
  natsMsg* made = nullptr;
  if (natsMsg_Create(&made, line().c_str(), nullptr, body.data(), static_cast<int>(body.size())) !=
      NATS_OK) {
    return nullptr;
  }
  NatsMessage message(made);
  while (!lines.empty()) {
    const std::string text = line();
    const std::size_t colon = text.find(": ");
    if (colon == std::string::npos) return nullptr;
    const std::string name = text.substr(0, colon);
    const std::string value = name == fleet::kIdHeader ? id : text.substr(colon + 2);
    if (natsMsgHeader_Set(made, name.c_str(), value.c_str()) != NATS_OK) return nullptr;
  }
  return message;
}
