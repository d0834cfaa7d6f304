#include "messaging/client_messages.h"

#include <utility>

#include "runtime/log.h"

namespace tellora {

TLRCLMessageSetMode::TLRCLMessageSetMode(int64_t mode, TLRDoneCallback modeEstablished)
    : TLRClientMessage(TLRMessageTypeSetMode, std::move(modeEstablished)) {
  setClientMode(mode);
}

void TLRCLMessageSetMode::setClientMode(int64_t mode) {
  setData({{"mode", mode}});
}

TLRCLMessageSetPayload::TLRCLMessageSetPayload(nlohmann::json payload,
                                               TLRDoneCallback modeEstablished)
    : TLRClientMessage(TLRMessageTypeSetPayload, std::move(modeEstablished)) {
  setPayload(std::move(payload));
}

void TLRCLMessageSetPayload::setPayload(nlohmann::json payload) {
  setData(std::move(payload));
}

TLRCLMessageGetAllNearby::TLRCLMessageGetAllNearby(TLRNearbyCallback callback)
    : TLRClientMessage(TLRMessageTypeGetAllNearby, std::move(callback)) {}

TLRCLMessageGetTime::TLRCLMessageGetTime(TLRTimeCallback callback)
    : TLRClientMessage(TLRMessageTypeGetTime, std::move(callback)) {}

TLRCLMessageAddFingerprint::TLRCLMessageAddFingerprint(const std::string& fingerprint,
                                                       double startTime, double endTime,
                                                       TLRDoneCallback fingerprintAddedCallback)
    : TLRClientMessage(TLRMessageTypeAddFingerprint, std::move(fingerprintAddedCallback)) {
  debugf("initWithFingerprint: %s withStartTime: %f  andEndTime: %f", fingerprint.c_str(),
         startTime, endTime);
  setData(nlohmann::json::object());
  setFingerprint(fingerprint);
  setStartTime(startTime);
  setEndTime(endTime);
}

// The setters only fill an existing object; on anything else they are no-ops.
void TLRCLMessageAddFingerprint::setFingerprint(const std::string& fingerprint) {
  if (data().is_object()) mutableData()["fp"] = fingerprint;
}

void TLRCLMessageAddFingerprint::setStartTime(double startTime) {
  if (data().is_object()) mutableData()["stime"] = startTime;
}

void TLRCLMessageAddFingerprint::setEndTime(double endTime) {
  if (data().is_object()) mutableData()["etime"] = endTime;
}

TLRCLMessageSetEnvironment::TLRCLMessageSetEnvironment(TLRLocationCoordinate location,
                                                       std::vector<std::string> macAddress,
                                                       TLRDoneCallback environmentEstablished)
    : TLRClientMessage(TLRMessageTypeSetEnvironment, std::move(environmentEstablished)) {
  // Deliberately before "data" exists: both writes are lost.
  setLocation(location);
  setMacAddress(macAddress);
  setData(nlohmann::json::object());
}

void TLRCLMessageSetEnvironment::setLocation(TLRLocationCoordinate location) {
  if (data().is_object()) {
    mutableData()["geo"] = {{"lat", location.latitude}, {"lng", location.longitude}};
  }
}

void TLRCLMessageSetEnvironment::setMacAddress(const std::vector<std::string>& macAddress) {
  if (data().is_object()) mutableData()["wifi"] = macAddress;
}

}  // namespace tellora
