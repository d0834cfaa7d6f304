// Driving `tellora search` processes: their arguments, the JSON events they
// print (one a line) and the identity they stored.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "runtime/user_defaults.h"
#include "tests/support/child_process.h"

namespace tellora::testing {

// Searches with app `appId`/`appSecret` at the server on 127.0.0.1:`port`.
inline std::vector<std::string> searchArgs(uint16_t port, int64_t appId,
                                           const std::string& appSecret, const std::string& payload,
                                           const std::string& input,
                                           const std::string& defaultsFile) {
  const std::string base = "127.0.0.1:" + std::to_string(port);
  return {"search",
          "--register-url",
          "http://" + base + "/register",
          "--ws-url",
          "ws://" + base + "/ws",
          "--app-id",
          std::to_string(appId),
          "--app-secret",
          appSecret,
          "--payload",
          payload,
          "--input",
          input,
          "--defaults",
          defaultsFile};
}

// The events named `kind` (all events when empty), in order.
inline std::vector<nlohmann::json> searchEvents(const std::string& output,
                                                const std::string& kind = {}) {
  std::vector<nlohmann::json> events;
  for (const auto& line : splitLines(output)) {
    auto event = nlohmann::json::parse(line, nullptr, false);
    if (event.is_object() && (kind.empty() || event.value("event", "") == kind))
      events.push_back(std::move(event));
  }
  return events;
}

inline std::string storedClientId(const std::string& defaultsFile) {
  return UserDefaults(defaultsFile).stringForKey("TLRUserDefaultsClientID").value_or("");
}

}  // namespace tellora::testing
