// The request/response layer between the SDK's search logic and the WebSocket
// transport: builds and sends requests, matches replies to them by id, measures
// reply delays into a network speed status, forwards nearby pushes and watches
// the link (restarting the transport when replies keep coming too late).
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "messaging/client_messages.h"
#include "runtime/event_loop.h"
#include "tellora/error.h"
#include "transport/transport.h"

namespace tellora {

// Notification posted on speed changes, with userInfo {"speedStatus": one of
// the three values below}.
inline constexpr char kTLRNetworkSpeedStatusChanged[] = "TLRTelloraNetworkSpeedStatusChanged";
inline constexpr char kTLRSpeedStatusKey[] = "speedStatus";
inline constexpr char kTLRSpeedStatusHight[] = "hight";
inline constexpr char kTLRSpeedStatusLow[] = "low";
inline constexpr char kTLRSpeedStatusInvalidConnection[] = "invalidConnection";

// Values of TLRMessageService::speed().
enum TLRSpeed : int32_t {
  TLRSpeedInvalidConnection = 0,
  TLRSpeedLow = 1,
  TLRSpeedHight = 2,
};

// Receives the server's nearby pushes, on the SDK's event loop.
class TLRMessageServiceDelegate {
 public:
  virtual ~TLRMessageServiceDelegate() = default;
  // Type 102; `payload` as the server sent it (null when absent).
  virtual void nearbyAddedWithClientID(const std::string& clientID,
                                       const nlohmann::json& payload) = 0;
  // Type 103.
  virtual void nearbyRemovedWithClientID(const std::string& clientID) = 0;
};

// Lives on EventLoop::main(): create it, call it and release the last
// reference there. Requests made while the connection is not open are dropped
// and their callbacks never run; there is no time-out on a reply.
class TLRMessageService : public TLRTransportDelegate,
                          public std::enable_shared_from_this<TLRMessageService> {
 public:
  using OpenedCallback = std::function<void()>;
  using ClosedCallback = std::function<void(const std::optional<TLRError>& error)>;
  using MessageList = std::vector<std::shared_ptr<TLRClientMessage>>;

  // Does not connect.
  static std::shared_ptr<TLRMessageService> create(const std::string& url,
                                                   const std::string& clientID,
                                                   const std::string& clientSecret);
  ~TLRMessageService() override;
  TLRMessageService(const TLRMessageService&) = delete;
  TLRMessageService& operator=(const TLRMessageService&) = delete;

  // Replaces both callbacks, opens the transport and starts the delay check.
  void openConnectionWithOpenedCallback(OpenedCallback openedCallback,
                                        ClosedCallback connectionClosedCallback);
  // Closes the transport, stops the delay check and resets the message
  // counter. Unanswered requests stay pending.
  void closeConnection();
  bool isConnectionOpened() const;

  // The only request that opens the connection by itself when it is closed.
  void establishClientMode(int64_t mode, TLRDoneCallback modeEstablishedCallback);
  void establishClientPayload(nlohmann::json payload, TLRDoneCallback payloadEstablishedCallback);
  void requestAllNearbyWithCallback(TLRNearbyCallback callback);
  // Carries {"d": record of the previous time reply} once there was one.
  void requestTime(TLRTimeCallback callback);
  void addFingerprint(const std::string& fingerprint, double startTime, double endTime,
                      TLRDoneCallback addedCallback = {});
  void establishEnvironmentWithLocation(TLRLocationCoordinate location,
                                        std::vector<std::string> macAdresses,
                                        TLRDoneCallback environmentEstablished);
  // Sends and records as pending; dropped silently when not open or when the
  // message cannot be serialised.
  void sendMessage(const std::shared_ptr<TLRClientMessage>& message);

  // TLRTransportDelegate.
  void connectionOpened() override;
  void connectionClosedWithError(const std::optional<TLRError>& error) override;
  void didReceiveMessage(const std::string& message) override;

  // Link quality (link_quality.cpp).
  void startTimer();
  void stopTimer();
  // One tick: warn about an overdue request, else restart or give up when
  // replies keep coming too late.
  void checkMessagesDelay();
  void rebootTransport();
  void resetMessageCounter();
  void setDefaultValues();
  void setSpeedsNull();
  void incrementMessageCount();
  void addDelayValue(double delay);
  // Mean of the stored delays; 0/0 (NaN) right after a reset.
  double averadeDelay() const;
  // Period of the delay check (1 s); takes effect at the next startTimer.
  void setCheckInterval(Duration interval) { checkInterval_ = interval; }

  bool transportRebooting() const { return transportRebooting_; }
  void setTransportRebooting(bool rebooting) { transportRebooting_ = rebooting; }
  int32_t speed() const { return speed_; }
  void setSpeed(int32_t speed) { speed_ = speed; }
  std::weak_ptr<TLRMessageServiceDelegate> delegate() const { return delegate_; }
  void setDelegate(std::weak_ptr<TLRMessageServiceDelegate> delegate) {
    delegate_ = std::move(delegate);
  }
  TLRTransport& transport() { return *transport_; }
  // Why the most recent attempt to open the connection failed (see
  // TLRTransport::lastFailureDescription); nullopt when none.
  std::optional<std::string> lastConnectionFailure() const;
  const MessageList& sendedMessages() const { return sendedMessages_; }
  // Lists `message` as sent and unanswered without handing it to the transport,
  // so that replies can be driven without a connection. Internal; for tests and
  // fuzzing (set the message's id and send time first).
  void addPendingMessageForTesting(std::shared_ptr<TLRClientMessage> message) {
    sendedMessages_.push_back(std::move(message));
  }
  const OpenedCallback& connectionOpenedCallback() const { return connectionOpenedCallback_; }
  void setConnectionOpenedCallback(OpenedCallback callback) {
    connectionOpenedCallback_ = std::move(callback);
  }
  const ClosedCallback& connectionClosedCallback() const { return connectionClosedCallback_; }
  void setConnectionClosedCallback(ClosedCallback callback) {
    connectionClosedCallback_ = std::move(callback);
  }
  // Null before the first startTimer; keeps the dead timer after stopTimer.
  const RepeatingTimer* timer() const { return timer_.get(); }
  uint64_t allMessagesCount() const { return allMessagesCount_; }
  void setAllMessagesCount(uint64_t count) { allMessagesCount_ = count; }
  uint64_t badDelaysCount() const { return badDelaysCount_; }
  void setBadDelaysCount(uint64_t count) { badDelaysCount_ = count; }
  uint64_t reconnectsCount() const { return reconnectsCount_; }
  void setReconnectsCount(uint64_t count) { reconnectsCount_ = count; }
  uint64_t delayLessThenOneSecCount() const { return delayLessThenOneSecCount_; }
  void setDelayLessThenOneSecCount(uint64_t count) { delayLessThenOneSecCount_ = count; }
  const std::optional<TLRError>& slowConnectionError() const { return slowConnectionError_; }
  void setSlowConnectionError(std::optional<TLRError> error) {
    slowConnectionError_ = std::move(error);
  }

 private:
  struct PassKey {};

 public:
  // Use create(): the transport needs a weak reference to the service.
  explicit TLRMessageService(PassKey);

 private:
  std::shared_ptr<TLRClientMessage> takePendingMessage(int64_t messageID);
  void classifyDelay(double delay, const TLRClientMessage* matched);
  void dispatchReply(const TLRClientMessage& message, const nlohmann::json& reply);
  void handleTimeReply(const TLRTimeCallback& callback, const nlohmann::json& reply);
  void handlePush(const nlohmann::json& reply);
  static void postSpeedStatus(const char* status);

  std::array<float, 20> speeds_{};
  std::string debug_data_;
  bool transportRebooting_ = false;
  int32_t speed_ = TLRSpeedHight;
  std::weak_ptr<TLRMessageServiceDelegate> delegate_;
  std::unique_ptr<TLRTransport> transport_;
  MessageList sendedMessages_;
  OpenedCallback connectionOpenedCallback_;
  ClosedCallback connectionClosedCallback_;
  std::unique_ptr<RepeatingTimer> timer_;
  uint64_t allMessagesCount_ = 0;
  uint64_t badDelaysCount_ = 0;
  uint64_t reconnectsCount_ = 0;
  uint64_t delayLessThenOneSecCount_ = 0;
  std::optional<TLRError> slowConnectionError_;
  Duration checkInterval_ = std::chrono::seconds(1);
};

}  // namespace tellora
