#!/usr/bin/env python3
"""Collects the texts of a library's trace points into the catalogue that `kova trace show` reads.

The objects of the library hold, in a section that is never loaded, one text `COUNT:FILE:LINE:TEXT` per trace
point; only the hash of TEXT and COUNT is in the code. This step, run after each link, checks the texts, writes
the catalogue and takes the section out of the library.
"""

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
from dataclasses import dataclass, field
from pathlib import Path

SECTION = ".kova.trace"
# What the viewer can fill in; '%%' stands for a percent sign and takes no value.
CONVERSION = re.compile(r"%[-+ #0]*\d{0,3}(?:\.\d{0,3})?(?:hh|h|ll|l|z|j|t)?[diuxXocps]")


class CatalogueError(Exception):
    pass


@dataclass
class TracePoint:
    count: int
    text: str
    places: set[tuple[str, int]] = field(default_factory=set)

    def where(self) -> str:
        return ",".join(f"{file}:{line}" for file, line in sorted(self.places))


def trace_hash(text: str, count: int) -> int:
    """The same function as TraceOvraHash in trace_ovra_hash.h."""
    value = 2166136261
    for byte in text.encode() + bytes([count & 0xFF]):
        value = (value ^ byte) * 16777619 & 0xFFFFFFFF
    return value


def count_conversions(text: str, where: str) -> int:
    rest = text.replace("%%", "")
    number = len(CONVERSION.findall(rest))
    if "%" in CONVERSION.sub("", rest):
        raise CatalogueError(f'{where}: "{text}" has a conversion that the trace viewer does not know')
    return number


def parse_point(entry: bytes) -> tuple[int, str, str, int]:
    try:
        count, file, line, text = entry.decode().split(":", 3)
        return int(count), text, file, int(line)
    except ValueError as error:
        raise CatalogueError(f"{SECTION}: not COUNT:FILE:LINE:TEXT: {entry!r}") from error


def collect(section: bytes) -> dict[int, TracePoint]:
    """Hash to trace point. Raises CatalogueError for a wrong count and for two texts with one hash."""
    points: dict[int, TracePoint] = {}
    for entry in filter(None, section.split(b"\0")):
        count, text, file, line = parse_point(entry)
        where = f"{file}:{line}"
        if any(ord(c) < 32 for c in text):
            raise CatalogueError(f"{where}: {text!r} has a control character")
        found = count_conversions(text, where)
        if found != count:
            raise CatalogueError(f'{where}: "{text}" has {found} conversions but {count} values')
        value = trace_hash(text, count)
        point = points.setdefault(value, TracePoint(count, text))
        if (point.count, point.text) != (count, text):
            raise CatalogueError(
                f"one hash {value:08x} for two trace points, change one of the texts:\n"
                f'  "{point.text}" at {point.where()}\n  "{text}" at {where}')
        point.places.add((file, line))
    return points


def run_objcopy(objcopy: str, *arguments: str) -> None:
    done = subprocess.run([objcopy, *arguments], capture_output=True, text=True)
    if done.returncode != 0:
        raise CatalogueError(f"{objcopy} {' '.join(arguments)}:\n{done.stderr.strip()}")


def dump_section(objcopy: str, library: Path, scratch: Path) -> bytes:
    dumped = scratch / "section"
    run_objcopy(objcopy, "--dump-section", f"{SECTION}={dumped}", str(library), str(scratch / "unused"))
    if not dumped.exists():
        raise CatalogueError(f"{library}: no section {SECTION}")
    return dumped.read_bytes()


def write_catalogue(points: dict[int, TracePoint], output: Path) -> None:
    lines = ["# hash\tvalues\tplaces\ttext\n"]
    lines += [f"{value:08x}\t{p.count}\t{p.where()}\t{p.text}\n" for value, p in sorted(points.items())]
    temporary = output.with_name(output.name + ".tmp")
    temporary.write_text("".join(lines), encoding="utf-8")
    temporary.replace(output)


def remove_section(objcopy: str, library: Path) -> None:
    """Replaces the library in one step, so that no interruption leaves half a one behind."""
    stripped = library.with_name(library.name + ".tmp")
    try:
        run_objcopy(objcopy, "--remove-section", SECTION, str(library), str(stripped))
        shutil.copymode(library, stripped)
        stripped.replace(library)
    finally:
        stripped.unlink(missing_ok=True)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--objcopy", required=True)
    parser.add_argument("--library", required=True, type=Path)
    parser.add_argument("--output", required=True, type=Path)
    options = parser.parse_args()
    library = Path(os.path.realpath(options.library))
    try:
        with tempfile.TemporaryDirectory() as scratch:
            section = dump_section(options.objcopy, library, Path(scratch))
        options.output.parent.mkdir(parents=True, exist_ok=True)
        write_catalogue(collect(section), options.output)
        remove_section(options.objcopy, library)
    except (CatalogueError, OSError) as error:
        print(f"collect_trace_catalogue: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
