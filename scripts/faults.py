#!/usr/bin/env python3
"""Lets each fallible call of a test program fail, one at a time, and shows what that does.

    scripts/faults.py build/asan/bin/unit_lpc [--kind calls|allocations] [--at TEXT] [--list] [--logs FOLDER]

Ends with 1 when something crashes, hangs or leaks.
"""

import argparse
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parent / "trust"))

import fault_runs  # noqa: E402


def arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("program", type=pathlib.Path, nargs="+")
    parser.add_argument("--kind", choices=["calls", "allocations"], help="these only")
    parser.add_argument("--at", default="", help="sites only whose description has this text")
    parser.add_argument("--once", action="store_true", help="allocations do not go on failing")
    parser.add_argument("--list", action="store_true", help="show the sites, let nothing fail")
    parser.add_argument("--jobs", type=int, default=2, help="tests at a time")
    parser.add_argument("--logs", type=pathlib.Path, help="keep the output of faults there")
    return parser.parse_args()


def main():
    wanted = arguments()
    folder = wanted.program[0].resolve().parent
    programs = fault_runs.Programs(folder, [program.name for program in wanted.program], wanted.jobs)
    faults = []

    def told(result):
        if result.outcome not in fault_runs.FAULTS + ("test", "unreached"):
            return
        words = f"{result.outcome}{' always' if result.always else ''} {result.seconds:.1f}s"
        print(f"{words}: {programs.describe(result.site)} in {result.test}", flush=True)
        if result.outcome in fault_runs.FAULTS:
            faults.append(result)
        if wanted.logs:
            wanted.logs.mkdir(parents=True, exist_ok=True)
            (wanted.logs / f"{result.outcome}-{result.site.key}{'-always' if result.always else ''}").write_text(
                f"{programs.describe(result.site)}\n{result.test}\n{result.output}")

    try:
        kinds = {"calls": False, "allocations": True}
        sites = programs.sites(lambda site: wanted.kind is None or site.is_allocation() == kinds[wanted.kind])
        sites = [site for site in sites if wanted.at in programs.describe(site)]
        if wanted.list:
            for site in sites:
                print(f"{site.key} {site.tests[0][0]:.2f}s {len(site.tests)} {programs.describe(site)}")
            return 0
        results = programs.fail_all(sites, told, allocations_go_on=not wanted.once)
    finally:
        programs.close()
    count = {outcome: sum(result.outcome == outcome for result in results) for outcome in fault_runs.OUTCOMES}
    print(f"{len(sites)} sites, {len(results)} runs: " + ", ".join(f"{count[each]} {each}" for each in count))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
