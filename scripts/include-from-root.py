#!/usr/bin/env python3
"""Rewrites module includes to the form written from the source roots.

`#include "TspObjects.hpp"` becomes `#include "tsp_server/models/TspObjects.hpp"`,
so that an include names the layer it reaches into. The roots are the folders
the top CMakeLists.txt puts on the include path: tracemanager, tool_api,
common/source and host. A bare name is rewritten when exactly one header of
that name lies below a root outside any tests/ folder (test helpers stay as
they are); a name found twice is reported and left alone. Each run of
quoted includes that changed is sorted again. Safe to run again: written
forms are left as they are.

Usage: scripts/include-from-root.py [REPO_ROOT]   (default: this script's repo)
"""
import os
import re
import subprocess
import sys

ROOTS = ["tracemanager", "tool_api", "common/source", "host"]
SOURCE = re.compile(r"\.(cpp|hpp|h|cc)$")
INCLUDE = re.compile(r'^#include "([^"/]+)"(.*)$')


def tracked(repo):
    out = subprocess.run(["git", "-C", repo, "ls-files"], capture_output=True, text=True, check=True)
    return [f for f in out.stdout.splitlines() if SOURCE.search(f)]


def header_map(files):
    found = {}
    for f in files:
        if not f.endswith((".hpp", ".h")) or "/tests/" in f or f.startswith(("tests/", "testdata/")):
            continue
        for root in ROOTS:
            if f.startswith(root + "/"):
                found.setdefault(os.path.basename(f), []).append(f[len(root) + 1:])
    for name, places in sorted(found.items()):
        if len(places) > 1:
            print(f"left alone, found twice: {name}: {places}", file=sys.stderr)
    return {name: places[0] for name, places in found.items() if len(places) == 1}


def rewrite(text, headers):
    lines = text.split("\n")
    changed = set()
    for i, line in enumerate(lines):
        m = INCLUDE.match(line)
        if m and m.group(1) in headers:
            lines[i] = f'#include "{headers[m.group(1)]}"{m.group(2)}'
            changed.add(i)
    if not changed:
        return text
    # Sort each run of quoted includes in which something changed.
    i = 0
    while i < len(lines):
        if not lines[i].startswith('#include "'):
            i += 1
            continue
        j = i
        while j < len(lines) and lines[j].startswith('#include "'):
            j += 1
        if any(k in changed for k in range(i, j)):
            lines[i:j] = sorted(lines[i:j])
        i = j
    return "\n".join(lines)


def main():
    repo = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    files = tracked(repo)
    headers = header_map(files)
    count = 0
    for f in files:
        if f.startswith("testdata/"):
            continue
        path = os.path.join(repo, f)
        with open(path, encoding="utf-8") as handle:
            text = handle.read()
        new = rewrite(text, headers)
        if new != text:
            with open(path, "w", encoding="utf-8") as handle:
                handle.write(new)
            count += 1
    print(f"rewrote the includes of {count} files")


if __name__ == "__main__":
    main()
