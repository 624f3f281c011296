#!/usr/bin/env python3
"""Writes each C++ sample of the pages to a file of its own, ready to compile.

doc_samples.py PROJECT-ROOT OUTPUT-DIRECTORY

A sample that includes something is a whole file; any other is put into a function. The sample of README.md must
be the program that tests/install/outside builds and runs.
"""

import re
import sys
from pathlib import Path

WRAPPED = """#include <kova/kova.h>

#include <cstdio>
#include <cstring>
#include <string>

void Sample();
void Sample() {
%s}
"""


def samples(page: Path) -> list[str]:
    return re.findall(r"^```cpp\n(.*?)^```$", page.read_text(encoding="utf-8"), re.MULTILINE | re.DOTALL)


def main() -> int:
    root, output = Path(sys.argv[1]), Path(sys.argv[2])
    count = 0
    for page in [root / "README.md", *sorted((root / "docs").glob("*.md"))]:
        for number, text in enumerate(samples(page), start=1):
            name = f"{page.stem}-{number}.cpp"
            (output / name).write_text(text if "#include" in text else WRAPPED % text, encoding="utf-8")
            count += 1
    program = (root / "tests/install/outside/main.cpp").read_text(encoding="utf-8")
    if program not in samples(root / "README.md"):
        print("README.md does not show tests/install/outside/main.cpp")
        return 1
    print(f"{count} samples")
    return 0


if __name__ == "__main__":
    sys.exit(main())
