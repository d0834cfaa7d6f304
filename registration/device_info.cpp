#include "registration/device_info.h"

#include <mutex>
#include <utility>

#include "registration/device_sources.h"
#include "transport/transport.h"

namespace tellora {
namespace {

std::mutex identifierMutex;
std::string identifierSetByHost;

}  // namespace

TLRDeviceInfo::TLRDeviceInfo(std::string os, std::string osVersion, std::string hardware,
                             std::string language, std::string bundleID, std::string appVersion)
    : os_(std::move(os)),
      osVersion_(std::move(osVersion)),
      hardware_(std::move(hardware)),
      language_(std::move(language)),
      bundleID_(std::move(bundleID)),
      appVersion_(std::move(appVersion)) {}

TLRDeviceInfo TLRDeviceInfo::currentDeviceInfo() {
  OperatingSystem system = currentOperatingSystem();
  std::string hardware = currentHardwareName();
  std::string language = preferredLanguage(LocaleEnvironment::current());
  std::string bundleID = hostAppIdentifier();
  std::string version = hostAppVersion();
  if (version.empty()) version = "unknown";
  return TLRDeviceInfo(std::move(system.name), std::move(system.version), std::move(hardware),
                       std::move(language), std::move(bundleID), std::move(version));
}

nlohmann::json TLRDeviceInfo::dictionary() const {
  return nlohmann::json{{"os", os_},
                        {"osVersion", osVersion_},
                        {"hardware", hardware_},
                        {"language", language_},
                        {"appName", bundleID_},
                        {"appVersion", appVersion_}};
}

void setHostAppIdentifier(std::string identifier) {
  std::lock_guard lock(identifierMutex);
  identifierSetByHost = std::move(identifier);
}

std::string hostAppIdentifier() {
  {
    std::lock_guard lock(identifierMutex);
    if (!identifierSetByHost.empty()) return identifierSetByHost;
  }
  return executableName().value_or("unknown");
}

}  // namespace tellora
