/* Tellora audio hash: plain C functions over caller-owned records.
 *
 * Conventions, once for the whole header:
 *  - Every function is safe to call from any thread; two calls never share a
 *    record unless the caller makes them.
 *  - Records are owned by the caller. `inithashst` prepares a state, `audiohash`
 *    fills it and a result, `freehashst` and `freehash` release what they hold
 *    (never the records themselves). Both free functions accept NULL and records
 *    that were never filled.
 *  - Integer status: 0 on success, -1 when the input is refused or memory runs
 *    out. A refused call leaves its records untouched.
 *  - One hash word per analysis step: 64 samples (8 ms) at 8000 Hz. A frame is
 *    the largest power of two not above 0.4 s of samples (2048 at 8000 Hz).
 *
 * Compiles as C99 and as C++. */
#ifndef TELLORA_AUDIOHASH_H
#define TELLORA_AUDIOHASH_H

#include <stdint.h>

#include "tellora/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Hash state: tables and scratch buffers that depend only on the sample rate.
 * The window and the band weights are shared, read-only tables built once per
 * rate for the whole process: `window` and `wts` point into them and
 * `freehashst` does not free them. A state serves exactly one `audiohash` call:
 * a second call on a prepared state runs with a degenerate transform (see
 * `audiohash`). */
typedef struct hashst {
  float* window;        /* Hamming window, framelength items (shared) */
  float** wts;          /* 33 rows of framelength/2 band weights (shared) */
  float* frame;         /* windowed frame / interleaved transform data */
  uint8_t* sortidx;     /* 32 band numbers that follow absdiffs while sorting */
  float* split;         /* split-complex transform buffer, framelength items */
  float* mag;           /* spectrum of one frame, framelength/2 items */
  float* absdiffs;      /* 32 rounded-down magnitudes of one word's differences */
  uint32_t framelength; /* N; 0 until the first audiohash call prepares the state */
  void* fftsetup;       /* transform set-up, owned by the state */
} hashst;

/* Hash result, filled by `audiohash` and released by `freehash`. */
typedef struct hashres {
  float** frames;      /* nbframes pointers, each to 33 band energies */
  uint32_t* toggles;   /* nbhashes masks of the least reliable bits, or NULL */
  uint32_t* hashes;    /* nbhashes hash words in frame order */
  int32_t nbframes;    /* analysis frames F */
  int32_t nbhashes;    /* hash words, F - 2 (may be 0 or negative: no words) */
  int32_t ntoggles;    /* toggle bits asked for */
  int32_t bitsperword; /* always 32 */
} hashres;

/* Hashes nbsamples mono samples (floats in [-1, 1]) taken at sr Hz.
 * P is the number of least reliable bits to mark per word in `toggles`
 * (0 = no toggles, `toggles` is NULL). Refused with -1: NULL samples, hash or
 * st; nbsamples 0; sr below 6000; P outside 0..32; a rate whose tables cannot
 * be allocated. Fewer than framelength + 2 steps of samples produce no words
 * (nbhashes <= 0), which is still a success.
 * On a state that an earlier call already prepared, the transform runs with
 * exponent 0 (one point: the data pass through unchanged); results then differ
 * from a fresh state's. Use a fresh state for every call. */
TELLORA_EXPORT int32_t audiohash(const float* samples, uint32_t nbsamples, hashres* hash,
                                 hashst* st, int32_t P, int32_t sr);

/* Marks a state as not prepared and clears its pointers, so that `freehashst`
 * is safe on it whatever happens next. */
TELLORA_EXPORT void inithashst(hashst* st);

/* Releases what a state holds (not the record itself). NULL is accepted. */
TELLORA_EXPORT void freehashst(hashst* st);

/* Releases what a result holds (not the record itself). NULL is accepted. */
TELLORA_EXPORT void freehash(hashres* hash);

/* floor(log2(secs * sr)) with the product truncated to an integer; -1 for 0. */
TELLORA_EXPORT int32_t getexpframelength(int32_t sr, float secs);

/* A new Hamming window of N floats (free with free()), or NULL. */
TELLORA_EXPORT float* GetHammingWindow(uint32_t N);

/* A new array of 33 rows of nbins band weights for rate sr, or NULL. Free each
 * row and the array with free(). */
TELLORA_EXPORT float** GetWts(int32_t sr, int32_t nbins);

/* Sorts n values ascending in place by selection sort, applying the same swaps
 * to idx. Ties keep the earliest remaining position. */
TELLORA_EXPORT void sort_barkdiffs(float* values, uint8_t* idx, int32_t n);

/* Bit length of v: 0 for 0, 32 when the top bit is set. */
TELLORA_EXPORT int32_t ph_bitcount(uint32_t v);

/* Distance in [0, 1] of two blocks of n words: the bit lengths of the masked
 * differences over n * 32. toggles may be NULL. */
TELLORA_EXPORT float ph_compare_blocks(const uint32_t* a, const uint32_t* toggles,
                                       const uint32_t* b, int32_t n);

/* Seconds from the start of the samples to hash word `index` at rate sr. */
TELLORA_EXPORT float get_offset_secs(int32_t sr, uint32_t index);

/* Scores the shorter hash A against every alignment inside the longer hash B
 * with blocks of bs words. Writes the best alignment (0xFFFFFFFF when none
 * scored) and its confidence (-1 when none). Refused with -1: NULL records or
 * outputs, bs 0, A longer than B, or no memory. */
TELLORA_EXPORT int32_t audio_distance_ber(const hashres* A, const hashres* B, uint32_t bs,
                                          uint32_t* best_index, float* best_conf, float threshold);

#ifdef __cplusplus
}
#endif

#endif /* TELLORA_AUDIOHASH_H */
