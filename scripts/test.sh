#!/usr/bin/env bash
# Builds everything and runs every test.
#   scripts/test.sh          plain build (build/test), the whole suite
#   scripts/test.sh asan     AddressSanitizer + UndefinedBehaviorSanitizer build, the whole suite
#   scripts/test.sh tsan     ThreadSanitizer build, the cases labelled "threaded"
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

mode=${1:-plain}
case "$mode" in
    plain) dir=build/test; flags=(); select=() ;;
    asan)  dir=build/asan; flags=(-DKESTREL_SANITIZE=address,undefined); select=() ;;
    tsan)  dir=build/tsan; flags=(-DKESTREL_SANITIZE=thread); select=(-L threaded) ;;
    *) echo "usage: scripts/test.sh [plain|asan|tsan]" >&2; exit 2 ;;
esac
# Sanitizer builds keep line tables only (reports still name file and line) and
# optimise lightly: they build and link in much less time.
[ "$mode" != plain ] && flags+=("-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG"
                                "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG")

# Under ThreadSanitizer only the programs whose cases carry the "threaded" label are
# built (read from the tests' CMake files, so a newly labelled program is included).
targets=()
if [ "$mode" = tsan ]; then
    for program in $(cat tests/*/CMakeLists.txt | tr '\n' ' ' \
                     | grep -o 'kestrel_add_test([^)]*threaded[^)]*)' | sed 's/kestrel_add_test(\([a-z0-9_]*\).*/\1/'); do
        targets+=(--target "$program")
    done
fi

jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${flags[@]}" >/dev/null
cmake --build "$dir" -j"$jobs" "${targets[@]}"
# Sanitizer reports fail the test that triggered them.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
ctest --test-dir "$dir" -j"$jobs" --output-on-failure -LE slow "${select[@]}"
# The end-to-end cases (label "slow") mostly wait out the line's pauses between
# commands rather than use the processor, so they run three to a core.
ctest --test-dir "$dir" -j$((jobs * 3)) --output-on-failure -L slow "${select[@]}"
