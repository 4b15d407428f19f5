#!/usr/bin/env bash
# Rebuilds the committed test programs (*.elf) from their sources.
# Needs Debian's gcc-arm-none-eabi (apt-get install gcc-arm-none-eabi);
# the tests themselves only read the committed ELF files.
#
#   m0plus.elf  Cortex-M0+ (Armv6-M), soft float, libgcc for division
#   m4.elf      Cortex-M4 (Armv7E-M), hardware single-precision float
#   bench.elf   Cortex-M4, a few thousand generated functions for the
#               symbol and disassembly benchmark
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
cd "$here"
CC=${CC:-arm-none-eabi-gcc}
if ! command -v "$CC" >/dev/null; then
  echo "rebuild.sh: $CC not found; install it with: apt-get install gcc-arm-none-eabi" >&2
  exit 2
fi

# -ffile-prefix-map keeps the build directory out of the debug information,
# so the files are the same whoever rebuilds them; the tests find the sources
# through the relative directory "testdata/firmware".
common_flags=(-g -O1 -ffreestanding -ffunction-sections -fno-common
  -ffile-prefix-map="$here"=testdata/firmware -nostartfiles -nostdlib
  -T common/link.ld -Wl,--gc-sections)

build() {
  local out=$1
  shift
  "$CC" "$@" "${common_flags[@]}" -o "$out" -lgcc
  echo "built $out" >&2
}

build m0plus.elf -mcpu=cortex-m0plus -mthumb -mfloat-abi=soft \
  common/startup.c m0plus/main.c m0plus/sensor.c m0plus/checksum.c
build m4.elf -mcpu=cortex-m4 -mthumb -mfloat-abi=hard -mfpu=fpv4-sp-d16 \
  common/startup.c m4/main.c m4/filter.c m4/ring.c

# The benchmark program: 3000 functions in 10 files, each with a loop and a
# call, so line tables and disassembly have realistic density.
gen=$(mktemp -d)
trap 'rm -rf "$gen"' EXIT
mkdir -p "$gen/bench"
for f in $(seq 0 9); do
  src="$gen/bench/unit$f.c"
  {
    echo '#include <stdint.h>'
    for i in $(seq 0 300); do
      n=$(((f * 300 + i) % 3000))
      echo "uint32_t work$n(uint32_t x);"
    done
    for i in $(seq 0 299); do
      n=$((f * 300 + i))
      next=$(((n + 1) % 3000))
      echo "__attribute__((noinline)) uint32_t work$n(uint32_t x) {"
      echo "  uint32_t acc = x ^ ${n}u;"
      echo "  for (uint32_t i = 0; i < (x & 7u); ++i) {"
      echo "    acc = acc * 33u + i;"
      echo "  }"
      echo "  if (acc & 1u) return acc >> 1;"
      echo "  return x > ${n}u ? work$next(x - 1u) : acc;"
      echo "}"
    done
  } >"$src"
done
cat >"$gen/bench/main.c" <<'C'
#include <stdint.h>
uint32_t work0(uint32_t x);
volatile uint32_t sink;
int main(void) {
  for (;;) sink = work0(sink);
}
C
(cd "$gen" && "$CC" -mcpu=cortex-m4 -mthumb -mfloat-abi=soft \
  -g -O1 -ffreestanding -ffunction-sections -fno-common \
  -ffile-prefix-map="$gen"=testdata/firmware -nostartfiles -nostdlib \
  -T "$here/common/link.ld" -o "$here/bench.elf" \
  "$here/common/startup.c" bench/main.c bench/unit*.c -lgcc)
echo "built bench.elf" >&2

# The programs that run under emulation (QEMU machines microbit and
# mps2-an386): SysTick every 200 us, awake 3 of every 8 ticks, nested calls
# over four files, a data-dependent loop, the UART switched on and off.
run_sources=(common/startup.c run/main.c run/work.c run/filter.c run/checksum.c run/fault.c)
run_flags=(-g -O1 -ffreestanding -ffunction-sections -fno-common
  -ffile-prefix-map="$here"=testdata/firmware -nostartfiles -nostdlib
  -T run/link.ld -Wl,--gc-sections)
"$CC" -mcpu=cortex-m0plus -mthumb -mfloat-abi=soft "${run_flags[@]}" \
  -o run_microbit.elf "${run_sources[@]}" run/board_microbit.c -lgcc
echo "built run_microbit.elf" >&2
"$CC" -mcpu=cortex-m4 -mthumb -mfloat-abi=soft "${run_flags[@]}" \
  -o run_mps2.elf "${run_sources[@]}" run/board_mps2.c -lgcc
echo "built run_mps2.elf" >&2
