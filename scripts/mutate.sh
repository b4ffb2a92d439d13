#!/usr/bin/env bash
# Mutation testing: each mutant is a fault a developer could make. The script
# applies one at a time to the working tree, rebuilds incrementally in build/mutate,
# runs the suite and restores the file. A mutant the suite notices is killed; one it
# does not is a survivor; one that does not build says nothing and is not counted.
# Prints every survivor and the score.
#
# Two sets of mutants. The hand-written list below holds the faults the suite's
# authors had in mind (a boundary, an off-by-one in sector or block arithmetic, a
# wrong constant, a dropped check, swapped byte order, a missing close). A sample
# (--sample) draws faults nobody picked, at random from generic operators over the
# product source (scripts/mutate_sample.py says which operators and how it draws).
#
#   scripts/mutate.sh [--quick] [--only N] [--from N]
#   scripts/mutate.sh --sample N [--seed S] [--include-sim] [--skip ID,ID] [--list]
#                     [--quick] [--only ID,ID] [--from ID]
#     --quick        run the cases not labelled "slow" (seconds instead of minutes
#                    per mutant); the score is then a lower bound
#     --only N       just mutant N (1-based; with --sample, sample N); a list N,N
#                    runs those (the survivors of a quick run, say)
#     --from N       mutants N and later (to finish an interrupted run)
#     --sample N     N random mutants of common/ serial/ flashhost/ image/ upgrade/
#                    frontend/ tools/ (whatever product folders the tree has: not
#                    tests/, fuzz/, bench/ or sim/) instead of the hand-written list
#     --seed S       the draw's seed (default 1). The same seed on the same tree
#                    draws the same mutants; any edit to the product source may
#                    change them all
#     --include-sim  draw from the simulator's source too
#     --list         print the drawn mutants (id, file:line, the change, the source
#                    line) and stop: a person reads them to mark the equivalent ones
#     --skip ID,ID   leave these samples out of the run and the score (mutants a
#                    person judged equivalent: no test could tell them apart)
set -uo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=$root/build/mutate
quick=0
only=0
from=1
sample=0
seed=1
sim=()
list=0
skip=
usage() {
    echo "usage: scripts/mutate.sh [--quick] [--only N] [--from N]" >&2
    echo "       scripts/mutate.sh --sample N [--seed S] [--include-sim] [--skip ID,ID] [--list]" \
         "[--quick] [--only ID,ID] [--from ID]" >&2
    exit 2
}
while [ $# -gt 0 ]; do
    case $1 in
        --quick) quick=1; shift ;;
        --only) only=$2; shift 2 ;;
        --from) from=$2; shift 2 ;;
        --sample) sample=$2; shift 2 ;;
        --seed) seed=$2; shift 2 ;;
        --include-sim) sim=(--include-sim); shift ;;
        --list) list=1; shift ;;
        --skip) skip=$2; shift 2 ;;
        *) usage ;;
    esac
done
if ! [[ $sample =~ ^[0-9]+$ && $from =~ ^[0-9]+$ && $only =~ ^[0-9]+(,[0-9]+)*$ ]]; then
    usage
elif [ "$sample" -eq 0 ] && { [ "$list" = 1 ] || [ -n "$skip" ] || [ ${#sim[@]} -gt 0 ]; }; then
    usage
fi
if [ "$list" = 1 ]; then
    exec python3 scripts/mutate_sample.py list --sample "$sample" --seed "$seed" "${sim[@]}"
fi

# file | perl substitution (applied once) | what the fault is
mutants=(
  'common/checksum16.cpp|s/sum \+= buf\[i\];/sum += 0;/|checksum drops an odd last byte'
  'common/byte_order.h|s/value >> \(8 \* \(size - 1 - i\)\)/value >> (8 * i)/|frame fields sent little-endian'
  'flashhost/flash_commands.cpp|s/const unsigned int kSectorsPerFastCommand = 4;/const unsigned int kSectorsPerFastCommand = 3;/|three sectors per command at 921600'
  'flashhost/flash_commands.cpp|s/return m_iBaud == kFastSectorRate \?/return m_iBaud >= kFastSectorRate ?/|classic link moves four sectors above 921600 too'
  'flashhost/flash_commands.cpp|s/block < end;/block <= end;/|erase runs one block past the range'
  'flashhost/flash_commands.cpp|s/memset\(m_partialBuf \+ bytes, kErasedByte/memset(m_partialBuf + bytes, 0x00/|last sector padded with zeros'
  'flashhost/flash_commands.cpp|s/if \(memcmp\(scratch \+ offset, expected \+ offset, bytes\) == 0\)/if (true)/|change check never finds a difference'
  'flashhost/connection.cpp|s/kUploadRateCap = link_timing::kDefaultWorkingRate;/kUploadRateCap = 3000000;/|boot-loader uploaded above 921600'
  'serial/CCommU.cpp|s/const unsigned int kMaxReadLength = 8196;/const unsigned int kMaxReadLength = 8197;/|reply read limit one too high'
  'serial/CCommU.cpp|s/while \(sent < len\) \{/for (int once = 0; once < 1 \&\& sent < len; ++once) {/|a write taken in part is not finished'
  'serial/CCommU.cpp|s/if \(n < 0 && !WouldBlock\(errno\)\) \{\n        m_lineLost = true;\n        return kReadFailed;/if (false) {\n        return kReadFailed;/|a read error is taken for an idle line'
  'serial/tty_port.cpp|s/return flock\(fd, LOCK_EX . LOCK_NB\) == 0;/return true;/|no exclusive lock on the device'
  'upgrade/write_cycle.cpp|s/return \(320u \* index \+ 80u \* step\)/return (320u * index + 80u * (step + 1))/|progress percentages one step ahead'
  'upgrade/write_cycle.cpp|s/attempt <= kWriteAttempts;/attempt < kWriteAttempts;/|four attempts instead of five'
  'upgrade/write_cycle.cpp|s/if \(std::memcmp\(data, compare, cycle.length\) != 0\)\n        return Fail\(cycle, kStepVerify\);/if (false)\n        return Fail(cycle, kStepVerify);/|read-back never compared'
  'upgrade/block_walk.h|s/const uint32_t tail = length % kWalkBlockSize;/const uint32_t tail = length % kWalkBlockSize - (length % kWalkBlockSize > 512 ? 512 : 0);/|the last sector of a tail is dropped'
  'upgrade/run_state.cpp|s/if \(std::fread\(dest, 1, count, file\) == count\)/if (std::fread(dest, 1, count, file) >= 0)/|a short image read is programmed'
  'upgrade/ota_area.cpp|s/constexpr uint32_t kDefaultOtaSize = 32768;/constexpr uint32_t kDefaultOtaSize = 32767;/|default OTA area one byte short'
  'image/FwParser.cpp|s/\+ dataSum\) != 0xFFFF\)/+ dataSum) != 0xFFFF \&\& false)/|data checksum not checked'
  'frontend/combine_image.cpp|s/if \(std::fclose\(combined.release\(\)\) != 0\)/if (std::fclose(combined.release()) != 0 \&\& false)/|a failed close of the combined image is not noticed'
  'flashhost/frame.cpp|s/CheckSum16\(header, static_cast<int>\(kFrameHeaderSize \+ length\)\) != 0xFFFF\)/CheckSum16(header, static_cast<int>(kFrameHeaderSize + length)) != 0xFFFF \&\& false)/|a reply checksum is not checked'
  'flashhost/frame.cpp|s/~CheckSum16\(m_cmdBuf/CheckSum16(m_cmdBuf/|frame checksum sent without its complement'
  'flashhost/frame.cpp|s/if \(length > static_cast<unsigned int>\(kMaxReplyPayload\)\)/if (length > static_cast<unsigned int>(kMaxReplyPayload) + 1)/|a reply one byte over the buffer is accepted'
  'flashhost/flash_commands.cpp|s/block = address & ~uint64_t\(kEraseBlockSize - 1\);/block = address;/|erase starts at the address instead of its block'
  'upgrade/ota_header.cpp|s/kOtaSlotsOffset \+ slots, kOtaSlotTrailer/kOtaSlotsOffset + slots + 1, kOtaSlotTrailer/|OTA trailer one byte late'
  'upgrade/ota_header.cpp|s/\/ 33u \+ 1u;/\/ 33u;/|one OTA slot too few'
  'image/section_header.cpp|s/lastHeader \+ kSectionHeaderSize \+/lastHeader +/|image length leaves out the last section header'
)

# The quick cases run first and the slow ones only when every quick one passes:
# the verdict is the whole suite's, but a mutant a quick case kills costs seconds.
# The slow (end-to-end) cases mostly wait on the line, so they run three to a core.
passes() {
    local jobs=$1
    shift
    ctest --test-dir "$build" -j"$jobs" "$@" --stop-on-failure >/dev/null 2>&1
}

# Neither optimised nor with debug information: every mutant means a rebuild and
# some forty links, and those are what the run mostly waits for.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE= >/dev/null
cmake --build "$build" -j2 >/dev/null || { echo "the unmutated tree does not build"; exit 2; }
# A suite that already fails would count every mutant as killed.
passes 2 -LE slow || { echo "the unmutated tree fails its quick tests"; exit 2; }

# Builds the tree with one mutant in it and runs the suite: sets verdict and how.
judge() {
    if ! cmake --build "$build" -j2 >/dev/null 2>&1; then
        # A mutant that does not compile says nothing about the tests.
        verdict=invalid
        how="does not build"
    elif passes 2 -LE slow && { [ "$quick" = 1 ] || passes 6 -L slow; }; then
        verdict=survived
        how="every test passes"
    else
        verdict=killed
        how="a test fails"
    fi
}

# Keeps a copy of the file about to be mutated; an interrupted run must not leave
# the mutant in the tree.
save() {
    file=$1
    backup=$(mktemp)
    cp "$file" "$backup"
    trap 'restore; exit 130' INT TERM
}
restore() {
    cp "$backup" "$file"
    touch "$file"
    rm -f "$backup"
    trap - INT TERM
}

# Whether mutant $1 is one --only and --from ask for.
picked() {
    [ "$1" -ge "$from" ] && { [ "$only" = 0 ] || [[ ",$only," == *",$1,"* ]]; }
}

killed=0
survived=0
stale=0
skipped=0
survivors=()

# One random sample: the draw is made once, up front, from the unmutated tree.
run_sample() {
    local draw rows row id where change
    draw=$(mktemp)
    if ! python3 scripts/mutate_sample.py list --sample "$sample" --seed "$seed" "${sim[@]}" \
            --json "$draw.json" --tsv >"$draw"; then
        rm -f "$draw" "$draw.json"
        echo "the draw failed"
        exit 2
    fi
    mapfile -t rows <"$draw"
    rm -f "$draw"
    echo "sample of ${#rows[@]} mutants, seed $seed"
    for row in "${rows[@]}"; do
        IFS=$'\t' read -r id where change <<< "$row"
        picked "$id" || continue
        if [[ ",$skip," == *",$id,"* ]]; then
            echo "sample $id $change: skipped (marked equivalent)"
            skipped=$((skipped + 1))
            continue
        fi
        save "$where"
        if ! python3 scripts/mutate_sample.py apply "$draw.json" "$id"; then
            verdict=stale
            how="the file changed since the draw"
        else
            judge
        fi
        restore
        echo "sample $id $change: $verdict ($how)"
        case $verdict in
            killed) killed=$((killed + 1)) ;;
            survived) survived=$((survived + 1)); survivors+=("sample $id $change") ;;
            *) stale=$((stale + 1)) ;;
        esac
    done
    rm -f "$draw.json"
}

run_list() {
    local i number change what
    for i in "${!mutants[@]}"; do
        number=$((i + 1))
        picked "$number" || continue
        IFS='|' read -r file change what <<< "${mutants[$i]}"
        save "$file"
        perl -0pi -e "$change" "$file"
        if cmp -s "$file" "$backup"; then
            echo "mutant $number ($what): STALE, its pattern no longer matches $file"
            stale=$((stale + 1))
            rm -f "$backup"
            trap - INT TERM
            continue
        fi
        judge
        restore
        echo "mutant $number ($what): $verdict ($how)"
        if [ "$verdict" = invalid ]; then
            stale=$((stale + 1))
        elif [ "$verdict" = killed ]; then
            killed=$((killed + 1))
        else
            survived=$((survived + 1))
            survivors+=("$number: $what ($file)")
        fi
    done
}

if [ "$sample" -gt 0 ]; then
    run_sample
else
    run_list
fi
cmake --build "$build" -j2 >/dev/null

total=$((killed + survived))
if [ "$sample" -gt 0 ]; then
    echo "mutants: $total run, $killed killed, $survived survived, $stale not building," \
         "$skipped skipped as equivalent"
    if [ "$total" -gt 0 ]; then
        permille=$((1000 * killed / total))
        bound=
        [ "$quick" = 1 ] && bound=" (quick cases only: a lower bound)"
        echo "score: $((permille / 10)).$((permille % 10))% ($killed of $total, seed $seed)$bound"
    fi
else
    echo "mutants: $total run, $killed killed, $survived survived, $stale stale or not building"
    [ "$total" -gt 0 ] && echo "score: $((100 * killed / total))%"
fi
for s in "${survivors[@]}"; do
    echo "survivor $s"
done
