#pragma once

#include <nats/nats.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace CLI {
class App;
}

namespace skelda::tools {

/// A handle of the stream's library, freed by its own function.
template <class Handle, void (*destroy)(Handle*)>
struct NatsDestroy {
  void operator()(Handle* handle) const { destroy(handle); }
};
template <class Handle, void (*destroy)(Handle*)>
using NatsHandle = std::unique_ptr<Handle, NatsDestroy<Handle, destroy>>;
using NatsOptions = NatsHandle<natsOptions, natsOptions_Destroy>;
using NatsMessage = NatsHandle<natsMsg, natsMsg_Destroy>;
using StreamInfo = NatsHandle<jsStreamInfo, jsStreamInfo_Destroy>;

/// The stream gave no answer, or another than was hoped for: the same may succeed later.
struct StreamTrouble : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Throws StreamTrouble but for NATS_OK: what was tried, and what the library says of it.
void mustWork(natsStatus status, std::string_view what, jsErrCode code = {});

/// How the servers of the stream are reached, and as whom.
struct StreamAccess {
  // nats://[user:password@]host:port[,host:port...]; tls://: encrypted. User: of all of them.
  std::string servers;
  std::string authority;    // PEM file of who vouches for the servers: then it is encrypted as well
  std::string certificate;  // PEM files of who this is, where the servers ask for it
  std::string key;
  std::string userFile;     // one line, user:password
  std::string credentials;  // file of a user's token and key, as the servers' own tools write it

  /// Adds what the command line says of it, but for the servers.
  void describe(CLI::App& app);
  /// To connect with, as `name`. Throws std::runtime_error for what cannot be.
  NatsOptions options(const char* name) const;
};

/// A message that a server has, by the id that a collector gave it. Says whether the next is
/// wanted.
using SeenMessage = std::function<bool(std::string_view id, std::uint64_t sequence)>;
/// A server is read from here on, maybe once more after a reading that broke off: what is to be
/// told of its messages.
using SeenServer = std::function<SeenMessage(bool leads)>;
/// Reads which messages the server has that leads the stream, from whom everybody reads: all from
/// `since` on. With `ofAll` also those of each other server that is there, where these are found in
/// five seconds. Throws StreamTrouble where the leader is not found in twenty seconds or not read
/// without a gap, or another server leads meanwhile; and what `seen` throws. Must not be called by
/// the library's own threads.
void readServers(natsConnection* connection, jsCtx* stream,
                 std::chrono::system_clock::time_point since, bool ofAll, const SeenServer& seen);

/// The state of the stream, or null. Waits for two seconds at most.
StreamInfo streamInfo(jsCtx* stream, natsStatus* status = nullptr, jsErrCode* code = nullptr);

/// The server that leads it; empty where there is none, or but one.
std::string_view leaderOf(const jsStreamInfo& info);

}  // namespace skelda::tools
