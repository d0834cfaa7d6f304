// Reads a fuzzer's input as a little-endian header followed by free bytes.
// Reading past the end yields zeros, so every input decodes to something.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tellora::fuzzing {

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  uint8_t byte();
  uint16_t u16();
  uint32_t u32();
  // The raw bit pattern: NaN, infinities and denormals included.
  float f32();
  // Everything not read yet; the input is used up afterwards.
  std::string_view rest();
  size_t remaining() const { return size_ - offset_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t offset_ = 0;
};

}  // namespace tellora::fuzzing
