#!/usr/bin/python3
"""The source checks find what is planted in a copy of the tree, and name it.

    planted_faults.py PROJECT_DIR
"""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

DEEP = """#include <stdio.h>
static void planted_deep() { fprintf(stderr, "planted"); }
static void planted() { planted_deep(); }
"""
PLACE = r"utils/\S+:\d+: "
SAFETY = [  # (where in utils/, what goes in there and before the file's includes, what is said of it)
    (r"void sysv_sig_handler\([^)]*\)\s*\{", " free(malloc(10));", "#include <stdlib.h>\n",
     PLACE + "sysv_sig_handler -> free: not async-signal-safe"),
    (r"void ut_hist_signal_handler\([^)]*\)\s*\{", " planted();", DEEP,
     PLACE + ".* -> ut_hist_signal_handler -> planted -> planted_deep -> fprintf: not async-signal-safe"),
    (r"void atfork_child\(\)\s*\{", " malloc(10);", "#include <stdlib.h>\n",
     PLACE + "atfork_child -> malloc: not async-signal-safe"),
]
LAYERS = [
    (r"void atfork_child\(\)\s*\{", "", '#include "utils/etc/uthist/uthist.h"\n',
     PLACE + "ground includes uthist of history"),
    (r"class an_in_flight_guard \{", "", '#include "utils/etc/osthrsup.h"\n', "circle: osthread osthrsup"),
    (r"class an_in_flight_guard \{", " // " + 120 * "x", "", PLACE + "over 120 columns"),
]


def plant(root, where, inside, before):
    """Puts the pieces into the one file of utils/ that has the place."""
    for path in sorted((root / "utils").rglob("*.*")):
        text = path.read_text()
        if re.search(where, text):
            text = re.sub(where, lambda found: found[0] + inside, text, count=1)
            path.write_text(re.sub(r"^(?=#include)", before, text, count=1, flags=re.M))
            return
    sys.exit("no place to plant a fault: " + where)


def main(project):
    failed = 0
    for check, faults in (("check_signal_safety", SAFETY), ("check_layers", LAYERS)):
        with tempfile.TemporaryDirectory() as scratch:
            root = pathlib.Path(scratch)
            for room in ("tasks", "utils", "include"):
                shutil.copytree(project / room, root / room)
            shutil.copy(project / "CONTRIBUTING.md", root)
            for where, inside, before, _ in faults:
                plant(root, where, inside, before)
            result = subprocess.run([project / "scripts" / check, root], capture_output=True, text=True)
            missing = [said for *_, said in faults if not re.search("^%s$" % said, result.stdout, re.M)]
            if missing or result.returncode != 1:
                print(check, "does not say:", *missing, "but:", result.stdout + result.stderr, sep="\n")
                failed = 1
    return failed


sys.exit(main(pathlib.Path(sys.argv[1]).resolve()))
