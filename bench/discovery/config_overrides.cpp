#include "bench/discovery/config_overrides.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <type_traits>
#include <variant>

namespace tellora::scenes {

namespace {

using Field = std::variant<int32_t server::MatcherConfig::*, double server::MatcherConfig::*,
                           uint32_t server::MatcherConfig::*>;

struct Setting {
  const char* name;
  Field field;
};

constexpr Setting kSettings[] = {
    {"windowSlots", &server::MatcherConfig::windowSlots},
    {"minOverlap", &server::MatcherConfig::minOverlap},
    {"maxShift", &server::MatcherConfig::maxShift},
    {"clearBitError", &server::MatcherConfig::clearBitError},
    {"clearShare", &server::MatcherConfig::clearShare},
    {"scoredBits", &server::MatcherConfig::scoredBits},
    {"findEvidence", &server::MatcherConfig::findEvidence},
    {"evidenceExponent", &server::MatcherConfig::evidenceExponent},
    {"nearbyWindowSlots", &server::MatcherConfig::nearbyWindowSlots},
    {"trackShift", &server::MatcherConfig::trackShift},
    {"keepEvidence", &server::MatcherConfig::keepEvidence},
    {"lostAfterMs", &server::MatcherConfig::lostAfterMs},
    {"quietLostAfterMs", &server::MatcherConfig::quietLostAfterMs},
    {"nearbyEvaluateEveryMs", &server::MatcherConfig::nearbyEvaluateEveryMs},
    {"candidateHits", &server::MatcherConfig::candidateHits},
    {"candidateWithinMs", &server::MatcherConfig::candidateWithinMs},
    {"candidateHoldMs", &server::MatcherConfig::candidateHoldMs},
    {"keyMask", &server::MatcherConfig::keyMask},
    {"indexHorizonSlots", &server::MatcherConfig::indexHorizonSlots},
    {"silentAfterMs", &server::MatcherConfig::silentAfterMs},
    {"historySlots", &server::MatcherConfig::historySlots},
    {"maxFingerprintAgeMs", &server::MatcherConfig::maxFingerprintAgeMs},
    {"maxFingerprintLeadMs", &server::MatcherConfig::maxFingerprintLeadMs},
};

}  // namespace

bool applyOverride(server::MatcherConfig& config, const std::string& assignment) {
  const auto eq = assignment.find('=');
  if (eq == std::string::npos) return false;
  const std::string name = assignment.substr(0, eq), value = assignment.substr(eq + 1);
  char* end = nullptr;
  const double number = std::strtod(value.c_str(), &end);
  if (value.empty() || *end != '\0' || !std::isfinite(number)) return false;
  for (const auto& s : kSettings) {
    if (name != s.name) continue;
    return std::visit(
        [&](auto member) {
          using T = std::remove_reference_t<decltype(config.*member)>;
          if constexpr (std::is_integral_v<T>) {
            if (number < static_cast<double>(std::numeric_limits<T>::min()) ||
                number > static_cast<double>(std::numeric_limits<T>::max()))
              return false;
          }
          config.*member = static_cast<T>(number);
          return true;
        },
        s.field);
  }
  return false;
}

std::string describe(const server::MatcherConfig& config) {
  std::string out;
  for (const auto& s : kSettings) {
    std::visit(
        [&](auto member) {
          using T = std::remove_reference_t<decltype(config.*member)>;
          char line[96];
          if constexpr (std::is_same_v<T, uint32_t>)
            std::snprintf(line, sizeof line, "%s=0x%08X\n", s.name, config.*member);
          else
            std::snprintf(line, sizeof line, "%s=%g\n", s.name,
                          static_cast<double>(config.*member));
          out += line;
        },
        s.field);
  }
  return out;
}

}  // namespace tellora::scenes
