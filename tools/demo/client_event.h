// One line of `tellora search` output, read back.
#pragma once

#include <optional>
#include <string>

namespace tellora::demo {

struct ClientEvent {
  enum class Kind { searchStarted, clientFound, clientLost, searchStopped, speedStatus };
  Kind kind = Kind::searchStarted;
  std::string clientId;                // clientFound, clientLost
  std::optional<std::string> payload;  // clientFound, clientLost (null payloads stay empty)
  std::optional<std::string> error;    // searchStopped with an error: "DOMAIN CODE"
  std::string status;                  // speedStatus
};

// Nothing for lines that are not one of the events above (log noise, bad JSON,
// an event without the fields it needs).
std::optional<ClientEvent> parseClientEvent(const std::string& line);

}  // namespace tellora::demo
