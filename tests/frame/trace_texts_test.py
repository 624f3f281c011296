#!/usr/bin/env python3
"""trace_texts_test.py LIBRARY CATALOGUE: what is loaded of the library holds no trace text but pabend's."""

import struct
import sys
from pathlib import Path

PABEND = "nTid=%x KovaGetTid()=%x"
PT_LOAD = 1


def loaded_bytes(image: bytes) -> bytes:
    """The parts of an ELF file that the dynamic linker maps, joined by zeros."""
    assert image[:4] == b"\x7fELF"
    wide = image[4] == 2
    order = "<" if image[5] == 1 else ">"
    table, = struct.unpack_from(order + ("Q" if wide else "I"), image, 32 if wide else 28)
    size, count = struct.unpack_from(order + "HH", image, 54 if wide else 42)
    parts = []
    for i in range(count):
        at = table + i * size
        if wide:
            kind, _, offset, _, _, length = struct.unpack_from(order + "IIQQQQ", image, at)
        else:
            kind, offset, _, _, length = struct.unpack_from(order + "IIIII", image, at)
        if kind == PT_LOAD:
            parts.append(image[offset : offset + length])
    return b"\0".join(parts)


def main() -> int:
    library, catalogue = (Path(name) for name in sys.argv[1:])
    lines = [line for line in catalogue.read_text().splitlines() if not line.startswith("#")]
    texts = {line.split("\t")[3] for line in lines}
    loaded = loaded_bytes(library.read_bytes())
    found = {text for text in texts if text.encode() in loaded}
    for text in sorted(found - {PABEND}):
        print(f"in the library: {text}")
    if PABEND not in texts or PABEND not in found:
        print(f"missing: {PABEND}")
    print(f"{len(texts)} texts looked for")
    return 0 if found == {PABEND} and len(texts) > 1 else 1


if __name__ == "__main__":
    sys.exit(main())
