#!/usr/bin/env bash
# Records the instruction samples that stand in for a live execution: runs a
# program under qemu-system-arm with one log line per instruction, and keeps
# the first N executed instructions (with their opcodes, read from the ELF by
# objdump) and the exceptions taken in between.
#   usage: record.sh ELF MACHINE N OUT
# Needs qemu-system-arm and gcc-arm-none-eabi (objdump).
set -euo pipefail
elf="$1"; machine="$2"; count="$3"; out="$4"
work="$(mktemp -d)"; trap 'rm -rf "$work"' EXIT
timeout 3 qemu-system-arm -M "$machine" -nographic -kernel "$elf" -icount shift=5 \
  -singlestep -d exec,nochain,int -D "$work/log" -monitor none -serial none || true
arm-none-eabi-objdump -d "$elf" > "$work/dis"
python3 - "$work/log" "$work/dis" "$count" "$elf" > "$out" <<'PY'
import re, sys, os
log, dis, count, elf = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4]
ops = {}
for line in open(dis):
    m = re.match(r'\s*([0-9a-f]+):\s+([0-9a-f]{4})(?: ([0-9a-f]{4}))?\s', line)
    if m:
        a = int(m.group(1), 16)
        if m.group(3):
            ops[a] = (4, int(m.group(2) + m.group(3), 16))
        else:
            ops[a] = (2, int(m.group(2), 16))
print("# instruction sample of %s; lines: I address size opcode | E exception" % os.path.basename(elf))
n = 0
for line in open(log):
    m = re.match(r'Trace \d+: \S+ \[[0-9a-f]+/([0-9a-f]+)/', line)
    if m:
        a = int(m.group(1), 16)
        size, op = ops.get(a, (2, 0))
        print("I %08x %d %x" % (a, size, op))
        n += 1
        if n >= count:
            break
        continue
    m = re.search(r'loading from element (\d+) of', line)
    if m:
        print("E %s" % m.group(1))
PY
