#!/usr/bin/env bash
# The quick demonstration: builds the tool, the simulated target and the gang runner, upgrades the
# simulated target with a sample main image (which declares an OTA area) and an ETF
# image, reads the main image region back with the flash debug mode and compares it
# with the image file. Everything it makes goes to out/demo/.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
scripts/deps.sh

build=$root/build
work=$root/out/demo
tool=$build/kestrelQT_u
sim=$build/sim/kestrel_sim
mkimage=$build/tools/kestrel_mkimage

# The OTA area the sample image declares; the ETF image goes right behind it.
ota_addr=$((0x1F8000))
ota_size=32768
etf_flash_start=$((ota_addr + ota_size))
etf_first_section=4096        # data bytes of the ETF image's first section (not programmed)

echo "== Building into $build"
if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" -j2 --target kestrelQT_u kestrel_sim kestrel_mkimage kestrel_gang >/dev/null

rm -rf "$work"
mkdir -p "$work"
cd "$work"

echo "== Making the sample images"
"$mkimage" -o main.img -v 2 --ota-size "$ota_size" --ota-addr "$ota_addr" \
    --id 0x01000000 --random-data 150000 1 --id 0x02000000 --random-data 40000 2
"$mkimage" -o etf.img -v 1 --random-data "$etf_first_section" 3 --random-data 90000 4
# Without a settings file the tool would take the flash debug road.
printf '[debug]\niDebugOp=n\n' > settings_mac.ini

sim_pid=
stop_sim() {
    if [ -n "$sim_pid" ]; then
        kill "$sim_pid" 2>/dev/null || true
        wait "$sim_pid" 2>/dev/null || true
        sim_pid=
    fi
}
trap stop_sim EXIT

# Starts the simulated target in the background on flash.bin, with the line timing
# of a real link and any extra arguments, and sets $device to its device path.
start_sim() {
    "$sim" --flash "$work/flash.bin" --pace "$@" > "$work/sim.out" 2> "$work/sim.err" &
    sim_pid=$!
    device=
    for _ in $(seq 100); do
        device=$(head -n 1 "$work/sim.out" 2>/dev/null || true)
        [ -n "$device" ] && return 0
        sleep 0.1
    done
    echo "The simulated target did not start:" >&2
    cat "$work/sim.err" >&2
    exit 1
}

# The simulated line behaves like a real one: bytes take their wire time, a USB
# adapter holds each reply 2 ms, a 64 KiB erase takes 150 ms.
line=(--usb-latency-ms 2 --erase-ms 150 --program-ms 1)

echo "== Upgrading the simulated target (classic link)"
start_sim "${line[@]}"
classic_start=$(date +%s%N)
"$tool" -c "$device" -i main.img -I etf.img -e 1 -r 1 -b 921600 < /dev/null | tee upgrade.log || true
classic_ms=$(( ($(date +%s%N) - classic_start) / 1000000 ))
stop_sim

echo "== Upgrading again with the fast link (--fast), on an erased flash"
rm -f "$work/flash.bin"
start_sim "${line[@]}"
fast_start=$(date +%s%N)
"$tool" --fast -c "$device" -i main.img -I etf.img -e 1 -r 1 -b 921600 < /dev/null | tee fast.log || true
fast_ms=$(( ($(date +%s%N) - fast_start) / 1000000 ))
stop_sim

echo "== Reading the main image region back"
main_size=$(wc -c < main.img | tr -d ' ')
# The debug mode uploads no boot-loader, so the boot ROM itself must serve the
# flash commands.
start_sim --rom-flash yes
"$tool" -D r -c "$device" -A 0 -L "$main_size" -b 921600 < /dev/null | tee readback.log || true
stop_sim
readback=$(printf 'flash_A_0x0_L_0x%X.bin' "$main_size")

result=PASS
if ! grep -q '^100%: Upgrade OK!' upgrade.log || ! grep -q '^100%: Upgrade OK!' fast.log; then
    echo "The upgrade did not complete."
    result=FAIL
fi
if [ -f "$readback" ] && cmp "$readback" main.img; then
    echo "Main image region read back: identical to main.img ($main_size bytes)."
else
    result=FAIL
fi
# The ETF image is programmed from its second section on, right behind the OTA area.
etf_skip=$((64 + etf_first_section))
etf_size=$(( $(wc -c < etf.img) - etf_skip ))
if cmp -n "$etf_size" etf.img flash.bin "$etf_skip" "$etf_flash_start"; then
    echo "ETF region at $(printf '0x%08X' "$etf_flash_start"): identical to etf.img from its second section."
else
    result=FAIL
fi

printf 'Upgrade times at 921600 bit/s: classic %d.%d s, fast link %d.%d s\n' \
    $((classic_ms / 1000)) $((classic_ms % 1000 / 100)) $((fast_ms / 1000)) $((fast_ms % 1000 / 100))
echo "Simulated flash file: $work/flash.bin"
echo "Demo result: $result"
[ "$result" = PASS ]
