#pragma once

#include <set>
#include <string>
#include <vector>

/// Where to listen, as a person writes it: "127.0.0.1:8443", "[::1]:8443", "localhost:0", and
/// without a port, 8443, "0.0.0.0". Port 0 takes a free one.
struct ListenAddress {
  std::string host;
  int port = 8443;

  /// Throws std::invalid_argument with a sentence when that is no address and port.
  static ListenAddress parse(const std::string& text);

  /// Every address of the machine.
  bool isEvery() const;
  /// A socket that listens there; `port` becomes the one it has. Throws std::runtime_error with a
  /// sentence when that cannot be had: another program's port, no address of this machine.
  int open();
  /// The hosts under which a client reaches it: for every address, those of the machine that go
  /// beyond it, or the loopback one where there are none.
  std::vector<std::string> reachableHosts() const;
};

/// An address of the internet, of either version.
bool isNumericAddress(const std::string& text);
/// 127.0.0.0/8 and ::1, also where they are written as the other version's.
bool isLoopback(const std::string& address);
/// As it stands in front of a port.
std::string inURL(const std::string& host);
/// The addresses of this machine's interfaces that need no interface named beside them.
std::set<std::string> machineAddresses();
/// This machine's name, and with `resolved` the whole name that the resolver has for it.
std::set<std::string> machineNames(bool resolved);
