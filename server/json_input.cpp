#include "server/json_input.h"

#include <cstdint>
#include <limits>

#include "runtime/json_depth.h"

namespace tellora::server {

std::optional<nlohmann::json> parseUntrustedJson(std::string_view text) {
  if (jsonNestsDeeperThan(text, kMaxJsonDepth)) return std::nullopt;
  nlohmann::json value =
      nlohmann::json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded()) return std::nullopt;
  return value;
}

std::string dumpJson(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::optional<int64_t> asInt64(const nlohmann::json& value) {
  if (value.is_number_unsigned()) {
    const auto v = value.get<uint64_t>();
    if (v > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return std::nullopt;
    return static_cast<int64_t>(v);
  }
  if (value.is_number_integer()) return value.get<int64_t>();
  return std::nullopt;
}

}  // namespace tellora::server
