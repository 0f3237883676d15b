#include "Tools/skelda-load/LogStream.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "Tools/Shared/FleetStream.h"

namespace skelda::tools {
namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kNanosecondsASecond = 1'000'000'000;
/// Given out and not acknowledged, to all who share the consumer: a few batches each.
constexpr std::int64_t kMostOutstanding = 16384;
constexpr std::string_view kTaken = "+ACK";
constexpr const char* kName = "skelda-load";

}  // namespace

std::string_view StreamedMessage::header(const char* name) const {
  const char* value = nullptr;
  const bool isThere = natsMsgHeader_Get(message_.get(), name, &value) == NATS_OK;
  return isThere && value != nullptr ? value : "";
}

StreamedLog StreamedMessage::log() const {
  std::string_view subject = natsMsg_GetSubject(message_.get());
  subject.remove_prefix(std::min(subject.size(), std::string_view(fleet::kSubjectPrefix).size()));
  return {{natsMsg_GetData(message_.get()),
           static_cast<std::size_t>(natsMsg_GetDataLength(message_.get()))},
          subject,
          header(fleet::kReceivedHeader),
          header(fleet::kFaultHeader)};
}

std::uint64_t StreamedMessage::behind() const {
  jsMsgMetaData* data = nullptr;
  if (natsMsg_GetMetaData(&data, message_.get()) != NATS_OK) return 0;
  const std::uint64_t behind = data->NumPending;
  jsMsgMetaData_Destroy(data);
  return behind;
}

LogStream::LogStream(Options options) : options_(std::move(options)) {
  static_cast<void>(options_.access.options(kName));
}

void LogStream::disconnect() {
  consumer_.reset();
  stream_.reset();
  connection_.reset();
}

void LogStream::connect() {
  if (consumer_) return;
  disconnect();
  const NatsOptions options = options_.access.options(kName);
  natsOptions* const raw = options.get();
  // A server that has gone without a word is noticed in ten seconds, and then another is tried.
  mustWork(natsOptions_SetPingInterval(raw, 5000), "pings");
  mustWork(natsOptions_SetMaxPingsOut(raw, 2), "pings");
  mustWork(natsOptions_SetReconnectWait(raw, 250), "reconnecting");
  natsConnection* connection = nullptr;
  mustWork(natsConnection_Connect(&connection, raw), "connecting");
  connection_.reset(connection);
  jsOptions defaults;
  mustWork(jsOptions_Init(&defaults), "options");
  jsCtx* stream = nullptr;
  mustWork(natsConnection_JetStream(&stream, connection, &defaults), "connecting");
  stream_.reset(stream);
  makeConsumer();
  hasDamagedStream_ = false;
}

void LogStream::makeConsumer() {
  jsErrCode code{};
  jsConsumerInfo* info = nullptr;
  natsStatus status = js_GetConsumerInfo(&info, stream_.get(), fleet::kStream,
                                         options_.durable.c_str(), nullptr, &code);
  jsConsumerInfo_Destroy(info);
  if (status == NATS_NOT_FOUND && code != JSStreamNotFoundErr) {
    jsConsumerConfig config;
    mustWork(jsConsumerConfig_Init(&config), "consumer");
    config.Durable = options_.durable.c_str();
    config.DeliverPolicy = js_DeliverAll;
    config.AckPolicy = js_AckExplicit;
    config.AckWait = options_.ackWait.count() * 1'000'000;
    config.MaxDeliver = -1;
    config.MaxAckPending = kMostOutstanding;
    status = js_AddConsumer(nullptr, stream_.get(), fleet::kStream, &config, nullptr, &code);
  }
  mustWork(status, "consumer", code);
  jsSubOptions subscription;
  mustWork(jsSubOptions_Init(&subscription), "consumer");
  subscription.Stream = fleet::kStream;
  subscription.Consumer = options_.durable.c_str();
  natsSubscription* consumer = nullptr;
  mustWork(js_PullSubscribe(&consumer, stream_.get(), nullptr, options_.durable.c_str(), nullptr,
                            &subscription, &code),
           "consumer", code);
  consumer_.reset(consumer);
}

std::vector<StreamedMessage> LogStream::fetch(bool waits) {
  jsFetchRequest request;
  mustWork(jsFetchRequest_Init(&request), "fetching");
  request.Batch = waits ? 1 : options_.logs;
  // A log that is larger than all that may be asked for would never come.
  request.MaxBytes = std::max(options_.bytes, 2 * natsConnection_GetMaxPayload(connection_.get()));
  request.Expires = waits ? kNanosecondsASecond : 2 * kNanosecondsASecond;
  request.NoWait = !waits;
  natsMsgList list{};
  const natsStatus status = natsSubscription_FetchRequest(&list, consumer_.get(), &request);
  std::vector<StreamedMessage> messages;
  for (int i = 0; i < list.Count; ++i) {
    messages.emplace_back(std::exchange(list.Msgs[i], nullptr));
  }
  natsMsgList_Destroy(&list);
  if (status != NATS_OK && status != NATS_TIMEOUT && status != NATS_NOT_FOUND && messages.empty()) {
    mustWork(status, "fetching");
  }
  return messages;
}

std::vector<StreamedMessage> LogStream::take(bool waits) {
  connect();
  auto messages = fetch(false);
  return messages.empty() && waits ? fetch(true) : std::move(messages);
}

void LogStream::acknowledge(const std::vector<StreamedMessage>& messages) {
  if (!connection_) return;
  // By the connection that there is now: the one that brought a message may have been given up, and
  // the library's own way of acknowledging would still use what is gone with it.
  for (const StreamedMessage& message : messages) {
    natsConnection_Publish(connection_.get(), natsMsg_GetReply(message.get()), kTaken.data(),
                           static_cast<int>(kTaken.size()));
  }
  natsConnection_FlushTimeout(connection_.get(), 2000);
}

void LogStream::makeDamagedStream() {
  if (hasDamagedStream_) return;
  jsErrCode code{};
  jsStreamInfo* info = nullptr;
  natsStatus status = js_GetStreamInfo(&info, stream_.get(), fleet::kDamagedStream, nullptr, &code);
  if (status == NATS_NOT_FOUND) {
    mustWork(js_GetStreamInfo(&info, stream_.get(), fleet::kStream, nullptr, &code), "stream",
             code);
    const char* subjects[] = {fleet::kDamagedSubjects};
    jsStreamConfig config;
    mustWork(jsStreamConfig_Init(&config), "stream");
    config.Name = fleet::kDamagedStream;
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.Storage = js_FileStorage;
    config.Discard = js_DiscardNew;
    config.Replicas = info->Config->Replicas;
    config.Duplicates = 600 * kNanosecondsASecond;
    status = js_AddStream(nullptr, stream_.get(), &config, nullptr, &code);
  }
  jsStreamInfo_Destroy(info);
  mustWork(status, "stream of damaged logs", code);
  hasDamagedStream_ = true;
}

void LogStream::keepDamaged(const StreamedMessage& message, const std::string& fault) {
  connect();
  makeDamagedStream();
  const StreamedLog log = message.log();
  natsMsg* raw = nullptr;
  mustWork(natsMsg_Create(&raw, (fleet::kDamagedPrefix + std::string(log.apiKey)).c_str(), nullptr,
                          log.body.data(), static_cast<int>(log.body.size())),
           "damaged log");
  const StreamedMessage copy(raw);
  // Not those of the stream itself, but for the id: they would say where this message must go.
  for (const char* name :
       {fleet::kIdHeader, fleet::kReceivedHeader, fleet::kLengthHeader, fleet::kFramesHeader}) {
    const char* value = nullptr;
    if (natsMsgHeader_Get(message.get(), name, &value) == NATS_OK && value != nullptr) {
      mustWork(natsMsgHeader_Set(raw, name, value), "damaged log");
    }
  }
  mustWork(natsMsgHeader_Set(raw, fleet::kFaultHeader, fault.c_str()), "damaged log");
  jsErrCode code{};
  mustWork(js_PublishMsg(nullptr, stream_.get(), raw, nullptr, &code), "damaged log", code);
}

bool LogStream::isAsItWas() {
  connect();
  natsStatus status{};
  jsErrCode code{};
  const StreamInfo info = streamInfo(stream_.get(), &status, &code);
  mustWork(status, "stream", code);
  const bool isFirst = leader_.empty() && last_ == 0;
  const std::string leader(leaderOf(*info));
  const bool isSame = leader == leader_ && info->State.LastSeq >= last_;
  // Two looks at the end: what has just come may be on its way to the server that gives it out. And
  // once for each: its last messages may have been deleted.
  const Place consumer = place();
  const bool isShort = consumer.isAtEnd && consumer.done < last_ && last_ != beyond_;
  if (isShort) beyond_ = last_;
  leader_ = leader;
  last_ = info->State.LastSeq;
  return isFirst || (isSame && !isShort);
}

void LogStream::each(std::chrono::system_clock::time_point since, const SeenMessage& seen) {
  connect();
  readServers(connection_.get(), stream_.get(), since, false, [&seen](bool) { return seen; });
}

std::vector<StreamedMessage> LogStream::at(const std::vector<std::uint64_t>& places) {
  connect();
  std::vector<StreamedMessage> messages;
  for (const std::uint64_t place : places) {
    natsMsg* message = nullptr;
    jsErrCode code{};
    const natsStatus status =
        js_GetMsg(&message, stream_.get(), fleet::kStream, place, nullptr, &code);
    if (status == NATS_NOT_FOUND) continue;
    mustWork(status, "message", code);
    messages.emplace_back(message);
  }
  return messages;
}

LogStream::Place LogStream::place() {
  connect();
  jsErrCode code{};
  jsConsumerInfo* info = nullptr;
  mustWork(js_GetConsumerInfo(&info, stream_.get(), fleet::kStream, options_.durable.c_str(),
                              nullptr, &code),
           "consumer", code);
  const Place place{info->NumPending == 0 && info->NumAckPending == 0, info->AckFloor.Stream};
  jsConsumerInfo_Destroy(info);
  return place;
}

void LogStream::moveConsumer() {
  connect();
  const std::string subject =
      fmt::format("$JS.API.CONSUMER.LEADER.STEPDOWN.{}.{}", fleet::kStream, options_.durable);
  natsMsg* answer = nullptr;
  mustWork(natsConnection_Request(&answer, connection_.get(), subject.c_str(), nullptr, 0, 2000),
           "moving the consumer");
  const NatsMessage held(answer);
  const std::string_view said(natsMsg_GetData(answer),
                              static_cast<std::size_t>(natsMsg_GetDataLength(answer)));
  if (said.find("\"error\"") != std::string_view::npos) {
    throw Unavailable(fmt::format("moving the consumer: {}", said));
  }
}

}  // namespace skelda::tools
