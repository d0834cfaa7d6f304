#include "fingerprint/hash_queue.h"

namespace tellora {

SerialQueue& hashQueue() {
  // Immortal: jobs may still run while static destructors do at exit.
  static SerialQueue* const queue = new SerialQueue("hashQueue");
  return *queue;
}

}  // namespace tellora
