// Obtains this device's client identity (client id and secret) from the
// registration endpoint with one HTTP POST.
//
// Request: POST <url>, "Content-Type: application/json", body
//   {"device": <TLRDeviceInfo::dictionary()>, "app": {"id": <appID>, "secretKey": <appSecret>}}
// with the id as a JSON integer. Plain http:// or https:// (certificate and
// host name verified; TELLORA_CA_FILE adds a trusted CA). Time limits: 15 s to
// connect (resolve, TCP, TLS), 30 s for the whole request. No retries, no
// redirects.
//
// Outcome, given to the callback exactly once, on EventLoop::main(), never
// inside the call:
// - status 200-299 and a JSON body: ("clientId", "clientSecret", nullopt).
//   Each is nullopt when missing, not a string, or when the body is empty or
//   not a JSON object; that is still no error, and the caller has to treat
//   a missing identity as a failure.
// - anything else: (nullopt, nullopt, error) with an error of the domain
//   "com.tellora.HTTPErrorDomain". A status outside 200-299 gives code = the
//   status and the status under "HTTPResponseStatusCode" (int64_t); read it with
//   httpStatusOfFailure(). The full contract is in registration/http_error.h.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "registration/device_info.h"
#include "registration/http_error.h"
#include "tellora/error.h"

namespace tellora {

class TLRRegistrationService {
 public:
  using RegistrationDoneCallback =
      std::function<void(std::optional<std::string> clientID,
                         std::optional<std::string> clientSecret, std::optional<TLRError> error)>;

  // Keeps no state: every call makes its own connection. Callable from any thread.
  static void registerClientOnServer(const std::string& url, int32_t appID,
                                     const std::string& appSecret, const TLRDeviceInfo& deviceInfo,
                                     RegistrationDoneCallback registrationDoneCallback);

  TLRRegistrationService() = delete;
};

}  // namespace tellora
