// A C++ host using the installed library.
#include <tellora/audiohash.h>

#include <cmath>
#include <cstdio>
#include <vector>

int main() {
  std::vector<float> samples(8000);
  for (size_t i = 0; i < samples.size(); ++i)
    samples[i] = 0.5f * std::sin(0.05f * i * i / 8000);
  hashst st;
  hashres res{};
  inithashst(&st);
  if (audiohash(samples.data(), samples.size(), &res, &st, 0, 8000) != 0) return 1;
  uint32_t index = 0;
  float conf = 0;
  const int status = audio_distance_ber(&res, &res, 16, &index, &conf, 0.35f);
  std::printf("words %d, self-match at %u with confidence %.3f\n", res.nbhashes, index, conf);
  freehash(&res);
  freehashst(&st);
  return status == 0 && index == 0 ? 0 : 1;
}
