#!/usr/bin/env bash
# Builds the fuzz targets (fuzz/*Fuzz.cpp) with clang, libFuzzer and
# AddressSanitizer+UBSan in their own build directory, runs each in turn for
# SECONDS at the lowest priority, and prints per target: executions, coverage
# (cov/ft) and findings.
set -uo pipefail

usage() {
    cat <<'EOF'
usage: tools/fuzz.sh [SECONDS] [TARGET...]
       tools/fuzz.sh --list | --help

Builds every fuzz target of fuzz/ with clang (-fsanitize=address,undefined,fuzzer)
in build/fuzz (or $BUILD_ROOT/fuzz) and runs each, one at a time and at
nice 19, for SECONDS (default 60). TARGET names (see --list) pick targets.

Seeds come from fuzz/corpus/<TARGET>/ and are never changed; inputs that add
coverage go to build/fuzz/corpus/<TARGET>/, inputs that fail to
build/fuzz/findings/<TARGET>/. A finding stops that target's run. To keep a
finding as a regression input, fix it and copy it into fuzz/corpus/<TARGET>/;
ctest replays that folder in every configuration.

Environment: FUZZ_ARGS adds libFuzzer options to every run (for example
FUZZ_ARGS=-max_len=8192); BUILD_ROOT moves the build directory; JOBS sets
the build's parallelism (default 2).

Exit status: 0 no findings, 1 findings, 2 usage error, 3 set-up or build failure.
EOF
}

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root" || exit 3

all_targets() {
    local f
    for f in fuzz/*Fuzz.cpp; do f=${f##*/}; echo "${f%Fuzz.cpp}"; done
}

seconds=60
targets=()
case "${1:-}" in
    -h|--help) usage; exit 0 ;;
    --list) all_targets; exit 0 ;;
    -*) echo "fuzz.sh: unknown option $1 (see --help)" >&2; exit 2 ;;
esac
if [[ $# -gt 0 ]]; then
    if [[ ! $1 =~ ^[0-9]+$ || $1 -eq 0 ]]; then
        echo "fuzz.sh: SECONDS must be a positive whole number, not '$1' (see --help)" >&2
        exit 2
    fi
    seconds=$1
    shift
fi
known=$(all_targets)
for t in "$@"; do
    if ! grep -qx -- "$t" <<<"$known"; then
        echo "fuzz.sh: no fuzz target '$t'; targets are:" $known >&2
        exit 2
    fi
    targets+=("$t")
done
[[ ${#targets[@]} -eq 0 ]] && mapfile -t targets <<<"$known"

tools/setup.sh --fuzz || { echo "fuzz.sh: tools/setup.sh --fuzz failed" >&2; exit 3; }
for tool in clang clang++; do
    command -v $tool >/dev/null || { echo "fuzz.sh: $tool not found" >&2; exit 3; }
done

dir=${BUILD_ROOT:-$root/build}/fuzz
mkdir -p "$dir"
echo "=== building the fuzz targets in $dir (log: $dir/build.log)"
if ! cmake -S "$root" -B "$dir" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVRO_FUZZ=ON -DTAVRO_TESTS=OFF -DTAVRO_BENCH=OFF \
        >"$dir/configure.log" 2>&1; then
    cat "$dir/configure.log" >&2
    echo "fuzz.sh: configure failed" >&2
    exit 3
fi
if ! nice -n 10 cmake --build "$dir" -j"${JOBS:-2}" --target tavro_fuzzers >"$dir/build.log" 2>&1; then
    grep -E -A8 'error' "$dir/build.log" | head -80 >&2
    echo "fuzz.sh: build failed" >&2
    exit 3
fi

child=0
stop() {
    # A background job of a script ignores SIGINT; libFuzzer stops on SIGTERM.
    [[ $child -ne 0 ]] && kill -TERM "$child" 2>/dev/null && wait "$child" 2>/dev/null
    echo "fuzz.sh: interrupted" >&2
    exit 130
}
trap stop INT TERM

# Per-target options. The allocating frame reader allocates what a header
# announces; its target makes the sanitizer refuse allocations above 64 MB,
# so a tight limit only trips on memory that is kept (a leak).
options_for() {
    case $1 in
        FrameReaderAlloc) echo "-malloc_limit_mb=128 -rss_limit_mb=768" ;;
        *) echo "-rss_limit_mb=1024" ;;
    esac
}

declare -A execs cov ft found
findings_total=0
for t in "${targets[@]}"; do
    bin=$dir/fuzz/fuzz-$t
    work=$dir/corpus/$t
    out=$dir/findings/$t
    log=$dir/logs/$t.log
    mkdir -p "$work" "$out" "$dir/logs"
    before=$(find "$out" -type f | wc -l)
    echo "=== $t: $seconds s (log: $log)"
    # shellcheck disable=SC2046,SC2086
    nice -n 19 "$bin" -max_total_time="$seconds" -print_final_stats=1 -close_fd_mask=1 \
        -artifact_prefix="$out/" $(options_for "$t") ${FUZZ_ARGS:-} "$work" "$root/fuzz/corpus/$t" \
        >"$log" 2>&1 &
    child=$!
    wait "$child"
    rc=$?
    child=0
    execs[$t]=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    line=$(grep -E '^#[0-9]+.*cov: ' "$log" | tail -1)
    cov[$t]=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$line")
    ft[$t]=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$line")
    after=$(find "$out" -type f | wc -l)
    found[$t]=$((after - before))
    if [[ $rc -ne 0 && ${found[$t]} -eq 0 ]]; then
        echo "fuzz.sh: $t ended with status $rc and no saved input; see $log" >&2
        found[$t]=1
    fi
    if [[ ${found[$t]} -gt 0 ]]; then
        grep -E 'ERROR|check failed|SUMMARY' "$log" | head -5 >&2
        find "$out" -type f -newer "$bin" | sed 's/^/  finding: /' >&2
    fi
    findings_total=$((findings_total + found[$t]))
done

echo
printf '%-18s %12s %8s %8s %9s\n' target executions cov ft findings
for t in "${targets[@]}"; do
    printf '%-18s %12s %8s %8s %9s\n' "$t" "${execs[$t]:-?}" "${cov[$t]:-?}" "${ft[$t]:-?}" "${found[$t]}"
done
[[ $findings_total -eq 0 ]] || exit 1
exit 0
