#pragma once

#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "Platform/Base/Descriptor.h"

namespace skelda::platform {

/// A socket to the kernel's table of links and routes. One thread at a time.
class RouteSocket {
 public:
  /// With `groups` it is told of changes; never blocks.
  static int openForChanges(std::uint32_t groups) noexcept {
    const int socket = aboveStandardDescriptors(
        ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    if (socket < 0 ||
        ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      return socket;
    }
    ::close(socket);
    return -1;
  }

  /// Calls `take` with every message of the table that `request` names; false where the kernel does
  /// not answer whole.
  template <class Body, class F>
  static bool dump(std::uint16_t request, F&& take) {
    struct {
      nlmsghdr header;
      Body body;
    } question{};
    question.header.nlmsg_len = NLMSG_LENGTH(sizeof(Body));
    question.header.nlmsg_type = request;
    question.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    const int socket =
        aboveStandardDescriptors(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (socket < 0) return false;
    const timeval patience{1, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const bool whole =
        ::send(socket, &question, question.header.nlmsg_len, 0) >= 0 && receive(socket, take);
    ::close(socket);
    return whole;
  }

  /// The attribute of that kind behind the fixed part of a message; null where there is none.
  template <class Body>
  static const rtattr* attribute(const nlmsghdr* message, std::uint16_t kind) noexcept {
    auto* at = reinterpret_cast<const rtattr*>(static_cast<const std::byte*>(NLMSG_DATA(message)) +
                                               NLMSG_ALIGN(sizeof(Body)));
    auto left = message->nlmsg_len - static_cast<std::uint32_t>(NLMSG_SPACE(sizeof(Body)));
    if (message->nlmsg_len < NLMSG_SPACE(sizeof(Body))) return nullptr;
    for (; RTA_OK(at, left); at = RTA_NEXT(at, left)) {
      if (at->rta_type == kind) return at;
    }
    return nullptr;
  }

 private:
  template <class F>
  static bool receive(int socket, F& take) {
    alignas(nlmsghdr) std::array<std::byte, 32768> buffer;
    for (;;) {
      const ssize_t length = ::recv(socket, buffer.data(), buffer.size(), 0);
      if (length <= 0) return false;
      auto left = static_cast<std::uint32_t>(length);
      auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data());
      for (; NLMSG_OK(message, left); message = NLMSG_NEXT(message, left)) {
        if (message->nlmsg_type == NLMSG_ERROR || (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
          return false;
        }
        if (message->nlmsg_type == NLMSG_DONE) return true;
        take(message);
      }
    }
  }
};

}  // namespace skelda::platform
