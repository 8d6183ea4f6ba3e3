"""Runs the fuzz targets of fuzz/targets.ini, two at a time, and tells what they executed and found.

    ./dev fuzz [--seconds N] [--only TARGET]...
"""

import argparse
import concurrent.futures
import configparser
import dataclasses
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

from figures import ROOT, Failed, Run

SECONDS = 30
AT_A_TIME = 2
# An input that takes longer is a hang, one that makes the process larger is growth; for what is allocated at once, too.
TIME_OUT = 20
MEGABYTES = 1024
LEAST_COVERAGE = 80


@dataclasses.dataclass
class Target:
    name: str
    sources: list  # the parser's own, whose lines are counted
    parsers: dict  # names of functions and classes by header
    coverage: int  # the least share of their lines, in percent
    options: list  # of the fuzzer


def by_header(text):
    """"header: name name" a line."""
    lines = [line.split(":") for line in text.strip().splitlines()]
    return {header.strip(): names.split() for header, names in lines}


def read_list(path):
    """The targets, and what looks like a parser and has none: the reason by (header, name)."""
    parser = configparser.ConfigParser(delimiters=("=",), interpolation=None)
    parser.optionxform = str
    parser.read_string(pathlib.Path(path).read_text())
    exceptions = {}
    if parser.has_section("exceptions"):
        for names, reason in parser["exceptions"].items():
            header, words = names.split(":")
            exceptions |= {(header.strip(), name): reason for name in words.split()}
        parser.remove_section("exceptions")
    targets = [Target(name, parser[name]["sources"].split(), by_header(parser[name]["parsers"]),
                      parser[name].getint("coverage", LEAST_COVERAGE), parser[name].get("options", "").split())
               for name in parser.sections()]
    return targets, exceptions


@dataclasses.dataclass
class Outcome:
    target: Target
    executions: int
    corpus: int    # inputs that each do something of their own
    coverage: float
    faults: int
    what: str      # for people; empty without a fault


def line_coverage(program, profile, sources):
    """The share of the lines of `sources` that were executed, in percent."""
    merged = profile.with_suffix(".profdata")
    subprocess.run(["llvm-profdata-14", "merge", "-sparse", profile, "-o", merged], check=True)
    exported = subprocess.run(["llvm-cov-14", "export", "-summary-only", f"-instr-profile={merged}", program],
                              check=True, capture_output=True, text=True)
    profile.unlink()
    lines = {source: None for source in sources}
    for file in json.loads(exported.stdout)["data"][0]["files"]:
        for source in sources:
            if file["filename"].endswith("/" + source):
                lines[source] = file["summary"]["lines"]
    missing = [source for source, summary in lines.items() if summary is None]
    if missing:
        raise Failed(f"{program.name} does not hold {', '.join(missing)}")
    return round(100 * sum(one["covered"] for one in lines.values()) / sum(one["count"] for one in lines.values()), 1)


def fuzz(target, folder, seconds, scratch):
    """One target; its inputs are kept in build/fuzz/inputs, and those that show a fault in build/fuzz/faults."""
    program = folder / f"fuzz_{target.name}"
    inputs = folder.parent / "inputs" / target.name
    faults = folder.parent / "faults"
    for needed in (inputs, faults):
        needed.mkdir(parents=True, exist_ok=True)
    profile = pathlib.Path(scratch) / f"{target.name}.profraw"
    own = pathlib.Path(scratch) / target.name
    own.mkdir()
    before = set(faults.iterdir())
    done = subprocess.run(
        [program, inputs, ROOT / "fuzz/corpus" / target.name, f"-dict={ROOT / 'fuzz' / target.name}.dict",
         f"-max_total_time={seconds}", f"-timeout={TIME_OUT}", f"-rss_limit_mb={MEGABYTES}",
         f"-artifact_prefix={faults}/{target.name}-", "-print_final_stats=1", *target.options],
        capture_output=True, text=True, errors="replace", preexec_fn=lambda: os.nice(10),
        env=os.environ | {"LLVM_PROFILE_FILE": str(profile), "TMPDIR": str(own)})
    (inputs.parent / f"{target.name}.log").write_text(done.stderr)
    executions = re.search(r"stat::number_of_executed_units:\s*(\d+)", done.stderr)
    sizes = re.findall(r"\bcorp: (\d+)/", done.stderr)
    outcome = Outcome(target, int(executions[1]) if executions else 0, int(sizes[-1]) if sizes else 0, 0, 0, "")
    if done.returncode != 0:
        kept = sorted(str(path.relative_to(ROOT)) for path in set(faults.iterdir()) - before)
        outcome.faults = 1
        outcome.what = f"{target.name} ended with {done.returncode}, {' '.join(kept) or 'and kept no input'}:\n" + \
            "\n".join(f"  {line}" for line in done.stderr.splitlines()[-60:])
    elif profile.exists():
        outcome.coverage = line_coverage(program, profile, target.sources)
    return outcome


def report(run, outcome):
    name = outcome.target.name
    # The kept inputs alone are no search.
    least = 2 * sum(1 for _ in (ROOT / "fuzz/corpus" / name).iterdir())
    run.add(f"fuzz.{name}.executions", outcome.executions, "inputs", f">= {least}", outcome.executions >= least)
    run.add(f"fuzz.{name}.corpus", outcome.corpus, "inputs", "none", True)
    if not outcome.faults:
        least = outcome.target.coverage
        run.add(f"fuzz.{name}.line_coverage", outcome.coverage, "%", f">= {least}", outcome.coverage >= least)
    run.add(f"fuzz.{name}.faults", outcome.faults, "faults", "0", outcome.faults == 0)
    if outcome.what:
        print(outcome.what, flush=True)


def run_all(run, seconds, only=()):
    targets, _ = read_list(ROOT / "fuzz/targets.ini")
    unknown = set(only) - {target.name for target in targets}
    if unknown:
        raise Failed(f"no such target: {' '.join(sorted(unknown))}")
    for tool in ("llvm-profdata-14", "llvm-cov-14"):
        if not shutil.which(tool):
            raise Failed(f"{tool} is not installed")
    wanted = [target for target in targets if not only or target.name in only]
    folder = run.build("fuzz", *(f"fuzz_{target.name}" for target in wanted))
    # Where there is memory for files, targets that read files are ten times faster.
    in_memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(prefix="tolm-fuzz-", dir=in_memory) as scratch, \
            concurrent.futures.ThreadPoolExecutor(AT_A_TIME) as pool:
        for outcome in pool.map(lambda target: fuzz(target, folder, seconds, scratch), wanted):
            report(run, outcome)


def main():
    parser = argparse.ArgumentParser(prog="./dev fuzz", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seconds", type=int, default=SECONDS, help=f"for each target; without it {SECONDS}")
    parser.add_argument("--only", metavar="TARGET", action="append", default=[], help="this target only, can be given again")
    wanted = parser.parse_args()
    run = Run(False)
    try:
        run_all(run, wanted.seconds, wanted.only)
    except Failed as error:
        print(f"dev: {error}", file=sys.stderr)
        return 1
    missed = [figure.name for figure in run.figures if not figure.ok]
    print(f"{len(run.figures)} figures, {len(missed)} missed{': ' if missed else ''}{' '.join(missed)}")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
