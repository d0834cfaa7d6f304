#include "fuzz/support/fuzz_input.h"

#include <cstring>

namespace tellora::fuzzing {

uint8_t FuzzInput::byte() {
  return offset_ < size_ ? data_[offset_++] : 0;
}

uint16_t FuzzInput::u16() {
  const uint16_t low = byte();
  return static_cast<uint16_t>(low | (byte() << 8));
}

uint32_t FuzzInput::u32() {
  const uint32_t low = u16();
  return low | (static_cast<uint32_t>(u16()) << 16);
}

float FuzzInput::f32() {
  const uint32_t bits = u32();
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

std::string_view FuzzInput::rest() {
  std::string_view text(reinterpret_cast<const char*>(data_) + offset_, size_ - offset_);
  offset_ = size_;
  return text;
}

}  // namespace tellora::fuzzing
