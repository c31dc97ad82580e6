#!/usr/bin/python3
"""The check of signal safety finds what is planted in a copy of the tree, and names it. planted_faults.py PROJECT_DIR"""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

DEEP = "#include <stdio.h>\n#include <stdlib.h>\nstatic void deep() { puts(\"\"); }\nstatic void planted() { deep(); }\n"
FAULTS = [  # (file, function, what goes in there, what is said of it)
    ("unix/sysvregistry.cpp", "sysv_sig_handler", "free(malloc(10));", "sysv_sig_handler -> free"),
    ("etc/uthist/hist_log.cpp", "ut_hist_signal_handler", "planted();",
     ".* -> ut_hist_signal_handler -> planted -> deep -> puts"),
    ("unix/unixfork.cpp", "atfork_child", "malloc(10);", "atfork_child -> malloc"),
]
project = pathlib.Path(sys.argv[1]).resolve()
with tempfile.TemporaryDirectory() as scratch:
    root = pathlib.Path(scratch)
    for room in ("tasks", "utils", "include"):
        shutil.copytree(project / room, root / room)
    for file, function, inside, _ in FAULTS:
        path = root / "utils" / file
        text = re.sub(r"(void %s\([^)]*\)\s*\{)" % function, r"\1 " + inside, path.read_text(), count=1)
        path.write_text(text.replace("\n#include", "\n" + DEEP + "#include", 1))
    result = subprocess.run([project / "scripts/check_signal_safety", root], capture_output=True, text=True)
missing = [said for *_, said in FAULTS
           if not re.search(r"^utils/\S+:\d+: %s: not async-signal-safe$" % said, result.stdout, re.M)]
sys.exit("it does not say: %s but: %s" % (missing, result.stdout + result.stderr) if missing else 0)
