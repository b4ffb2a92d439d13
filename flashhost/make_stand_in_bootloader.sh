#!/bin/sh
# Writes the stand-in boot-loader image (5,868 bytes) used when the chip vendor's
# boot-loader is not at hand. It has the real image's shape: a 64-word vector table
# (initial stack pointer 0x0007E000, reset vector 0x00010101, then 62 words of
# 0x00010127, all little-endian) and Thumb code from offset 256 (target address
# 0x00010100). The code is a branch-to-self ("b .", 0xE7FE) repeated to the end,
# so whichever vector the target takes, it parks there and does nothing.
#   usage: make_stand_in_bootloader.sh [output]   (default: tq_BRom.bin)
set -eu
out=${1:-tq_BRom.bin}
{
    printf '\000\340\007\000'                # initial stack pointer 0x0007E000
    printf '\001\001\001\000'                # reset vector 0x00010101
    i=0
    while [ $i -lt 62 ]; do                  # every other vector 0x00010127
        printf '\047\001\001\000'
        i=$((i + 1))
    done
    i=0
    while [ $i -lt 2806 ]; do                # (5868 - 256) / 2 halfwords of "b ."
        printf '\376\347'
        i=$((i + 1))
    done
} >"$out"
