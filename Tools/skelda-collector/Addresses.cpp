#include "Tools/skelda-collector/Addresses.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace {

// Of connections that nobody has taken up yet.
constexpr int kBacklog = 512;

struct Found {
  addrinfo* first = nullptr;
  int error = 0;

  Found(const std::string& host, const char* port, int flags) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    error = ::getaddrinfo(host.c_str(), port, &hints, &first);
  }
  Found(const Found&) = delete;
  Found& operator=(const Found&) = delete;
  ~Found() {
    if (first) ::freeaddrinfo(first);
  }
};

std::string textOf(const sockaddr* address) {
  char text[INET6_ADDRSTRLEN] = "";
  if (address->sa_family == AF_INET) {
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text,
                sizeof(text));
  } else if (address->sa_family == AF_INET6) {
    const auto& v6 = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    if (!IN6_IS_ADDR_LINKLOCAL(&v6)) ::inet_ntop(AF_INET6, &v6, text, sizeof(text));
  }
  return text;
}

int portOf(const std::string& digits, const std::string& text) {
  int port = -1;
  const auto* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, port);
  if (digits.empty() || error != std::errc() || stop != end || port < 0 || port > 65535)
    throw std::invalid_argument(fmt::format(
        "--listen {}: the port must be a number from 0 to 65535, 0 for a free one", text));
  return port;
}

/// A socket that listens on that address, or -1 and errno.
int listenOn(const addrinfo& address) {
  const int fd = ::socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC, address.ai_protocol);
  if (fd < 0) return -1;
  const int yes = 1;
  const int no = 0;
  // A port in its last minute may be had again at once; one that somebody listens on may not.
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  if (address.ai_family == AF_INET6)
    ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof(no));  // [::] takes both versions
  if (::bind(fd, address.ai_addr, address.ai_addrlen) == 0 && ::listen(fd, kBacklog) == 0)
    return fd;
  const int error = errno;
  ::close(fd);
  errno = error;
  return -1;
}

}  // namespace

ListenAddress ListenAddress::parse(const std::string& text) {
  ListenAddress address;
  std::string rest;
  if (text.starts_with('[')) {
    const auto end = text.find(']');
    address.host = text.substr(1, end == std::string::npos ? end : end - 1);
    rest = end == std::string::npos ? "]" : text.substr(end + 1);
    in6_addr ignored{};
    if (::inet_pton(AF_INET6, address.host.c_str(), &ignored) != 1 ||
        (!rest.empty() && rest[0] != ':'))
      throw std::invalid_argument(
          fmt::format("--listen {}: an IPv6 address is written as [::1]:8443", text));
  } else {
    const auto colon = text.find(':');
    if (colon != text.rfind(':'))
      throw std::invalid_argument(
          fmt::format("--listen {}: an IPv6 address is written as [::1]:8443", text));
    address.host = text.substr(0, colon);
    if (colon != std::string::npos) rest = text.substr(colon);
  }
  if (address.host.empty())
    throw std::invalid_argument(fmt::format(
        "--listen {}: no address; 127.0.0.1 is this machine alone, 0.0.0.0 whoever reaches it",
        text));
  if (!rest.empty()) address.port = portOf(rest.substr(1), text);
  return address;
}

bool ListenAddress::isEvery() const {
  in6_addr v6{};
  return host == "0.0.0.0" || (::inet_pton(AF_INET6, host.c_str(), &v6) == 1 &&
                               std::equal(v6.s6_addr, v6.s6_addr + 16, in6addr_any.s6_addr));
}

int ListenAddress::open() {
  const Found found(host, std::to_string(port).c_str(), AI_PASSIVE | AI_NUMERICSERV);
  if (!found.first)
    throw std::runtime_error(fmt::format("cannot listen on {}:{}: no such address: {}", inURL(host),
                                         port, ::gai_strerror(found.error)));
  int fd = -1;
  for (const auto* each = found.first; each && fd < 0; each = each->ai_next) fd = listenOn(*each);
  if (fd < 0) {
    const char* meaning = errno == EADDRNOTAVAIL ? ": no interface of this machine has that address"
                          : errno == EADDRINUSE  ? ": another program listens there"
                          : errno == EACCES      ? ": ports below 1024 are the system's"
                                                 : "";
    throw std::runtime_error(fmt::format("cannot listen on {}:{}: {}{}", inURL(host), port,
                                         std::generic_category().message(errno), meaning));
  }
  sockaddr_storage bound{};
  socklen_t length = sizeof(bound);
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) == 0)
    port = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(bound).sin6_port
                                             : reinterpret_cast<sockaddr_in&>(bound).sin_port);
  return fd;
}

std::vector<std::string> ListenAddress::reachableHosts() const {
  if (!isEvery()) return {host};
  std::vector<std::string> hosts;
  for (const auto& address : machineAddresses()) {
    const bool isOfThatVersion = host != "0.0.0.0" || address.find(':') == std::string::npos;
    if (isOfThatVersion && !isLoopback(address)) hosts.push_back(address);
  }
  if (hosts.empty()) hosts.emplace_back(host == "0.0.0.0" ? "127.0.0.1" : "::1");
  return hosts;
}

bool isNumericAddress(const std::string& text) {
  in6_addr address{};
  return ::inet_pton(AF_INET, text.c_str(), &address) == 1 ||
         ::inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

bool isLoopback(const std::string& address) {
  in_addr v4{};
  if (::inet_pton(AF_INET, address.c_str(), &v4) == 1) return ntohl(v4.s_addr) >> 24 == 127;
  in6_addr v6{};
  if (::inet_pton(AF_INET6, address.c_str(), &v6) != 1) return false;
  return IN6_IS_ADDR_LOOPBACK(&v6) || (IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127);
}

std::string inURL(const std::string& host) {
  return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

std::set<std::string> machineAddresses() {
  std::set<std::string> addresses;
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) != 0) return addresses;
  for (const auto* each = first; each; each = each->ifa_next)
    if (each->ifa_addr)
      if (auto text = textOf(each->ifa_addr); !text.empty()) addresses.insert(std::move(text));
  ::freeifaddrs(first);
  return addresses;
}

std::set<std::string> machineNames(bool resolved) {
  std::set<std::string> names;
  char host[256] = "";
  if (::gethostname(host, sizeof(host) - 1) != 0 || !*host) return names;
  names.insert(host);
  if (resolved) {
    const Found found(host, nullptr, AI_CANONNAME);
    if (found.first && found.first->ai_canonname) names.insert(found.first->ai_canonname);
  }
  return names;
}
