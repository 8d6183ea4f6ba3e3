"""Which lines and branches of our code the tests execute."""

import json
import os
import shutil

from figures import ROOT, Failed, finished

ORDER = 90
# Folders that have to be executed nearly whole, and the share in percent.
WANTED = {"src": 95, "platform/TolmLPCServer/src/wire": 95}
SHOWN = ("platform/TolmBase", "platform/TolmLPCServer/src/server", "platform/TolmLPCServer/src/client",
         "platform/TolmNet", "platform/TolmProto", "platform/os", "sdk/cpp", "apps/guard", "apps/agent")


def counted(tree):
    """Each of our sources with its lines and branches, as gcovr has them."""
    # A branch that only an exception takes stands at each call; those say nothing.
    done = finished(
        ["gcovr", "--root", ROOT, "--object-directory", tree, "--gcov-executable", "gcov-12", "--exclude-throw-branches",
         "--exclude-unreachable-branches", "--filter", f"{ROOT}/(src|platform|sdk|apps)/", "--json-summary", "-j",
         os.cpu_count(), tree], 3600)
    if done.returncode != 0:
        raise Failed(f"gcovr failed:\n{done.stderr[-2000:]}")
    return json.loads(done.stdout)["files"]


def share(files, folder, what):
    inside = [file for file in files if file["filename"].startswith(folder + "/")]
    total = sum(file[f"{what}_total"] for file in inside)
    covered = sum(file[f"{what}_covered"] for file in inside)
    if total == 0:
        raise Failed(f"nothing was counted in {folder}")
    return round(100 * covered / total, 2)


def run(run):
    if not shutil.which("gcovr"):
        raise Failed("gcovr is not installed")
    run.build("coverage", "all")
    tree = ROOT / "build/coverage"
    for old in tree.rglob("*.gcda"):
        old.unlink()
    tests = finished(["ctest", "--test-dir", tree, "-j", 2 * os.cpu_count(), "--output-on-failure"], 3600)
    if tests.returncode != 0:
        raise Failed(f"tests failed:\n{tests.stdout[-6000:]}")
    files = counted(tree)
    (tree / "coverage.json").write_text(json.dumps(files, indent=1))
    for folder, least in WANTED.items():
        lines = share(files, folder, "line")
        run.add(f"coverage.lines.{folder}", lines, "%", f">= {least}", lines >= least)
        run.add(f"coverage.branches.{folder}", share(files, folder, "branch"), "%", "none", True)
    for folder in SHOWN:
        run.add(f"coverage.lines.{folder}", share(files, folder, "line"), "%", "none", True)
        run.add(f"coverage.branches.{folder}", share(files, folder, "branch"), "%", "none", True)
    # Worst first, for whoever wants to do something about it.
    for file in sorted(files, key=lambda file: file["line_covered"] - file["line_total"])[:15]:
        print(f"  {file['line_total'] - file['line_covered']:4} of {file['line_total']:4} lines not executed in {file['filename']}")
