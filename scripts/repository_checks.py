#!/usr/bin/env python3
"""Checks of the tree as a whole.

repository_checks.py COMPILE-COMMANDS

- every C++ file is compiled by something
- every relative link of a page leads to a file
- no file holds a word or a path that must not be committed
"""

import json
import os
import re
import sys
from collections.abc import Iterator
from pathlib import Path

# Projects of their own, built by the tests, and what is built for the target only.
BUILT_ELSEWHERE = ("tests/install/outside/", "target/", "tests/target/")
SKIPPED_DIRECTORIES = {".git", "build", ".cache", "__pycache__"}
# The brackets keep this file from finding itself.
FORBIDDEN = re.compile(
    r"\b[P]art [0-9]+(\.[0-9]+)?\b|\b[s]pecification\b|\b[t]he spec\b|\b[a]s specified|\b[s]pec\.md"
    r"|/[w]ork/|/[f]arm/|/tmp/[p]arts|\b[T]ODO\b|\b[F]IXME\b|\b[X]XX\b|[D]ISABLED_"
)


def tree_files() -> Iterator[Path]:
    for directory, subdirectories, names in os.walk("."):
        subdirectories[:] = [name for name in subdirectories if name not in SKIPPED_DIRECTORIES]
        for name in names:
            yield Path(os.path.relpath(os.path.join(directory, name)))


def forgotten_sources(compile_commands: str) -> Iterator[str]:
    with open(compile_commands, encoding="utf-8") as commands:
        compiled = {os.path.relpath(entry["file"]) for entry in json.load(commands)}
    for path in sorted(tree_files()):
        # Benchmarks and fuzzers are parts of other builds.
        if path.suffix != ".cpp" or path.parts[0] in ("bench", "fuzz"):
            continue
        if str(path) not in compiled and not str(path).startswith(BUILT_ELSEWHERE):
            yield f"{path}: compiled by nothing"


def broken_links() -> Iterator[str]:
    for page in [*sorted(Path(".").glob("*.md")), *sorted(Path("docs").glob("*.md"))]:
        for target in re.findall(r"\]\(([^)#\s]+)(?:#[^)]*)?\)", page.read_text(encoding="utf-8")):
            if "://" not in target and not (page.parent / target).exists():
                yield f"{page}: link to {target}, which does not exist"


def forbidden_words() -> Iterator[str]:
    for path in sorted(tree_files()):
        try:
            lines = path.read_text(encoding="utf-8").splitlines()
        except UnicodeDecodeError:
            continue
        for number, line in enumerate(lines, start=1):
            if FORBIDDEN.search(line):
                yield f"{path}:{number}: must not be committed: {line.strip()}"


def main() -> int:
    findings = [*forgotten_sources(sys.argv[1]), *broken_links(), *forbidden_words()]
    print("\n".join(findings), end="\n" if findings else "")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
