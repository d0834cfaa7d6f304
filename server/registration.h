// The registration endpoint's logic, without the network: a request body in,
// an HTTP status and reply body out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace tellora::server {

struct IssuedIdentity;

// An application admitted to register devices.
struct AppCredential {
  int64_t id = 0;
  std::string secret;
};

// "ID:SECRET" (the secret may itself hold ':'); nullopt for anything else.
std::optional<AppCredential> parseAppCredential(std::string_view text);

// Registration refused because the application is unknown or its secret wrong.
constexpr unsigned kStatusUnknownApplication = 801;

struct RegistrationRequest {
  int64_t appId = 0;
  std::string appSecret;
  nlohmann::json device;  // an object, or null when the body has none
};

struct RegistrationReply {
  unsigned status = 200;
  std::string body;     // JSON
  std::string logLine;  // what happened, for the log; never holds a secret
};

// Issues an identity for an admitted request; nullopt when it cannot.
using IdentityIssuer = std::function<std::optional<IssuedIdentity>(const RegistrationRequest&)>;

// The device record kept with each identity is at most this long by default.
constexpr std::size_t kDefaultMaxDeviceBytes = 4 << 10;

// Body {"device": {...}, "app": {"id": integer, "secretKey": text}}. With an
// empty `apps` any application is admitted. Replies 200 {"clientId",
// "clientSecret"}, 400 for a malformed body, 413 for a device record whose
// JSON text exceeds `maxDeviceBytes`, 801 for an application not admitted,
// 500 when no identity could be issued. Never throws.
RegistrationReply handleRegistration(std::string_view body, std::span<const AppCredential> apps,
                                     const IdentityIssuer& issue,
                                     std::size_t maxDeviceBytes = kDefaultMaxDeviceBytes);

}  // namespace tellora::server
