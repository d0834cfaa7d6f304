// Matcher settings from the command line ("name=value"), for tuning runs.
#pragma once

#include <string>

#include "server/matcher/matcher.h"

namespace tellora::scenes {

// Applies one "name=value"; false when the name is unknown or the value is not a number.
bool applyOverride(server::MatcherConfig& config, const std::string& assignment);
// Every setting as "name=value", one per line.
std::string describe(const server::MatcherConfig& config);

}  // namespace tellora::scenes
