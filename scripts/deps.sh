#!/usr/bin/env bash
# Installs what the build and the tests need, when it is missing: a C++ compiler,
# CMake, GoogleTest and the JSON library; any package names given as arguments are
# installed too when missing (scripts/fuzz.sh asks for clang this way). Uses
# apt-get as root, or sudo when it works without a password prompt (sudo -n), so a
# script never hangs waiting for one.
#   scripts/deps.sh [PACKAGE...]
set -euo pipefail

missing=()
command -v cmake >/dev/null 2>&1 || missing+=(cmake)
command -v g++ >/dev/null 2>&1 || missing+=(g++)
command -v make >/dev/null 2>&1 || missing+=(make)
[ -f /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev)
[ -f /usr/include/nlohmann/json.hpp ] || missing+=(nlohmann-json3-dev)
for package in "$@"; do
    dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
done

[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
    as_root=(env DEBIAN_FRONTEND=noninteractive)
elif command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
    # sudo resets the environment: the front-end setting must go through env.
    as_root=(sudo -n env DEBIAN_FRONTEND=noninteractive)
else
    echo "Missing packages: ${missing[*]}." >&2
    echo "Install them as root (apt-get install ${missing[*]}) and run again." >&2
    exit 1
fi
echo "Installing ${missing[*]} ..."
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
