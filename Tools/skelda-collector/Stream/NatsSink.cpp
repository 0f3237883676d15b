#include "Tools/skelda-collector/Stream/NatsSink.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nats/nats.h>

#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Tools/Shared/Digest.h"
#include "Tools/Shared/FleetStream.h"

namespace fleet = skelda::tools::fleet;

namespace {

using skelda::platform::MutexLock;

constexpr std::chrono::milliseconds kBetweenLooks{2000};
constexpr std::chrono::milliseconds kBetweenTries{250};  // while it is not ready
constexpr std::int64_t kAsk = 2000;
constexpr std::int64_t kLongestClosing = 5000;
constexpr std::chrono::nanoseconds kRepeatWindow = std::chrono::minutes(10);
constexpr std::chrono::nanoseconds kLongestSilence = std::chrono::seconds(4);  // beats: each second
constexpr std::size_t kHeadersRoom = 4096;  // beside the body, in what a server takes at once

void must(natsStatus status, const char* what) {
  if (status == NATS_OK) return;
  throw std::runtime_error(fmt::format("{}: {}", what, natsStatus_GetText(status)));
}

/// "nats://a:1,b:2" as the library takes them.
std::vector<std::string> serversIn(const std::string& text) {
  constexpr std::string_view kScheme = "nats://";
  std::vector<std::string> servers;
  for (std::size_t from = 0; from <= text.size();) {
    const std::size_t comma = std::min(text.find(',', from), text.size());
    std::string server = text.substr(from, comma - from);
    if (!server.starts_with(kScheme)) server.insert(0, kScheme);
    if (server.size() == kScheme.size())
      throw std::runtime_error(text + ": a server without a name");
    servers.push_back(std::move(server));
    from = comma + 1;
  }
  return servers;
}

std::string nowText() {
  const auto now = std::chrono::system_clock::now();
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch());
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z",
                     fmt::gmtime(std::chrono::system_clock::to_time_t(now)),
                     micros.count() % 1'000'000);
}

/// Servers of the stream beside its leader that the leader has lately heard of.
int othersThere(const jsStreamInfo& info) {
  int there = 0;
  for (int each = 0; info.Cluster != nullptr && each < info.Cluster->ReplicasLen; ++each) {
    const auto& peer = *info.Cluster->Replicas[each];
    there += !peer.Offline && peer.Active < kLongestSilence.count() ? 1 : 0;
  }
  return there;
}

}  // namespace

void NatsSink::Freer::operator()(__natsMsg* message) const {
  natsMsg_Destroy(message);
}

NatsSink::Message NatsSink::messageOf(const ArrivedLog& log) {
  natsMsg* made = nullptr;
  const std::string subject = fleet::kSubjectPrefix + skelda::tools::digestOf(log.apiKey);
  if (natsMsg_Create(&made, subject.c_str(), nullptr, log.bytes.data(),
                     static_cast<int>(log.bytes.size())) != NATS_OK) {
    return nullptr;
  }
  Message message(made);
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

NatsSink::NatsSink(Options options)
    : options_(std::move(options)), largest_((std::size_t{1} << 20) - kHeadersRoom) {
  connect();
  jsOptions js;
  jsOptions_Init(&js);
  js.PublishAsync.MaxPending = static_cast<std::int64_t>(2 * options_.maxPending);
  js.PublishAsync.AckHandler = onAnswer;
  js.PublishAsync.AckHandlerClosure = this;
  must(natsConnection_JetStream(&stream_, connection_, &js), "stream");
  sender_ = std::thread([this] { send(); });
  watcher_ = std::thread([this] { watch(); });
}

void NatsSink::connect() {
  natsOptions* made = nullptr;
  must(natsOptions_Create(&made), "options");
  const std::unique_ptr<natsOptions, decltype(&natsOptions_Destroy)> held(made,
                                                                          natsOptions_Destroy);
  const auto servers = serversIn(options_.servers);
  std::vector<const char*> names;
  for (const auto& server : servers) names.push_back(server.c_str());
  must(natsOptions_SetServers(made, names.data(), static_cast<int>(names.size())), "servers");
  must(natsOptions_SetName(made, "skelda-collector"), "name");
  must(natsOptions_SetMaxReconnect(made, -1), "reconnect");
  must(natsOptions_SetReconnectWait(made, 100), "reconnect");
  must(natsOptions_SetPingInterval(made, 2000), "ping");
  must(natsOptions_SetMaxPingsOut(made, 2), "ping");
  must(natsOptions_SetTimeout(made, 2000), "time-out");
  must(natsOptions_SetWriteDeadline(made, 2000), "time-out");
  // Publishing without a connection says so at once, instead of being kept for later: 0 would be
  // the library's default.
  must(natsOptions_SetReconnectBufSize(made, 1), "buffer");
  must(natsOptions_SetRetryOnFailedConnect(
           made, true, [](natsConnection*, void*) {}, nullptr),
       "retry");
  must(
      natsOptions_SetDisconnectedCB(
          made, [](natsConnection*, void* self) { static_cast<NatsSink*>(self)->isReady_ = false; },
          this),
      "disconnected");
  const natsStatus status = natsConnection_Connect(&connection_, made);
  if (status != NATS_NOT_YET_CONNECTED) must(status, "connect");
}

NatsSink::~NatsSink() {
  stop();
  sender_.join();
  watcher_.join();
  jsCtx_Destroy(stream_);
  natsConnection_Destroy(connection_);
  nats_CloseAndWait(kLongestClosing);  // what calls onAnswer has ended then
}

void NatsSink::stop() {
  std::unordered_map<const natsMsg*, Done> over;
  {
    const MutexLock lock(mutex_);
    isStopping_ = true;
    isReady_ = false;
    over.swap(pending_);
  }
  toSend_.notifyAll();
  stopped_.notifyAll();
  for (const auto& [message, done] : over) done(Outcome::notNow, nullptr);
}

void NatsSink::keep(ArrivedLog log, Done done) {
  Message message = isReady_ ? messageOf(log) : nullptr;
  bool takes = message != nullptr;
  if (takes) {
    const MutexLock lock(mutex_);
    takes = !isStopping_ && pending_.size() < options_.maxPending;
    if (takes) {
      pending_[message.get()] = std::move(done);
      queue_.push_back(std::move(message));
    }
  }
  if (!takes) return done(Outcome::notNow, nullptr);
  toSend_.notifyOne();
}

/// On a thread of its own: a server that does not read makes its connection's writers wait.
void NatsSink::send() {
  jsPubOptions options;
  jsPubOptions_Init(&options);
  options.MaxWait = options_.patience.count();
  while (true) {
    Message message;
    {
      MutexLock lock(mutex_);
      while (queue_.empty() && !isStopping_) toSend_.wait(lock);
      if (isStopping_) return;
      message = std::move(queue_.front());
      queue_.pop_front();
    }
    const natsMsg* const it = message.get();
    natsMsg* given = message.release();  // the library's, where it is published
    if (js_PublishMsgAsync(stream_, &given, &options) == NATS_OK) continue;
    message.reset(given);
    end(it, Outcome::notNow);
  }
}

/// No answer in time is an error, too.
void NatsSink::onAnswer(jsCtx*, natsMsg* message, jsPubAck* kept, jsPubAckErr*, void* self) {
  const Message held(message);
  Outcome outcome = Outcome::notNow;
  if (kept != nullptr && kept->Stream != nullptr &&
      std::strcmp(kept->Stream, fleet::kStream) == 0) {
    // Its place in the stream is what says that it is there; there is none before the first.
    if (kept->Sequence > 0) outcome = kept->Duplicate ? Outcome::repeat : Outcome::kept;
  }
  static_cast<NatsSink*>(self)->end(message, outcome);
}

/// Called before the message is freed: its address is not another's until then.
void NatsSink::end(const natsMsg* message, Outcome outcome) {
  Done done;
  {
    const MutexLock lock(mutex_);
    const auto found = pending_.find(message);
    if (found == pending_.end()) return;
    done = std::move(found->second);
    pending_.erase(found);
  }
  done(outcome, nullptr);
}

void NatsSink::watch() {
  std::string last = "nothing yet";
  while (true) {
    const std::string problem = natsConnection_Status(connection_) == NATS_CONN_STATUS_CONNECTED
                                    ? lookAtStream()
                                    : "no server is there";
    if (problem != std::exchange(last, problem)) {
      std::printf("stream: %s\n", problem.empty() ? "ready" : problem.c_str());
      std::fflush(stdout);
    }
    const std::int64_t atOnce = natsConnection_GetMaxPayload(connection_);
    if (atOnce > static_cast<std::int64_t>(2 * kHeadersRoom)) {
      largest_ = static_cast<std::size_t>(atOnce) - kHeadersRoom;
    }
    MutexLock lock(mutex_);
    if (isStopping_) return;
    isReady_ = problem.empty();
    stopped_.waitFor(lock, problem.empty() ? kBetweenLooks : kBetweenTries);
    if (isStopping_) return;
  }
}

/// What is wrong with the stream, which is made where there is none; empty when it is as it should
/// be.
std::string NatsSink::lookAtStream() {
  jsOptions options;
  jsOptions_Init(&options);
  options.Wait = kAsk;
  jsStreamInfo* info = nullptr;
  jsErrCode error{};
  natsStatus status = js_GetStreamInfo(&info, stream_, fleet::kStream, &options, &error);
  if (status == NATS_NOT_FOUND) {
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    const char* subjects[] = {fleet::kSubjects};
    config.Name = fleet::kStream;
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.Storage = js_FileStorage;
    config.Replicas = options_.replicas;
    config.Duplicates = kRepeatWindow.count();
    config.MaxBytes = options_.maxBytes;
    config.Discard = js_DiscardNew;  // full is full: what was acknowledged is not thrown away
    status = js_AddStream(&info, stream_, &config, &options, &error);
  }
  if (status != NATS_OK) return fmt::format("{} ({})", natsStatus_GetText(status), int{error});
  const std::unique_ptr<jsStreamInfo, decltype(&jsStreamInfo_Destroy)> held(info,
                                                                            jsStreamInfo_Destroy);
  const auto replicas = static_cast<int>(info->Config->Replicas);
  if (replicas < options_.replicas) {
    return fmt::format("{} has {} replicas of {}", fleet::kStream, replicas, options_.replicas);
  }
  // Without a majority there is a leader for a while, and then none; a server tells of both.
  if (replicas > 1 && (info->Cluster == nullptr || info->Cluster->Leader == nullptr ||
                       info->Cluster->Leader[0] == '\0')) {
    return "no leader";
  }
  const int there = 1 + othersThere(*info);
  return 2 * there > replicas ? "" : fmt::format("{} of {} replicas are there", there, replicas);
}
