#!/usr/bin/env bash
# usage: check-exports.sh NM LIBRARY LISTDIR
# Compares the library's defined dynamic symbols (demangled) with the union of
# LISTDIR/*.txt. Lines starting with '#' and blank lines are ignored.
set -euo pipefail
nm=$1 lib=$2 dir=$3
actual=$(mktemp) expected=$(mktemp)
trap 'rm -f "$actual" "$expected"' EXIT
"$nm" -D -C --defined-only "$lib" | sed -E 's/^[0-9a-fA-F]+ [A-Za-z] //' | sort -u >"$actual"
cat "$dir"/*.txt | sed -E '/^[[:space:]]*(#|$)/d' | sort -u >"$expected"
if ! diff -u "$expected" "$actual" >/dev/null; then
  echo "exported symbols differ from the expected list (- missing, + unexpected):"
  diff -u "$expected" "$actual" | sed -n '3,$p' | grep -E '^[-+]'
  exit 1
fi
echo "$(wc -l <"$actual") exported symbols match"
