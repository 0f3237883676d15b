#include "Tools/skelda-collector/Stream/NatsSink.h"

#include <fmt/format.h>
#include <nats/nats.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Tools/Shared/FleetStream.h"
#include "Tools/skelda-collector/Stream/LogMessage.h"

namespace fleet = skelda::tools::fleet;

namespace {

using skelda::platform::MutexLock;
using skelda::tools::mustWork;

constexpr std::chrono::milliseconds kBetweenLooks{2000};
constexpr std::chrono::milliseconds kBetweenTries{250};  // while it is not ready
constexpr std::int64_t kAsk = 2000;
constexpr std::int64_t kLongestClosing = 5000;
// That another server has more than the leader: while one is away, and once all are there.
constexpr std::chrono::seconds kLongestDoubt{30}, kLongestDoubtOfAll{8};
constexpr std::chrono::milliseconds kBetweenLeaders{1500};
const std::string kStepDown = std::string("$JS.API.STREAM.LEADER.STEPDOWN.") + fleet::kStream;
constexpr std::chrono::nanoseconds kRepeatWindow = std::chrono::minutes(10);
constexpr std::chrono::nanoseconds kLongestSilence = std::chrono::seconds(4);  // beats: each second
constexpr std::size_t kHeadersRoom = 4096;  // beside the body, in what a server takes at once

/// The names of the servers beside the stream's leader that the leader has lately heard of.
std::set<std::string> othersThere(const jsStreamInfo& info) {
  std::set<std::string> there;
  for (int each = 0; info.Cluster != nullptr && each < info.Cluster->ReplicasLen; ++each) {
    const auto& peer = *info.Cluster->Replicas[each];
    if (!peer.Offline && peer.Active < kLongestSilence.count()) there.emplace(peer.Name);
  }
  return there;
}

}  // namespace

NatsSink::NatsSink(Options options)
    : options_(std::move(options)), largest_((std::size_t{1} << 20) - kHeadersRoom) {
  connect();
  jsOptions js;
  jsOptions_Init(&js);
  js.PublishAsync.MaxPending = static_cast<std::int64_t>(2 * options_.maxPending);
  js.PublishAsync.AckHandler = onAnswer;
  js.PublishAsync.AckHandlerClosure = this;
  mustWork(natsConnection_JetStream(&stream_, connection_, &js), "stream");
  lost_ = std::make_unique<LostLogs>(
      options_.copies, connection_, stream_, [this] { return isReady_.load(); },
      [this](const std::string& record, const std::string& id, Done done) {
        publishAgain(record, id, std::move(done));
      });
  sender_ = std::thread([this] { send(); });
  watcher_ = std::thread([this] { watch(); });
}

void NatsSink::connect() {
  const auto held = options_.access.options("skelda-collector");
  natsOptions* const made = held.get();
  mustWork(natsOptions_SetReconnectWait(made, 100), "reconnect");
  mustWork(natsOptions_SetPingInterval(made, 2000), "ping");
  mustWork(natsOptions_SetMaxPingsOut(made, 2), "ping");
  mustWork(natsOptions_SetWriteDeadline(made, 2000), "time-out");
  // Publishing without a connection says so at once, instead of being kept for later: 0 would be
  // the library's default.
  mustWork(natsOptions_SetReconnectBufSize(made, 1), "buffer");
  mustWork(natsOptions_SetRetryOnFailedConnect(
               made, true, [](natsConnection*, void*) {}, nullptr),
           "retry");
  mustWork(
      natsOptions_SetDisconnectedCB(
          made, [](natsConnection*, void* self) { static_cast<NatsSink*>(self)->isReady_ = false; },
          this),
      "disconnected");
  // The library gives up where each server refuses it twice: whoever starts this process anew may
  // have mended what it comes with.
  mustWork(natsOptions_SetClosedCB(
               made,
               [](natsConnection* connection, void* self) {
                 const char* why = nullptr;
                 if (natsConnection_GetLastError(connection, &why) == NATS_OK) return;
                 static_cast<NatsSink*>(self)->isRefused_ = true;
                 ::kill(::getpid(), SIGTERM);
               },
               this),
           "closed");
  const natsStatus status = natsConnection_Connect(&connection_, made);
  if (status != NATS_NOT_YET_CONNECTED) mustWork(status, "the servers of the stream");
}

NatsSink::~NatsSink() {
  stop();
  sender_.join();
  watcher_.join();
  jsCtx_Destroy(stream_);
  natsConnection_Destroy(connection_);
  nats_CloseAndWait(kLongestClosing);  // what calls onAnswer has ended then
  // The library has freed what OpenSSL would free once more when the process ends.
  SSL_COMP_set0_compression_methods(nullptr);
}

void NatsSink::stop() {
  std::unordered_map<const natsMsg*, Pending> over;
  {
    const MutexLock lock(mutex_);
    isStopping_ = true;
    isReady_ = false;
    over.swap(pending_);
  }
  toSend_.notifyAll();
  stopped_.notifyAll();
  for (const auto& [message, pending] : over) pending.done(Outcome::notNow, nullptr);
  lost_->stop();
}

void NatsSink::keep(ArrivedLog log, Done done) {
  if (!isReady_ || !publish(messageOfLog(log), done, false)) done(Outcome::notNow, nullptr);
}

void NatsSink::publishAgain(const std::string& record, const std::string& id, Done done) {
  if (!publish(messageOfRecord(record, id), done, true)) done(Outcome::notNow, nullptr);
}

bool NatsSink::publish(Message message, Done& done, bool isAgain) {
  if (message == nullptr) return false;
  const MutexLock lock(mutex_);
  if (isStopping_ || pending_.size() >= options_.maxPending) return false;
  pending_[message.get()] = {std::move(done), isAgain, highest_};
  queue_.push_back(std::move(message));
  if (queue_.size() == 1) toSend_.notifyOne();
  return true;
}

/// On a thread of its own: a server that does not read makes its connection's writers wait.
void NatsSink::send() {
  jsPubOptions options;
  jsPubOptions_Init(&options);
  options.MaxWait = options_.patience.count();
  while (true) {
    std::vector<Message> messages;
    {
      MutexLock lock(mutex_);
      while (queue_.empty() && !isStopping_) toSend_.wait(lock);
      if (isStopping_) return;
      messages.swap(queue_);
    }
    for (Message& message : messages) {
      const natsMsg* const it = message.get();
      natsMsg* given = message.release();  // the library's, where it is published
      if (js_PublishMsgAsync(stream_, &given, &options) == NATS_OK) continue;
      message.reset(given);
      if (Pending pending; take(it, pending)) pending.done(Outcome::notNow, nullptr);
    }
  }
}

/// No answer in time is an error, too. Called before the message is freed: its address is not
/// another's until then.
void NatsSink::onAnswer(jsCtx*, natsMsg* message, jsPubAck* kept, jsPubAckErr*, void* self) {
  const Message held(message);
  auto& sink = *static_cast<NatsSink*>(self);
  Pending pending;
  if (!sink.take(message, pending)) return;
  const Outcome outcome = sink.judge(kept, pending);
  const char* id = nullptr;
  if (outcome != Outcome::notNow && !pending.isAgain &&
      natsMsgHeader_Get(message, fleet::kIdHeader, &id) == NATS_OK) {
    sink.lost_->add(id, headOfRecord(message), bodyOf(message));
  }
  pending.done(outcome, nullptr);
}

bool NatsSink::take(const natsMsg* message, Pending& pending) {
  const MutexLock lock(mutex_);
  const auto found = pending_.find(message);
  if (found == pending_.end()) return false;
  pending = std::move(found->second);
  pending_.erase(found);
  return true;
}

LogSink::Outcome NatsSink::judge(const jsPubAck* kept, const Pending& pending) {
  // Its place in the stream is what says that it is there; there is none before the first.
  if (kept == nullptr || kept->Stream == nullptr ||
      std::strcmp(kept->Stream, fleet::kStream) != 0 || kept->Sequence == 0) {
    return Outcome::notNow;
  }
  if (kept->Duplicate) return Outcome::repeat;
  if (kept->Sequence > pending.highest) {
    raise(kept->Sequence);
    return Outcome::kept;
  }
  // A new message where another was before: who leads now has not all that there was.
  ++disbelieved_;
  isReady_ = false;
  stopped_.notifyAll();
  return Outcome::notNow;
}

void NatsSink::raise(std::uint64_t place) {
  std::uint64_t highest = highest_;
  while (place > highest && !highest_.compare_exchange_weak(highest, place)) {
  }
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
  const std::uint64_t highest = highest_;
  natsStatus status{};
  jsErrCode error{};
  skelda::tools::StreamInfo info = skelda::tools::streamInfo(stream_, &status, &error);
  if (status == NATS_NOT_FOUND) {
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = kAsk;
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
    jsStreamInfo* made = nullptr;
    status = js_AddStream(&made, stream_, &config, &options, &error);
    info.reset(made);
  }
  if (status != NATS_OK) return fmt::format("{} ({})", natsStatus_GetText(status), int{error});
  return look(*info, highest);
}

std::string NatsSink::look(const jsStreamInfo& info, std::uint64_t highest) {
  const auto replicas = static_cast<int>(info.Config->Replicas);
  if (replicas < options_.replicas) {
    return fmt::format("{} has {} replicas of {}", fleet::kStream, replicas, options_.replicas);
  }
  const std::string leader(skelda::tools::leaderOf(info));
  // Without a majority there is a leader for a while, and then none; a server tells of both.
  if (replicas > 1 && leader.empty()) return "no leader";
  const auto others = othersThere(info);
  const int there = 1 + static_cast<int>(others.size());
  // By another leader, or a server that went or came, messages may have been lost.
  const std::string seen = fmt::format("{} {}", leader, fmt::join(others, " "));
  if (seen != std::exchange(seen_, seen)) lost_->trouble();
  if (2 * there <= replicas) return fmt::format("{} of {} replicas are there", there, replicas);
  return doubt(info, highest, there >= replicas ? kLongestDoubtOfAll : kLongestDoubt);
}

/// A leader that has less than there was: perhaps it has not come to the end of what it has, or it
/// was made leader before it had caught up, and another has it all. Nothing is taken until that is
/// so; then what is gone is gone, but for the copies that there are.
std::string NatsSink::doubt(const jsStreamInfo& info, std::uint64_t highest,
                            std::chrono::seconds longest) {
  const auto now = Clock::now();
  if (info.State.LastSeq >= highest) {
    doubtSince_ = {};
    raise(info.State.LastSeq);
    return "";
  }
  lost_->trouble();
  if (doubtSince_ == Clock::time_point{}) {
    doubtSince_ = steppedDown_ = now;
    ++wentBack_;
  }
  if (now - doubtSince_ > longest) {
    doubtSince_ = {};
    highest_ = info.State.LastSeq;
    return "";
  }
  if (now - steppedDown_ > kBetweenLeaders) {
    steppedDown_ = now;
    natsMsg* answer = nullptr;
    natsConnection_RequestString(&answer, connection_, kStepDown.c_str(), "", kAsk);
    natsMsg_Destroy(answer);
  }
  return "it ends before where it ended once";
}

std::string NatsSink::figures() const {
  return fmt::format(
             "# TYPE skelda_collector_stream_went_back_total counter\n"
             "skelda_collector_stream_went_back_total {}\n"
             "# TYPE skelda_collector_answers_not_believed_total counter\n"
             "skelda_collector_answers_not_believed_total {}\n",
             wentBack_.load(), disbelieved_.load()) +
         lost_->figures();
}
