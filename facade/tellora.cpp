// The public entry points: each hops onto the SDK's event loop and runs there.
// Calls without a result are queued, never waited for, so a host may call them
// while holding a lock that its own callbacks take; calls with a result wait
// for the loop, except on the loop itself, where everything runs at once.
#include "tellora/tellora.hpp"

#include "facade/tellora_access.h"
#include "facade/tellora_impl.h"
#include "messaging/message_service.h"
#include "registration/device_info.h"
#include "runtime/event_loop.h"
#include "runtime/log.h"
#include "transport/transport.h"

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

EventLoop& loop() {
  return EventLoop::main();
}

}  // namespace

TLRTellora::TLRTellora() {
  impl_ = loop().call([] { return TLRTelloraImpl::create(); });
}

TLRTellora& TLRTellora::sharedInstance() {
  static TLRTellora* instance = new TLRTellora();  // never destroyed
  return *instance;
}

void TLRTellora::setupWithApiKey(const std::string& apiKey) {
  auto impl = sharedInstance().impl_;
  loop().dispatch([impl, apiKey] {
    if (!impl->configuration()) impl->setConfiguration(defaultConfigurationWithApiKey(apiKey));
  });
}

void TLRTellora::setupWithCustomConfiguration(const TLRTelloraConfiguration& configuration) {
  auto impl = sharedInstance().impl_;
  loop().dispatch([impl, configuration] {
    impl->setConfiguration(configuration);
    logf("Tellora: set custom configuration is OK");
  });
}

void TLRTellora::startSearchingWithPayload(std::optional<std::string> payload,
                                           StartedBlock onSearchStartedBlock,
                                           ClientBlock onClientFoundBlock, ClientBlock onClientLost,
                                           StoppedBlock onSearchStoppedBlock) {
  auto impl = sharedInstance().impl_;
  loop().dispatch([impl, payload = std::move(payload), started = std::move(onSearchStartedBlock),
                   found = std::move(onClientFoundBlock), lost = std::move(onClientLost),
                   stopped = std::move(onSearchStoppedBlock)]() mutable {
    impl->setHostCallbacks(std::move(started), std::move(found), std::move(lost),
                           std::move(stopped));
    impl->startSearchingWithPayload(payload);
  });
}

void TLRTellora::stopSearch() {
  auto impl = sharedInstance().impl_;
  loop().dispatch([impl] { impl->stopSearching(); });
}

void TLRTellora::stopSearchingWithStoppedBlock(std::function<void()> stoppedBlock) {
  auto impl = sharedInstance().impl_;
  loop().dispatch([impl, stoppedBlock = std::move(stoppedBlock)] {
    impl->stopSearchingWithBlock([stoppedBlock](const std::optional<TLRError>&) {
      if (stoppedBlock) stoppedBlock();
    });
  });
}

void TLRTellora::disconnect() {
  auto impl = sharedInstance().impl_;
  loop().dispatch([impl] { impl->disconnect(); });
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

std::optional<std::string> TLRTellora::lastConnectionFailure() const {
  return loop().call([&] { return impl_->connectionFailure(); });
}

void TLRTellora::setHostApplication(const std::string& identifier, const std::string& version) {
  setHostAppIdentifier(identifier);
  setHostAppVersion(version);
}

std::shared_ptr<TLRTelloraImpl> TLRTelloraAccess::impl(TLRTellora& tellora) {
  return tellora.impl_;
}

}  // namespace tellora
