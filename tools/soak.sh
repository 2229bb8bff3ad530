#!/usr/bin/env bash
# The fault soak: libTAVRO against the switch simulator for MINUTES while the
# simulator's faults rotate; prints one summary (see tavro-soak --help).
#   tools/soak.sh 10                      build build/soak if needed, run 10 minutes
#   tools/soak.sh --tsan 0.5              the same under ThreadSanitizer (build/soak-tsan)
#   tools/soak.sh --asan 0.5              under AddressSanitizer+UBSan (build/soak-asan)
#   tools/soak.sh --build-dir DIR 0.5     an existing build, not rebuilt (what ctest runs)
# Further arguments go to tavro-soak (e.g. --verbose, --seed N, --threads N).
# MINUTES may be fractional and is at least 0.5, the time one round of faults
# takes. The library uses 127.0.0.1 ports 58991/58992, which must be free.
# Exit status: tavro-soak's (0 passed, 1 a check failed, 3 set-up failed,
# 4 watchdog, 130 interrupted); 2 for bad usage or a failed build.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

usage() {
    sed -n '2,13p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
}

build_dir="" flavour=""
while [[ $# -gt 0 ]]; do
    case $1 in
        --build-dir) [[ $# -ge 2 ]] || usage; build_dir=$2; shift 2 ;;
        --asan|--tsan) flavour=${1#--}; shift ;;
        -h|--help) usage ;;
        *) break ;;
    esac
done
[[ $# -ge 1 ]] || usage
minutes=$1
shift
if ! [[ $minutes =~ ^[0-9]+(\.[0-9]+)?$ ]]; then
    echo "soak: MINUTES must be a number such as 10 or 0.5, not '$minutes'" >&2
    exit 2
fi
seconds=$(awk -v m="$minutes" 'BEGIN { printf "%d", m * 60 + 0.5 }')
if [[ $seconds -lt 30 ]]; then
    echo "soak: MINUTES must be at least 0.5 (30 s), the time one round of faults takes" >&2
    exit 2
fi

if [[ -z $build_dir ]]; then
    build_dir=$root/build/soak${flavour:+-$flavour}
    args=(-DTAVRO_TESTS=OFF -DTAVRO_BENCH=OFF)
    case $flavour in
        asan) args+=(-DTAVRO_ASAN=ON -DCMAKE_BUILD_TYPE=Debug) ;;
        tsan) args+=(-DTAVRO_TSAN=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
    esac
    mkdir -p "$build_dir"
    echo "soak: building tavro-soak and tavro-switchsim in $build_dir" >&2
    if ! { "$root/tools/setup.sh" &&
           cmake -S "$root" -B "$build_dir" "${args[@]}" &&
           cmake --build "$build_dir" -j2 --target tavro-soak tavro-switchsim; } >"$build_dir/soak-build.log" 2>&1; then
        tail -n 40 "$build_dir/soak-build.log" >&2
        echo "soak: the build failed; the whole output is in $build_dir/soak-build.log" >&2
        exit 2
    fi
fi
driver=$build_dir/tools/soak/tavro-soak
if [[ ! -x $driver ]]; then
    echo "soak: $driver is missing; build the tavro-soak target first" >&2
    exit 2
fi

# Sanitizer reports end the run with a failure rather than scroll past.
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

work=$build_dir/soak-run
rm -rf "$work"
mkdir -p "$work"
echo "soak: $seconds s; the library's trace and output go to $work" >&2
rc=0
"$driver" --seconds "$seconds" --workdir "$work" "$@" || rc=$?
exit "$rc"
