// The exported audio-hash and comparison functions with arbitrary samples,
// rates, toggle counts and block sizes.
//
// Input header (little-endian), then sample bytes:
//   0     flags: bits 0-1 sample encoding (0 16-bit PCM, 1 raw float bits,
//         2 8-bit PCM, 3 16-bit PCM scaled far out of range); bit 2 hash a
//         second time on the same state; bit 3 check against the
//         straightforward computation; bit 4 allow up to kMaxSamples samples
//         (else kShortSamples, which keeps most runs quick)
//   1     rate: below 0xC0 one of kRates, else 2-3 give it (0 to 20000)
//   4     P, the toggle bits asked for: byte % 36 - 1 (-1 to 34)
//   5-8   sample count (modulo the limit); the sample bytes repeat to fill it
//   9     block size for audio_distance_ber (0 is refused)
//   10-13 threshold (raw float bits)
//   14-15 offset and 16-17 length of the shorter hash inside the longer one
//   18-21 a hash-word index for get_offset_secs
// Bounded so that one run stays well under a second.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fingerprint/audiohash/reference_hash.h"
#include "fuzz/support/harness.h"
#include "tellora/audiohash.h"

namespace {

using tellora::fuzzing::fail;

using tellora::audiohash::referenceAudiohash;
using tellora::fuzzing::FuzzInput;

constexpr uint32_t kMaxSamples = 80000;    // 10 s at 8000 Hz
constexpr uint32_t kShortSamples = 16000;  // 2 s
// Four accepted rates: all of them fit the process's cache of rate tables.
constexpr int32_t kRates[] = {8000, 8000, 8000,  8000, 8000,  8000,  6000,  6000,
                              5999, 0,    -8000, 5000, 16000, 16000, 44100, 8000};

// Read in the order of the header above.
struct Settings {
  explicit Settings(FuzzInput& in) {
    flags = in.byte();
    const uint8_t rate = in.byte();
    const uint16_t freeRate = in.u16();
    // Free rates stop at 20000 Hz (4096-sample frames) to keep table builds quick.
    sr = rate < 0xC0 ? kRates[rate % (sizeof kRates / sizeof kRates[0])] : freeRate % 20001;
    P = in.byte() % 36 - 1;
    count = in.u32() % ((flags & 0x10 ? kMaxSamples : kShortSamples) + 1);
    blockSize = in.byte();
    threshold = in.f32();
    shortOffset = in.u16();
    shortLength = in.u16();
    index = in.u32();
  }

  uint8_t flags;
  int32_t sr, P;
  uint32_t count, blockSize;
  float threshold;
  uint16_t shortOffset, shortLength;
  uint32_t index;
};

std::vector<float> readSamples(FuzzInput& in, const Settings& s) {
  const std::string_view bytes = in.rest();
  std::vector<float> samples(s.count, 0.0f);
  const size_t width = (s.flags & 3) == 1 ? 4 : (s.flags & 3) == 2 ? 1 : 2;
  const size_t available = bytes.size() / width;
  if (available == 0) return samples;
  for (uint32_t i = 0; i < s.count; ++i) {
    const char* item = bytes.data() + (i % available) * width;
    int16_t pcm = 0;
    if (width == 2) std::memcpy(&pcm, item, 2);
    switch (s.flags & 3) {
      case 0:
        samples[i] = pcm / 32768.0f;
        break;
      case 1:
        std::memcpy(&samples[i], item, 4);
        break;
      case 2:
        samples[i] = static_cast<int8_t>(*item) / 128.0f;
        break;
      default:
        samples[i] = pcm * 1.0e30f;
    }
  }
  return samples;
}

bool sameFloat(float a, float b) {
  return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof a) == 0;
}

void checkShape(const hashres& r, const Settings& s, uint32_t N) {
  const int32_t A = static_cast<int32_t>(N) / 32;
  const int32_t F = static_cast<int32_t>(s.count) / A - static_cast<int32_t>(N) / A + 1;
  if (r.nbframes != F || r.nbhashes != F - 2) fail("frame or word count");
  if (r.ntoggles != s.P || r.bitsperword != 32) fail("result fields");
  if ((r.nbhashes > 0) != (r.hashes != nullptr)) fail("hashes array");
  if ((r.nbhashes > 0 && s.P > 0) != (r.toggles != nullptr)) fail("toggles array");
  for (int32_t w = 0; r.toggles && w < r.nbhashes; ++w) {
    // sortidx is a permutation of the 32 bands: P distinct bits.
    if (__builtin_popcount(r.toggles[w]) != s.P) fail("toggle mask does not hold P bits");
  }
}

void checkAgainstReference(const std::vector<float>& samples, const hashres& fast,
                           const Settings& s) {
  hashres ref{};
  if (referenceAudiohash(samples.data(), s.count, &ref, s.P, s.sr) != 0) fail("reference refused");
  if (ref.nbframes != fast.nbframes || ref.nbhashes != fast.nbhashes) fail("reference shape");
  for (int32_t k = 0; k < fast.nbframes; ++k)
    for (int b = 0; b < 33; ++b)
      if (!sameFloat(fast.frames[k][b], ref.frames[k][b])) fail("energies differ from reference");
  for (int32_t w = 0; w < fast.nbhashes; ++w) {
    if (fast.hashes[w] != ref.hashes[w]) fail("hash word differs from reference");
    if (fast.toggles && fast.toggles[w] != ref.toggles[w]) fail("toggles differ from reference");
  }
  freehash(&ref);
}

void compareHashes(const hashres& full, const Settings& s) {
  if (full.nbhashes <= 0) return;
  const uint32_t offset = s.shortOffset % static_cast<uint32_t>(full.nbhashes);
  const uint32_t length = s.shortLength % (static_cast<uint32_t>(full.nbhashes) - offset + 1);
  hashres shorter{};
  shorter.hashes = full.hashes + offset;
  shorter.toggles = full.toggles ? full.toggles + offset : nullptr;
  shorter.nbhashes = static_cast<int32_t>(length);

  uint32_t bestIndex = 0;
  float bestConf = 0;
  const int32_t status =
      audio_distance_ber(&shorter, &full, s.blockSize, &bestIndex, &bestConf, s.threshold);
  if (status != (s.blockSize == 0 ? -1 : 0)) fail("audio_distance_ber status");
  if (status == 0) {
    const bool none = bestIndex == 0xFFFFFFFFu;
    if (none != (bestConf == -1.0f)) fail("best index and confidence disagree");
    if (!none && (bestIndex > full.nbhashes - length || !(bestConf >= 0 && bestConf <= 1)))
      fail("best alignment out of range");
  }
  // Reversed roles: a longer first hash is refused.
  if (length < static_cast<uint32_t>(full.nbhashes) &&
      audio_distance_ber(&full, &shorter, 1, &bestIndex, &bestConf, s.threshold) != -1)
    fail("longer first hash accepted");

  if (length > 0) {
    const auto n = static_cast<int32_t>(length);
    const float d = ph_compare_blocks(shorter.hashes, shorter.toggles, full.hashes, n);
    if (!(d >= 0 && d <= 1)) fail("block distance out of range");
    if (ph_compare_blocks(shorter.hashes, shorter.toggles, shorter.hashes, n) != 0)
      fail("equal blocks at a distance");
  }
}

// The table helpers on their own, with sizes kept small.
void exerciseHelpers(const Settings& s, const std::vector<float>& samples) {
  (void)getexpframelength(s.sr, s.threshold);
  (void)get_offset_secs(s.sr, s.index);
  const uint32_t v = s.index;
  if (ph_bitcount(v) != (v ? 32 - __builtin_clz(v) : 0)) fail("ph_bitcount");

  const uint32_t windowSize = s.shortLength % 4097;
  if (float* window = GetHammingWindow(windowSize)) {
    free(window);
  } else if (windowSize != 0) {
    fail("no window");
  }
  const int32_t nbins = static_cast<int32_t>(s.shortOffset % 258) - 1;
  if (float** wts = GetWts(s.sr, nbins)) {
    for (int b = 0; b < 33; ++b)
      free(wts[b]);
    free(wts);
  } else if (nbins > 0) {
    fail("no weights");
  }

  float values[32] = {};
  uint8_t idx[32];
  const int32_t n = static_cast<int32_t>(s.blockSize % 33);
  for (int32_t i = 0; i < n; ++i) {
    values[i] = i < static_cast<int32_t>(samples.size()) ? samples[i] : 0.0f;
    idx[i] = static_cast<uint8_t>(i);
  }
  sort_barkdiffs(values, idx, n);
  uint32_t seen = 0;
  for (int32_t i = 0; i < n; ++i) {
    seen |= 1u << idx[i];
    if (i > 0 && values[i] < values[i - 1]) fail("sort_barkdiffs out of order");
  }
  if (n > 0 && seen != (n == 32 ? 0xFFFFFFFFu : (1u << n) - 1))
    fail("sort_barkdiffs lost an index");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  const Settings s(in);
  const std::vector<float> samples = readSamples(in, s);
  const float* items = samples.empty() ? nullptr : samples.data();

  hashst st;
  inithashst(&st);
  hashres result{};
  const int32_t status = audiohash(items, s.count, &result, &st, s.P, s.sr);
  const bool refused = s.count == 0 || s.sr < 6000 || s.P < 0 || s.P > 32;
  if (status != (refused ? -1 : 0)) fail("audiohash status");
  if (refused) {
    const hashres untouched{};
    if (std::memcmp(&result, &untouched, sizeof result) != 0) fail("refused call wrote a result");
  } else {
    checkShape(result, s, st.framelength);
    if (s.flags & 8) checkAgainstReference(samples, result, s);
    if (s.flags & 4) {
      // A second call on a prepared state: degenerate transform, same shape.
      hashres again{};
      if (audiohash(items, s.count, &again, &st, s.P, s.sr) != 0) fail("second call refused");
      checkShape(again, s, st.framelength);
      freehash(&again);
    }
    compareHashes(result, s);
  }
  exerciseHelpers(s, samples);
  freehash(&result);
  freehashst(&st);
  // Both accept null and records never filled.
  freehash(nullptr);
  freehashst(nullptr);
  return 0;
}
