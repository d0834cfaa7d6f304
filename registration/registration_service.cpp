#include "registration/registration_service.h"

#include <utility>

#include "registration/http_json_client.h"
#include "runtime/event_loop.h"
#include "runtime/log.h"

namespace tellora {
namespace {

std::optional<std::string> stringMember(const nlohmann::json& reply, const char* key) {
  if (!reply.is_object()) return std::nullopt;
  const auto found = reply.find(key);
  if (found == reply.end() || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

std::string describe(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

void TLRRegistrationService::registerClientOnServer(
    const std::string& url, int32_t appID, const std::string& appSecret,
    const TLRDeviceInfo& deviceInfo, RegistrationDoneCallback registrationDoneCallback) {
  const nlohmann::json device = deviceInfo.dictionary();
  if (debugEnabled()) debugf("device info %s", describe(device).c_str());
  const nlohmann::json body = {{"device", device},
                               {"app", {{"id", appID}, {"secretKey", appSecret}}}};
  postJson(EventLoop::main().context(), url, body,
           [done = std::move(registrationDoneCallback)](HttpJsonResult result) {
             if (!done) return;
             if (auto* error = std::get_if<TLRError>(&result)) {
               done(std::nullopt, std::nullopt, std::move(*error));
               return;
             }
             const nlohmann::json& reply = std::get<HttpJsonResponse>(result).body;
             done(stringMember(reply, "clientId"), stringMember(reply, "clientSecret"),
                  std::nullopt);
           });
}

}  // namespace tellora
