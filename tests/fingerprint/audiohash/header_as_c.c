/* Compiled as C99: the public hash header must be usable from C. */
#include "tellora/audiohash.h"

int tellora_header_check(void) {
  hashst st;
  hashres res;
  float samples[1] = {0.0f};
  inithashst(&st);
  res.nbhashes = 0;
  return audiohash(samples, 1, &res, &st, 0, 8000) + (int)sizeof(res);
}
