"""The sites of tests/faults: whose code a program's addresses are, and what stands there."""

import bisect
import pathlib
import re
import struct
import subprocess

from figures import ROOT, Failed

OTHERS, OURS, TESTS = 0, 1, 2
BEFORE_MAIN = ("_GLOBAL__sub_I_", "_Z41__static_initialization_and_destruction_0")
# A compiler cache leaves the folder of whoever compiled first in the debug information.
OWN_PATH = re.compile(r"(?:^|/)((?:src|platform|sdk|apps|include|tests|trust)/.*)")


def own_path(name):
    """The path below the project's folder, or None for a file that is not of the project."""
    if name.startswith("/usr/"):
        return None
    parts = []
    for part in name.split("/"):
        if part == "..":
            parts = parts[:-1]
        elif part != ".":
            parts.append(part)
    normal = "/".join(parts)
    for found in OWN_PATH.finditer(normal):
        if (ROOT / found[1]).is_file():
            return found[1]
    return None


def owner(path):
    if path is None or path.startswith("tests/faults/"):
        return OTHERS
    return TESTS if path.startswith(("tests/", "trust/")) else OURS


def lines_of(program, addresses, *options):
    """What addr2line says to each address, without demangling."""
    asked = "\n".join(f"{address:x}" for address in addresses)
    told = subprocess.run(["addr2line", *options, "-e", program], input=asked, capture_output=True, text=True)
    if told.returncode != 0:
        raise Failed(f"addr2line of {program}: {told.stderr}")
    return told.stdout.splitlines()


def write_code(program, target):
    """Writes what TOLM_FAULTS_CODE is to name (tests/faults/Sites.h)."""
    symbols = subprocess.run(["nm", "-S", "--defined-only", program], capture_output=True, text=True, check=True)
    functions, before_main = {}, set()
    for line in symbols.stdout.splitlines():
        words = line.split()
        if len(words) == 4 and words[2] in "tTwWuV":
            functions[int(words[0], 16)] = int(words[1], 16)
            if words[3].startswith(BEFORE_MAIN):
                before_main.add(int(words[0], 16))
    begins = sorted(functions)
    files = [line.rpartition(":")[0] for line in lines_of(program, begins)]
    owners = {name: owner(own_path(name)) for name in set(files)}
    records, last = [], 0
    for begin, name in zip(begins, files):
        end = begin + functions[begin]
        # A program that cannot even begin has nobody to tell.
        whose = TESTS if begin in before_main else owners[name]
        if whose != OTHERS and begin >= last:
            records.append(struct.pack("<III", begin, end, whose))
            last = end
    if not records:
        raise Failed(f"{program} has no functions of ours, or no debug information")
    target.write_bytes(b"".join(records))


class Names:
    """What stands at an address: "function (file:line)"."""

    def __init__(self, program):
        self.program = program
        self.known = {}

    def look_up(self, addresses):
        new = sorted({address for address in addresses if address} - self.known.keys())
        if not new:
            return
        told = lines_of(self.program, new, "-f", "-C")
        for address, function, place in zip(new, told[::2], told[1::2]):
            name, _, line = place.partition(" (")[0].rpartition(":")
            function = function.replace("(anonymous namespace)::", "").partition("(")[0]
            self.known[address] = f"{function} ({own_path(name) or name}:{line})"

    def of(self, frames):
        return " < ".join(self.known.get(frame, f"{frame:x}") for frame in frames if frame)
