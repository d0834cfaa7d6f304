// What the harnesses share: reading the input, failing loudly, a scratch
// folder and a quiet SDK.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string_view>

namespace tellora::fuzzing {

// Reads a fuzzer's input as a little-endian header followed by free bytes.
// Reading past the end yields zeros, so every input decodes to something.
class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  uint8_t byte() { return offset_ < size_ ? data_[offset_++] : 0; }
  uint16_t u16() { return static_cast<uint16_t>(byte() | (byte() << 8)); }
  uint32_t u32() { return u16() | (static_cast<uint32_t>(u16()) << 16); }
  // The raw bit pattern: NaN, infinities and denormals included.
  float f32() {
    const uint32_t bits = u32();
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }
  // Everything not read yet; the input is used up afterwards.
  std::string_view rest() {
    std::string_view text(reinterpret_cast<const char*>(data_) + offset_, size_ - offset_);
    offset_ = size_;
    return text;
  }
  size_t remaining() const { return size_ - offset_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t offset_ = 0;
};

// A harness invariant broke: reported as a crash so libFuzzer keeps the input.
[[noreturn]] void fail(const char* what);

// A fresh folder under the temporary directory ($TMPDIR), made on first use and
// removed when the process exits normally.
const std::filesystem::path& scratchFolder();

// Discards every log line and points the standard defaults store at the scratch
// folder, with the "debug" switch set as asked (on: the debug-only log sites
// format their lines too). Call once, from LLVMFuzzerInitialize.
void prepareQuietSdk(bool debug);

}  // namespace tellora::fuzzing
