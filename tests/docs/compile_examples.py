#!/usr/bin/env python3
"""Compiles the examples of a guide: every fenced ```c and ```cpp block must be a source file of its own.

    compile_examples.py GUIDE INCLUDE_DIR C_COMPILER CXX_COMPILER
"""
import re
import subprocess
import sys

FLAGS = ["-Wall", "-Wextra", "-Wshadow", "-pedantic", "-Werror", "-fsyntax-only"]
BLOCK = re.compile(r"^```(c|cpp)\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def compile_block(compilers, include, guide, line, language, text):
    """True when it compiles; the compiler's messages name the guide's own lines."""
    command = compilers[language] + FLAGS + ["-I", include, "-"]
    source = f'#line {line} "{guide}"\n{text}'
    return subprocess.run(command, input=source, text=True).returncode == 0


def main(guide, include, cc, cxx):
    compilers = {"c": [cc, "-x", "c", "-std=c11"], "cpp": [cxx, "-x", "c++", "-std=c++20"]}
    text = open(guide, encoding="utf-8").read()
    blocks = list(BLOCK.finditer(text))
    failed = 0
    for block in blocks:
        line = text.count("\n", 0, block.start(2)) + 1
        failed += not compile_block(compilers, include, guide, line, block[1], block[2])
    print(f"{guide}: {len(blocks)} examples, {failed} do not compile")
    languages = {block[1] for block in blocks}
    return 0 if failed == 0 and languages == {"c", "cpp"} else 1


sys.exit(main(*sys.argv[1:]))
