#!/usr/bin/env bash
# Rewrites the committed chirp recording and the tool's hash output for it.
# Run after a deliberate change to the hash or to the tool's output, then review
# the diff: any other change in these files is a regression.
#   tests/tools/update_golden.sh [BUILD_DIR]     (default: build)
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/../.." && pwd)"
build="${1:-$root/build}"
data="$here/data"

log="$(mktemp)"
trap 'rm -f "$log"' EXIT
if ! cmake --build "$build" --target tellora_cli tellora_make_chirp -j 2 >"$log" 2>&1; then
  cat "$log" >&2
  exit 1
fi
tool="$(find "$build/tools" -maxdepth 1 -type f -name tellora -perm -u+x | head -n 1)"
chirp_maker="$(find "$build/tests/tools" -maxdepth 1 -type f -name tellora_make_chirp | head -n 1)"
if [ -z "$tool" ] || [ -z "$chirp_maker" ]; then
  echo "update_golden: tellora or tellora_make_chirp not found under $build" >&2
  exit 1
fi

mkdir -p "$data"
"$chirp_maker" "$data/chirp.wav"
"$tool" hash "$data/chirp.wav" >"$data/chirp.hash"
"$tool" hash --toggles 3 "$data/chirp.wav" >"$data/chirp.toggles3.hash"
echo "update_golden: wrote $(wc -l <"$data/chirp.hash") words to $data" >&2
