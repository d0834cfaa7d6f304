// A guard for JSON from the network, checked before parsing: a parser and the
// value it builds recurse once per level, so a text of a million '[' must be
// refused without being parsed.
#pragma once

#include <string_view>

namespace tellora {

// Whether arrays and objects nest deeper than `limit` (brackets inside strings
// do not count). Stops reading once past the limit.
bool jsonNestsDeeperThan(std::string_view text, int limit);

}  // namespace tellora
