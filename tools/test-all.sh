#!/usr/bin/env bash
# Sets up the machine, then builds libTAVRO and runs the whole test suite in
# each configuration:
#   native  host build
#   asan    AddressSanitizer + UndefinedBehaviorSanitizer
#   tsan    ThreadSanitizer
#   ppc     cross-built for 32-bit big-endian powerpc, run under qemu-user
# usage: tools/test-all.sh [native|asan|tsan|ppc ...]      (default: all four)
# Environment: CI=true adds -Werror; CTEST_ARGS passes extra ctest arguments
# (e.g. CTEST_ARGS="-L unit" for the quick subset); BUILD_ROOT (default build/).
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
configs=("$@")
[[ ${#configs[@]} -eq 0 ]] && configs=(native asan tsan ppc)
build_root=${BUILD_ROOT:-$root/build}
jobs=${JOBS:-2}
werror=OFF
[[ "${CI:-}" == "true" ]] && werror=ON

need_cross=""
for c in "${configs[@]}"; do [[ $c == ppc ]] && need_cross=--cross; done
tools/setup.sh $need_cross || { echo "setup failed"; exit 1; }

declare -A summary
failed=0
run_config() {
    local name=$1; shift
    local dir=$build_root/$name start=$SECONDS
    local -a cmake_args=(-DTAVRO_WERROR=$werror -DTAVRO_BENCH=OFF "$@")
    echo "=== $name: configure and build in $dir"
    mkdir -p "$dir"
    if ! cmake -S "$root" -B "$dir" "${cmake_args[@]}" >"$dir/configure.log" 2>&1; then
        cat "$dir/configure.log"
        summary[$name]="FAILED (configure) after $((SECONDS - start)) s"; return 1
    fi
    if ! cmake --build "$dir" -j"$jobs" >"$dir/build.log" 2>&1; then
        grep -E -B2 -A12 'error|Error' "$dir/build.log" | head -150
        summary[$name]="FAILED (build) after $((SECONDS - start)) s"; return 1
    fi
    echo "=== $name: test"
    local out=$dir/ctest.log
    # shellcheck disable=SC2086
    (cd "$dir" && ctest -j"$jobs" --output-on-failure ${CTEST_ARGS:-}) 2>&1 | tee "$out" | grep -E -v '^ *[0-9]+/[0-9]+ Test +#[0-9]+: .* Passed'
    local rc=${PIPESTATUS[0]}
    local line
    line=$(grep -E 'tests passed' "$out" | tail -1)
    if [[ $rc -ne 0 ]]; then
        summary[$name]="FAILED: ${line:-ctest failed} ($((SECONDS - start)) s)"; return 1
    fi
    summary[$name]="ok: ${line} ($((SECONDS - start)) s)"
}

for c in "${configs[@]}"; do
    case $c in
        native) if ! tools/check-format.sh; then summary[format]="FAILED"; failed=1; fi
                run_config native || failed=1 ;;
        asan)   ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0} \
                UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1} \
                run_config asan -DTAVRO_ASAN=ON -DCMAKE_BUILD_TYPE=Debug || failed=1 ;;
        tsan)   TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1} \
                run_config tsan -DTAVRO_TSAN=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo || failed=1 ;;
        ppc)    sysroot=$(tools/cross/build-powerpc-deps.sh | tail -1) || { summary[ppc]="FAILED (cross dependencies)"; failed=1; continue; }
                run_config ppc -DCMAKE_TOOLCHAIN_FILE="$root/tools/cross/powerpc-toolchain.cmake" \
                    -DTAVRO_SYSROOT="$sysroot" || failed=1 ;;
        *) echo "unknown configuration: $c"; exit 2 ;;
    esac
done

echo
echo "=== summary"
[[ -n "${summary[format]:-}" ]] && printf '%-7s %s\n' format "${summary[format]}"
for c in "${configs[@]}"; do printf '%-7s %s\n' "$c" "${summary[$c]:-not run}"; done
exit $failed
