#!/usr/bin/env bash
# Builds the benchmarks in Release, runs them pinned to one CPU and prints one
# table: each figure of the library, its baseline from the same run, their
# ratio and the target.
set -euo pipefail

usage() {
    cat <<'EOF'
Usage: tools/bench.sh [options]

Builds libTAVRO in Release with its benchmarks, runs RoundTripBench (library,
raw TCP, raw TCP with three thread hand-offs, 8 callers, large payloads,
memory over 1 million commands), ZmqBench (ZeroMQ REQ/REP and DEALER/ROUTER
with 8 clients; skipped when libzmq is not installed) and HandlePingPongBench
one after another, every process pinned with taskset, and prints the table.
The figures are only meaningful as the ratios in the table: the machine is
shared.

Options:
  --build-dir DIR   build directory (default: build/release)
  --cpu N           CPU to pin to (default: 0)
  --no-build        use the binaries already in the build directory
  --keep DIR        keep the JSON output of every program in DIR
  -h, --help        this text

Takes about three minutes. Exit codes: 0 table printed, 1 build or run
failed, 2 bad usage.
EOF
}

root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build/release"
cpu=0
do_build=1
keep=""
while [[ $# -gt 0 ]]; do
    case "$1" in
        -h|--help) usage; exit 0 ;;
        --build-dir) [[ $# -ge 2 ]] || { echo "bench.sh: --build-dir needs a directory" >&2; exit 2; }
                     build=$(realpath -m "$2"); shift 2 ;;
        --cpu) [[ $# -ge 2 && "$2" =~ ^[0-9]+$ ]] || { echo "bench.sh: --cpu needs a CPU number" >&2; exit 2; }
               cpu=$2; shift 2 ;;
        --no-build) do_build=0; shift ;;
        --keep) [[ $# -ge 2 ]] || { echo "bench.sh: --keep needs a directory" >&2; exit 2; }
                keep=$(realpath -m "$2"); shift 2 ;;
        *) echo "bench.sh: unknown option: $1 (see --help)" >&2; exit 2 ;;
    esac
done

if [[ $do_build -eq 1 ]]; then
    "$root/tools/setup.sh"
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DTAVRO_BENCH=ON -DTAVRO_TESTS=OFF \
        -DTAVRO_WERROR=ON >/dev/null || exit 1
    nice -n 10 cmake --build "$build" -j2 --target RoundTripBench HandlePingPongBench >/dev/null || exit 1
    # Built only when libzmq is there.
    nice -n 10 cmake --build "$build" -j2 --target ZmqBench >/dev/null 2>&1 || true
fi
bin="$build/bench"
[[ -x "$bin/RoundTripBench" && -x "$bin/HandlePingPongBench" ]] || {
    echo "bench.sh: no benchmarks in $bin (build without --no-build first)" >&2
    exit 1
}

out=$(mktemp -d /tmp/tavro-bench-XXXXXX)
child=""
cleanup() {
    [[ -n "$child" ]] && kill "$child" 2>/dev/null && wait "$child" 2>/dev/null
    if [[ -n "$keep" ]]; then mkdir -p "$keep" && cp "$out"/* "$keep"/ 2>/dev/null; fi
    rm -rf "$out"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# One program at a time, in the background so that Ctrl-C reaches it.
run() {
    local name=$1 json=$2
    shift 2
    echo "bench.sh: running $name pinned to CPU $cpu" >&2
    taskset -c "$cpu" "$bin/$name" --benchmark_out="$out/$json" --benchmark_out_format=json "$@" \
        >"$out/$name.log" 2>&1 &
    child=$!
    if ! wait "$child"; then
        child=""
        echo "bench.sh: $name failed; its output:" >&2
        tail -20 "$out/$name.log" >&2
        exit 1
    fi
    child=""
}

run RoundTripBench roundtrip.json
if [[ -x "$bin/ZmqBench" ]]; then
    run ZmqBench zmq.json
else
    echo "bench.sh: ZmqBench not built (libzmq3-dev missing); ZeroMQ rows stay empty" >&2
fi
run HandlePingPongBench handles.json --benchmark_filter='EventPingPong|NotifyUnlocked'

echo "commit $(git -C "$root" rev-parse --short HEAD 2>/dev/null || echo '?'), $(date -u '+%Y-%m-%d %H:%M UTC'), pinned to CPU $cpu"
/usr/bin/python3 "$root/tools/bench_table.py" "$out"
