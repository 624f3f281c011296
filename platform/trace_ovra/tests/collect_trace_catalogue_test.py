"""Tests of cmake/collect_trace_catalogue.py. Needs: --cc COMPILER --objcopy OBJCOPY --script SCRIPT."""

import argparse
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

OPTIONS = argparse.Namespace()


def trace_hash(text: str, count: int) -> int:
    value = 2166136261
    for byte in text.encode() + bytes([count]):
        value = (value ^ byte) * 16777619 % 2**32
    return value


def colliding_texts() -> tuple[str, str]:
    """Two texts without values that have one hash: found after some ten thousand tries."""
    seen: dict[int, str] = {}
    number = 0
    while True:
        text = f"t{number:x}"
        value = trace_hash(text, 0)
        if value in seen:
            return seen[value], text
        seen[value] = text
        number += 1


class CollectTest(unittest.TestCase):
    def setUp(self) -> None:
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.directory = Path(scratch.name)
        self.library = self.directory / "lib.so"
        self.output = self.directory / "share" / "catalogue.tsv"

    def link(self, *entries: str) -> None:
        lines = ['.pushsection .kova.trace,"MS",%progbits,1', *(f'.asciz "{e}"' for e in entries), ".popsection"]
        quoted = "".join('"' + line.replace("\\", "\\\\").replace('"', '\\"') + '\\n"' for line in lines)
        asm = f"__asm__({quoted});\n" if entries else ""
        source = self.directory / "lib.c"
        source.write_text(asm + "int answer(void) { return 42; }\n")
        subprocess.run([OPTIONS.cc, "-shared", "-nostdlib", "-fPIC", "-o", self.library, source], check=True)

    def collect(self) -> subprocess.CompletedProcess:
        return subprocess.run(
            [sys.executable, OPTIONS.script, "--objcopy", OPTIONS.objcopy, "--library", self.library,
             "--output", self.output], capture_output=True, text=True)

    def test_catalogue_is_sorted_and_section_removed(self) -> None:
        self.link("1:src/b.cpp:20:code=%d: failed", "0:src/a.cpp:7:loaded", "1:src/a.cpp:9:code=%d: failed",
                  "2:src/a.cpp:10:100%% %08x %-5u")
        mode = self.library.stat().st_mode
        done = self.collect()
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        lines = self.output.read_text().splitlines()
        self.assertTrue(lines[0].startswith("#"))
        expected = sorted([
            f"{trace_hash('code=%d: failed', 1):08x}\t1\tsrc/a.cpp:9,src/b.cpp:20\tcode=%d: failed",
            f"{trace_hash('loaded', 0):08x}\t0\tsrc/a.cpp:7\tloaded",
            f"{trace_hash('100%% %08x %-5u', 2):08x}\t2\tsrc/a.cpp:10\t100%% %08x %-5u"])
        self.assertEqual(lines[1:], expected)
        self.assertNotIn(b"failed", self.library.read_bytes())
        self.assertNotIn(b".kova.trace", self.library.read_bytes())
        self.assertEqual(self.library.stat().st_mode, mode)
        self.assertEqual(sorted(path.name for path in self.directory.iterdir()), ["lib.c", "lib.so", "share"])

    def test_runs_again_after_each_link(self) -> None:
        for text in ("first", "second"):
            self.link(f"0:a.cpp:1:{text}")
            self.assertEqual(self.collect().returncode, 0)
            self.assertIn(text, self.output.read_text())

    def test_link_to_the_library_stays_a_link(self) -> None:
        self.link("0:a.cpp:1:text")
        real = self.library.rename(self.directory / "lib.so.1")
        self.library.symlink_to(real.name)
        self.assertEqual(self.collect().returncode, 0)
        self.assertTrue(self.library.is_symlink())
        self.assertNotIn(b".kova.trace", real.read_bytes())

    def test_two_texts_with_one_hash_fail(self) -> None:
        one, other = colliding_texts()
        self.assertNotEqual(one, other)
        self.assertEqual(trace_hash(one, 0), trace_hash(other, 0))
        self.link(f"0:a.cpp:1:{one}", f"0:b.cpp:2:{other}")
        done = self.collect()
        self.assertEqual(done.returncode, 1)
        for part in (f'"{one}"', "a.cpp:1", f'"{other}"', "b.cpp:2"):
            self.assertIn(part, done.stderr)
        self.assertFalse(self.output.exists())
        self.assertIn(b".kova.trace", self.library.read_bytes())

    def test_wrong_number_of_values_fails(self) -> None:
        self.link("2:a.cpp:5:code=%d")
        done = self.collect()
        self.assertEqual(done.returncode, 1)
        self.assertIn("a.cpp:5", done.stderr)
        self.assertIn("1 conversions but 2 values", done.stderr)

    def test_conversion_the_viewer_does_not_know_fails(self) -> None:
        for text in ("%f", "%*d", "%n", "50%"):
            self.link(f"1:a.cpp:5:{text}")
            done = self.collect()
            self.assertEqual(done.returncode, 1, text)
            self.assertIn("a.cpp:5", done.stderr)

    def test_control_character_fails(self) -> None:
        self.link("0:a.cpp:5:tab\\there")
        done = self.collect()
        self.assertEqual(done.returncode, 1)
        self.assertIn("control character", done.stderr)

    def test_malformed_entry_fails(self) -> None:
        for entry in ("no colons", "x:a.cpp:1:text", "0:a.cpp:x:text"):
            self.link(entry)
            done = self.collect()
            self.assertEqual(done.returncode, 1)
            self.assertIn("COUNT:FILE:LINE:TEXT", done.stderr)

    def test_library_without_the_section_fails(self) -> None:
        self.link()
        done = self.collect()
        self.assertEqual(done.returncode, 1)
        self.assertIn(".kova.trace", done.stderr)
        self.assertNotIn("Traceback", done.stderr)
        self.assertTrue(self.library.exists())

    def test_missing_library_fails(self) -> None:
        done = self.collect()
        self.assertEqual(done.returncode, 1)
        self.assertIn("lib.so", done.stderr)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    for name in ("--cc", "--objcopy", "--script"):
        parser.add_argument(name, required=True)
    rest = parser.parse_known_args(namespace=OPTIONS)[1]
    unittest.main(argv=[sys.argv[0], *rest])
