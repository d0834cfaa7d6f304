// Writes the committed test recording data/chirp.wav: a 2 s sweep from 100 Hz
// to 3.5 kHz over faint noise, 8000 Hz mono 16-bit. Run by update_golden.sh,
// which stops on the exception a failed write throws.
#include <sndfile.h>

#include <cstdio>

#include "tests/tools/test_audio.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUT.wav\n", argv[0]);
    return 2;
  }
  std::vector<float> sound = tellora::testaudio::chirp(8000, 2.0, 100.0, 3500.0);
  tellora::testaudio::addNoise(sound, 0.02f, 2024u);
  tellora::testaudio::writeItems(argv[1], tellora::testaudio::toItems(sound), 1, 8000,
                                 SF_FORMAT_WAV);
}
