#!/usr/bin/env bash
# Mutation testing by hand: each mutant below is a fault a developer could make
# (a boundary, an off-by-one in sector or block arithmetic, a wrong constant, a
# dropped check, swapped byte order, a missing close). The script applies one at a
# time to the working tree, rebuilds incrementally in build/mutate, runs the suite
# and restores the file. A mutant the suite notices is killed; one it does not is a
# survivor. Prints every survivor and the score.
#
#   scripts/mutate.sh [--quick] [--only N] [--from N]
#     --quick   run the cases not labelled "slow" (seconds instead of minutes
#               per mutant); the score is then a lower bound
#     --only N  just mutant N (1-based)
#     --from N  mutants N and later (to finish an interrupted run)
set -uo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=$root/build/mutate
quick=0
only=0
from=1
while [ $# -gt 0 ]; do
    case $1 in
        --quick) quick=1; shift ;;
        --only) only=$2; shift 2 ;;
        --from) from=$2; shift 2 ;;
        *) echo "usage: scripts/mutate.sh [--quick] [--only N] [--from N]" >&2; exit 2 ;;
    esac
done

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

killed=0
survived=0
stale=0
survivors=()
for i in "${!mutants[@]}"; do
    number=$((i + 1))
    [ "$only" -ne 0 ] && [ "$only" -ne "$number" ] && continue
    [ "$number" -lt "$from" ] && continue
    IFS='|' read -r file change what <<< "${mutants[$i]}"
    backup=$(mktemp)
    cp "$file" "$backup"
    # An interrupted run must not leave the mutant in the tree.
    trap 'cp "$backup" "$file"; touch "$file"; rm -f "$backup"; exit 130' INT TERM
    perl -0pi -e "$change" "$file"
    if cmp -s "$file" "$backup"; then
        echo "mutant $number ($what): STALE, its pattern no longer matches $file"
        stale=$((stale + 1))
        rm -f "$backup"
        continue
    fi
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
    cp "$backup" "$file"
    touch "$file"
    rm -f "$backup"
    trap - INT TERM
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
cmake --build "$build" -j2 >/dev/null

total=$((killed + survived))
echo "mutants: $total run, $killed killed, $survived survived, $stale stale or not building"
[ "$total" -gt 0 ] && echo "score: $((100 * killed / total))%"
for s in "${survivors[@]}"; do
    echo "survivor $s"
done
