#!/usr/bin/python3
"""Whether files are opened for writing through fileutil alone: what lies on a storage is foreign."""

import glob
import re
import sys

# Calls that make, open for writing, move or link a file by its path.
CALL = re.compile(r"(?:\bstd::ofstream\b|\bstd::f?re?open\s*\(|::(?:fopen|creat|mkdir|rename|unlink|link|"
                  r"symlink|truncate|mkfifo|chdir|openat2?)\s*\(|\bg_file_(?:set_contents|copy|replace)\w*\(|"
                  r"\bfs::\w+\()|::open\(([^;]*)\)", re.S)
DOOR = "src/fileutil.cpp"
# What is no storage's, each for its reason.
ALLOWED = {
    ("src/main.cpp", "/dev/null"),                       # the missing standard descriptors
    ("src/monitoring_session.cpp", "continuous_syslog_link"),  # a link of the device's own folder
    ("src/monitoring_session.cpp", "root.c_str()"),      # a storage's root, before there is a session
    ("src/vdrl_syslog_continuous.cpp", "file.staged"),   # the log program's configuration
}

faults = []
for path in sorted(glob.glob("src/*.cpp") + glob.glob("src/*.h")):
    text = open(path).read()
    for match in CALL.finditer(text) if path != DOOR else ():
        line = text.count("\n", 0, match.start()) + 1
        statement = text[match.start():text.find(";", match.start())]
        reads = "open" in statement and not re.search(r"O_(?:WRONLY|RDWR|CREAT)", statement) \
            and "O_RDONLY" in statement
        if not reads and not any(path == file and mark in statement for file, mark in ALLOWED):
            faults.append(f"{path}:{line}: {' '.join(statement.split())[:90]}")
print("\n".join(faults) or "all writing goes through the one door")
sys.exit(1 if faults else 0)
