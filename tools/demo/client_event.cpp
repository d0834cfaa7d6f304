#include "tools/demo/client_event.h"

#include <nlohmann/json.hpp>

namespace tellora::demo {

namespace {

std::optional<std::string> optionalText(const nlohmann::json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

}  // namespace

std::optional<ClientEvent> parseClientEvent(const std::string& line) {
  const nlohmann::json j = nlohmann::json::parse(line, nullptr, false);
  if (!j.is_object()) return std::nullopt;
  const auto name = optionalText(j, "event");
  if (!name) return std::nullopt;

  ClientEvent e;
  if (*name == "searchStarted") {
    e.kind = ClientEvent::Kind::searchStarted;
  } else if (*name == "clientFound" || *name == "clientLost") {
    e.kind =
        *name == "clientFound" ? ClientEvent::Kind::clientFound : ClientEvent::Kind::clientLost;
    auto id = optionalText(j, "clientId");
    if (!id) return std::nullopt;
    e.clientId = *id;
    e.payload = optionalText(j, "payload");
  } else if (*name == "searchStopped") {
    e.kind = ClientEvent::Kind::searchStopped;
    auto error = j.find("error");
    if (error != j.end() && !error->is_null()) {
      const std::string domain =
          error->is_object() ? optionalText(*error, "domain").value_or("?") : std::string("?");
      const auto code = error->is_object() ? error->find("code") : error->end();
      e.error = domain + " " + (code != error->end() ? code->dump() : std::string("?"));
    }
  } else if (*name == "speedStatus") {
    e.kind = ClientEvent::Kind::speedStatus;
    e.status = optionalText(j, "status").value_or("unknown");
  } else {
    return std::nullopt;
  }
  return e;
}

}  // namespace tellora::demo
