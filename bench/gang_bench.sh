#!/usr/bin/env bash
# Many boards at once: kestrel_gang flashing 1, 4 and 16 paced simulated boards with
# the same image (--fast, read-back on), in one run; prints each wall time and its
# ratio to one board.
#   bench/gang_bench.sh [BUILD_DIR]          (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
counts=${COUNTS:-"1 4 16"}
work=$(mktemp -d "${TMPDIR:-/tmp}/kestrel-gang.XXXXXX")
pids=()
cleanup() { [ ${#pids[@]} -gt 0 ] && kill "${pids[@]}" 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT
cd "$work"
"$build/tools/kestrel_mkimage" -o main.img --random-data 200000 9 >/dev/null
printf '[debug]\niDebugOp=n\n' > settings_mac.ini

one=
printf '%-7s %9s %9s  %s\n' boards "wall s" "vs one" result
for n in $counts; do
    pids=()
    devices=()
    for i in $(seq "$n"); do
        rm -f "flash$i.bin"
        "$build/sim/kestrel_sim" --flash "flash$i.bin" --pace --usb-latency-ms 2 --erase-ms 150 \
            > "sim$i.out" 2>/dev/null &
        pids+=($!)
    done
    for i in $(seq "$n"); do
        for _ in $(seq 100); do [ -s "sim$i.out" ] && break; sleep 0.05; done
        devices+=("$(head -n 1 "sim$i.out")")
    done
    start=$(date +%s%N)
    if "$build/tools/kestrel_gang" --log-dir "logs$n" --report "report$n.json" "${devices[@]}" \
        -- --fast -i main.img -r 1 > /dev/null; then result=all-ok; else result=FAILED; fi
    ms=$(( ($(date +%s%N) - start) / 1000000 ))
    kill "${pids[@]}" 2>/dev/null; wait "${pids[@]}" 2>/dev/null || true
    pids=()
    [ -z "$one" ] && one=$ms
    printf '%-7s %9s %9s  %s\n' "$n" "$((ms / 1000)).$((ms % 1000 / 100))" \
        "$(awk -v a="$ms" -v b="$one" 'BEGIN { printf "%.2fx", a / b }')" "$result"
done
