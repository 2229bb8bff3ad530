#!/usr/bin/env bash
# Builds the target libraries Debian does not ship for 32-bit big-endian
# powerpc (TinyXML, Boost.Regex, GoogleTest/GMock) from Debian's own sources
# into a sysroot, and caches the result between runs.
#   usage: tools/cross/build-powerpc-deps.sh [SYSROOT]
# Prints the sysroot path on its last line.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
cache=${TAVRO_CROSS_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/tavro-cross}
sysroot=${1:-$cache/powerpc-sysroot}
stamp=$sysroot/.complete-v1
CXX=powerpc-linux-gnu-g++
AR=powerpc-linux-gnu-ar
jobs=$(nproc)

if [[ -f $stamp ]]; then echo "$sysroot"; exit 0; fi

log() { echo "cross-deps: $*" >&2; }
SUDO=""; [[ $(id -u) -ne 0 ]] && SUDO="sudo"

# Source packages need deb-src entries; mirror the binary ones if absent.
if ! apt-cache showsrc tinyxml >/dev/null 2>&1 || [[ -z "$(apt-cache showsrc tinyxml 2>/dev/null)" ]]; then
    log "adding deb-src entries"
    src=/etc/apt/sources.list.d/debian.sources
    if [[ -f $src ]]; then
        sed 's/^Types: deb$/Types: deb-src/' "$src" | $SUDO tee /etc/apt/sources.list.d/tavro-deb-src.sources >/dev/null
    else
        grep '^deb ' /etc/apt/sources.list | sed 's/^deb /deb-src /' | $SUDO tee /etc/apt/sources.list.d/tavro-deb-src.list >/dev/null
    fi
    $SUDO apt-get update -qq >/dev/null
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$sysroot/include" "$sysroot/lib"
cd "$work"

log "downloading sources"
apt-get source --download-only -qq tinyxml boost1.74 >/dev/null 2>&1

log "building TinyXML"
mkdir tinyxml && tar -xf tinyxml_*.orig.tar.* -C tinyxml --strip-components=1
for f in tinyxml tinyxmlparser tinyxmlerror tinystr; do
    $CXX -O2 -fPIC -std=c++17 -DTIXML_USE_STL -w -c tinyxml/$f.cpp -o $f.o
done
$AR rcs "$sysroot/lib/libtinyxml.a" tinyxml*.o tinystr.o
cp tinyxml/tinyxml.h tinyxml/tinystr.h "$sysroot/include/"

log "building Boost.Regex"
tarball=$(ls boost1.74_*.orig.tar.* | head -1)
tar -xf "$tarball" --wildcards '*/libs/regex/src/*'
regex_src=$(dirname "$(ls -d */libs/regex/src/*.cpp | head -1)")
objs=()
for f in "$regex_src"/*.cpp; do
    b=$(basename "$f" .cpp)
    [[ $b == icu || $b == w32_regex_traits ]] && continue
    $CXX -O2 -fPIC -std=c++17 -w -I/usr/include -DBOOST_REGEX_NO_LIB -c "$f" -o "regex_$b.o" &
    objs+=("regex_$b.o")
    while (( $(jobs -r | wc -l) >= jobs )); do wait -n; done
done
wait
$AR rcs "$sysroot/lib/libboost_regex.a" "${objs[@]}"

log "building GoogleTest"
cmake -S /usr/src/googletest -B gtest-build -DCMAKE_TOOLCHAIN_FILE="$here/powerpc-toolchain.cmake" \
    -DTAVRO_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$sysroot" \
    -DCMAKE_POSITION_INDEPENDENT_CODE=ON >/dev/null
cmake --build gtest-build -j"$jobs" >/dev/null
cmake --install gtest-build >/dev/null

touch "$stamp"
log "sysroot ready"
echo "$sysroot"
