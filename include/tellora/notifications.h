// The in-process notification centre: observers by name, user info as a small
// map of values. Handlers run synchronously on the thread that posts.
#ifndef TELLORA_NOTIFICATIONS_H
#define TELLORA_NOTIFICATIONS_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

#include "tellora/client.h"
#include "tellora/error.h"
#include "tellora/export.h"

namespace tellora {

using TLRNotificationValue =
    std::variant<std::monostate, bool, int64_t, double, std::string, TLRError, TLRClient>;
using TLRUserInfo = std::map<std::string, TLRNotificationValue>;

struct TLRNotification {
  std::string name;
  TLRUserInfo userInfo;  // empty when the poster gave none
  bool hasUserInfo = false;
};

class TELLORA_EXPORT TLRNotificationCenter {
 public:
  using Handler = std::function<void(const TLRNotification&)>;
  using ObserverToken = uint64_t;

  // The process-wide centre the SDK posts to and observes.
  static TLRNotificationCenter& defaultCenter();

  TLRNotificationCenter();
  ~TLRNotificationCenter();
  TLRNotificationCenter(const TLRNotificationCenter&) = delete;
  TLRNotificationCenter& operator=(const TLRNotificationCenter&) = delete;

  // Observes every notification with this name. Returns a token for removal.
  ObserverToken addObserver(const std::string& name, Handler handler);
  // After it returns, the handler is not called again by later posts. A post
  // already running on another thread may still be inside the handler.
  void removeObserver(ObserverToken token);

  // Calls every matching handler synchronously, in the order they were added.
  // Handlers may add or remove observers and post again.
  void post(const std::string& name);
  void post(const std::string& name, TLRUserInfo userInfo);

 private:
  void deliver(const TLRNotification& notification);
  bool isObserving(ObserverToken token);

  struct Observer {
    ObserverToken token;
    std::string name;
    std::shared_ptr<Handler> handler;
  };
  std::mutex mutex_;
  std::vector<Observer> observers_;
  ObserverToken nextToken_ = 1;
};

}  // namespace tellora

#endif  // TELLORA_NOTIFICATIONS_H
