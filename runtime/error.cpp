#include "tellora/error.h"

#include <charconv>
#include <type_traits>

namespace tellora {

const char* const TLRErrorDomain = "com.tellora.quillmark.ErrorDomain";

namespace {

std::string describe(const TLRErrorInfoValue& value) {
  return std::visit(
      [](const auto& v) -> std::string {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::monostate>) {
          return "(null)";
        } else if constexpr (std::is_same_v<T, bool>) {
          return v ? "1" : "0";
        } else if constexpr (std::is_same_v<T, int64_t>) {
          return std::to_string(v);
        } else if constexpr (std::is_same_v<T, double>) {
          // Shortest text that reads back as the same double: 0.5, not 0.500000.
          char buffer[32];
          const auto end = std::to_chars(buffer, buffer + sizeof buffer, v).ptr;
          return std::string(buffer, end);
        } else {
          return v;
        }
      },
      value);
}

}  // namespace

TLRError TLRError::make(int64_t code, std::map<std::string, TLRErrorInfoValue> userInfo) {
  return TLRError{TLRErrorDomain, code, std::move(userInfo)};
}

std::string TLRError::description() const {
  std::string text = "Error Domain=" + domain + " Code=" + std::to_string(code);
  if (userInfo.empty()) return text;
  text += " UserInfo={";
  bool first = true;
  for (const auto& [key, value] : userInfo) {
    if (!first) text += ", ";
    first = false;
    text += key + "=" + describe(value);
  }
  text += "}";
  return text;
}

}  // namespace tellora
