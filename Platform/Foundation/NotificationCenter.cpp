#include "Platform/Foundation/NotificationCenter.h"

#include <algorithm>
#include <exception>
#include <vector>

#include "Platform/Base/Counted.h"
#include "Platform/Base/LogFormat.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Base/NeverDestroyed.h"

namespace skelda::platform {
namespace {

struct Registration {
  NotificationCenter::Token token;
  std::string name;
  std::shared_ptr<const NotificationCenter::Observer> observer;
};

}  // namespace

struct NotificationCenter::State {
  Mutex mutex;
  Token lastToken GUARDED_BY(mutex) = 0;
  std::vector<Registration> registrations GUARDED_BY(mutex);

  bool isRegistered(Token token) {
    const MutexLock lock(mutex);
    return std::any_of(registrations.begin(), registrations.end(),
                       [token](const Registration& each) { return each.token == token; });
  }
};

NotificationCenter::NotificationCenter() : state_(std::make_unique<State>()) {}
NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
  // Never destroyed: observers may be told while the process exits.
  static NeverDestroyed<NotificationCenter> center([] { return NotificationCenter(); });
  return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string_view name,
                                                          Observer observer) {
  if (!observer) return 0;
  auto shared = makeCounted<const Observer>(std::move(observer));
  const MutexLock lock(state_->mutex);
  const Token token = ++state_->lastToken;
  state_->registrations.push_back({token, std::string(name), std::move(shared)});
  return token;
}

void NotificationCenter::removeObserver(Token token) {
  Registration removed;  // destroyed outside the lock: what it captured may call back in here
  const MutexLock lock(state_->mutex);
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
    const MutexLock lock(state_->mutex);
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
