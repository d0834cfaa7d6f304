#include "messaging/inbound_json.h"

#include "runtime/json_depth.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>

namespace tellora {

namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// Rough power of ten of a decimal number that from_chars found out of range:
// positive means overflow, otherwise underflow.
long decimalMagnitude(std::string_view number) {
  long magnitude = 0;
  bool seenNonZero = false;
  bool afterPoint = false;
  size_t pos = 0;
  for (; pos < number.size() && number[pos] != 'e' && number[pos] != 'E'; ++pos) {
    char c = number[pos];
    if (c == '.') {
      afterPoint = true;
    } else if (!seenNonZero && c == '0') {
      if (afterPoint) --magnitude;
    } else if (!seenNonZero) {
      seenNonZero = true;
      if (afterPoint) --magnitude;
    } else if (!afterPoint) {
      ++magnitude;
    }
  }
  if (pos < number.size()) {
    long exponent = 0;
    const char* begin = number.data() + pos + 1;
    if (*begin == '+') ++begin;
    auto [end, error] = std::from_chars(begin, number.data() + number.size(), exponent);
    (void)end;
    if (error == std::errc::result_out_of_range) exponent = *begin == '-' ? -100000 : 100000;
    magnitude += std::clamp(exponent, -100000L, 100000L);
  }
  return magnitude;
}

}  // namespace

nlohmann::json parseInboundObject(std::string_view text) {
  // The parser would take a NUL byte for the end of the text; in JSON it can
  // only be an error.
  if (text.find('\0') != std::string_view::npos || jsonNestsDeeperThan(text, kMaxInboundNesting)) {
    return nlohmann::json::object();
  }
  nlohmann::json parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_object()) return nlohmann::json::object();
  return parsed;
}

const nlohmann::json* memberOf(const nlohmann::json& object, const char* key) {
  if (!object.is_object()) return nullptr;
  auto found = object.find(key);
  return found == object.end() ? nullptr : &*found;
}

std::optional<int64_t> integerMember(const nlohmann::json& object, const char* key) {
  const nlohmann::json* value = memberOf(object, key);
  if (value == nullptr) return std::nullopt;
  if (value->is_number_unsigned()) {
    uint64_t unsignedValue = value->get<uint64_t>();
    if (unsignedValue > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      return std::nullopt;
    }
    return static_cast<int64_t>(unsignedValue);
  }
  if (value->is_number_integer()) return value->get<int64_t>();
  return std::nullopt;
}

const std::string* stringMember(const nlohmann::json& object, const char* key) {
  const nlohmann::json* value = memberOf(object, key);
  if (value == nullptr || !value->is_string()) return nullptr;
  return value->get_ptr<const std::string*>();
}

double lenientDouble(std::string_view text) {
  size_t pos = 0;
  while (pos < text.size() && std::isspace(static_cast<unsigned char>(text[pos])))
    ++pos;
  bool negative = false;
  if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
    negative = text[pos] == '-';
    ++pos;
  }
  const size_t start = pos;
  size_t digits = 0;
  while (pos < text.size() && isDigit(text[pos]))
    ++pos, ++digits;
  if (pos < text.size() && text[pos] == '.') {
    ++pos;
    while (pos < text.size() && isDigit(text[pos]))
      ++pos, ++digits;
  }
  if (digits == 0) return 0.0;
  // An exponent counts only when digits follow it.
  if (pos < text.size() && (text[pos] == 'e' || text[pos] == 'E')) {
    size_t exponent = pos + 1;
    if (exponent < text.size() && (text[exponent] == '+' || text[exponent] == '-')) ++exponent;
    if (exponent < text.size() && isDigit(text[exponent])) {
      pos = exponent;
      while (pos < text.size() && isDigit(text[pos]))
        ++pos;
    }
  }
  double value = 0.0;
  const char* first = text.data() + start;
  const char* last = text.data() + pos;
  auto [end, error] = std::from_chars(first, last, value, std::chars_format::general);
  if (error == std::errc::result_out_of_range) {
    value = decimalMagnitude(std::string_view(first, last - first)) > 0 ? HUGE_VAL : 0.0;
  } else if (error != std::errc() || end != last) {
    return 0.0;
  }
  return negative ? -value : value;
}

std::string describeJson(const nlohmann::json& value) {
  try {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  } catch (const nlohmann::json::exception&) {
    return "<unprintable>";
  }
}

}  // namespace tellora
