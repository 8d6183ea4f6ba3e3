"""Who gets in: endpoints, ids and the guard's port row by row, and no session id in any log."""

import os
import pathlib
import re
import tempfile
import xml.etree.ElementTree

from figures import ROOT, Failed, finished

ORDER = 80

# What goes through tables: which cases of which program. Each leaves how many rows it had, and how many were wrong.
TABLES = {
    "unit_lpc": "OsEndpointAccess.*",
    "unit_base": "LogFileAccess.*",
    "unit_os": "OsInheritance.*:OsPrivateFiles.*",
    "guard_core_test": "OutputFileAccess.Each*:SecondUserServer.*",
    "unit_net": "NetUpgradeMatrix.*:NetSecondUser.*:NetDescriptors.OfTheServer*",
    "transport_test": "*IdsThatTryTricks*:*OfTwentyThatWant*:*AnIdIsFreeAsSoon*:*AHolderThatComesBack*:SecondUser.*",
    "system_test": "Descriptors.*",
    "guarded_test": "Inheritance.*",
}
LEAST_ROWS = {"endpoint": 100, "second_user": 20, "id": 60, "upgrade": 40, "files": 40, "inherited": 80}

# All tests log into the folder that is searched, but for the suites that take minutes, and for those that a log of
# everything turns into others: they ask what is not logged, what a line costs, what a child has open (its own log), or
# what is told when memory is short (the log's lines take theirs).
NOT_LOGGING = "|".join((
    r"\.Long[A-Z][A-Za-z]*\.", "WhatNobodyWantsLogged", "NoArgumentWhenNobodyWants", r"\.Log\.Wants", "LogAllocation",
    "NoDescriptorIsInherited", "HasNoDescriptorWhatever", "GuardShortage",
))

SESSION_ID = re.compile(rb"sid=[0-9a-f]{32}", re.IGNORECASE)
# The tests' own ones, should anything cut them out of their urls.
KNOWN = re.compile(rb"5ec7e75ec7e75ec7e75ec7e75ec7e75e|0123456789abcdefabcdef0123456789", re.IGNORECASE)
MASKED = re.compile(rb"sid=\*{32}", re.IGNORECASE)

# Lines that show something as it is, because that is what they are for; the rest of each is searched. Of each: what
# it shows, and the two texts between which that stands (the second empty: up to the end).
AS_IT_IS = {
    "the whole body of a call of the host": (b",body=[", b""),
    "the body of a message with an url": (b"lpc_body =[", b"], mt_method["),
    "a text of the guard, as it came": (b", data = ", b""),
    "a text of the guard, as it is handled": (b"str_raw_msg:", b""),
    "a text for the guard": (b"send_data = ", b""),
    "a text for the guard that was not sent": (b",data=", b",session_id="),
    "the plugins' command line": (b"plugin_cmdline[", b""),
    "what a plugin prints": (b" [out] ", b""),
}
# How lines begin: those of our own log, and those of a plugin's.
RECORD = re.compile(rb"^\[?\d{4}-\d\d-\d\d ")


def run(run):
    programs = run.build("dev", "all")
    tables(run, programs)
    secrets(run, programs)


def tables(run, programs):
    rows, wrong = {}, {}
    skipped = False
    for program, cases in TABLES.items():
        with tempfile.TemporaryDirectory() as folder:
            record = pathlib.Path(folder) / "record.xml"
            process = finished([programs / program, f"--gtest_filter={cases}", f"--gtest_output=xml:{record}"], 600)
            if not record.exists():
                raise Failed(f"{program} left no record:\n{process.stdout[-2000:]}{process.stderr[-2000:]}")
            root = xml.etree.ElementTree.parse(record).getroot()
        if process.returncode != 0:
            print(process.stdout[-4000:])
        found = 0
        for case in root.iter("testcase"):
            found += 1
            name = f"{case.get('classname')}.{case.get('name')}"
            if case.find("skipped") is not None:
                print(f"  skipped: {name}: {case.find('skipped').get('message', '').strip()}")
                skipped |= "SecondUser" in name
                continue
            table = None
            for one in case.iter("property"):
                table, _, what = one.get("name").rpartition(".")
                (rows if what == "rows" else wrong).setdefault(table, []).append(int(one.get("value")))
            if table is None:
                raise Failed(f"{name} has left no rows")
            # A case may fail beside its rows.
            if case.find("failure") is not None and wrong[table][-1] == 0:
                wrong[table].append(1)
        if found == 0:
            raise Failed(f"{program} has no case {cases}")
    for table, least in LEAST_ROWS.items():
        count = sum(rows.get(table, []))
        if table == "second_user" and skipped:
            run.add("access.second_user.skipped", 1, "bool", "none", True)
            continue
        run.add(f"access.{table}.rows", count, "rows", f">= {least}", count >= least)
        faults = sum(wrong.get(table, []))
        run.add("access.inherited" if table == "inherited" else f"access.{table}.wrong", faults, "rows", "0",
                faults == 0)


def secrets(run, programs):
    with tempfile.TemporaryDirectory(prefix="tolm-logs-") as folder:
        tested = finished(["ctest", "--test-dir", programs.parent, "-E", NOT_LOGGING, "-j", 2 * os.cpu_count()], 3600,
                          cwd=ROOT, env=os.environ | {"TOLM_TEST_LOG_FOLDER": folder})
        summary = re.search(r"(\d+) tests failed out of (\d+)", tested.stdout)
        if summary is None or int(summary[2]) == 0:
            raise Failed(f"the tests did not run:\n{tested.stdout[-2000:]}{tested.stderr[-2000:]}")
        if tested.returncode != 0:
            print(tested.stdout[tested.stdout.rfind("The following tests FAILED"):])
        run.add("access.secrets.tests", int(summary[2]), "tests", ">= 1500", int(summary[2]) >= 1500)
        run.add("access.secrets.tests_failed", int(summary[1]), "tests", "0", int(summary[1]) == 0)
        search(run, pathlib.Path(folder))


def search(run, folder):
    lines = masked = found = 0
    shown = dict.fromkeys(AS_IT_IS, 0)
    for path in sorted(folder.iterdir()):
        for line, begins in records(path):
            lines += 1
            masked += bool(MASKED.search(line))
            if not (SESSION_ID.search(line) or KNOWN.search(line)):
                continue
            rest, why = without_what_is_shown(line, begins)
            if SESSION_ID.search(rest) or KNOWN.search(rest):
                found += 1
                print(f"  {path.name}: {line[:300]!r}")
            else:
                shown[why] += 1
    for why, count in shown.items():
        if count:
            print(f"  {count} lines show {why}, with a session id in it")
    run.add("access.secrets.lines_searched", lines, "lines", ">= 10000", lines >= 10000)
    run.add("access.secrets.masked", masked, "lines", ">= 100", masked >= 100)
    run.add("access.secrets.found", found, "lines", "0", found == 0)


def records(path):
    """Each line of a log, and the line that it goes on from, when what that shows has line feeds."""
    begins = b""
    with path.open("rb") as file:
        for line in file:
            if RECORD.match(line):
                begins = line
            yield line, begins


def without_what_is_shown(line, begins):
    if begins is not line:
        # It goes on with what the line before has begun to show.
        for why, (front, behind) in AS_IT_IS.items():
            if front in begins and not behind:
                return b"", why
        return line, ""
    for why, (front, behind) in AS_IT_IS.items():
        before, at, after = line.partition(front)
        # What a plugin prints may be a line of our own log.
        if not at or RECORD.match(after):
            continue
        return before + (after[after.rfind(behind):] if behind and behind in after else b""), why
    return line, ""
