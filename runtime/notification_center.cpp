#include "tellora/notifications.h"

#include <algorithm>

namespace tellora {

TLRNotificationCenter& TLRNotificationCenter::defaultCenter() {
  // Never destroyed: observers registered by immortal SDK objects stay valid
  // while the process exits.
  static TLRNotificationCenter* const center = new TLRNotificationCenter;
  return *center;
}

TLRNotificationCenter::TLRNotificationCenter() = default;
TLRNotificationCenter::~TLRNotificationCenter() = default;

TLRNotificationCenter::ObserverToken TLRNotificationCenter::addObserver(const std::string& name,
                                                                        Handler handler) {
  std::lock_guard lock(mutex_);
  const ObserverToken token = nextToken_++;
  observers_.push_back({token, name, std::make_shared<Handler>(std::move(handler))});
  return token;
}

void TLRNotificationCenter::removeObserver(ObserverToken token) {
  std::lock_guard lock(mutex_);
  std::erase_if(observers_, [token](const Observer& o) { return o.token == token; });
}

void TLRNotificationCenter::post(const std::string& name) {
  deliver(TLRNotification{name, {}, false});
}

void TLRNotificationCenter::post(const std::string& name, TLRUserInfo userInfo) {
  deliver(TLRNotification{name, std::move(userInfo), true});
}

bool TLRNotificationCenter::isObserving(ObserverToken token) {
  std::lock_guard lock(mutex_);
  return std::any_of(observers_.begin(), observers_.end(),
                     [token](const Observer& o) { return o.token == token; });
}

void TLRNotificationCenter::deliver(const TLRNotification& notification) {
  // Handlers run outside the lock so that they can add, remove and post.
  std::vector<Observer> matching;
  {
    std::lock_guard lock(mutex_);
    for (const auto& observer : observers_) {
      if (observer.name == notification.name) matching.push_back(observer);
    }
  }
  for (const auto& observer : matching) {
    // An earlier handler of this post may have removed a later one.
    if (!isObserving(observer.token)) continue;
    (*observer.handler)(notification);
  }
}

}  // namespace tellora
