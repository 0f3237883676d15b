// skelda-phone: stands in for the paired phone of a watch host.

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Foundation/JSONWriter.h"
#include "Platform/Foundation/UUID.h"
#include "Tools/skelda-phone/PhoneLink.h"

using namespace std::chrono_literals;
using skelda::platform::Dictionary;
using skelda::platform::WCPacket;

namespace {

enum ExitCode { kAcknowledged = 0, kNotAcknowledged = 1, kNoWatch = 2 };

struct Options {
  std::string socket;
  std::string vendorIdentifier;
  std::string installationIdentifier;
  std::vector<std::string> userInfos;
  std::vector<std::string> messages;
  double wait = 10;
  unsigned slow = 0;
  std::size_t garbage = 0;
  int leaveAfter = -1;
  double away = 1;
  unsigned burst = 0;
  bool silent = false;
  bool noIdentifiers = false;
};

void print(const char* what, const Dictionary& content) {
  std::printf("%s %s\n", what, skelda::platform::jsonText(content).c_str());
  std::fflush(stdout);
}

Dictionary pair(const std::string& text) {
  const auto equals = text.find('=');
  Dictionary content;
  content.set(text.substr(0, equals), equals == std::string::npos ? "" : text.substr(equals + 1));
  return content;
}

std::string randomHex(std::size_t bytes) {
  std::random_device device;
  std::string hex;
  for (std::size_t i = 0; i < 2 * bytes; ++i) hex += "0123456789abcdef"[device() & 15];
  return hex;
}

/// One run of the phone: what it sends, then what it hears.
class Phone {
 public:
  explicit Phone(Options options)
      : options_(std::move(options)),
        link_(options_.socket),
        deadline_(PhoneLink::Clock::now() +
                  std::chrono::milliseconds(static_cast<std::int64_t>(options_.wait * 1000))) {}

  ExitCode run() {
    if (!link_.connect(deadline_)) return noWatch();
    std::printf("connected to %s\n", options_.socket.c_str());
    if (options_.garbage > 0) return sendGarbage();
    if (options_.silent) return listen() ? kAcknowledged : kNotAcknowledged;
    if (options_.leaveAfter >= 0 && !leaveAndComeBack()) return noWatch();
    if (!sendAll()) return kNotAcknowledged;
    return listen() ? kAcknowledged : kNotAcknowledged;
  }

 private:
  ExitCode noWatch() {
    std::fprintf(stderr, "skelda-phone: no watch at %s\n", options_.socket.c_str());
    return kNoWatch;
  }

  Dictionary identifiers() const {
    return {{"skelda://id1", options_.vendorIdentifier},
            {"skelda://id2", options_.installationIdentifier}};
  }

  bool send(WCPacket::Kind kind, Dictionary content) {
    WCPacket packet{kind, 0, std::move(content)};
    if (kind == WCPacket::Kind::userInfo) packet.identifier = ++lastIdentifier_;
    print(kind == WCPacket::Kind::userInfo ? "sent user info" : "sent message", packet.content);
    return link_.send(packet, std::chrono::milliseconds(options_.slow));
  }

  bool sendAll() {
    bool sent = options_.noIdentifiers || send(WCPacket::Kind::userInfo, identifiers());
    for (const auto& text : options_.userInfos)
      sent = sent && send(WCPacket::Kind::userInfo, pair(text));
    for (const auto& text : options_.messages)
      sent = sent && send(WCPacket::Kind::message, pair(text));
    for (unsigned i = 0; sent && i < options_.burst; ++i)
      sent = link_.send({WCPacket::Kind::userInfo, ++lastIdentifier_, {{"burst", i}}});
    unconfirmed_ = lastIdentifier_;
    return sent;
  }

  /// Breaks off in the middle of the identifiers, stays away, and connects again.
  bool leaveAndComeBack() {
    // The number is used again: what was not taken has not been sent.
    link_.send({WCPacket::Kind::userInfo, lastIdentifier_ + 1, identifiers()},
               std::chrono::milliseconds(options_.slow),
               static_cast<std::size_t>(options_.leaveAfter));
    link_.hangUp();
    std::printf("away for %g s\n", options_.away);
    std::fflush(stdout);
    std::this_thread::sleep_for(
        std::chrono::milliseconds(static_cast<std::int64_t>(options_.away * 1000)));
    return link_.connect(deadline_);
  }

  ExitCode sendGarbage() {
    std::mt19937_64 engine(options_.garbage);
    std::string bytes(options_.garbage, '\0');
    for (char& byte : bytes) byte = static_cast<char>(engine());
    link_.sendBytes(bytes, std::chrono::milliseconds(options_.slow));
    while (link_.receive(deadline_)) continue;
    std::printf("%s\n", link_.isConnected() ? "the watch kept listening" : "the watch hung up");
    return link_.isConnected() ? kNotAcknowledged : kAcknowledged;
  }

  /// Hears the watch out until it has taken everything and, where identifiers went out, has
  /// answered them.
  bool listen() {
    bool answered = options_.noIdentifiers || options_.silent;
    std::uint64_t confirmed = 0;
    while (!answered || confirmed < unconfirmed_ || options_.silent) {
      const auto packet = link_.receive(deadline_);
      if (!packet) return options_.silent;
      switch (packet->kind) {
        case WCPacket::Kind::received:
          ++confirmed;
          break;
        case WCPacket::Kind::message:
          print("message", packet->content);
          break;
        case WCPacket::Kind::userInfo:
          print("user info", packet->content);
          link_.send({WCPacket::Kind::received, packet->identifier, {}});
          if (packet->content.contains("skelda://id3")) {
            answered = true;
            std::printf("the watch has acknowledged the identifiers\n");
          }
          break;
      }
    }
    std::printf("%llu user infos taken by the watch\n", static_cast<unsigned long long>(confirmed));
    return true;
  }

  const Options options_;
  PhoneLink link_;
  const PhoneLink::Clock::time_point deadline_;
  std::uint64_t lastIdentifier_ = 0;
  std::uint64_t unconfirmed_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app(
      "Stands in for the paired phone: hands the watch its vendor and installation identifiers "
      "and\n"
      "waits for the acknowledgement.\n"
      "Exit status: 0 acknowledged, or garbage refused, or silent to the end; 1 not so in time;\n"
      "2 no watch at the socket.");
  app.add_option("socket", options.socket, "The watch host's Unix-domain socket")->required();
  app.add_option("--vendor-id", options.vendorIdentifier,
                 "Vendor identifier (default: a new UUID)");
  app.add_option("--installation-id", options.installationIdentifier,
                 "Installation identifier, hexadecimal (default: 16 random bytes)");
  app.add_flag("--no-identifiers", options.noIdentifiers, "Send no identifiers");
  app.add_option("--send", options.userInfos, "Queue a user info of the host's own, KEY=VALUE")
      ->allow_extra_args(false);
  app.add_option("--message", options.messages, "Send a message of the host's own, KEY=VALUE")
      ->allow_extra_args(false);
  app.add_option("--burst", options.burst, "Queue so many user infos, one behind the other");
  app.add_option("--wait", options.wait, "Seconds to wait for the watch and its answer");
  app.add_option("--slow", options.slow, "Milliseconds between two bytes");
  app.add_flag("--silent", options.silent, "Connect and say nothing");
  app.add_option("--garbage", options.garbage, "Send so many random bytes instead");
  app.add_option("--leave-after", options.leaveAfter,
                 "Hang up after so many bytes of the identifiers, then come back");
  app.add_option("--away", options.away, "Seconds to stay away");
  CLI11_PARSE(app, argc, argv);

  if (options.vendorIdentifier.empty())
    options.vendorIdentifier = skelda::platform::newUUIDString();
  if (options.installationIdentifier.empty()) options.installationIdentifier = randomHex(16);
  const ExitCode code = Phone(std::move(options)).run();
  std::fflush(stdout);
  return code;
}
