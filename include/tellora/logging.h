// Where the SDK's log lines go. By default each line is written to stderr.
#ifndef TELLORA_LOGGING_H
#define TELLORA_LOGGING_H

#include <functional>
#include <string_view>

#include "tellora/export.h"

namespace tellora {

// Receives one complete line (no trailing newline). May be called from any SDK
// thread, never concurrently: calls are serialised by the SDK.
using TLRLogSink = std::function<void(std::string_view line)>;

// Replaces the sink; an empty function restores the stderr sink.
TELLORA_EXPORT void TLRSetLogSink(TLRLogSink sink);

}  // namespace tellora

#endif  // TELLORA_LOGGING_H
