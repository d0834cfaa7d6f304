#!/usr/bin/env bash
# install_consumer_test.sh BUILD_DIR CONSUMER_SRC WORK_DIR EXAMPLES_SRC
set -euo pipefail
build=$1 src=$2 work=$3 examples=$4
rm -rf "$work" && mkdir -p "$work"
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
lib=$(ls "$prefix"/lib*/libtellora.so* | head -n 1)

# Every hash function is exported unmangled; nothing of Boost, KISS FFT or the
# SDK's internals leaks.
exported=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//')
for fn in audiohash inithashst freehashst freehash getexpframelength GetHammingWindow GetWts \
          sort_barkdiffs ph_bitcount ph_compare_blocks get_offset_secs audio_distance_ber; do
  grep -qx "$fn" <<<"$exported" || { echo "not exported: $fn"; exit 1; }
done
leaks=$(grep -E 'boost|kiss_|nlohmann|audiohash[0-9]|referenceAudiohash|FrameKernel' <<<"$exported" || true)
if [ -n "$leaks" ]; then echo "internal symbols exported:"; echo "$leaks" | head; exit 1; fi

# find_package(Tellora)
cmake -S "$src" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/consumer_cpp"
"$work/cmake-build/consumer_c"

# The examples the README points hosts at: a project of their own.
cmake -S "$examples" -B "$work/examples-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/examples-build" >/dev/null

# pkg-config, plain compilers
export PKG_CONFIG_PATH=$(dirname "$lib")/pkgconfig
cc -std=c99 -Wall -Werror ${CFLAGS:-} "$src/consumer.c" $(pkg-config --cflags --libs tellora) \
   ${LDFLAGS:-} -Wl,-rpath,"$(dirname "$lib")" -o "$work/consumer_pkgconfig"
"$work/consumer_pkgconfig"
c++ -std=c++20 -Wall -Werror ${CXXFLAGS:-} "$examples/cpp_host.cpp" \
   $(pkg-config --cflags --libs tellora) ${LDFLAGS:-} -o "$work/example_pkgconfig"
echo "install consumer: ok"
