#!/usr/bin/python3
"""Whether the daemon's modules include each other only as docs/architecture.md allows."""

import glob
import os
import re
import sys

page = open("docs/architecture.md").read().split("## Layers")[1].split("##")[0]
rows = re.findall(r"^\| [^|]+ \| (`[^|]+) \|$", page, re.M)
level = {name: number for number, row in enumerate(rows) for name in re.findall(r"`(\w+)`", row)}

faults = []
for path in sorted(glob.glob("src/*.cpp") + glob.glob("src/*.h")):
    module = os.path.splitext(os.path.basename(path))[0]
    if module not in level:
        faults.append(f"{path}: {module} has no place in the layers")
        continue
    for included in re.findall(r'^#include "(\w+)\.h"', open(path).read(), re.M):
        if level.get(included, -1) < level[module]:
            faults.append(f"{path}: {module} includes {included}, of a layer above")
print("\n".join(faults) or f"{len(level)} modules in {len(rows)} layers")
sys.exit(1 if faults else 0)
