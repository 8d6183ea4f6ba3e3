#!/usr/bin/env python3
"""How many instructions the hot paths execute, against the counts that the repository keeps.

    instructions.py PROGRAM [--only PATH] [--update REASON]

PROGRAM is bench/instructions' frame_instructions, built for speed. Each path runs in a process of its own under
callgrind, which counts what the processor is told and not how long that takes, so that a loaded machine counts the
same. "./dev instructions" calls this.
"""

import argparse
import concurrent.futures
import datetime
import os
import pathlib
import re
import subprocess
import sys
import tempfile

COUNTS = pathlib.Path(__file__).resolve().parent.parent / "bench/instructions/counts.tsv"
TOLERANCE = 0.03

HEADER = """\
# Instructions per operation of the hot paths in bench/instructions, as callgrind counts them. Written by
# "./dev instructions --update REASON" and compared by "./dev instructions".
"""

# The C library chooses its memcpy, strlen and so on by the processor. Without these, each one takes the same.
HWCAPS = ("AVX AVX2 AVX512F AVX512VL AVX512BW AVX_Fast_Unaligned_Load BMI1 BMI2 LZCNT MOVBE POPCNT SSSE3 SSE4_1 "
          "SSE4_2 ERMS FSRM RTM FMA FMA4 XSAVE XSAVEC Fast_Unaligned_Copy Fast_Unaligned_Load Fast_Rep_String "
          "Prefer_No_VZEROUPPER Prefer_ERMS Prefer_FSRM Slow_SSE4_2 Slow_BSF").split()

ENVIRONMENT = {
    "PATH": "/usr/local/bin:/usr/bin:/bin",
    "LC_ALL": "C",
    "LD_BIND_NOW": "1",
    "GLIBC_TUNABLES": "glibc.cpu.hwcaps=" + ",".join("-" + name for name in HWCAPS),
}


class Failed(Exception):
    """The message is for the user."""


def output_of(program, *arguments, under=()):
    # Under the same name from everywhere: texts of other lengths shift what lies behind them in memory.
    command = [*under, f"./{program.name}", *arguments]
    done = subprocess.run(command, cwd=program.parent, env=ENVIRONMENT, capture_output=True, text=True, timeout=300)
    if done.returncode != 0:
        raise Failed(f"{' '.join(command)} failed:\n{done.stdout}{done.stderr}")
    return done.stdout


def count(program, path):
    """Instructions per operation."""
    with tempfile.TemporaryDirectory(prefix="instructions-") as folder:
        result = pathlib.Path(folder, "callgrind")
        callgrind = ("valgrind", "--quiet", "--tool=callgrind", "--instr-atstart=no", f"--callgrind-out-file={result}")
        times = int(output_of(program, "--path", path, under=callgrind))
        total = re.search(r"^totals: (\d+)", result.read_text(), re.MULTILINE)
    if not total or int(total[1]) == 0:
        raise Failed(f"callgrind counted nothing of {path}")
    return round(int(total[1]) / times, 1)


class Kept:
    """The file: what built the program, a count for each path, and why they are what they are."""

    def __init__(self, file):
        self.file = file
        self.build = None
        self.counts = {}
        self.reasons = []
        if not file.exists():
            return
        for number, line in enumerate(file.read_text().splitlines(), 1):
            fields = line.split("\t")
            if not line or line.startswith("#"):
                continue
            if fields[0] == "built" and len(fields) == 2:
                self.build = fields[1]
            elif fields[0] == "count" and len(fields) == 3:
                self.counts[fields[1]] = float(fields[2])
            elif fields[0] == "reason" and len(fields) == 3:
                self.reasons.append((fields[1], fields[2]))
            else:
                raise Failed(f"{file}:{number}: not a line of this file: {line}")

    def write(self):
        lines = ["\t".join(("built", self.build))]
        lines += ["\t".join(("count", path, f"{value:.1f}")) for path, value in self.counts.items()]
        lines += ["\t".join(("reason", date, text)) for date, text in self.reasons]
        self.file.write_text(HEADER + "\n".join(lines) + "\n")


def compare(kept, now, paths):
    """Prints the table; gives what is wrong, by path."""
    width = max(len(path) for path in paths)
    print(f"{'path':<{width}} {'kept':>12} {'now':>12} {'difference':>11}")
    wrong = {}
    for path in paths:
        before, after = kept.get(path), now.get(path)
        shown = ["-" if value is None else f"{value:,.1f}" for value in (before, after)]
        difference = "-"
        if before is None:
            wrong[path] = "is not kept yet"
        elif after is None:
            wrong[path] = "is kept, and the program has no such path"
        else:
            share = after / before - 1
            difference = f"{share:+.2%}"
            if share > TOLERANCE:
                wrong[path] = f"executes more than before, by {share:.1%}"
            elif share < -TOLERANCE:
                wrong[path] = f"executes less than before, by {-share:.1%}: a gain is to be kept, so that it stays"
        print(f"{path:<{width}} {shown[0]:>12} {shown[1]:>12} {difference:>11}{'  <--' if path in wrong else ''}")
    return wrong


def update(kept, now, build, only, reason):
    if only is None:
        kept.counts = now
    else:
        kept.counts = kept.counts | now
        if only not in now:
            del kept.counts[only]
        reason = f"{only}: {reason}"
    kept.build = build
    kept.reasons.append((datetime.date.today().isoformat(), reason))
    kept.write()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("program", type=pathlib.Path)
    parser.add_argument("--only", metavar="PATH", help="this path only")
    parser.add_argument("--update", metavar="REASON", help="keep what is counted now, and say why it has changed")
    arguments = parser.parse_args()
    reason = None
    if arguments.update is not None:
        reason = " ".join(arguments.update.split())
        if not reason:
            raise Failed("--update needs a reason, which is kept with the counts")

    program = arguments.program.resolve()
    build = output_of(program, "--build").strip()
    kept = Kept(COUNTS)
    if reason is None and kept.build is not None and kept.build != build:
        print(f"Not compared: the counts were kept of\n  {kept.build}\nand this program is\n  {build}\n"
              "Another compiler, or C library, counts otherwise.")
        return 0

    if arguments.only is not None and kept.build not in (None, build):
        raise Failed(f"the kept counts are of another build ({kept.build}); update them all")

    existing = output_of(program, "--list").split()
    wanted = existing if arguments.only is None else [path for path in existing if path == arguments.only]
    if arguments.only is not None and arguments.only not in existing and arguments.only not in kept.counts:
        raise Failed(f"no such path: {arguments.only}. There are: {' '.join(existing)}")
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        now = dict(zip(wanted, pool.map(lambda path: count(program, path), wanted)))

    gone = [path for path in kept.counts if path not in existing and arguments.only in (None, path)]
    wrong = compare(kept.counts, now, wanted + gone)
    if reason is not None:
        update(kept, now, build, arguments.only, reason)
        print(f"Kept in {COUNTS.relative_to(COUNTS.parents[2])}, with the reason.")
        return 0
    if not wrong:
        print(f"Every path is within {TOLERANCE:.0%} of what is kept.")
        return 0
    for path, what in wrong.items():
        print(f"{path} {what}", file=sys.stderr)
    print('If that is meant: ./dev instructions --update "why"', file=sys.stderr)
    return 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (Failed, subprocess.TimeoutExpired, OSError) as error:
        print(f"instructions: {error}", file=sys.stderr)
        sys.exit(2)
