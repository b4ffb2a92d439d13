#!/usr/bin/env bash
# Fault soak: many upgrades (always with read-back, -r 1) and flash debug operations
# of the real tool against fresh simulated targets, each with one random fault from
# the simulator's list (every kind, on every opcode, at a random point, vanish
# included), a random line rate and, half the time, the fast link. After every run:
#   - "Upgrade OK!" means the main image and the ETF image are in flash byte for
#     byte; a debug operation's "OK!" means its file or range is right;
#   - flash outside the 64 KiB blocks the run may touch is unchanged;
#   - the run ended within its time budget (a hang is a violation);
#   - no crash (death by signal) and no sanitizer report.
# Prints counts per fault kind and outcome, every violation with the command that
# reproduces it, and exits 1 when there was any.
#
#   bench/kestrel_soak.sh [--runs N] [--jobs N] [--seed S] [--build DIR]
set -uo pipefail
cd "$(dirname "$0")/.."

runs=100
jobs=4
seed=1
build=build
while [ $# -gt 0 ]; do
    case $1 in
        --runs) runs=$2; shift 2 ;;
        --jobs) jobs=$2; shift 2 ;;
        --seed) seed=$2; shift 2 ;;
        --build) build=$2; shift 2 ;;
        *) echo "usage: $0 [--runs N] [--jobs N] [--seed S] [--build DIR]" >&2; exit 2 ;;
    esac
done
build=$(cd "$build" && pwd)
export TOOL=$build/kestrelQT_u SIM=$build/sim/kestrel_sim MKIMAGE=$build/tools/kestrel_mkimage
for program in "$TOOL" "$SIM" "$MKIMAGE"; do
    [ -x "$program" ] || { echo "missing $program: build first" >&2; exit 2; }
done
export WORK=$(mktemp -d "${TMPDIR:-/tmp}/kestrel-soak.XXXXXX")
trap 'rm -rf "$WORK"' EXIT

export FLASH_SIZE=$((4 << 20)) BLOCK=65536

KINDS=(error1 error2 error3 error4 error5 noreply badsum badmagic short toolong bitflip vanish)
OPCODES=(any GetFlashId ChangeBaud WriteMemoryLen SetPC EraseFlash ReadSector WriteSector)
RATES=(115200 230400 921600 921600 921600 1000000 2000000 3000000)

pick() { local -n list=$1; echo "${list[$((RANDOM % ${#list[@]}))]}"; }

# One run; prints one result line: "<run> <kind> <outcome> <violation text or ->".
run_one() {
    local n=$1
    RANDOM=$((seed * 100003 + n))
    local dir=$WORK/run$n
    mkdir -p "$dir" && cd "$dir" || return
    printf '[debug]\niDebugOp=n\n' > settings_mac.ini

    local kind opcode when rate fast=() simargs=() toolargs=() op
    kind=$(pick KINDS)
    opcode=$(pick OPCODES)
    case $((RANDOM % 3)) in
        # Early counts, so that most faults fire even on short runs.
        0) when=$((1 + RANDOM % 12)) ;;
        1) when="$((1 + RANDOM % 12))+" ;;
        *) when=every ;;
    esac
    rate=$(pick RATES)
    [ $((RANDOM % 2)) -eq 0 ] && fast=(--fast)
    local fault="$opcode:$when:$kind"

    "$MKIMAGE" --make-data flash.bin "$FLASH_SIZE" "$n" >/dev/null
    cp flash.bin before.bin

    # Blocks the run may touch, as "first last" block numbers, one pair per line.
    : > allowed
    allow() { echo "$(($1 / BLOCK)) $((($1 + $2 - 1) / BLOCK))" >> allowed; }

    local ok_text checks=()
    if [ $((RANDOM % 10)) -lt 7 ]; then
        op=upgrade
        local size1=$((1000 + RANDOM % 60000)) size2=$((RANDOM % 20000))
        local sections=(--random-data "$size1" "$n")
        [ "$size2" -gt 0 ] && sections+=(--random-data "$size2" $((n + 1)))
        local ota=() ota_addr=0 ota_size=0 etf=()
        if [ $((RANDOM % 2)) -eq 0 ]; then
            ota_size=$(( (RANDOM % 2) ? 32768 : 2048 + (RANDOM % 30) * 1024 ))
            ota_addr=$(( 0x100000 + (RANDOM % 2048) * 1024 ))
            ota=(-v 2 --ota-size "$ota_size" --ota-addr "$ota_addr")
        fi
        "$MKIMAGE" -o main.img "${ota[@]}" "${sections[@]}" >/dev/null || return
        local main_len
        main_len=$(stat -c %s main.img)
        allow 0 "$main_len"
        if [ "$ota_size" -gt 0 ]; then
            allow "$ota_addr" "$ota_size"
            if [ $((RANDOM % 2)) -eq 0 ]; then
                local etf_len=$((1 + RANDOM % 70000))
                "$MKIMAGE" -o etf.img --random-data 4096 $((n + 2)) --random-data "$etf_len" $((n + 3)) >/dev/null
                etf=(-e 1 -I etf.img)
                # Programmed from its second section's header on, right behind the area.
                allow $((ota_addr + ota_size)) $((etf_len + 64))
                checks+=("etf.img $((64 + 4096)) $((ota_addr + ota_size)) $((etf_len + 64))")
            fi
        fi
        checks+=("main.img 0 0 $main_len")
        # The fresh OTA header begins with its magic word, A5 5A 5A A5.
        [ "$ota_size" -gt 0 ] && checks+=("$WORK/ota-magic.bin 0 $ota_addr 4")
        toolargs=(-i main.img "${etf[@]}" -u $((RANDOM % 2)) -r 1)
        ok_text='Upgrade OK!'
    else
        simargs=(--rom-flash yes)
        local address=$(( (RANDOM % 60) * 0x10000 + (RANDOM % 128) * 512 + RANDOM % 2 ))
        local length=$(( 1 + RANDOM % 150000 ))
        # Reads and writes move whole sectors from the one that holds the address.
        local sector=$((address / 512 * 512))
        case $((RANDOM % 3)) in
            0) op=read; toolargs=(-D r -A "$address" -L "$length"); ok_text='OK!' ;;
            1) op=write; "$MKIMAGE" --make-data data.bin "$length" $((n + 5)) >/dev/null
               toolargs=(-D w -A "$address" -L "$length" -B data.bin); ok_text='OK!'
               # The debug write programs without erasing: erase its blocks first,
               # as its user must.
               local first=$((sector / BLOCK)) last=$(( (sector + length - 1) / BLOCK ))
               head -c $(( (last - first + 1) * BLOCK )) /dev/zero | tr '\0' '\377' |
                   dd of=flash.bin bs=$BLOCK seek=$first conv=notrunc status=none
               cp flash.bin before.bin
               allow "$sector" "$length" ;;
            *) op=erase; toolargs=(-D e -A "$address" -L "$length"); ok_text='OK!'
               allow "$address" "$length" ;;
        esac
    fi

    "$SIM" --flash flash.bin --fault "$fault" "${simargs[@]}" > sim.out 2> sim.err &
    local sim_pid=$! device=
    for _ in $(seq 100); do
        device=$(head -n 1 sim.out 2>/dev/null)
        [ -n "$device" ] && break
        sleep 0.05
    done
    local budget=150
    local started=$SECONDS status
    timeout -s KILL "$budget" "$TOOL" "${fast[@]}" -c "$device" -b "$rate" "${toolargs[@]}" \
        < /dev/null > tool.out 2> tool.err
    status=$?
    local took=$((SECONDS - started))
    kill "$sim_pid" 2>/dev/null
    wait "$sim_pid" 2>/dev/null

    local repro="kestrel_sim --flash F --fault $fault ${simargs[*]}; kestrelQT_u ${fast[*]} -c DEV -b $rate ${toolargs[*]}  (soak seed $seed run $n)"
    local violation=
    # 255 is the tool's own failure status (-1); 129 to 192 mean death by a signal.
    if [ "$status" -eq 137 ]; then
        violation="no end within ${budget}s"
    elif [ "$status" -gt 128 ] && [ "$status" -le 192 ]; then
        violation="died by signal $((status - 128))"
    elif grep -qE 'runtime error|AddressSanitizer|ThreadSanitizer|LeakSanitizer' tool.err; then
        violation="sanitizer report"
    fi

    local succeeded=no
    grep -q "$ok_text" tool.out && succeeded=yes
    # Content checks: what the run said it did must be so. A debug operation has no
    # read-back, so a bit flipped on the line may go unnoticed there by design.
    if [ -z "$violation" ] && [ "$succeeded" = yes ]; then
        case $op in
            upgrade)
                for c in "${checks[@]}"; do
                    read -r file skip at len <<< "$c"
                    cmp -s -n "$len" -i "$skip:$at" "$file" flash.bin || violation="$file differs in flash after OK"
                done ;;
            read)
                [ "$kind" = bitflip ] || {
                    local out
                    out=$(printf 'flash_A_0x%X_L_0x%X.bin' "$address" "$length")
                    cmp -s -n "$length" -i "0:$sector" "$out" before.bin || violation="read file differs from flash"
                } ;;
            write)
                [ "$kind" = bitflip ] || cmp -s -n "$length" -i "0:$sector" data.bin flash.bin \
                    || violation="written range differs from the file" ;;
            erase)
                local first=$((address / BLOCK * BLOCK)) end=$(( (address + length + BLOCK - 1) / BLOCK * BLOCK ))
                cmp -s -n $((end - first)) -i "$first:0" flash.bin <(head -c $((end - first)) /dev/zero | tr '\0' '\377') \
                    || violation="erased range not erased" ;;
        esac
    fi
    # Nothing outside the allowed blocks may change, whatever the outcome.
    if [ -z "$violation" ]; then
        local block=0
        while [ $block -lt $((FLASH_SIZE / BLOCK)) ]; do
            local inside=no
            while read -r lo hi; do
                [ "$block" -ge "$lo" ] && [ "$block" -le "$hi" ] && inside=yes
            done < allowed
            if [ $inside = no ] && ! cmp -s -n $BLOCK -i "$((block * BLOCK)):$((block * BLOCK))" flash.bin before.bin; then
                violation="block $block outside the run's regions changed"
                break
            fi
            block=$((block + 1))
        done
    fi
    local outcome=$op-$([ "$succeeded" = yes ] && echo ok || echo failed)
    echo "$n $kind $outcome ${took}s ${violation:--} | $repro"
    cd "$WORK" && rm -rf "$dir"
}
printf '\245\132\132\245' > "$WORK/ota-magic.bin"
start=$SECONDS
results=$WORK/results.txt
: > "$results"
for n in $(seq 1 "$runs"); do
    # A background subshell inherits the functions and lists above as they are.
    run_one "$n" >> "$results" &
    while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do
        wait -n
    done
done
wait

echo "soak: $runs runs, seed $seed, $jobs at a time, $((SECONDS - start)) s"
echo "runs per fault kind and outcome:"
awk '{print $2, $3}' "$results" | sort | uniq -c | awk '{printf "  %-9s %-16s %d\n", $2, $3, $1}'
violations=$(awk '$5 != "-"' "$results" | wc -l)
if [ "$violations" -gt 0 ]; then
    echo "VIOLATIONS: $violations"
    awk '$5 != "-"' "$results"
    exit 1
fi
echo "violations: 0"
