#include "Platform/Foundation/NotificationCenter.h"

#include <algorithm>
#include <exception>
#include <mutex>
#include <vector>

#include "Platform/Base/LogFormat.h"

namespace skelda::platform {
namespace {

struct Registration {
  NotificationCenter::Token token;
  std::string name;
  std::shared_ptr<const NotificationCenter::Observer> observer;
};

}  // namespace

struct NotificationCenter::State {
  std::mutex lock;
  Token lastToken = 0;
  std::vector<Registration> registrations;

  bool isRegistered(Token token) {
    const std::lock_guard guard(lock);
    return std::any_of(registrations.begin(), registrations.end(),
                       [token](const Registration& each) { return each.token == token; });
  }
};

NotificationCenter::NotificationCenter() : state_(new State) {}
NotificationCenter::~NotificationCenter() {
  delete state_;
}

NotificationCenter& NotificationCenter::defaultCenter() {
  // Never destroyed: observers may be told while the process exits.
  static auto* const center = new NotificationCenter;
  return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string_view name,
                                                          Observer observer) {
  if (!observer) return 0;
  auto shared = std::make_shared<const Observer>(std::move(observer));
  const std::lock_guard guard(state_->lock);
  const Token token = ++state_->lastToken;
  state_->registrations.push_back({token, std::string(name), std::move(shared)});
  return token;
}

void NotificationCenter::removeObserver(Token token) {
  Registration removed;  // destroyed outside the lock: what it captured may call back in here
  const std::lock_guard guard(state_->lock);
  auto& all = state_->registrations;
  const auto found = std::find_if(
      all.begin(), all.end(), [token](const Registration& each) { return each.token == token; });
  if (found == all.end()) return;
  removed = std::move(*found);
  all.erase(found);
}

void NotificationCenter::post(std::string_view name, Value userInfo) {
  std::vector<Registration> called;
  {
    const std::lock_guard guard(state_->lock);
    std::copy_if(state_->registrations.begin(), state_->registrations.end(),
                 std::back_inserter(called),
                 [name](const Registration& each) { return each.name == name; });
  }
  const Notification notification{std::string(name), std::move(userInfo)};
  for (const Registration& each : called) {
    // An observer before this one may have removed it.
    if (!state_->isRegistered(each.token)) continue;
    try {
      (*each.observer)(notification);
    } catch (const std::exception& exception) {
      SKELDA_PLATFORM_LOG("NotificationCenter: an observer of {} threw: {}", name,
                          exception.what());
    } catch (...) {
      SKELDA_PLATFORM_LOG("NotificationCenter: an observer of {} threw", name);
    }
  }
}

}  // namespace skelda::platform
