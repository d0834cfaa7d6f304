// Where the SDK's log lines go. By default each line is written to stderr.
#ifndef TELLORA_LOGGING_H
#define TELLORA_LOGGING_H

#include <functional>
#include <string_view>

#include "tellora/export.h"

namespace tellora {

// Receives one complete line (no trailing newline). May be called from any SDK
// thread, never concurrently, and in the order the lines were written. The SDK
// holds no lock while it runs, so a sink may take its own locks and call into
// the SDK; a line may be delivered by another SDK thread than the one that
// wrote it.
using TLRLogSink = std::function<void(std::string_view line)>;

// Replaces the sink; an empty function restores the stderr sink.
TELLORA_EXPORT void TLRSetLogSink(TLRLogSink sink);

}  // namespace tellora

#endif  // TELLORA_LOGGING_H
