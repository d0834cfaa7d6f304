// The six requests the SDK sends. They differ only in their type code and in
// how they fill "data". Each also has a typed field for its argument, but the
// setters write only into "data", so those getters always return the empty or
// zero value; nothing reads them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "messaging/client_message.h"

namespace tellora {

// A latitude/longitude pair in degrees.
struct TLRLocationCoordinate {
  double latitude = 0;
  double longitude = 0;
};

// Type 0, "data": {"mode": mode}.
class TLRCLMessageSetMode : public TLRClientMessage {
 public:
  TLRCLMessageSetMode(int64_t mode, TLRDoneCallback modeEstablished);
  void setClientMode(int64_t mode);
  int64_t clientMode() const { return clientMode_; }
  const char* className() const override { return "TLRCLMessageSetMode"; }

 private:
  int64_t clientMode_ = 0;
};

// Type 1, "data": the payload itself, not wrapped in an object.
class TLRCLMessageSetPayload : public TLRClientMessage {
 public:
  TLRCLMessageSetPayload(nlohmann::json payload, TLRDoneCallback modeEstablished);
  void setPayload(nlohmann::json payload);
  const nlohmann::json& payload() const { return payload_; }
  const char* className() const override { return "TLRCLMessageSetPayload"; }

 private:
  nlohmann::json payload_;
};

// Type 2, no data.
class TLRCLMessageGetAllNearby : public TLRClientMessage {
 public:
  explicit TLRCLMessageGetAllNearby(TLRNearbyCallback callback);
  const char* className() const override { return "TLRCLMessageGetAllNearby"; }
};

// Type 3, no data of its own (the message service may attach {"d": ...}).
class TLRCLMessageGetTime : public TLRClientMessage {
 public:
  explicit TLRCLMessageGetTime(TLRTimeCallback callback);
  const char* className() const override { return "TLRCLMessageGetTime"; }
};

// Type 4, "data": {"fp", "stime", "etime"}; the times are carried unchanged,
// fraction included.
class TLRCLMessageAddFingerprint : public TLRClientMessage {
 public:
  TLRCLMessageAddFingerprint(const std::string& fingerprint, double startTime, double endTime,
                             TLRDoneCallback fingerprintAddedCallback);
  void setFingerprint(const std::string& fingerprint);
  void setStartTime(double startTime);
  void setEndTime(double endTime);
  const std::string& fingerprint() const { return fingerprint_; }
  double startTime() const { return startTime_; }
  double endTime() const { return endTime_; }
  const char* className() const override { return "TLRCLMessageAddFingerprint"; }

 private:
  std::string fingerprint_;
  double startTime_ = 0;
  double endTime_ = 0;
};

// Type 5. The location and MAC addresses are set before "data" exists, so they
// are lost and the message always goes out with "data": {}. Kept so: the
// server expects the empty object.
class TLRCLMessageSetEnvironment : public TLRClientMessage {
 public:
  TLRCLMessageSetEnvironment(TLRLocationCoordinate location, std::vector<std::string> macAddress,
                             TLRDoneCallback environmentEstablished);
  // Write "geo" = {"lat", "lng"} and "wifi" into "data" when it is an object.
  void setLocation(TLRLocationCoordinate location);
  void setMacAddress(const std::vector<std::string>& macAddress);
  TLRLocationCoordinate location() const { return location_; }
  const std::vector<std::string>& macAddress() const { return macAddress_; }
  const char* className() const override { return "TLRCLMessageSetEnvironment"; }

 private:
  TLRLocationCoordinate location_;
  std::vector<std::string> macAddress_;
};

}  // namespace tellora
