"""All tests in builds by both compilers, for debugging and for release."""

import os
import re

from figures import ROOT, finished

ORDER = 95
PRESETS = ("dev", "gcc-release", "clang-debug", "clang-release")


def run(run):
    for preset in PRESETS:
        run.build(preset, "all")
        tests = finished(["ctest", "--test-dir", ROOT / "build" / preset, "-j", 2 * os.cpu_count(),
                          "--output-on-failure", "--no-tests=error"], 3600)
        passed = re.search(r"(\d+) tests? failed out of (\d+)", tests.stdout)
        failed, all_tests = (int(passed[1]), int(passed[2])) if passed else (1, 0)
        if failed:
            print(tests.stdout[-8000:])
        run.add(f"builds.{preset}.tests", all_tests, "tests", ">= 1", all_tests >= 1)
        run.add(f"builds.{preset}.failed", failed, "tests", "0", failed == 0 and tests.returncode == 0)
