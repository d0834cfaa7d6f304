/* A C host hashing one part of silence through the installed library. */
#include <stdio.h>
#include <tellora/audiohash.h>

int main(void) {
  static float samples[3968];
  hashst st;
  hashres res;
  inithashst(&st);
  if (audiohash(samples, 3968, &res, &st, 0, 8000) != 0 || res.nbhashes != 29) {
    fprintf(stderr, "unexpected hash\n");
    return 1;
  }
  freehash(&res);
  freehashst(&st);
  return ph_bitcount(0x80000000u) == 32 ? 0 : 1;
}
