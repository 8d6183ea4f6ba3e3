"""Parsers against published rules: JSON, UTF-8, Base64, WebSocket, case by case with the verdict that the rule has.

The tables are in trust/sets and tests/net/rfc6455_table.py; the figures are what their programs print.
"""

import re
import sys

import figures

ORDER = 20

SUMMARY = re.compile(r"(\d+) cases in (\d+) plays, (\d+) with a remark, (\d+) wrong")


def websocket(run, programs):
    command = [sys.executable, figures.ROOT / "tests/net/rfc6455_cases.py", programs / "net_echo"]
    process = figures.finished(command, 1200)
    # The rows that are wrong, and the summary by section.
    rows, _, summary = process.stdout.partition("\n\n")
    print("\n".join("  " + row for row in rows.splitlines() if row.startswith("!!!")))
    print("\n".join("  " + row for row in summary.splitlines()), process.stderr)
    found = SUMMARY.search(summary)
    if not found:
        raise figures.Failed(f"the WebSocket cases came to no end:\n{process.stdout[-2000:]}{process.stderr}")
    cases, plays, remarks, wrong = map(int, found.groups())
    run.add("sets.websocket.cases", cases, "cases", ">= 300", cases >= 300)
    run.add("sets.websocket.plays", plays, "plays", "none", True)
    run.add("sets.websocket.remarks", remarks, "cases", "none", True)
    run.add("sets.websocket.wrong", wrong, "cases", "0", wrong == 0 and process.returncode == 0)


def run(run):
    programs = run.build("dev", "trust_sets", "trust_sets_frame", "net_echo")
    run.program([programs / "trust_sets"], 600)
    run.program([programs / "trust_sets_frame"], 600)
    websocket(run, programs)
