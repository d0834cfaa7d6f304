#!/usr/bin/env bash
# Runs the SDK's end-to-end tests (the facade against real loopback registration and
# WebSocket servers), and the transport's tests of a server that ends or breaks the
# connection while the client writes, under valgrind memcheck; fails on any memory
# error or on any definitely or indirectly lost block.
#
# Usage: scripts/valgrind-sdk.sh [build-dir]   (default: build)
set -uo pipefail

build="${1:-build}"
# folder/binary[:gtest filter]
tests=(facade/facade_search_test facade/facade_connection_test facade/facade_shared_instance_test
       facade/facade_c_api_test
       "transport/transport_tests:Endings/*:*ResetLink*:*MessageOfOneMebibyte*")
logs="$build/valgrind"
# Everything runs 20-50 times slower under valgrind: the tests' waits stretch.
export TELLORA_TEST_WAIT_SCALE="${TELLORA_TEST_WAIT_SCALE:-8}"
mkdir -p "$logs"

failed=0
for entry in "${tests[@]}"; do
  path="${entry%%:*}"
  filter=""
  [[ "$entry" == *:* ]] && filter="--gtest_filter=${entry#*:}"
  name="$(basename "$path")"
  binary="$build/tests/$path"
  if [[ ! -x "$binary" ]]; then
    echo "valgrind: $name: not built at $binary" >&2
    failed=1
    continue
  fi
  # Thread stacks the C library keeps for reuse show up as "possibly lost"; only
  # blocks nothing points to any more count as leaks.
  valgrind --error-exitcode=99 --leak-check=full \
    --errors-for-leak-kinds=definite,indirect --show-leak-kinds=definite,indirect \
    --num-callers=40 "$binary" $filter >"$logs/$name.log" 2>&1
  status=$?
  summary="$(grep -E 'ERROR SUMMARY' "$logs/$name.log" | tail -n 1 | sed 's/^==[0-9]*== //')"
  if [[ $status -ne 0 ]]; then
    failed=1
    echo "valgrind: $name FAILED (exit $status): $summary; log: $logs/$name.log" >&2
    grep -E '^==[0-9]+== (Invalid|Conditional|Use of|Mismatched|Syscall|[0-9,]+ bytes in)' \
      "$logs/$name.log" | head -n 20 >&2
    # A test that failed for another reason: its name and its failed checks.
    grep -E -A3 '^\[  FAILED  \]|: Failure$' "$logs/$name.log" | head -n 40 >&2
  else
    echo "valgrind: $name ok ($summary)"
  fi
done
exit $failed
