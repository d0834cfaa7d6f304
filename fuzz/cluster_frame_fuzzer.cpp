// A frame another node published, as the receiving node decodes it: any bytes
// are refused or decoded, never read past their end, and what decodes
// encodes back to the very same frame.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "server/cluster/cluster_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view frame(reinterpret_cast<const char*>(data), size);
  const auto messages = tellora::server::decodeFrame(frame);
  if (!messages) return 0;
  std::string again;
  for (const auto& message : *messages)
    tellora::server::appendMessage(again, message);
  if (again != frame) __builtin_trap();
  return 0;
}
