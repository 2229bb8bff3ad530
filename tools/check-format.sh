#!/usr/bin/env bash
# Checks that every tracked C and C++ source is formatted as .clang-format
# says; lists the files that are not.
#   tools/check-format.sh          check (exit 0: all formatted, 1: some are not)
#   tools/check-format.sh --fix    format them in place
# Exit status 2: no clang-format, or not a git checkout.
set -uo pipefail
case "${1:-}" in
    -h|--help) sed -n '2,6p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    --fix|"") ;;
    *) echo "check-format.sh: unknown argument '$1' (try --help)" >&2; exit 2 ;;
esac
cd "$(dirname "$0")/.." || exit 2
command -v clang-format >/dev/null || { echo "check-format.sh: clang-format is not installed (tools/setup.sh installs it)" >&2; exit 2; }
mapfile -t files < <(git ls-files '*.cpp' '*.h' '*.c') || exit 2
if [[ "${1:-}" == "--fix" ]]; then
    clang-format --style=file -i "${files[@]}"
    exit 0
fi
bad=()
for f in "${files[@]}"; do
    clang-format --style=file --dry-run -Werror "$f" >/dev/null 2>&1 || bad+=("$f")
done
if [[ ${#bad[@]} -gt 0 ]]; then
    echo "not formatted as .clang-format says (tools/check-format.sh --fix formats them):" >&2
    printf '  %s\n' "${bad[@]}" >&2
    exit 1
fi
echo "format: ${#files[@]} files formatted"
