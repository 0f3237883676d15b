#pragma once

#include <functional>
#include <memory>

#include "Platform/Dispatch/Queue.h"
#include "Platform/Dispatch/ReadSource.h"

namespace skelda::platform {

/// What the machine is connected over.
enum class NetworkLink {
  none,    ///< no route leads anywhere but to the machine itself
  local,   ///< a wired or wireless local network
  mobile,  ///< a mobile network
};

/// Follows the machine's links and routes (rtnetlink). Connected means: a route, other than those
/// that every link has by itself, leads over a link that is up and running and not the loopback.
/// Nothing runs while nothing changes. Any thread.
class NetworkMonitor : public std::enable_shared_from_this<NetworkMonitor> {
 public:
  using Handler = std::function<void(NetworkLink)>;

  /// The handler runs on `queue`, which is serial: once after start(), then at every change, until
  /// stop() or the last owner lets go.
  static std::shared_ptr<NetworkMonitor> make(QueueRef queue, Handler handler);
  ~NetworkMonitor();
  void start();
  void stop();

  /// Asks the system now; false where it does not answer.
  static bool currentLink(NetworkLink& link);

 private:
  NetworkMonitor(QueueRef queue, Handler handler);
  void onqueue_start();
  void onqueue_somethingChanged();
  void onqueue_look();
  void onqueue_lookLater();

  const QueueRef queue_;
  const Handler handler_;
  std::shared_ptr<ReadSource> source_;
  int socket_ = -1;
  bool running_ = false;
  bool lookPending_ = false;
  bool told_ = false;
  NetworkLink link_ = NetworkLink::none;
};

}  // namespace skelda::platform
