#include "facade/tellora_impl.h"

#include <boost/url/parse.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <random>
#include <string_view>
#include <unordered_map>

#include "registration/device_info.h"
#include "registration/http_error.h"
#include "registration/registration_service.h"
#include "runtime/event_loop.h"
#include "runtime/log.h"
#include "runtime/user_defaults.h"

namespace tellora {

namespace {

constexpr int64_t kSearchClientMode = 3;
constexpr double kPartDuration = 0.5;
constexpr double kRecordingRate = 8000.0;

bool isUsableIdentity(const std::optional<std::string>& value) {
  return value && !value->empty();
}

// How a failed registration reads in a log or a tool's message.
std::string describeRegistrationFailure(const TLRError& error) {
  auto text = [&](const char* key) -> std::string {
    auto found = error.userInfo.find(key);
    if (found == error.userInfo.end()) return {};
    const auto* value = std::get_if<std::string>(&found->second);
    return value ? *value : std::string();
  };
  std::string reason = text("message");
  if (reason.empty()) return "registration failed: " + error.description();
  if (const auto underlying = text("underlyingError"); !underlying.empty())
    reason += " (" + underlying + ")";
  return "registration failed: " + reason;
}

std::string describe(const std::optional<TLRError>& error) {
  return error ? error->description() : std::string("(null)");
}

// The payload a push carried, as the host sees it: text as it is, nothing for
// null, any other JSON value in its compact text form.
std::optional<std::string> payloadText(const nlohmann::json& payload) {
  if (payload.is_null()) return std::nullopt;
  if (payload.is_string()) return payload.get<std::string>();
  return payload.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

TLRNotificationCenter& center() {
  return TLRNotificationCenter::defaultCenter();
}

}  // namespace

std::string defaultServerHost() {
  if (const char* host = std::getenv("TELLORA_SERVER_HOST"); host && *host) return host;
#ifdef TELLORA_DEFAULT_SERVER_HOST
  return TELLORA_DEFAULT_SERVER_HOST;
#else
  return "127.0.0.1";
#endif
}

TLRTelloraConfiguration defaultConfigurationWithApiKey(const std::string& apiKey) {
  const std::string host = defaultServerHost();
  TLRTelloraConfiguration configuration;
  configuration.registrationServerURL = "http://" + host + ":10000/register";
  configuration.websocketServerURL = "ws://" + host + ":10000/ws";
  configuration.appSecret = apiKey;
  return configuration;
}

std::shared_ptr<TLRTelloraImpl> TLRTelloraImpl::create() {
  std::shared_ptr<TLRTelloraImpl> impl(new TLRTelloraImpl());
  impl->init();
  return impl;
}

void TLRTelloraImpl::init() {
  weakSelf_ = weak_from_this();
  recorder_ = std::make_shared<TLRRecorder>(kRecordingRate);
  recorder_->setErrorHandler(weakSelf_);
  searchState_ = TLRSearchStateStopped;
  isRecording_ = false;
  useAnunimousBuffer_ = false;
  telloraState_ = TLRTelloraStateIdle;
  registerPrivateApi();
}

// Any code in the process can steer the SDK through these names. The handlers
// run on the posting thread and hop onto the loop; the observers stay for the
// life of the process.
void TLRTelloraImpl::registerPrivateApi() {
  auto onLoop = [weak = weakSelf_](std::function<void(TLRTelloraImpl&)> action) {
    // Posted, not waited for: the poster may hold a lock that a host callback takes.
    return [weak, action](const TLRNotification&) {
      EventLoop::main().dispatch([weak, action] {
        if (auto self = weak.lock()) action(*self);
      });
    };
  };
  center().addObserver("TelloraPrivateStartRecordSound",
                       onLoop([](TLRTelloraImpl& self) { self.startRecordSound(); }));
  center().addObserver("TelloraPrivateStopRecordSound",
                       onLoop([](TLRTelloraImpl& self) { self.stopRecordSound(); }));
  center().addObserver("TelloraPrivateStartUseAnonimousBuffer", onLoop([](TLRTelloraImpl& self) {
                         logf("Tellora: AnonimousBuffer turn on");
                         self.useAnunimousBuffer_ = true;
                       }));
  center().addObserver("TelloraPrivateStopUseAnonimousBuffer", onLoop([](TLRTelloraImpl& self) {
                         logf("Tellora: AnonimousBuffer turn off");
                         self.useAnunimousBuffer_ = false;
                       }));
  center().addObserver("TelloraPrivateStartLogging", [](const TLRNotification&) {
    logf("Tellora: start logging");
    UserDefaults::standard().setBool("debug", true);
  });
  center().addObserver("TelloraPrivateStopLogging", [](const TLRNotification&) {
    logf("Tellora: stop logging");
    UserDefaults::standard().setBool("debug", false);
  });
}

void TLRTelloraImpl::setConfiguration(const TLRTelloraConfiguration& configuration) {
  if (configuration_) return;  // the first configuration wins for the life of the process
  configuration_ = configuration;
  if (configuration.audioSourceFactory)
    recorder_->setSourceFactory(configuration.audioSourceFactory);
  connect();
}

std::optional<std::string> TLRTelloraImpl::clientID() {
  if (!clientID_) clientID_ = UserDefaults::standard().stringForKey(UDClientID);
  return clientID_;
}

std::optional<std::string> TLRTelloraImpl::clientSecret() {
  if (!clientSecret_) clientSecret_ = UserDefaults::standard().stringForKey(UDClientSecret);
  return clientSecret_;
}

void TLRTelloraImpl::setClientID(const std::optional<std::string>& value) {
  if (value == clientID_) return;
  UserDefaults::standard().setString(UDClientID, value);
  clientID_ = value;
}

void TLRTelloraImpl::setClientSecret(const std::optional<std::string>& value) {
  if (value == clientSecret_) return;
  UserDefaults::standard().setString(UDClientSecret, value);
  clientSecret_ = value;
}

void TLRTelloraImpl::registerIfNeededWithConfiguration(
    const TLRTelloraConfiguration& configuration,
    std::function<void(const std::optional<TLRError>&)> end) {
  if (clientID() && clientSecret()) {
    end(std::nullopt);
    return;
  }
  TLRRegistrationService::registerClientOnServer(
      configuration.registrationServerURL, configuration.appID, configuration.appSecret,
      TLRDeviceInfo::currentDeviceInfo(),
      [weak = weakSelf_, end = std::move(end)](const std::optional<std::string>& id,
                                               const std::optional<std::string>& secret,
                                               const std::optional<TLRError>& error) {
        auto self = weak.lock();
        if (!self) return;
        // A reply without an identity is no registration: it fails like any
        // other, and the next connect registers again.
        std::optional<TLRError> failure = error;
        if (!failure && (!isUsableIdentity(id) || !isUsableIdentity(secret))) {
          failure = makeHTTPError(TLRHTTPErrorCode::CannotParseResponse,
                                  "The registration reply holds no clientId and clientSecret");
        }
        self->telloraState_ = failure ? TLRTelloraStateIdle : TLRTelloraStateRegistered;
        self->setClientID(failure ? std::nullopt : id);
        self->setClientSecret(failure ? std::nullopt : secret);
        end(failure);
      });
}

void TLRTelloraImpl::prepareMessageServiceIfNeededWithConfiguration(
    const TLRTelloraConfiguration& configuration, std::function<void(bool)> callback) {
  if (messageService_) {
    callback(true);
    return;
  }
  registerIfNeededWithConfiguration(configuration, [weak = weakSelf_, configuration, callback](
                                                       const std::optional<TLRError>& error) {
    auto self = weak.lock();
    if (!self) return;
    if (error) {
      callback(false);
      logf("Tellora: registration error %s", error->description().c_str());
      self->connectionFailure_ = describeRegistrationFailure(*error);
      self->telloraState_ = TLRTelloraStateIdle;
      const auto status = httpStatusOfFailure(*error);
      if (status && (*status == 801 || *status == 802)) {
        const TLRError refusal = TLRError::make(*status);
        self->searchState_ = TLRSearchStateStopped;
        // A copy: the host may start a new search from the callback, which
        // replaces the stored one.
        if (auto stopped = self->onSearchStopedBlock_) stopped(refusal);
      }
      return;
    }
    if (!boost::urls::parse_uri(configuration.websocketServerURL)) {
      callback(false);
      logf("Tellora: websocket server URL is invalid");
      self->connectionFailure_ =
          "the WebSocket URL is invalid: " + configuration.websocketServerURL;
      return;
    }
    self->messageService_ =
        TLRMessageService::create(configuration.websocketServerURL, self->clientID().value_or(""),
                                  self->clientSecret().value_or(""));
    if (self->linkCheckInterval_ != Duration{})
      self->messageService_->setCheckInterval(self->linkCheckInterval_);
    if (self->transportRetryInterval_ != Duration{})
      self->messageService_->transport().setRetryInterval(
          std::chrono::duration_cast<std::chrono::milliseconds>(self->transportRetryInterval_));
    self->timeSync_ = TLRTimeSynchronizer::create(self->messageService_);
    self->messageService_->setDelegate(self->weakSelf_);
    self->telloraState_ = TLRTelloraStateRegistered;
    callback(true);
  });
}

void TLRTelloraImpl::connect() {
  logf("Tellora: connecting to server");
  if (!configuration_) {
    logf("Tellora: Please prepare the configuration");
    return;
  }
  logf("Tellora: configuration is OK");
  // The success flag is deliberately not looked at: after a failed preparation
  // there is no service, and opening does nothing.
  prepareMessageServiceIfNeededWithConfiguration(*configuration_, [weak = weakSelf_](bool) {
    auto self = weak.lock();
    if (!self) return;
    debugf("prepare message is OK");
    self->telloraState_ = TLRTelloraStateConnecting;
    if (!self->messageService_) return;
    self->messageService_->openConnectionWithOpenedCallback(
        [weak] {
          if (auto s = weak.lock()) s->connectionOpened();
        },
        [weak](const std::optional<TLRError>& error) {
          if (auto s = weak.lock()) s->connectionClosed(error);
        });
  });
}

void TLRTelloraImpl::connectionOpened() {
  debugf("Tellora: connection is open");
  connectionFailure_.reset();
  resumeAttempts_ = 0;
  telloraState_ = TLRTelloraStateConnected;
  if (!timeSync_) return;
  timeSync_->requestTimeDifference(
      [weak = weakSelf_](double timeDiff, const std::optional<TLRError>&) {
        auto self = weak.lock();
        if (!self) return;
        self->timeDifference_ = timeDiff;  // stored whatever the error says
        debugf("timeDifference =  %f  timeDiff = %f", self->timeDifference_, timeDiff);
        if (self->needRunSearch_) self->runSearching();
      });
}

void TLRTelloraImpl::connectionClosed(const std::optional<TLRError>& error) {
  telloraState_ = TLRTelloraStateDisconnected;
  logf("Tellora: connection closed with error: %s", describe(error).c_str());
  if (!error && configuration_ && configuration_->resumeSearchAfterClose && isSearching()) {
    resumeSearchLater();
    return;
  }
  stopSearchingWithBlock(nullptr);
  // The host hears of it on a later turn of the loop, searching or not.
  EventLoop::main().post([weak = weakSelf_, error] {
    auto self = weak.lock();
    if (!self) return;
    self->searchState_ = TLRSearchStateStopped;
    if (auto stopped = self->onSearchStopedBlock_) stopped(error);
    self->postSearchStop(error);
  });
}

// The host asked for searches to survive closes without error. The pause is
// random so that the clients of a restarted server do not all return at once,
// and grows while closes repeat. Recording goes on meanwhile.
void TLRTelloraImpl::resumeSearchLater() {
  constexpr double kFirstPauseSeconds = 1.0;
  constexpr double kLongestPauseSeconds = 30.0;
  const double base = std::min(kLongestPauseSeconds,
                               kFirstPauseSeconds * std::ldexp(1.0, std::min(resumeAttempts_, 5)));
  ++resumeAttempts_;
  thread_local std::minstd_rand random(std::random_device{}());
  const double pause = base * std::uniform_real_distribution<double>(0.5, 1.5)(random);
  logf("Tellora: connection closed, resuming the search in %.1f s", pause);
  searchState_ = TLRSearchStateStarting;
  needRunSearch_ = true;
  EventLoop::main().postAfter(
      std::chrono::duration_cast<Duration>(std::chrono::duration<double>(pause)),
      [weak = weakSelf_] {
        auto self = weak.lock();
        // A stop in the meantime, or a search that reconnected on its own.
        if (!self || !self->isSearching() || self->telloraState_ != TLRTelloraStateDisconnected)
          return;
        self->connect();
      });
}

void TLRTelloraImpl::postSearchStop(const std::optional<TLRError>& error) {
  if (error)
    center().post(TelloraSearchStopNotification, {{"Error", *error}});
  else
    center().post(TelloraSearchStopNotification);
}

void TLRTelloraImpl::disconnect() {
  if (messageService_) messageService_->closeConnection();
}

void TLRTelloraImpl::setHostCallbacks(TLRTellora::StartedBlock started,
                                      TLRTellora::ClientBlock found, TLRTellora::ClientBlock lost,
                                      TLRTellora::StoppedBlock stopped) {
  onSearchStartedBlock_ = std::move(started);
  clientFoundBlock_ = std::move(found);
  clientLostBlock_ = std::move(lost);
  onSearchStopedBlock_ = std::move(stopped);
}

void TLRTelloraImpl::startSearchingWithPayload(const std::optional<std::string>& payload) {
  needRunSearch_ = true;
  center().post(TelloraWillStartSearchNotification);
  logf("Tellora: starting search");
  payload_ = payload;
  if (searchState_ != TLRSearchStateStopped) {
    logf("Tellora: search already running");
    return;
  }
  searchState_ = TLRSearchStateStarting;
  if (telloraState_ == TLRTelloraStateIdle || telloraState_ == TLRTelloraStateDisconnected)
    connect();
  else if (telloraState_ > TLRTelloraStateConnecting)
    runSearching();
  // Registered or connecting: the open callback runs the search.
}

void TLRTelloraImpl::runSearching() {
  needRunSearch_ = false;
  debugf("Start search timeDifference = %f", timeDifference_);
  searchState_ = TLRSearchStateSearching;
  if (!isRecording_) startRecordSound();
  if (hasher_) hasher_->setSending(true);
  if (!messageService_) return;
  // Recording and sending are on before the mode is acknowledged: the first
  // fingerprints may reach the server ahead of the mode.
  messageService_->establishClientMode(kSearchClientMode, [weak = weakSelf_] {
    auto self = weak.lock();
    if (!self) return;
    EventLoop::main().post([weak] {
      auto s = weak.lock();
      if (!s) return;
      center().post(TelloraDidStartSearchNotification);
      if (auto started = s->onSearchStartedBlock_) started();
    });
    if (!self->messageService_) return;
    const nlohmann::json payload =
        self->payload_ ? nlohmann::json(*self->payload_) : nlohmann::json();
    self->messageService_->establishClientPayload(payload, [weak] {
      auto s = weak.lock();
      if (!s || !s->messageService_) return;
      s->messageService_->requestAllNearbyWithCallback([weak](const nlohmann::json& nearby) {
        auto s2 = weak.lock();
        if (!s2) return;
        debugf("allnearby result == %s",
               nearby.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
        if (!nearby.is_array()) return;
        for (const auto& record : nearby) {
          if (!record.is_object()) continue;
          auto id = record.find("clientId");
          if (id == record.end() || !id->is_string()) continue;
          auto payload = record.find("payload");
          s2->nearbyAddedWithClientID(id->get<std::string>(),
                                      payload == record.end() ? nlohmann::json() : *payload);
        }
      });
    });
  });
}

void TLRTelloraImpl::stopSearching() {
  stopSearchingWithBlock(onSearchStopedBlock_);
}

// `callback` is a copy: a host that starts a new search from it replaces the
// stored callback while this one still runs.
void TLRTelloraImpl::stopSearchingWithBlock(TLRTellora::StoppedBlock callback) {
  logf("Tellora: stoped search");
  center().post(TelloraSearchWillStopNotification);
  if (searchState_ != TLRSearchStateStarting && searchState_ != TLRSearchStateSearching) return;
  payload_.reset();
  if (hasher_) hasher_->setSending(false);
  searchState_ = TLRSearchStateStopped;
  if (callback) callback(std::nullopt);
  if (!useAnunimousBuffer_) stopRecordSound();
  // A search started from the callback found the recorder still running and
  // left it alone; the stop just ended it, so that search records again here.
  if (searchState_ == TLRSearchStateSearching && !isRecording_) startRecordSound();
  // needRunSearch stays: a stop before the connection is ready leaves the
  // pending run in place.
}

void TLRTelloraImpl::startRecordSound() {
  debugf("start record sound");
  isRecording_ = true;
  hasher_ = TLRHasher::create(recorder_, kPartDuration);
  hasher_->setDelegate(weakSelf_);
  if (!useAnunimousBuffer_) hasher_->setSending(true);
  recorder_->startRecording();
}

void TLRTelloraImpl::stopRecordSound() {
  debugf("stopRecordSound");
  isRecording_ = false;
  recorder_->stopRecording();
  hasher_.reset();
}

void TLRTelloraImpl::fingerprintGenerated(const std::string& fingerprint, double startTime,
                                          double endTime) {
  // The end field carries the clock offset itself, not the shifted end: the
  // server reads it so.
  const double shiftedStart = startTime + timeDifference_;
  if (messageService_) messageService_->addFingerprint(fingerprint, shiftedStart, timeDifference_);
  debugf("startTime == %f endTime == %f timeDifference = %f", shiftedStart, endTime,
         timeDifference_);
}

void TLRTelloraImpl::nearbyAddedWithClientID(const std::string& clientID,
                                             const nlohmann::json& payload) {
  // No duplicate check: a client reported twice is listed and reported twice.
  TLRClient client(std::make_shared<const std::string>(clientID), payloadText(payload));
  nearbyClients_.push_back(client);
  boundNearbyClients();
  if (auto found = clientFoundBlock_) found(client);
  center().post(TelloraClientFoundNotification, {{"client", client}});
}

void TLRTelloraImpl::nearbyRemovedWithClientID(const std::string& clientID) {
  auto it = std::find_if(nearbyClients_.begin(), nearbyClients_.end(),
                         [&](const TLRClient& c) { return c.clientID() == clientID; });
  if (it == nearbyClients_.end()) return;
  const TLRClient found = *it;
  // Only entries of that very report go; other reports of the same id stay.
  std::erase_if(nearbyClients_, [&](const TLRClient& c) { return c.isEqual(found); });
  if (auto lost = clientLostBlock_) lost(found);
  center().post(TelloraClientLostNotification, {{"client", found}});
}

// A server that repeats found pushes for ever must not grow the list without
// bound. Past the cap the oldest entry whose id is listed again later goes
// first (the host has heard of that client since); failing that, the oldest.
void TLRTelloraImpl::boundNearbyClients() {
  if (nearbyClients_.size() <= kNearbyClientsLimit) return;
  // One pass to count: the first entry whose id is listed more than once is
  // listed again later. (Each push lands here, so no quadratic scan.)
  std::unordered_map<std::string_view, int> listings;
  for (const TLRClient& client : nearbyClients_)
    ++listings[client.clientID()];
  auto victim =
      std::find_if(nearbyClients_.begin(), nearbyClients_.end(),
                   [&](const TLRClient& client) { return listings[client.clientID()] > 1; });
  if (victim == nearbyClients_.end()) victim = nearbyClients_.begin();
  debugf("Tellora: nearby list full, dropping %s", victim->clientID().c_str());
  nearbyClients_.erase(victim);
}

void TLRTelloraImpl::recordStoppedWithError(const TLRError& error) {
  searchState_ = TLRSearchStateStopped;
  if (auto stopped = onSearchStopedBlock_) stopped(error);
  postSearchStop(error);
}

std::optional<std::string> TLRTelloraImpl::connectionFailure() const {
  if (messageService_) {
    if (auto failure = messageService_->lastConnectionFailure()) return failure;
  }
  return connectionFailure_;
}

void TLRTelloraImpl::setTimings(Duration linkCheckInterval, Duration transportRetryInterval,
                                Duration recorderRetryUnit) {
  if (linkCheckInterval != Duration{}) linkCheckInterval_ = linkCheckInterval;
  if (transportRetryInterval != Duration{}) transportRetryInterval_ = transportRetryInterval;
  if (recorderRetryUnit != Duration{}) recorder_->setRetryDelayUnit(recorderRetryUnit);
  if (messageService_ && linkCheckInterval != Duration{})
    messageService_->setCheckInterval(linkCheckInterval);
  if (messageService_ && transportRetryInterval != Duration{})
    messageService_->transport().setRetryInterval(
        std::chrono::duration_cast<std::chrono::milliseconds>(transportRetryInterval));
}

}  // namespace tellora
