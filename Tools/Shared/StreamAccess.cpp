#include "Tools/Shared/StreamAccess.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fstream>
#include <set>
#include <stdexcept>
#include <vector>

#include "Tools/Shared/FleetStream.h"

namespace skelda::tools {
namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kAsk = 2000;
constexpr std::int64_t kLongestSilence = 5000;  // of a server that has more to say
constexpr auto kLongestSearch = 20s;            // for the leader
constexpr int kMostReadings = 32;               // each may be of any server
constexpr auto kLongestReading = 5s;            // of servers beside it

/// "nats://a:1,b:2" as the library takes them: what stands before the first holds for all.
std::vector<std::string> serversIn(const std::string& text) {
  const std::size_t end = text.find("://");
  std::string before = end == std::string::npos ? "nats://" : text.substr(0, end + 3);
  std::vector<std::string> servers;
  for (std::size_t from = 0; from <= text.size();) {
    const std::size_t comma = std::min(text.find(',', from), text.size());
    std::string server = text.substr(from, comma - from);
    if (server.find("://") == std::string::npos) {
      server.insert(0, server.find('@') == std::string::npos
                           ? before
                           : before.substr(0, before.find("://") + 3));
    }
    const std::size_t name = std::max(server.find("://") + 3, server.rfind('@') + 1);
    if (name == server.size()) throw std::runtime_error(text + ": a server without a name");
    before = server.substr(0, name);
    servers.push_back(std::move(server));
    from = comma + 1;
  }
  return servers;
}

/// The first line of a file: what must not stand on a command line, where everybody reads it.
std::pair<std::string, std::string> userIn(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  const std::size_t colon = line.find(':');
  if (colon == 0 || colon == std::string::npos) {
    throw std::runtime_error(path + " does not begin with user:password");
  }
  return {line.substr(0, colon), line.substr(colon + 1)};
}

std::string_view idOf(natsMsg* message) {
  const char* id = nullptr;
  return natsMsgHeader_Get(message, fleet::kIdHeader, &id) == NATS_OK && id != nullptr ? id : "";
}

using ConsumerInfo = NatsHandle<jsConsumerInfo, jsConsumerInfo_Destroy>;

/// On one server, which gives out what it has itself. Which server that is, the stream decides.
ConsumerInfo makeReader(jsCtx* stream, std::chrono::system_clock::time_point since) {
  jsConsumerConfig config;
  jsConsumerConfig_Init(&config);
  config.DeliverPolicy = js_DeliverByStartTime;
  config.OptStartTime =
      std::max<std::int64_t>(1, std::chrono::nanoseconds(since.time_since_epoch()).count());
  config.AckPolicy = js_AckNone;
  config.HeadersOnly = true;
  config.Replicas = 1;
  config.MemoryStorage = true;
  config.InactiveThreshold = std::chrono::nanoseconds(10s).count();
  jsOptions options;
  jsOptions_Init(&options);
  options.Wait = kAsk;
  jsErrCode code{};
  jsConsumerInfo* made = nullptr;
  mustWork(js_AddConsumer(&made, stream, fleet::kStream, &config, &options, &code), "reading",
           code);
  return ConsumerInfo(made);
}

/// Reads one server's messages in their order, in pieces. What is under way when a connection
/// breaks never comes: a gap is an error. How many are to come, servers do not count well: they
/// were seen to name some that had been deleted.
class Reading {
 public:
  Reading(natsConnection* connection, jsCtx* stream, std::chrono::system_clock::time_point since)
      : connection_(connection), stream_(stream) {
    natsInbox* inbox = nullptr;
    mustWork(natsInbox_Create(&inbox), "inbox");
    inbox_.reset(inbox);
    natsSubscription* subscription = nullptr;
    mustWork(natsConnection_SubscribeSync(&subscription, connection, inbox), "reading");
    subscription_.reset(subscription);
    reader_ = makeReader(stream, since);
    left_ = reader_->NumPending;
    ask_ = fmt::format("$JS.API.CONSUMER.MSG.NEXT.{}.{}", fleet::kStream, reader_->Name);
  }
  ~Reading() { js_DeleteConsumer(stream_, fleet::kStream, reader_->Name, nullptr, nullptr); }
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;

  std::string server() const {
    const auto* cluster = reader_->Cluster;
    return cluster != nullptr && cluster->Leader != nullptr ? cluster->Leader : "";
  }

  /// Until a piece brings nothing, or no more is wanted.
  void each(const SeenMessage& seen) {
    std::uint64_t before = 0;
    do {
      before = taken_;
    } while (readPiece(seen) && taken_ > before);
  }

 private:
  static constexpr std::uint64_t kAtOnce = 4096;
  static constexpr std::chrono::nanoseconds kWait = 2s;

  /// False where no more is wanted.
  bool readPiece(const SeenMessage& seen) {
    // It answers at once where it knows of none; else what it counts may not be there.
    const std::string wanted =
        fmt::format(R"({{"batch":{},"no_wait":true{}}})", kAtOnce,
                    left_ > 0 ? fmt::format(R"(,"expires":{})", kWait.count()) : "");
    mustWork(natsConnection_PublishRequestString(connection_, ask_.c_str(), inbox_.get(),
                                                 wanted.c_str()),
             "reading");
    for (const std::uint64_t end = taken_ + kAtOnce; taken_ < end;) {
      natsMsg* next = nullptr;
      mustWork(natsSubscription_NextMsg(&next, subscription_.get(), kLongestSilence), "reading");
      const NatsMessage message(next);
      const char* status = nullptr;
      if (natsMsgHeader_Get(next, "Status", &status) == NATS_OK) {
        if (natsMsg_IsNoResponders(next)) throw StreamTrouble("reading: the server has gone");
        return true;  // this is all for now
      }
      jsMsgMetaData* data = nullptr;
      mustWork(natsMsg_GetMetaData(&data, next), "reading");
      const NatsHandle<jsMsgMetaData, jsMsgMetaData_Destroy> held(data);
      if (data->Sequence.Consumer != ++taken_) throw StreamTrouble("reading: a gap");
      left_ = data->NumPending;
      if (!seen(idOf(next), data->Sequence.Stream)) return false;
    }
    return true;
  }

  natsConnection* const connection_;
  jsCtx* const stream_;
  NatsHandle<natsInbox, natsInbox_Destroy> inbox_;
  NatsHandle<natsSubscription, natsSubscription_Destroy> subscription_;
  ConsumerInfo reader_;
  std::string ask_;
  std::uint64_t taken_ = 0, left_ = 0;
};

}  // namespace

void mustWork(natsStatus status, std::string_view what, jsErrCode code) {
  if (status == NATS_OK) return;
  const char* last = nats_GetLastError(nullptr);
  throw StreamTrouble(
      fmt::format("{}: {}{}{}", what, natsStatus_GetText(status),
                  code != 0 ? fmt::format(" ({})", int{code}) : "",
                  last != nullptr && *last != '\0' ? fmt::format(": {}", last) : ""));
}

void StreamAccess::describe(CLI::App& app) {
  const auto file = [&](const char* name, std::string& value, const char* what) {
    return app.add_option(name, value, what)
        ->check(CLI::ExistingFile)
        ->group("Reaching the servers of the stream");
  };
  file("--stream-authority", authority, "PEM file of who vouches for them; then it is encrypted");
  auto* mine = file("--stream-cert", certificate, "PEM file of this program's own certificate");
  mine->needs(file("--stream-key", key, "PEM file of its key")->needs(mine));
  file("--stream-user", userFile, "File of one line, user:password");
  file("--stream-credentials", credentials, "File of a user's token and key (.creds)");
}

NatsOptions StreamAccess::options(const char* name) const {
  natsOptions* made = nullptr;
  mustWork(natsOptions_Create(&made), "options");
  NatsOptions held(made);
  const auto all = serversIn(servers);
  std::vector<const char*> names;
  for (const auto& server : all) names.push_back(server.c_str());
  mustWork(natsOptions_SetServers(made, names.data(), static_cast<int>(names.size())), servers);
  mustWork(natsOptions_SetName(made, name), "name");
  mustWork(natsOptions_SetTimeout(made, kAsk), "time-out");
  mustWork(natsOptions_SetMaxReconnect(made, -1), "reconnect");
  if (!authority.empty() || servers.starts_with("tls://")) {
    mustWork(natsOptions_SetSecure(made, true), "encryption");
  }
  if (!authority.empty()) {
    mustWork(natsOptions_LoadCATrustedCertificates(made, authority.c_str()), authority);
  }
  if (!certificate.empty()) {
    mustWork(natsOptions_LoadCertificatesChain(made, certificate.c_str(), key.c_str()),
             certificate);
  }
  if (!userFile.empty()) {
    const auto [user, password] = userIn(userFile);
    mustWork(natsOptions_SetUserInfo(made, user.c_str(), password.c_str()), userFile);
  }
  if (!credentials.empty()) {
    mustWork(natsOptions_SetUserCredentialsFromFiles(made, credentials.c_str(), nullptr),
             credentials);
  }
  return held;
}

StreamInfo streamInfo(jsCtx* stream, natsStatus* status, jsErrCode* code) {
  jsOptions options;
  jsOptions_Init(&options);
  options.Wait = kAsk;
  jsStreamInfo* info = nullptr;
  jsErrCode error{};
  const natsStatus got = js_GetStreamInfo(&info, stream, fleet::kStream, &options, &error);
  if (status != nullptr) *status = got;
  if (code != nullptr) *code = error;
  return StreamInfo(info);
}

std::string_view leaderOf(const jsStreamInfo& info) {
  return info.Cluster != nullptr && info.Cluster->Leader != nullptr ? info.Cluster->Leader : "";
}

void readServers(natsConnection* connection, jsCtx* stream,
                 std::chrono::system_clock::time_point since, bool ofAll, const SeenServer& seen) {
  const auto before = streamInfo(stream);
  if (!before) throw StreamTrouble("nobody leads the stream");
  const std::string leader(leaderOf(*before));
  std::set<std::string> left{leader};
  for (int each = 0; ofAll && before->Cluster != nullptr && each < before->Cluster->ReplicasLen;
       ++each) {
    const auto& peer = *before->Cluster->Replicas[each];
    if (!peer.Offline) left.emplace(peer.Name);
  }
  const auto began = std::chrono::steady_clock::now();
  for (int reading = 0; reading < kMostReadings && !left.empty(); ++reading) {
    // The others matter less, and may have gone.
    const auto spent = std::chrono::steady_clock::now() - began;
    if (spent > (left.contains(leader) ? kLongestSearch : kLongestReading)) break;
    try {
      Reading one(connection, stream, since);
      const std::string server = one.server();
      if (!left.contains(server)) continue;
      one.each(seen(server == leader));
      left.erase(server);
    } catch (const StreamTrouble&) {
      // One that has just gone away: the others are looked at all the same.
      if (!streamInfo(stream)) throw;
    }
  }
  if (left.contains(leader)) throw StreamTrouble("the server that leads cannot be read");
  const auto after = streamInfo(stream);
  if (!after || leaderOf(*after) != leader) throw StreamTrouble("another server leads now");
}

}  // namespace skelda::tools
