// The one serial queue every hasher hashes its parts on.
#pragma once

#include "runtime/event_loop.h"

namespace tellora {

// Labelled "hashQueue"; created on first use and never destroyed. Shared by
// all hashers so that a job never owns the queue it runs on (a per-hasher
// queue would be joined from its own thread when a job held its last
// reference), and so that parts are hashed one at a time across hashers.
SerialQueue& hashQueue();

}  // namespace tellora
