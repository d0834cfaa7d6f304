// The inbound path of TLRMessageService: whatever a server sends over the
// WebSocket. Each run puts a fixed set of requests in flight (ids 0 to 8, some
// sent long enough ago to count as slow), then hands the input to the service
// as inbound messages, one per line. Replies, pushes and garbage all go through
// didReceiveMessage exactly as the transport would deliver them; no network.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "fuzz/support/harness.h"
#include "messaging/client_messages.h"
#include "messaging/inbound_json.h"
#include "messaging/message_service.h"
#include "runtime/clock.h"
#include "runtime/event_loop.h"
#include "tellora/notifications.h"

namespace {

using tellora::fuzzing::fail;

using namespace tellora;
using nlohmann::json;

// What the pushes told the delegate, kept as the facade keeps its nearby list.
class RecordingDelegate : public TLRMessageServiceDelegate {
 public:
  void nearbyAddedWithClientID(const std::string& clientID, const json& payload) override {
    nearby_.emplace_back(clientID, describeJson(payload));
  }
  void nearbyRemovedWithClientID(const std::string& clientID) override {
    std::erase_if(nearby_, [&](const auto& entry) { return entry.first == clientID; });
  }

 private:
  std::vector<std::pair<std::string, std::string>> nearby_;
};

// One run: a fresh service with its requests in flight. Lives on the event loop.
class Run {
 public:
  Run()
      : service_(TLRMessageService::create("ws://127.0.0.1:9/ws", "fuzz-client", "fuzz-secret")),
        delegate_(std::make_shared<RecordingDelegate>()) {
    service_->setDelegate(delegate_);
    resetMessageIDCounterForTesting();
    const double now = wallClockSeconds();
    // Callbacks ask for more, as the facade and the time synchroniser do; with
    // no open connection those requests are dropped, never sent or listed.
    pend(std::make_shared<TLRCLMessageSetMode>(3, doneCallback(0)), now);
    pend(std::make_shared<TLRCLMessageSetPayload>(json("payload"), doneCallback(1)), now);
    pend(std::make_shared<TLRCLMessageGetAllNearby>([this](const json& nearby) {
           count(2);
           if (!nearby.is_null() && !nearby.is_array()) fail("nearby list is not a list");
           for (const auto& record : nearby) {
             if (const std::string* id = stringMember(record, "clientId")) {
               const json* payload = memberOf(record, "payload");
               delegate_->nearbyAddedWithClientID(*id, payload ? *payload : json());
             }
           }
           service_->requestAllNearbyWithCallback({});
         }),
         now);
    pend(std::make_shared<TLRCLMessageGetTime>(timeCallback(3)), now);
    pend(std::make_shared<TLRCLMessageAddFingerprint>("AAAA", 1.5, 2.5, doneCallback(4)), now - 2);
    pend(std::make_shared<TLRCLMessageSetEnvironment>(
             TLRLocationCoordinate{55.7, 37.6}, std::vector<std::string>{"aa:bb"}, doneCallback(5)),
         now);
    pend(std::make_shared<TLRCLMessageGetTime>(timeCallback(6)), now - 30);
    pend(std::make_shared<TLRCLMessageAddFingerprint>("BBBB", 3.0, 4.0, TLRDoneCallback{}),
         now - 5);
    pend(std::make_shared<TLRCLMessageSetMode>(0, TLRDoneCallback{}), now);
  }

  // One inbound message, then the checks: a request leaves the pending list
  // exactly when a reply with its id arrives, and that reply runs its callback
  // exactly once.
  void receive(std::string_view text) {
    const json reply = parseInboundObject(text);
    if (auto id = integerMember(reply, "requestId")) {
      if (*id >= 0 && *id < static_cast<int64_t>(kRequests) && !answered_[*id]) {
        answered_[*id] = true;
        ++answeredRequests_;
      }
    }
    service_->didReceiveMessage(std::string(text));
    // Callbacks never add to the list here: their requests are dropped unsent.
    if (service_->sendedMessages().size() + answeredRequests_ != kRequests)
      fail("pending list out of step with the replies");
    for (size_t request = 0; request < kRequestsWithCallbacks; ++request) {
      if (calls_[request] != (answered_[request] ? 1 : 0)) fail("reply and callback out of step");
    }
    (void)service_->averadeDelay();
  }

 private:
  static constexpr size_t kRequests = 9;
  // Requests 0 to 6 have callbacks; 7 and 8 have none, as the facade's
  // fingerprints do.
  static constexpr size_t kRequestsWithCallbacks = 7;

  void pend(std::shared_ptr<TLRClientMessage> message, double sentAt) {
    message->messageData();  // takes the next id, as a real send does
    message->setSendTimeInterval(sentAt);
    service_->addPendingMessageForTesting(std::move(message));
  }

  void count(size_t request) {
    if (++calls_[request] > 1) fail("a request's callback ran twice");
  }

  TLRDoneCallback doneCallback(size_t request) {
    return [this, request] {
      count(request);
      service_->establishClientPayload(json::object(), [] { fail("dropped request answered"); });
    };
  }

  TLRTimeCallback timeCallback(size_t request) {
    return [this, request](double serverTime) {
      count(request);
      (void)serverTime;
      // The time synchroniser asks again; the next request carries the record.
      service_->requestTime([](double) { fail("dropped request answered"); });
    };
  }

  std::shared_ptr<TLRMessageService> service_;
  std::shared_ptr<RecordingDelegate> delegate_;
  int calls_[kRequests] = {};
  bool answered_[kRequests] = {};
  size_t answeredRequests_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Debug on: the debug-only lines format replies and records too.
  tellora::fuzzing::prepareQuietSdk(/*debug=*/true);
  // Speed notifications reach an observer, as the host's would.
  TLRNotificationCenter::defaultCenter().addObserver(
      kTLRNetworkSpeedStatusChanged, [](const TLRNotification& notification) {
        if (notification.userInfo.count(kTLRSpeedStatusKey) != 1) fail("speed status missing");
      });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  EventLoop::main().call([input] {
    auto run = std::make_shared<Run>();
    size_t start = 0;
    while (start <= input.size()) {
      size_t end = input.find('\n', start);
      if (end == std::string_view::npos) end = input.size();
      const std::string_view message = input.substr(start, end - start);
      run->receive(message);
      start = end + 1;
    }
    // Let the service go after the tasks it posted for itself.
    EventLoop::main().post([run] {});
  });
  // Runs what the service posted (its own release, ours), so nothing of this
  // input outlives it.
  EventLoop::main().drain();
  EventLoop::main().drain();
  return 0;
}
