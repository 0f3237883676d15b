#include "Platform/Reachability/NetworkMonitor.h"
#include "Platform/Base/ArmOnce.h"

#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <utility>

#include "Platform/Reachability/RouteSocket.h"

namespace skelda::platform {

namespace {

constexpr std::chrono::seconds kLookAgain{1};
constexpr std::uint32_t kGroups =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;

using Links = std::map<int, NetworkLink>;  // by index; only those that carry something

void takeLink(const nlmsghdr* message, Links& links) {
  if (message->nlmsg_type != RTM_NEWLINK || message->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) {
    return;
  }
  const auto* link = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
  constexpr unsigned kNeeded = IFF_UP | IFF_RUNNING;
  if ((link->ifi_flags & IFF_LOOPBACK) != 0 || (link->ifi_flags & kNeeded) != kNeeded) return;
  const bool mobile = link->ifi_type == ARPHRD_PPP || link->ifi_type == ARPHRD_RAWIP;
  links.emplace(link->ifi_index, mobile ? NetworkLink::mobile : NetworkLink::local);
}

/// Every link has those for itself, whether anybody is at its other end or not.
bool isRouteOfTheLinkItself(const nlmsghdr* message, const rtmsg* route) noexcept {
  if (route->rtm_type != RTN_UNICAST || route->rtm_table == RT_TABLE_LOCAL) return true;
  if (route->rtm_family != AF_INET6) return false;
  const rtattr* destination = RouteSocket::attribute<rtmsg>(message, RTA_DST);
  if (destination == nullptr || RTA_PAYLOAD(destination) != sizeof(in6_addr)) return false;
  in6_addr address;
  std::memcpy(&address, RTA_DATA(destination), sizeof address);
  return IN6_IS_ADDR_LINKLOCAL(&address) || IN6_IS_ADDR_MULTICAST(&address);
}

void takeRoute(const nlmsghdr* message, const Links& links, NetworkLink& best) {
  if (message->nlmsg_type != RTM_NEWROUTE || message->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) {
    return;
  }
  const auto* route = static_cast<const rtmsg*>(NLMSG_DATA(message));
  if (isRouteOfTheLinkItself(message, route)) return;
  const auto over = [&](int index) {
    const auto link = links.find(index);
    if (link != links.end() && best != NetworkLink::local) best = link->second;
  };
  if (const rtattr* hop = RouteSocket::attribute<rtmsg>(message, RTA_OIF)) {
    int index = 0;
    if (RTA_PAYLOAD(hop) == sizeof index) std::memcpy(&index, RTA_DATA(hop), sizeof index);
    over(index);
  } else if (const rtattr* hops = RouteSocket::attribute<rtmsg>(message, RTA_MULTIPATH)) {
    const auto* at = static_cast<const rtnexthop*>(RTA_DATA(hops));
    auto left = static_cast<int>(RTA_PAYLOAD(hops));
    while (RTNH_OK(at, left)) {
      over(at->rtnh_ifindex);
      left -= static_cast<int>(RTNH_ALIGN(at->rtnh_len));
      at = RTNH_NEXT(at);
    }
  }
}

}  // namespace

bool NetworkMonitor::currentLink(NetworkLink& link) {
  Links links;
  if (!RouteSocket::dump<ifinfomsg>(RTM_GETLINK,
                                    [&](const nlmsghdr* message) { takeLink(message, links); })) {
    return false;
  }
  NetworkLink best = NetworkLink::none;
  if (!RouteSocket::dump<rtmsg>(
          RTM_GETROUTE, [&](const nlmsghdr* message) { takeRoute(message, links, best); })) {
    return false;
  }
  link = best;
  return true;
}

NetworkMonitor::NetworkMonitor(QueueRef queue, Handler handler)
    : queue_(std::move(queue)), handler_(std::move(handler)) {}

std::shared_ptr<NetworkMonitor> NetworkMonitor::make(QueueRef queue, Handler handler) {
  return std::shared_ptr<NetworkMonitor>(new NetworkMonitor(std::move(queue), std::move(handler)));
}

NetworkMonitor::~NetworkMonitor() {
  if (source_ != nullptr) source_->cancel();
}

void NetworkMonitor::start() {
  queue_->async([self = shared_from_this()] {
    if (std::exchange(self->running_, true)) return;
    self->onqueue_start();
  });
}

void NetworkMonitor::stop() {
  queue_->async([self = shared_from_this()] {
    self->running_ = false;
    if (auto source = std::exchange(self->source_, nullptr)) source->cancel();
    self->socket_ = -1;
  });
}

void NetworkMonitor::onqueue_start() {
  socket_ = RouteSocket::openForChanges(kGroups);
  if (socket_ < 0) return onqueue_lookLater();
  source_ = ReadSource::make(socket_, queue_);
  source_->setEventHandler([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->onqueue_somethingChanged();
  });
  source_->setCancelHandler([socket = socket_] { ::close(socket); });
  source_->resume();
  onqueue_look();
}

void NetworkMonitor::onqueue_somethingChanged() {
  if (!running_) return;
  // What changed does not matter: the state is asked for. An overflow is a change as well.
  std::array<std::byte, 8192> ignored;
  while (::recv(socket_, ignored.data(), ignored.size(), 0) >= 0 || errno == ENOBUFS ||
         errno == EINTR) {
  }
  onqueue_look();
}

void NetworkMonitor::onqueue_look() {
  NetworkLink link = NetworkLink::none;
  if (!currentLink(link)) return onqueue_lookLater();
  if (std::exchange(told_, true) && link == link_) return;
  link_ = link;
  handler_(link);
}

void NetworkMonitor::onqueue_lookLater() {
  armOnce(lookPending_, [this] {
    queue_->after(dispatchTimeAfter(kLookAgain), [weak = weak_from_this()] {
      const auto self = weak.lock();
      if (self == nullptr) return;
      self->lookPending_ = false;
      if (!self->running_) return;
      if (self->socket_ < 0) return self->onqueue_start();
      self->onqueue_look();
    });
  });
}

}  // namespace skelda::platform
