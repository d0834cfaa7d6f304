#!/usr/bin/env bash
# A virtual microphone for headless machines: a PulseAudio daemon whose default
# source is the monitor of a null sink, so that whatever plays into the sink is
# what PortAudio's default input records.
#
#   virtual-mic.sh start DIR       start a daemon whose state lives in DIR; prints
#                                  the environment lines clients must export
#   virtual-mic.sh stop DIR        stop the daemon started in DIR (by its PID)
#   virtual-mic.sh play DIR FILE   play FILE into the virtual microphone and wait
#   virtual-mic.sh env DIR         print the environment lines again
#
# Exit status of start: 0 running, 77 the machine cannot run the daemon (packages
# missing and not installable), 1 the daemon did not come up (see DIR/pulse.log).
set -euo pipefail

script_dir="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"

usage() {
  echo "usage: $0 start DIR | stop DIR | play DIR FILE | env DIR" >&2
  exit 2
}

[ $# -ge 2 ] || usage
command="$1"
dir="$2"

mkdir -p "$dir"
dir="$(cd "$dir" && pwd)"
run_dir="$dir/run"
pid_file="$run_dir/pulse/pid"
export XDG_RUNTIME_DIR="$run_dir"
export PULSE_SERVER="unix:$run_dir/pulse/native"

print_env() {
  echo "export XDG_RUNTIME_DIR=$XDG_RUNTIME_DIR"
  echo "export PULSE_SERVER=$PULSE_SERVER"
}

daemon_pid() {
  [ -s "$pid_file" ] || return 1
  local pid
  pid="$(tr -dc '0-9' <"$pid_file")"
  [ -n "$pid" ] || return 1
  # Only a live pulseaudio process counts: a stale file may name a reused PID.
  [ "$(cat "/proc/$pid/comm" 2>/dev/null)" = "pulseaudio" ] || return 1
  echo "$pid"
}

# True while the process runs; a zombie waiting for its parent counts as gone.
running() {
  local state
  state="$(awk '{print $3}' "/proc/$1/stat" 2>/dev/null)" || return 1
  [ -n "$state" ] && [ "$state" != "Z" ]
}

stop_daemon() {
  local pid
  if pid="$(daemon_pid)"; then
    kill "$pid" 2>/dev/null || true
    for _ in $(seq 1 100); do
      running "$pid" || break
      sleep 0.02
    done
    if running "$pid"; then kill -KILL "$pid" 2>/dev/null || true; fi
  fi
  rm -f "$pid_file"
}

have_tools() {
  command -v pulseaudio >/dev/null 2>&1 && command -v pactl >/dev/null 2>&1 &&
    command -v paplay >/dev/null 2>&1
}

start_daemon() {
  if ! have_tools && ! "$script_dir/install-deps.sh" >&2; then
    echo "virtual-mic: cannot install the audio packages" >&2
    exit 77
  fi
  for tool in pulseaudio pactl paplay; do
    if ! command -v "$tool" >/dev/null 2>&1; then
      echo "virtual-mic: $tool is not installed" >&2
      exit 77
    fi
  done

  # A daemon left over from an earlier run in the same DIR goes first.
  stop_daemon

  mkdir -p "$run_dir"
  chmod 700 "$run_dir"
  cat >"$dir/virtual-mic.pa" <<'EOF'
load-module module-native-protocol-unix
load-module module-null-sink sink_name=virtspk rate=8000 channels=1 format=s16le norewinds=1
load-module module-null-source source_name=silence rate=8000 channels=1 format=s16le
load-module module-loopback source=silence sink=virtspk latency_msec=20 source_dont_move=true sink_dont_move=true
set-default-sink virtspk
set-default-source virtspk.monitor
EOF
  # norewinds=1: without it the first milliseconds of every play come out as
  # zeros. The silence loopback keeps the sink busy, so a capture that starts
  # after an idle spell gets its first block at once instead of a second later.

  if ! pulseaudio --daemonize=yes --exit-idle-time=-1 --disallow-exit -n \
    -F "$dir/virtual-mic.pa" --log-target="file:$dir/pulse.log" >"$dir/pulse-start.log" 2>&1; then
    echo "virtual-mic: pulseaudio did not start; see $dir/pulse-start.log and $dir/pulse.log" >&2
    exit 1
  fi
  for _ in $(seq 1 250); do
    if pactl info >/dev/null 2>&1; then
      print_env
      return 0
    fi
    sleep 0.02
  done
  echo "virtual-mic: pulseaudio does not answer; see $dir/pulse.log" >&2
  stop_daemon
  exit 1
}

case "$command" in
  start) start_daemon ;;
  stop) stop_daemon ;;
  env) print_env ;;
  play)
    [ $# -ge 3 ] || usage
    exec paplay --device=virtspk "$3"
    ;;
  *) usage ;;
esac
