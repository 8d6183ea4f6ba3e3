"""What the frame promises under load, faults and hostile input, measured.

    ./dev trust [--long] [--only CHECK]... [--json FILE] [--record]

Each check prints figures: what was measured, and the bound that it has to keep. The run fails when one is
missed. Everything that it starts is its own, in folders of its own.
"""

import argparse
import json
import pathlib
import sys
import traceback

import checks
import report
from figures import Run, Failed


def arguments():
    parser = argparse.ArgumentParser(prog="./dev trust", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--long", action="store_true", help="the long runs: hours instead of minutes")
    parser.add_argument("--only", metavar="CHECK", action="append", choices=sorted(checks.ALL),
                        help=f"this check only, can be given again; there are: {', '.join(checks.ALL)}")
    parser.add_argument("--json", metavar="FILE", type=pathlib.Path, help="write the figures there, too")
    parser.add_argument("--record", action="store_true", help="write them into docs/reliability.md")
    return parser.parse_args()


def main():
    wanted = arguments()
    figures = []
    for name, check in checks.ALL.items():
        if wanted.only and name not in wanted.only:
            continue
        print(f"== {name}: {check.__doc__.strip().splitlines()[0]}", flush=True)
        run = Run(wanted.long)
        try:
            check.run(run)
        except Exception as error:  # one check's fault is not to cost the figures of the others
            run.add(f"{name}.completed", 0, "bool", "1", False)
            print(f"{name}: {error}", file=sys.stderr)
            if not isinstance(error, Failed):
                traceback.print_exc()
        if not run.figures:
            run.add(f"{name}.completed", 0, "bool", "1", False)
            print(f"{name}: measured nothing", file=sys.stderr)
        figures += run.figures
        if wanted.record:
            report.record(name, run.figures, wanted.long)
    if wanted.json:
        wanted.json.write_text(json.dumps([figure.fields() for figure in figures], indent=1) + "\n")
    missed = [figure.name for figure in figures if not figure.ok]
    print(f"{len(figures)} figures, {len(missed)} missed{': ' if missed else ''}{' '.join(missed)}")
    return 1 if missed else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
