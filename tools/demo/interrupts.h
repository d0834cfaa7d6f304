// Ctrl-C, SIGTERM and SIGHUP end the demo in order (children stopped, files
// removed) instead of killing it on the spot.
#pragma once

namespace tellora::demo {

void catchInterrupts();
// The signal that asked us to stop, or 0.
int pendingInterrupt();

}  // namespace tellora::demo
