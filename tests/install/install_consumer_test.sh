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
# The installed server, with the example configuration as shipped; only where
# it listens and keeps its state come from the environment. The examples'
# default endpoints are on 127.0.0.1:10000.
conf=$prefix/share/tellora/tellora-server.conf
test -f "$prefix/lib/systemd/system/tellora-server.service"
grep -q "ExecStart=$prefix/bin/tellora-server --config" "$prefix/lib/systemd/system/tellora-server.service"
if grep -qE '^\s*app\s*=|--app[ =]' "$conf" "$prefix/lib/systemd/system/tellora-server.service"; then
  echo "application secrets in the shipped configuration or unit"; exit 1
fi
port=0
if ! (exec 3<>/dev/tcp/127.0.0.1/10000) 2>/dev/null; then port=10000; fi
TELLORA_SERVER_BIND=127.0.0.1 TELLORA_SERVER_PORT=$port TELLORA_SERVER_STATE_DIR=$work/state \
  "$prefix/bin/tellora-server" --config "$conf" >"$work/server.out" 2>"$work/server.err" &
server=$!
trap 'kill $server 2>/dev/null || true' EXIT
for _ in $(seq 100); do grep -q '^listening on' "$work/server.out" && break; sleep 0.1; done
listening=$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$work/server.out")
[ -n "$listening" ] || { echo "installed server did not start"; cat "$work/server.err"; exit 1; }
test -f "$work/state/tellora-server.db"
grep -q '"level":"info"' "$work/server.err"  # the example asks for JSON logs
exec 3<>/dev/tcp/127.0.0.1/"$listening"
printf 'GET /healthz HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n' >&3
grep -q '^ok' <(cat <&3) || { echo "/healthz of the installed server"; exit 1; }
exec 3>&-

# The examples run against it: they search for a few seconds and stop.
if [ "$listening" = 10000 ]; then
  export TELLORA_SERVER_HOST=127.0.0.1 TELLORA_EXAMPLE_SECONDS=3
  # The ALSA plugins PortAudio loads leak a little and are unloaded before a
  # leak report could name them (as in the capture test).
  export ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0
  # Identities of their own, issued by this server.
  TELLORA_DEFAULTS_PATH=$work/cpp_host.defaults \
    "$work/examples-build/example_cpp_host" >"$work/cpp_host.out" 2>&1 &
  cpp_host=$!
  TELLORA_DEFAULTS_PATH=$work/c_host.defaults \
    "$work/examples-build/example_c_host" >"$work/c_host.out" 2>&1
  wait $cpp_host
  for out in "$work/cpp_host.out" "$work/c_host.out"; do
    grep -q "search started" "$out" || { echo "$out:"; cat "$out"; exit 1; }
  done
else
  echo "install consumer: port 10000 is taken, the examples are built but not run"
fi
kill -TERM $server
wait $server
echo "install consumer: ok"
