#!/usr/bin/env bash
# Runs every fuzzer that has a seed corpus (fuzz/corpus/<name>/) for a fixed
# time and fails on any crash, leak, sanitizer report or time-out.
#
# Usage: scripts/fuzz-smoke.sh [build-dir]   (default: build-fuzz)
# Environment: FUZZ_SECONDS (default 60) per fuzzer; FUZZ_INPUT_TIMEOUT
# (default 10) seconds one input may take; FUZZ_JOBS (default: the number of
# cores) fuzzers at once.
#
# Each fuzzer works on a temporary copy of its corpus, so the committed seeds
# never change. Logs and any crashing input are kept under
# <build-dir>/fuzz-smoke/<name>/.
set -uo pipefail

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-build-fuzz}"
[[ "$build" = /* ]] || build="$PWD/$build"
seconds="${FUZZ_SECONDS:-60}"
input_timeout="${FUZZ_INPUT_TIMEOUT:-10}"
jobs_at_once="${FUZZ_JOBS:-$(nproc)}"
corpora="$repo/fuzz/corpus"

# Scratch on tmpfs when there is one: the harnesses write files per input.
scratch_parent=/tmp
[[ -d /dev/shm && -w /dev/shm ]] && scratch_parent=/dev/shm
scratch="$(mktemp -d "$scratch_parent/tellora-fuzz-smoke.XXXXXX")" || exit 1
trap 'rm -rf "$scratch"' EXIT

# LeakSanitizer stays on (libFuzzer's -detect_leaks defaults to 1 under ASan).
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:strict_string_checks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

# Fuzzes one target; leaves "exec/s|executions|verdict" in <out>/result.
fuzz_one() {
  local name="$1" corpus="$2"
  local binary="$build/fuzz/$name" out="$build/fuzz-smoke/$name"
  rm -rf "$out"
  mkdir -p "$out"
  if [[ ! -x "$binary" ]]; then
    echo "fuzz-smoke: $name: no fuzzer at $binary (build the tellora_fuzzers target)" >&2
    echo "-|-|NOT BUILT" >"$out/result"
    return
  fi

  local work="$scratch/$name"
  mkdir -p "$work/corpus" "$work/tmp"
  cp -R "$corpus". "$work/corpus/"
  local args=(-max_total_time="$seconds" -timeout="$input_timeout" -rss_limit_mb=2048
              -print_final_stats=1 -artifact_prefix="$out/")
  local dict="$repo/fuzz/$name.dict"
  [[ -f "$dict" ]] && args+=(-dict="$dict")

  echo "fuzz-smoke: $name for ${seconds}s"
  # The outer limit catches a fuzzer that hangs where libFuzzer cannot see it.
  TMPDIR="$work/tmp" timeout --kill-after=10 $((seconds + 120)) \
    "$binary" "${args[@]}" "$work/corpus" >"$out/log" 2>&1
  local status=$?

  local runs speed verdict=ok
  runs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$out/log" | tail -n 1)"
  speed="$(sed -n 's/^stat::average_exec_per_sec: *//p' "$out/log" | tail -n 1)"
  if [[ $status -ne 0 ]]; then
    verdict="FAILED (exit $status)"
  elif grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|UndefinedBehaviorSanitizer|libFuzzer)|runtime error:|SUMMARY: ' "$out/log"; then
    verdict="FAILED (sanitizer report)"
  elif [[ -z "$runs" ]]; then
    verdict="FAILED (no final stats)"
  fi
  if [[ "$verdict" != ok ]]; then
    echo "fuzz-smoke: $name $verdict; log: $out/log" >&2
    grep -E 'ERROR|runtime error|SUMMARY|Test unit written|fuzzer: ' "$out/log" | head -n 20 >&2
  fi
  echo "${speed:--}|${runs:--}|$verdict" >"$out/result"
}

# One fuzzer per core at a time: each still gets its full time on a core of its own.
names=()
for corpus in "$corpora"/*/; do
  name="$(basename "$corpus")"
  names+=("$name")
  while (( $(jobs -rp | wc -l) >= jobs_at_once )); do wait -n; done
  fuzz_one "$name" "$corpus" &
done
wait

if [[ ${#names[@]} -eq 0 ]]; then
  echo "fuzz-smoke: no corpus folders in $corpora" >&2
  exit 1
fi

failed=0
rows=()
for name in "${names[@]}"; do
  result="$(cat "$build/fuzz-smoke/$name/result" 2>/dev/null || echo "-|-|NO RESULT")"
  [[ "$result" == *"|ok" ]] || failed=1
  rows+=("$name|$result")
done

echo
printf '%-28s %10s %14s  %s\n' fuzzer exec/s executions result
for row in "${rows[@]}"; do
  IFS='|' read -r name speed runs verdict <<<"$row"
  printf '%-28s %10s %14s  %s\n' "$name" "$speed" "$runs" "$verdict"
done
exit $failed
