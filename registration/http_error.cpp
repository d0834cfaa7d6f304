#include "registration/http_error.h"

#include <utility>

namespace tellora {

std::optional<int64_t> httpStatusOfFailure(const TLRError& error) {
  const auto found = error.userInfo.find(kTLRHTTPResponseStatusCodeKey);
  if (found == error.userInfo.end()) return std::nullopt;
  if (const auto* status = std::get_if<int64_t>(&found->second)) return *status;
  return std::nullopt;
}

TLRError makeHTTPStatusError(unsigned status) {
  TLRError error;
  error.domain = kTLRHTTPErrorDomain;
  error.code = static_cast<int64_t>(status);
  error.userInfo[kTLRHTTPResponseStatusCodeKey] = static_cast<int64_t>(status);
  error.userInfo["message"] = "Request failed: unacceptable status code " + std::to_string(status);
  return error;
}

TLRError makeHTTPError(TLRHTTPErrorCode code, std::string message, std::optional<unsigned> status,
                       std::optional<std::string> underlyingError) {
  TLRError error;
  error.domain = kTLRHTTPErrorDomain;
  error.code = static_cast<int64_t>(code);
  error.userInfo["message"] = std::move(message);
  if (status) error.userInfo[kTLRHTTPResponseStatusCodeKey] = static_cast<int64_t>(*status);
  if (underlyingError) error.userInfo["underlyingError"] = std::move(*underlyingError);
  return error;
}

}  // namespace tellora
