#!/usr/bin/env bash
# Sets up the machine, builds libTAVRO and runs the demo program.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
tools/setup.sh
dir=$root/build/demo
cmake -S "$root" -B "$dir" -DTAVRO_TESTS=OFF -DTAVRO_BENCH=OFF >/dev/null
cmake --build "$dir" -j2 --target PlatformTour >/dev/null
run=$dir/run; mkdir -p "$run"; cd "$run"
echo "--- running examples/PlatformTour in $run"
"$dir/examples/PlatformTour"
echo "--- debug log ($run/log/Test.Debug.log):"
cat log/Test.Debug.log
