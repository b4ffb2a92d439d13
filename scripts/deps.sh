#!/usr/bin/env bash
# Installs what the build and the tests need, when it is missing: a C++ compiler,
# CMake and GoogleTest. Uses apt-get as root, or sudo when that is available.
set -euo pipefail

missing=()
command -v cmake >/dev/null 2>&1 || missing+=(cmake)
command -v g++ >/dev/null 2>&1 || missing+=(g++)
command -v make >/dev/null 2>&1 || missing+=(make)
[ -f /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev)

[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
    as_root=()
elif command -v sudo >/dev/null 2>&1; then
    as_root=(sudo)
else
    echo "Missing packages: ${missing[*]}. Install them (apt-get install ${missing[*]}) and run again." >&2
    exit 1
fi
echo "Installing ${missing[*]} ..."
"${as_root[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null
