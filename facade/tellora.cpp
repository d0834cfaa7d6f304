// The public entry points: each hops onto the SDK's event loop and runs there.
#include "tellora/tellora.hpp"

#include "facade/tellora_impl.h"
#include "messaging/message_service.h"
#include "runtime/event_loop.h"
#include "runtime/log.h"
#include "transport/transport.h"
#include "registration/device_info.h"

extern "C" {
const double TelloraVersionNumber = 1.0;
const unsigned char TelloraVersionString[] = "@(#)PROGRAM:Tellora  PROJECT:Tellora-1\n";
const char* const UDClientID = "TLRUserDefaultsClientID";
const char* const UDClientSecret = "TLRUserDefaultsClientSecret";
}

namespace tellora {

const char* const TelloraWillStartSearchNotification = "TelloraWillStartSearchNotification";
const char* const TelloraDidStartSearchNotification = "TelloraDidStartSearchNotification";
const char* const TelloraSearchWillStopNotification = "TelloraSearchWillStopNotification";
const char* const TelloraSearchStopNotification = "TelloraSearchStopNotification";
const char* const TelloraClientFoundNotification = "TelloraClientFoundNotification";
const char* const TelloraClientLostNotification = "TelloraClientLostNotification";
const char* const TLRTelloraNetworkSpeedStatusChanged = kTLRNetworkSpeedStatusChanged;

namespace {

EventLoop& loop() { return EventLoop::main(); }

}  // namespace

TLRTellora::TLRTellora() {
  impl_ = loop().call([] { return TLRTelloraImpl::create(); });
}

TLRTellora& TLRTellora::sharedInstance() {
  static TLRTellora* instance = new TLRTellora();  // never destroyed
  return *instance;
}

void TLRTellora::setupWithApiKey(const std::string& apiKey) {
  auto& self = sharedInstance();
  loop().call([&] {
    if (!self.impl_->configuration())
      self.impl_->setConfiguration(defaultConfigurationWithApiKey(apiKey));
  });
}

void TLRTellora::setupWithCustomConfiguration(const TLRTelloraConfiguration& configuration) {
  auto& self = sharedInstance();
  loop().call([&] {
    self.impl_->setConfiguration(configuration);
    logf("Tellora: set custom configuration is OK");
  });
}

void TLRTellora::startSearchingWithPayload(const std::string& payload,
                                           StartedBlock onSearchStartedBlock,
                                           ClientBlock onClientFoundBlock,
                                           ClientBlock onClientLost,
                                           StoppedBlock onSearchStoppedBlock) {
  auto& self = sharedInstance();
  loop().call([&] {
    self.impl_->setHostCallbacks(std::move(onSearchStartedBlock), std::move(onClientFoundBlock),
                                 std::move(onClientLost), std::move(onSearchStoppedBlock));
    self.impl_->startSearchingWithPayload(payload);
  });
}

void TLRTellora::stopSearch() {
  auto& self = sharedInstance();
  loop().call([&] { self.impl_->stopSearching(); });
}

void TLRTellora::stopSearchingWithStoppedBlock(std::function<void()> stoppedBlock) {
  auto& self = sharedInstance();
  loop().call([&] {
    self.impl_->stopSearchingWithBlock([stoppedBlock](const std::optional<TLRError>&) {
      if (stoppedBlock) stoppedBlock();
    });
  });
}

void TLRTellora::disconnect() {
  auto& self = sharedInstance();
  loop().call([&] { self.impl_->disconnect(); });
}

bool TLRTellora::isSearching() const {
  return loop().call([&] { return impl_->isSearching(); });
}

std::vector<TLRClient> TLRTellora::nearbyClients() const {
  return loop().call([&] { return impl_->nearbyClients(); });
}

std::optional<std::string> TLRTellora::clientID() const {
  return loop().call([&] { return impl_->clientID(); });
}

std::optional<std::string> TLRTellora::clientSecret() const {
  return loop().call([&] { return impl_->clientSecret(); });
}

int64_t TLRTellora::telloraState() const {
  return loop().call([&] { return impl_->telloraState(); });
}

int64_t TLRTellora::searchState() const {
  return loop().call([&] { return impl_->searchState(); });
}

double TLRTellora::timeDifference() const {
  return loop().call([&] { return impl_->timeDifference(); });
}

void TLRTellora::setHostApplication(const std::string& identifier, const std::string& version) {
  setHostAppIdentifier(identifier);
  setHostAppVersion(version);
}

void TLRTellora::setTimingsForTesting(std::chrono::milliseconds linkCheckInterval,
                                      std::chrono::milliseconds transportRetryInterval,
                                      std::chrono::milliseconds recorderRetryUnit) {
  auto& self = sharedInstance();
  loop().call([&] {
    self.impl_->setTimings(linkCheckInterval, transportRetryInterval, recorderRetryUnit);
  });
}

}  // namespace tellora
