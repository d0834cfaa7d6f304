// Errors reported by the SDK: a domain, an integer code and user info.
#ifndef TELLORA_ERROR_H
#define TELLORA_ERROR_H

#include <cstdint>
#include <map>
#include <string>
#include <variant>

#include "tellora/export.h"

namespace tellora {

// The SDK's own error domain.
TELLORA_EXPORT extern const char* const TLRErrorDomain;

// One value of an error's user info.
using TLRErrorInfoValue = std::variant<std::monostate, bool, int64_t, double, std::string>;

struct TELLORA_EXPORT TLRError {
  std::string domain;
  int64_t code = 0;
  std::map<std::string, TLRErrorInfoValue> userInfo;

  // An error in the SDK's domain.
  static TLRError make(int64_t code, std::map<std::string, TLRErrorInfoValue> userInfo = {});

  // "Error Domain=<domain> Code=<code> UserInfo={key=value, ...}"
  std::string description() const;

  bool operator==(const TLRError&) const = default;
};

}  // namespace tellora

#endif  // TELLORA_ERROR_H
