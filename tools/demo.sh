#!/usr/bin/env bash
# Sets up the machine, builds libTAVRO, starts the switch simulator and runs
# the example application (examples/SwitchTour.cpp) against it.
#   tools/demo.sh                 the tour against the PCE service, slot 3
#   tools/demo.sh --slot 7        arguments go to SwitchTour (see --help)
#   tools/demo.sh --platform      the platform tour instead (no switch needed)
# Leaves no process behind, whatever way it ends.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

if [[ "${1:-}" == "--platform" ]]; then
    targets=(PlatformTour)
else
    targets=(SwitchTour tavro-switchsim)
fi

echo "=== 1/4 setting up the machine (tools/setup.sh)"
tools/setup.sh
dir=$root/build/demo
run=$dir/run
mkdir -p "$run"
echo "=== 2/4 building ${targets[*]} in $dir"
if ! { cmake -S "$root" -B "$dir" -DTAVRO_TESTS=OFF -DTAVRO_BENCH=OFF &&
       cmake --build "$dir" -j2 --target "${targets[@]}"; } >"$run/build.log" 2>&1; then
    tail -n 40 "$run/build.log"
    echo "demo: the build failed; the whole output is in $run/build.log" >&2
    exit 1
fi
cd "$run"
rm -rf log

if [[ "${1:-}" == "--platform" ]]; then
    echo "=== running examples/PlatformTour in $run"
    "$dir/examples/PlatformTour"
    echo "=== debug log ($run/log/Test.Debug.log):"
    cat log/Test.Debug.log
    exit 0
fi

service=pce port=58992
args=("$@")
for ((i = 0; i < ${#args[@]}; ++i)); do
    if [[ "${args[i]}" == "--service" && "${args[i + 1]:-}" == "snmp" ]]; then service=snmp port=58991; fi
done

sim_pid="" tour_pid=""
# pid tenths: SIGTERM, then SIGKILL if it is still there after that long.
# The library's SIGTERM handler only ends its socket loops, not the process.
stop() {
    local pid=$1 tenths=$2
    [[ -n "$pid" ]] && kill -0 "$pid" 2>/dev/null || return 0
    kill -TERM "$pid" 2>/dev/null || true
    for _ in $(seq "$tenths"); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
}
cleanup() {
    stop "$tour_pid" 10
    stop "$sim_pid" 50
}
trap cleanup EXIT
trap 'echo; echo "demo: interrupted"; exit 130' INT TERM

if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
    echo "demo: TCP port $port on 127.0.0.1 is already in use, so the switch simulator cannot listen there." >&2
    command -v ss >/dev/null && ss -ltnp "sport = :$port" >&2 || true
    echo "demo: stop that program (another tavro-switchsim, a demo or an end-to-end test) and run the demo again." >&2
    exit 1
fi

echo "=== 3/4 starting the switch simulator: tavro-switchsim --$service-port $port, heartbeat every 1.5 s"
echo "    lines from the simulator start with 'switch |', lines from the application with 'app    |';"
echo "    '<<' is a frame the simulator received, '>>' one it sent. Also saved in $run/switchsim.log"
other=$([[ $service == pce ]] && echo --snmp-port || echo --pce-port)
"$dir/tools/switchsim/tavro-switchsim" "--$service-port" "$port" "$other" off --heartbeat-ms 1500 \
    > >(tee switchsim.log | sed -u 's/^/  switch | /') 2>&1 &
sim_pid=$!
for _ in $(seq 100); do
    grep -q "listening on" switchsim.log 2>/dev/null && break
    if ! kill -0 "$sim_pid" 2>/dev/null; then
        wait "$sim_pid" 2>/dev/null || true
        sim_pid=""
        echo "demo: the switch simulator did not start (see above)" >&2
        exit 1
    fi
    sleep 0.1
done

echo "=== 4/4 running examples/SwitchTour ${args[*]:-} (in $run)"
"$dir/examples/SwitchTour" "${args[@]}" > >(sed -u 's/^/  app    | /') 2>&1 &
tour_pid=$!
rc=0
wait "$tour_pid" || rc=$?
tour_pid=""
sleep 0.2 # let the simulator report the connection closing
stop "$sim_pid" 50
sim_pid=""
sleep 0.1 # the prefixing pipes drain once their programs have ended

echo "=== the library's debug trace, last lines ($run/log/Test.Debug.log):"
tail -n 12 log/Test.Debug.log 2>/dev/null | sed 's/^/  /' || echo "  (none written)"
if [[ $rc -eq 0 ]]; then
    echo "=== demo finished: the tour completed (exit 0)"
else
    echo "=== demo finished: the tour reported a failure (exit $rc)" >&2
fi
exit "$rc"
