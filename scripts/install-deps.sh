#!/usr/bin/env bash
# Installs every Debian package that building, testing and running Tellora needs.
# Idempotent: packages already present are left alone, and the package lists are
# refreshed only when something is missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  libboost1.81-dev libboost-url1.81-dev
  libssl-dev nlohmann-json3-dev
  portaudio19-dev libsndfile1-dev libsamplerate0-dev libcli11-dev
  libsqlite3-dev libhiredis-dev redis-server
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev valgrind
  # virtual microphone and demo audio
  pulseaudio pulseaudio-utils libasound2-plugins alsa-utils sox espeak-ng
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "install-deps: installing ${missing[*]}" >&2
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then SUDO="sudo"; else
    echo "install-deps: missing packages and not root (no sudo): ${missing[*]}" >&2
    exit 1
  fi
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
