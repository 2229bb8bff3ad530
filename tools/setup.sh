#!/usr/bin/env bash
# Installs what a fresh Debian build machine lacks for libTAVRO.
#   tools/setup.sh          host build and tests
#   tools/setup.sh --cross  also the 32-bit big-endian powerpc cross toolchain and qemu-user
#   tools/setup.sh --fuzz   also clang and its libFuzzer runtime (tools/fuzz.sh)
# Idempotent and quiet when everything is present.
set -euo pipefail

pkgs=(build-essential cmake pkg-config binutils ccache
      libboost-regex-dev libtinyxml-dev
      libgtest-dev libgmock-dev googletest libbenchmark-dev tshark
      clang-format libzmq3-dev)  # clang-format: the format check; ZeroMQ: a benchmark baseline only; the library never links it
pkgs+=(python3 python3-pytest python3-setuptools python3-pip python3-wheel python3-venv)  # Python binding
if [[ "${1:-}" == "--cross" ]]; then
    pkgs+=(g++-powerpc-linux-gnu qemu-user dpkg-dev xz-utils)
fi

[[ "${1:-}" == "--fuzz" ]] && pkgs+=(clang libclang-rt-dev)
missing=()
for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

SUDO=""
[[ $(id -u) -ne 0 ]] && SUDO="sudo"
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# tshark's package would ask whether to make dumpcap setuid: no.
echo "wireshark-common wireshark-common/install-setuid boolean false" | $SUDO debconf-set-selections
$SUDO apt-get update -qq >/dev/null
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
