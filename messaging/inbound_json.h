// Reading what the server sends. Nothing here throws: a frame that is not a JSON
// object reads as an empty object, and a value of the wrong kind reads as absent.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace tellora {

// Deeper nesting than this is refused before parsing: copying or printing such
// a value would recurse once per level.
inline constexpr int kMaxInboundNesting = 128;

// The frame as a JSON object, or an empty object when it is not valid JSON, not
// an object, or nested too deeply.
nlohmann::json parseInboundObject(std::string_view text);

// object[key] when `object` is an object that has the key, else nullptr.
const nlohmann::json* memberOf(const nlohmann::json& object, const char* key);

// object[key] when it is an integer that fits a signed 64-bit value.
std::optional<int64_t> integerMember(const nlohmann::json& object, const char* key);

// object[key] when it is a string.
const std::string* stringMember(const nlohmann::json& object, const char* key);

// Leading-prefix decimal reading: leading blanks, sign, digits, fraction and
// exponent; 0.0 when there is no number at the start, +-HUGE_VAL on overflow.
double lenientDouble(std::string_view text);

// Compact, readable dump for logs and records; never throws.
std::string describeJson(const nlohmann::json& value);

}  // namespace tellora
