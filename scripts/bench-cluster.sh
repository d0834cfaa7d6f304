#!/usr/bin/env bash
# The load bench through several nodes joined by a Redis of its own, then
# through one node alone, so the two rows compare on the same machine.
#   scripts/bench-cluster.sh [BUILD_DIR]    (LOAD_CLIENTS=2000 NODES=3)
set -euo pipefail
build=${1:-build}
clients=${LOAD_CLIENTS:-2000}
nodes=${NODES:-3}
dir=$(mktemp -d /tmp/tellora-bench-redis-XXXXXX)
port=$((20000 + RANDOM % 20000))
redis-server --port "$port" --bind 127.0.0.1 --dir "$dir" --appendonly yes \
  --appendfsync everysec --save "" --daemonize yes --pidfile "$dir/redis.pid" \
  --logfile "$dir/redis.log"
trap 'kill "$(cat "$dir/redis.pid" 2>/dev/null)" 2>/dev/null || true; rm -rf "$dir"' EXIT
for _ in $(seq 50); do
  redis-cli -p "$port" ping >/dev/null 2>&1 && break
  sleep 0.1
done
echo "bench-cluster: $nodes nodes through redis on port $port"
"$build/bench/load" --clients "$clients" --nodes "$nodes" --redis "127.0.0.1:$port"
echo "bench-cluster: one node"
"$build/bench/load" --clients "$clients"
