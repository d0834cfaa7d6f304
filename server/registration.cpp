#include "server/registration.h"

#include <charconv>
#include <exception>
#include <limits>
#include <variant>

#include "server/client_store.h"
#include "server/credentials.h"
#include "server/json_input.h"

namespace tellora::server {

namespace {

RegistrationReply refuse(unsigned status, const std::string& why) {
  return {status, dumpJson({{"error", why}}),
          "registration refused (" + std::to_string(status) + "): " + why};
}

// Every admitted application is compared, so the time taken does not tell
// which ids exist.
bool admitted(std::span<const AppCredential> apps, int64_t id, const std::string& secret) {
  if (apps.empty()) return true;
  const Sha256 presented = sha256(secret);
  bool found = false;
  for (const auto& app : apps) {
    const bool match = sameDigest(sha256(app.secret), presented);
    found = found || (app.id == id && match);
  }
  return found;
}

std::variant<RegistrationRequest, RegistrationReply> parse(std::string_view body) {
  const auto json = parseUntrustedJson(body);
  if (!json || !json->is_object()) return refuse(400, "the body is not a JSON object");
  const auto app = json->find("app");
  if (app == json->end() || !app->is_object()) return refuse(400, "\"app\" is not an object");
  const auto id = app->find("id");
  const auto appId = id == app->end() ? std::nullopt : asInt64(*id);
  if (!appId || *appId < std::numeric_limits<int32_t>::min() ||
      *appId > std::numeric_limits<int32_t>::max())
    return refuse(400, "\"app\".\"id\" is not a 32-bit integer");
  const auto secret = app->find("secretKey");
  if (secret == app->end() || !secret->is_string())
    return refuse(400, "\"app\".\"secretKey\" is not a string");
  RegistrationRequest request{*appId, secret->get<std::string>(), nullptr};
  if (const auto device = json->find("device"); device != json->end()) {
    if (!device->is_object()) return refuse(400, "\"device\" is not an object");
    request.device = *device;
  }
  return request;
}

}  // namespace

std::optional<AppCredential> parseAppCredential(std::string_view text) {
  const auto colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0) return std::nullopt;
  int64_t id = 0;
  const char* first = text.data();
  const char* last = text.data() + colon;
  const auto [end, error] = std::from_chars(first, last, id);
  if (error != std::errc() || end != last) return std::nullopt;
  if (id < std::numeric_limits<int32_t>::min() || id > std::numeric_limits<int32_t>::max())
    return std::nullopt;
  return AppCredential{id, std::string(text.substr(colon + 1))};
}

RegistrationReply handleRegistration(std::string_view body, std::span<const AppCredential> apps,
                                     const IdentityIssuer& issue, std::size_t maxDeviceBytes) {
  try {
    auto parsed = parse(body);
    if (auto* reply = std::get_if<RegistrationReply>(&parsed)) return std::move(*reply);
    const auto& request = std::get<RegistrationRequest>(parsed);
    // Measured as it is stored: the issuer keeps the record's JSON text.
    if (dumpJson(request.device).size() > maxDeviceBytes)
      return refuse(413, "the device record exceeds " + std::to_string(maxDeviceBytes) + " bytes");
    if (!admitted(apps, request.appId, request.appSecret))
      return refuse(kStatusUnknownApplication,
                    "unknown application " + std::to_string(request.appId) + " or wrong secret");
    const auto identity = issue(request);
    if (!identity) return refuse(500, "no identity could be issued");
    return {200,
            dumpJson({{"clientId", identity->clientId}, {"clientSecret", identity->clientSecret}}),
            "registered client " + identity->clientId + " of application " +
                std::to_string(request.appId)};
  } catch (const std::exception& e) {
    return refuse(500, std::string("internal error: ") + e.what());
  }
}

}  // namespace tellora::server
