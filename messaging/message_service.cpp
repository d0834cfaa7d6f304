#include "messaging/message_service.h"

#include <algorithm>
#include <utility>

#include "messaging/inbound_json.h"
#include "runtime/clock.h"
#include "runtime/log.h"
#include "tellora/notifications.h"

namespace tellora {

namespace {

// Replies slower than this count towards a transport restart.
constexpr double kBadReplyDelaySeconds = 25.0;
constexpr uint64_t kFastRepliesBeforeHight = 5;

// A transport callback may drop the last other reference to the service (the
// owner's closed callback, for one). Releasing ours from a later loop task
// keeps the service and its transport alive until their call stacks unwind.
void releaseLater(std::shared_ptr<TLRMessageService> self) {
  EventLoop::main().post([self = std::move(self)] {});
}

}  // namespace

TLRMessageService::TLRMessageService(PassKey) {}

TLRMessageService::~TLRMessageService() = default;

std::shared_ptr<TLRMessageService> TLRMessageService::create(const std::string& url,
                                                             const std::string& clientID,
                                                             const std::string& clientSecret) {
  auto service = std::make_shared<TLRMessageService>(PassKey{});
  service->transport_ = std::make_unique<TLRTransport>(
      url, clientID, clientSecret, std::weak_ptr<TLRTransportDelegate>(service));
  service->setDefaultValues();
  return service;
}

void TLRMessageService::openConnectionWithOpenedCallback(OpenedCallback openedCallback,
                                                         ClosedCallback connectionClosedCallback) {
  connectionOpenedCallback_ = std::move(openedCallback);
  connectionClosedCallback_ = std::move(connectionClosedCallback);
  transport_->open();
  startTimer();
}

void TLRMessageService::closeConnection() {
  transport_->close();
  stopTimer();
  resetMessageCounter();
}

std::optional<std::string> TLRMessageService::lastConnectionFailure() const {
  if (!transport_) return std::nullopt;
  return transport_->lastFailureDescription();
}

bool TLRMessageService::isConnectionOpened() const {
  return transport_->isConnectionOpened();
}

void TLRMessageService::establishClientMode(int64_t mode, TLRDoneCallback modeEstablishedCallback) {
  auto message = std::make_shared<TLRCLMessageSetMode>(mode, std::move(modeEstablishedCallback));
  if (transport_->isConnectionOpened()) {
    sendMessage(message);
    return;
  }
  debugf("Open transport");
  std::weak_ptr<TLRMessageService> weakSelf = weak_from_this();
  transport_->openWithBlock([weakSelf, message] {
    if (auto self = weakSelf.lock()) self->sendMessage(message);
  });
}

void TLRMessageService::establishClientPayload(nlohmann::json payload,
                                               TLRDoneCallback payloadEstablishedCallback) {
  sendMessage(std::make_shared<TLRCLMessageSetPayload>(std::move(payload),
                                                       std::move(payloadEstablishedCallback)));
}

void TLRMessageService::requestAllNearbyWithCallback(TLRNearbyCallback callback) {
  sendMessage(std::make_shared<TLRCLMessageGetAllNearby>(std::move(callback)));
}

void TLRMessageService::requestTime(TLRTimeCallback callback) {
  auto message = std::make_shared<TLRCLMessageGetTime>(std::move(callback));
  if (!debug_data_.empty()) message->setData({{"d", debug_data_}});
  sendMessage(message);
}

void TLRMessageService::addFingerprint(const std::string& fingerprint, double startTime,
                                       double endTime, TLRDoneCallback addedCallback) {
  sendMessage(std::make_shared<TLRCLMessageAddFingerprint>(fingerprint, startTime, endTime,
                                                           std::move(addedCallback)));
}

void TLRMessageService::establishEnvironmentWithLocation(TLRLocationCoordinate location,
                                                         std::vector<std::string> macAdresses,
                                                         TLRDoneCallback environmentEstablished) {
  sendMessage(std::make_shared<TLRCLMessageSetEnvironment>(location, std::move(macAdresses),
                                                           std::move(environmentEstablished)));
}

void TLRMessageService::sendMessage(const std::shared_ptr<TLRClientMessage>& message) {
  if (!message) return;
  debugf("Send message - %lld", static_cast<long long>(message->messageType()));
  if (!transport_ || !transport_->isConnectionOpened()) return;
  std::optional<std::string> bytes = message->messageData();
  if (!bytes) return;
  message->setSendTimeInterval(wallClockSeconds());
  transport_->sendMessage(*bytes);
  // Pending even when the transport refused it: only a reply removes it.
  sendedMessages_.push_back(message);
}

void TLRMessageService::connectionOpened() {
  auto self = shared_from_this();
  startTimer();
  OpenedCallback opened = connectionOpenedCallback_;
  if (opened) opened();
  releaseLater(std::move(self));
}

void TLRMessageService::connectionClosedWithError(const std::optional<TLRError>& error) {
  auto self = shared_from_this();
  if (transportRebooting_) {
    // A restart of our own: reopen without telling the owner.
    transportRebooting_ = false;
    transport_->open();
  } else if (connectionClosedCallback_) {
    ClosedCallback closed = connectionClosedCallback_;
    if (error) {
      closed(error);
    } else {
      debugf("_slowConnectionError == %s",
             slowConnectionError_ ? slowConnectionError_->description().c_str() : "(null)");
      // A give-up error is reported once.
      std::optional<TLRError> slowError = slowConnectionError_;
      closed(slowError);
      slowConnectionError_.reset();
    }
  }
  releaseLater(std::move(self));
}

void TLRMessageService::didReceiveMessage(const std::string& message) {
  auto self = shared_from_this();
  incrementMessageCount();
  const nlohmann::json reply = parseInboundObject(message);

  // Without a matching request the delay is the time since 1970: pushes and
  // unknown ids count as very slow replies.
  double delay = wallClockSeconds();
  std::shared_ptr<TLRClientMessage> matched;
  if (std::optional<int64_t> requestID = integerMember(reply, "requestId")) {
    matched = takePendingMessage(*requestID);
    delay = wallClockSeconds() - (matched ? matched->sendTimeInterval() : 0.0);
  }

  classifyDelay(delay, matched.get());
  badDelaysCount_ = delay > kBadReplyDelaySeconds ? badDelaysCount_ + 1 : 0;
  addDelayValue(delay);

  if (matched) dispatchReply(*matched, reply);
  handlePush(reply);
  releaseLater(std::move(self));
}

std::shared_ptr<TLRClientMessage> TLRMessageService::takePendingMessage(int64_t messageID) {
  auto found = std::find_if(sendedMessages_.begin(), sendedMessages_.end(), [&](const auto& m) {
    return m->hasMessageID() && m->messageID() == messageID;
  });
  if (found == sendedMessages_.end()) return nullptr;
  std::shared_ptr<TLRClientMessage> message = *found;
  sendedMessages_.erase(found);
  return message;
}

void TLRMessageService::classifyDelay(double delay, const TLRClientMessage* matched) {
  if (delay < 1.0) {
    ++delayLessThenOneSecCount_;
    debugf("Ответ менее 1 сек");
    if (delayLessThenOneSecCount_ >= kFastRepliesBeforeHight) {
      debugf("Ответов более 5, уведомляем пользователя");
      speed_ = TLRSpeedHight;
      postSpeedStatus(kTLRSpeedStatusHight);
    }
    return;
  }
  // Only fingerprint replies judge a slow link: they flow steadily while searching.
  if (matched == nullptr || matched->messageType() != TLRMessageTypeAddFingerprint) return;
  delayLessThenOneSecCount_ = 0;
  if (delay < 3.0) {
    debugf("Медленно %f", delay);
    speed_ = TLRSpeedLow;
    debugf("send message with speedStatus low");
    postSpeedStatus(kTLRSpeedStatusLow);
  } else {
    debugf("send message with speedStatus invalidConnection");
    speed_ = TLRSpeedInvalidConnection;
    postSpeedStatus(kTLRSpeedStatusInvalidConnection);
  }
}

void TLRMessageService::dispatchReply(const TLRClientMessage& message,
                                      const nlohmann::json& reply) {
  // Dispatch on the request's own type; the reply's "type" is not trusted here.
  const TLRMessageCallback& callback = message.callback();
  switch (message.messageType()) {
    case TLRMessageTypeSetMode:
    case TLRMessageTypeSetPayload:
    case TLRMessageTypeAddFingerprint:
    case TLRMessageTypeSetEnvironment:
      if (auto* done = std::get_if<TLRDoneCallback>(&callback); done && *done) (*done)();
      break;
    case TLRMessageTypeGetAllNearby:
      if (auto* nearbyCallback = std::get_if<TLRNearbyCallback>(&callback);
          nearbyCallback && *nearbyCallback) {
        if (debugEnabled()) debugf("allneaby object = %s", describeJson(reply).c_str());
        const nlohmann::json* data = memberOf(reply, "data");
        const nlohmann::json* nearby = data ? memberOf(*data, "nearby") : nullptr;
        (*nearbyCallback)(nearby && nearby->is_array() ? *nearby : nlohmann::json());
      }
      break;
    case TLRMessageTypeGetTime:
      if (auto* timeCallback = std::get_if<TLRTimeCallback>(&callback);
          timeCallback && *timeCallback) {
        handleTimeReply(*timeCallback, reply);
      }
      break;
    default:
      break;
  }
}

// Keeps a record of every time reply and hands it back to the server with the
// next time request, so the server side can see what the client read.
void TLRMessageService::handleTimeReply(const TLRTimeCallback& callback,
                                        const nlohmann::json& reply) {
  const std::string replyText = describeJson(reply);
  debugf("MSGJSON == %s", replyText.c_str());
  std::string record = ">>>" + replyText + "<<< ";

  const nlohmann::json* data = memberOf(reply, "data");
  const nlohmann::json* time = data ? memberOf(*data, "time") : nullptr;
  std::string timeText;
  if (time != nullptr && time->is_string()) {
    timeText = time->get<std::string>();
  } else if (time != nullptr && time->is_number()) {
    timeText = describeJson(*time);
  }
  record += "[" + timeText + "] ";
  debugf("converting to NSNumber time == %s", timeText.c_str());

  const double serverTime = lenientDouble(timeText);
  debugf("integer value %f", serverTime);
  record += strprintf("[%f] ", serverTime);
  debug_data_ = std::move(record);
  callback(serverTime);
}

void TLRMessageService::handlePush(const nlohmann::json& reply) {
  const int64_t type = integerMember(reply, "type").value_or(0);
  if (type != TLRMessageTypeNearbyAdded && type != TLRMessageTypeNearbyRemoved) return;
  std::shared_ptr<TLRMessageServiceDelegate> delegate = delegate_.lock();
  if (!delegate) return;
  const nlohmann::json* data = memberOf(reply, "data");
  const std::string* clientID = data ? stringMember(*data, "clientId") : nullptr;
  // A push without a usable client id names nobody.
  if (clientID == nullptr) return;
  if (type == TLRMessageTypeNearbyAdded) {
    const nlohmann::json* payload = memberOf(*data, "payload");
    delegate->nearbyAddedWithClientID(*clientID, payload ? *payload : nlohmann::json());
  } else {
    delegate->nearbyRemovedWithClientID(*clientID);
  }
}

void TLRMessageService::postSpeedStatus(const char* status) {
  TLRNotificationCenter::defaultCenter().post(kTLRNetworkSpeedStatusChanged,
                                              {{kTLRSpeedStatusKey, std::string(status)}});
}

}  // namespace tellora
