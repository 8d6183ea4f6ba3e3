#!/usr/bin/env python3
"""Checks packages: unpacks each into a temporary folder, looks for what it has to hold, builds programs with it
and nothing else of ours, and runs them. Its exit status is 0 when all of them are as they should be.

  check.py FOLDER VERSION linux|windows...
"""

import pathlib
import signal
import sys
import tempfile

# The tree stays as it is.
sys.dont_write_bytecode = True

import consume
import contents
import hardening
import run
import unpack
from fault import Fault

ROOT = pathlib.Path(__file__).resolve().parents[2]
CONSUMER = pathlib.Path(__file__).resolve().parent / "consumer"
TOOLCHAIN = ROOT / "cmake/toolchains/windows-x86_64.cmake"


def check_prefix(prefix, work, version, windows):
    contents.check_files(prefix, ROOT, version, windows)
    contents.check_no_path_of_the_build(prefix, ROOT)
    contents.check_exported_targets(prefix)
    hardening.check_hardening(prefix)
    toolchain = TOOLCHAIN if windows else None
    consume.build_examples(prefix, work / "examples", toolchain)
    functions = consume.build_consumer(prefix, CONSUMER, work / "consumer", toolchain)
    if not windows:
        consume.build_with_pkg_config(prefix, version, work / "pkg-config")
    with run.Runner(ROOT, work, windows) as runner:
        run.check_version(runner, prefix, version)
        run.run_examples(runner, work / "examples")
        run.run_consumer(runner, work / "consumer", functions)
        if not windows:
            run.run_examples(runner, work / "pkg-config", libraries=prefix / "lib")
        run.run_host_with_guard(runner, prefix, work / "examples/example_clock_plugin", work / "host")


def check(kind, packages, version):
    with tempfile.TemporaryDirectory(prefix="tolm-package-") as folder:
        work = pathlib.Path(folder).resolve()
        unpacked = work / "unpacked"
        unpacked.mkdir()
        windows = kind == "zip"
        unpackers = {"tarball": unpack.unpack_tarball, "debs": unpack.unpack_debian, "zip": unpack.unpack_zip}
        prefix = unpackers[kind](packages, version, unpacked)
        if kind != "debs":
            contents.check_licence_files(prefix, windows)
        check_prefix(prefix, work, version, windows)


def main(arguments):
    kinds = {"linux": ["tarball", "debs"], "windows": ["zip"]}
    if len(arguments) < 3 or not set(arguments[2:]) <= set(kinds):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    # So that what was started and unpacked goes, too.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    packages, version = pathlib.Path(arguments[0]).resolve(), arguments[1]
    faults = 0
    for kind in [kind for system in arguments[2:] for kind in kinds[system]]:
        try:
            check(kind, packages, version)
            print(f"{kind}: as it should be", flush=True)
        except Fault as fault:
            faults += 1
            print(f"{kind}: {fault}", file=sys.stderr, flush=True)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
