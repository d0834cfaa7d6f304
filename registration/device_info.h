// The description of this device and of the host application that goes with
// a registration request.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace tellora {

class TLRDeviceInfo {
 public:
  TLRDeviceInfo(std::string os, std::string osVersion, std::string hardware, std::string language,
                std::string bundleID, std::string appVersion);

  // Reads the six values from this machine and the host settings below; none
  // is ever empty (see registration/device_sources.h for the Linux sources).
  static TLRDeviceInfo currentDeviceInfo();

  const std::string& os() const { return os_; }
  const std::string& osVersion() const { return osVersion_; }
  const std::string& hardware() const { return hardware_; }
  const std::string& language() const { return language_; }
  const std::string& bundleID() const { return bundleID_; }
  const std::string& appVersion() const { return appVersion_; }

  // {"os", "osVersion", "hardware", "language", "appName", "appVersion"}, all
  // strings. The bundle id goes under "appName": the server expects it there.
  nlohmann::json dictionary() const;

 private:
  std::string os_;
  std::string osVersion_;
  std::string hardware_;
  std::string language_;
  std::string bundleID_;
  std::string appVersion_;
};

// The host application's identifier, sent as "appName" (its version is
// setHostAppVersion() in transport/transport.h). An empty identifier restores
// the default, the executable's file name. Thread-safe.
void setHostAppIdentifier(std::string identifier);
std::string hostAppIdentifier();

}  // namespace tellora
