#!/usr/bin/env bash
# Fast-link benchmark: one 1 MiB main image through the paced simulated target, in
# the specified mode and with --fast, for four cases at three line rates. Prints one
# table: wall seconds, KB/s, % of the wire floor, the stop-and-wait ceiling the
# simulator's timing model allows, and the tool's own CPU time.
#
#   bench/fast_link_bench.sh [BUILD_DIR]        (default: build)
#
# Environment (all optional): RATES="921600 2000000 3000000", MODES="spec fast",
# CASES="blank unchanged write readback", SIZE=1048576, LATENCY_MS=2, ERASE_MS=150,
# PROGRAM_MS=1, AUTO_BAUD=1 (0: skip the rate negotiation rows).
#
# Cases: blank = erased chip, defaults (-u 1 -r 0); unchanged = the same image again
# (-u 1); write = write only (-u 0 -r 0); readback = write and compare (-u 0 -r 1).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=$(cd "${1:-build}" && pwd)
tool=$build/kestrelQT_u
sim=$build/sim/kestrel_sim
mkimage=$build/tools/kestrel_mkimage
for program in "$tool" "$sim" "$mkimage"; do
    [ -x "$program" ] || { echo "missing $program: build first (cmake --build $build)" >&2; exit 1; }
done

rates=${RATES:-"921600 2000000 3000000"}
modes=${MODES:-"spec fast"}
cases=${CASES:-"blank unchanged write readback"}
size=${SIZE:-1048576}
latency_ms=${LATENCY_MS:-2}
erase_ms=${ERASE_MS:-150}
program_ms=${PROGRAM_MS:-1}

work=$(mktemp -d "${TMPDIR:-/tmp}/kestrel-bench.XXXXXX")
sim_pid=
cleanup() {
    [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
cd "$work"

# The image is one section of `size` data bytes behind its 64-byte header, with no
# OTA area, so the upgrade writes exactly one region.
data_size=$((size - 64))
"$mkimage" -o main.img -v 1 --random-data "$data_size" 7 >/dev/null
printf '[debug]\niDebugOp=n\n' > settings_mac.ini

start_sim() {  # [extra simulator arguments]
    "$sim" --flash "$work/flash.bin" --pace --usb-latency-ms "$latency_ms" \
        --erase-ms "$erase_ms" --program-ms "$program_ms" "$@" > sim.out 2> sim.err &
    sim_pid=$!
    device=
    for _ in $(seq 100); do
        device=$(head -n 1 sim.out 2>/dev/null || true)
        [ -n "$device" ] && return 0
        sleep 0.05
    done
    echo "the simulated target did not start:" >&2
    cat sim.err >&2
    exit 1
}

stop_sim() {
    kill "$sim_pid" 2>/dev/null || true
    wait "$sim_pid" 2>/dev/null || true
    sim_pid=
}

# The stop-and-wait ceiling: the fastest the fast link's command pattern can go when
# every command waits for its reply. Each exchange costs its bytes' wire time, one
# adapter latency per reply, and the target's erase or program time.
ceiling() {  # case rate
    awk -v c="$1" -v rate="$2" -v size="$size" -v lat="$latency_ms" \
        -v er="$erase_ms" -v pr="$program_ms" 'BEGIN {
        bt = 10 / rate; L = lat / 1000; n = 4
        blocks = int((size + 65535) / 65536); sectors = int((size + 511) / 512)
        cmds = int((sectors + n - 1) / n)
        # bring-up: sync, identity, speed changes, boot-loader upload at <= 921600
        up = (rate < 921600 ? rate : 921600)
        t = 10 * L + (5868 + 200) * 10 / up + 100 * 10 / 115200
        read_all = cmds * ((21 + 12) * bt + L) + sectors * 512 * bt
        erase = blocks * ((18 + 12) * bt + L + er / 1000)
        write = cmds * ((23 + 12) * bt + L + 12 * bt + L) + sectors * (512 * bt + pr / 1000)
        if (c == "blank") t += blocks * ((21 + 12 + n * 512) * bt + L) + erase + write
        else if (c == "unchanged") t += read_all
        else if (c == "write") t += erase + write
        else if (c == "readback") t += erase + write + read_all
        printf "%.1f", t
    }'
}

# Wire floor: the image's bytes alone at the line rate, once (twice with read-back).
floor_s() {  # case rate
    awk -v c="$1" -v rate="$2" -v size="$size" 'BEGIN {
        f = size * 10 / rate; if (c == "readback") f *= 2; printf "%.2f", f }'
}

printf '%-5s %-9s %-8s %8s %8s %7s %9s %7s %6s  %s\n' \
    mode case rate "wall s" "KB/s" "%floor" "ceiling s" "%ceil" "cpu%" result
for rate in $rates; do
    for mode in $modes; do
        rm -f flash.bin
        for c in $cases; do
            case $c in
                blank) rm -f flash.bin; opts=(-u 1 -r 0) ;;
                unchanged) opts=(-u 1 -r 0) ;;
                write) opts=(-u 0 -r 0) ;;
                readback) opts=(-u 0 -r 1) ;;
                *) echo "unknown case $c" >&2; exit 2 ;;
            esac
            fast=()
            [ "$mode" = fast ] && fast=(--fast)
            start_sim
            /usr/bin/time -f '%e %U %S' -o time.txt \
                "$tool" "${fast[@]}" -c "$device" -b "$rate" -i main.img "${opts[@]}" \
                < /dev/null > run.log 2>&1 || true
            stop_sim
            read -r wall user sys < time.txt
            result=$(grep -q 'Upgrade OK!' run.log && echo OK || echo FAILED)
            ceil=$(ceiling "$c" "$rate")
            fl=$(floor_s "$c" "$rate")
            awk -v m="$mode" -v c="$c" -v r="$rate" -v w="$wall" -v u="$user" -v s="$sys" \
                -v size="$size" -v fl="$fl" -v ce="$ceil" -v res="$result" 'BEGIN {
                printf "%-5s %-9s %-8s %8.1f %8.1f %6.0f%% %9.1f %6.0f%% %5.1f%%  %s\n",
                    m, c, r, w, size / 1000 / w, 100 * fl / w, ce, 100 * ce / w,
                    100 * (u + s) / w, res }'
        done
    done
done

# Rate negotiation: the blank case with --auto-baud. On a clean line -b 3000000 must
# reach 3000000 and run close to that rate's stop-and-wait ceiling; on a line clean
# only up to 2000000 it must land at 2000000 and finish close to a run told
# -b 2000000 directly (the same line, the same blank chip).
[ "${AUTO_BAUD:-1}" = 1 ] || exit 0
auto_run() {  # label sim-arguments -- tool-arguments
    local label=$1; shift
    local sim_args=()
    while [ "$1" != -- ]; do sim_args+=("$1"); shift; done
    shift
    rm -f flash.bin
    start_sim "${sim_args[@]}"
    /usr/bin/time -f '%e' -o time.txt "$tool" --fast -c "$device" -i main.img -u 1 -r 0 "$@" \
        < /dev/null > run.log 2> run.err || true
    stop_sim
    local wall rate result
    wall=$(cat time.txt)
    rate=$(sed -n 's/^link: \([0-9]*\) bit\/s, verified$/\1/p' run.err | tail -n 1)
    result=$(grep -q 'Upgrade OK!' run.log && echo OK || echo FAILED)
    echo "$label ${rate:--} $wall $result"
}
echo
printf '%-34s %-8s %8s %9s %7s  %s\n' "auto-baud case" "rate" "wall s" "ceiling s" "ratio" result
read -r _ rate wall result < <(auto_run clean -- --auto-baud -b 3000000)
ceil=$(ceiling blank 3000000)
awk -v r="$rate" -v w="$wall" -v c="$ceil" -v res="$result" 'BEGIN {
    printf "%-34s %-8s %8.1f %9.1f %6.0f%%  %s\n", "clean, --auto-baud -b 3000000", r, w, c, 100 * c / w, res }'
read -r _ _ wall result < <(auto_run direct -- -b 3000000)
awk -v w="$wall" -v c="$ceil" -v res="$result" 'BEGIN {
    printf "%-34s %-8s %8.1f %9.1f %6.0f%%  %s\n", "clean, -b 3000000 (for comparison)", "3000000", w, c, 100 * c / w, res }'
read -r _ rate auto_wall result < <(auto_run noisy --clean-rate-max 2000000 -- --auto-baud -b 3000000)
read -r _ _ direct_wall direct_result < <(auto_run direct --clean-rate-max 2000000 -- -b 2000000)
awk -v r="$rate" -v a="$auto_wall" -v d="$direct_wall" -v res="$result" -v dres="$direct_result" 'BEGIN {
    printf "%-34s %-8s %8.1f %9s %6.2fx  %s\n", "clean to 2M, --auto-baud -b 3000000", r, a, "-", a / d, res
    printf "%-34s %-8s %8.1f %9s %7s  %s\n", "clean to 2M, -b 2000000", "2000000", d, "-", "", dres }'
