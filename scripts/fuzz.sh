#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for SECONDS (default 20) on
# a copy of its seed corpus (the committed corpus never grows here). Fails when any
# target finds a crash; the crashing input is left in build/fuzz/artifacts/.
#   scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${1:-20}

need=()
command -v clang++ >/dev/null 2>&1 || need+=(clang)
ls /usr/lib/llvm-14/lib/clang/14*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1 \
    || ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-*.a >/dev/null 2>&1 \
    || need+=(libclang-rt-14-dev)
if [ ${#need[@]} -gt 0 ]; then
    scripts/deps.sh "${need[@]}"
fi

build=$root/build/fuzz
CXX=clang++ CC=clang cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKESTREL_FUZZ=ON -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" \
    --target fuzz_image fuzz_settings fuzz_options fuzz_sim_frames $(
        grep -q 'kestrel_fuzz_target(reply' fuzz/CMakeLists.txt && echo fuzz_reply) >/dev/null

mkdir -p "$build/artifacts"
failed=0
for target in "$build"/fuzz/fuzz_*; do
    [ -x "$target" ] || continue
    name=${target##*/fuzz_}
    work=$(mktemp -d)
    cp -r "fuzz/corpus/$name/." "$work/" 2>/dev/null || true
    log=$build/artifacts/$name.log
    if "$target" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 \
        -artifact_prefix="$build/artifacts/$name-" "$work" > "$log" 2>&1; then
        stats=$(grep -E '^#[0-9]+.*DONE' "$log" | tail -n 1 || true)
        echo "fuzz_$name: ok  ${stats:-see $log}"
    else
        echo "fuzz_$name: FAILED (see $log)"
        tail -n 30 "$log"
        failed=1
    fi
    rm -rf "$work"
done
exit $failed
