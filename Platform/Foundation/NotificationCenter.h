#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/Foundation/Value.h"

namespace skelda::platform {

inline constexpr std::string_view kCurrentLocaleDidChangeNotification =
    "NSCurrentLocaleDidChangeNotification";
inline constexpr std::string_view kSystemTimeZoneDidChangeNotification =
    "NSSystemTimeZoneDidChangeNotification";

struct Notification {
  std::string name;
  Value userInfo;
};

/// Tells observers about named events, on the thread that posts, in the order of registration.
/// Safe from any thread; an observer may add, remove and post from inside its call.
class NotificationCenter {
 public:
  using Observer = std::function<void(const Notification&)>;
  /// Identifies a registration; 0 is none.
  using Token = std::uint64_t;

  static NotificationCenter& defaultCenter();
  ~NotificationCenter();
  Token addObserver(std::string_view name, Observer observer);
  /// The observer is not called after this returns, unless it is running on another thread.
  void removeObserver(Token token);
  void post(std::string_view name, Value userInfo = {});

 private:
  NotificationCenter();
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace skelda::platform
