#!/usr/bin/env python3
"""Compares what the library exports, types included, with the description that the repository keeps.

  compare.py LIBRARY DESCRIPTION [--update]

Any difference fails: one that hosts notice asks for another major version, and any other for an update, by
which it is seen in a review: cmake --build build/dev --target update_abi
"""

import pathlib
import re
import subprocess
import sys

# Nothing of where it was built, and no names that depend on an order.
DUMP = ("abidw --exported-interfaces-only --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed "
        "--no-parameter-names --type-id-style hash").split()


def main(library, description, update=None):
    if update is not None:
        dump = subprocess.run([*DUMP, library], check=True, capture_output=True, text=True).stdout
        # Of the sources' paths, what is the same everywhere.
        plain = re.sub(r" path='[^']*/((?:src|cjson)/[^']*)'", r" path='\1'", dump)
        pathlib.Path(description).write_text(plain, encoding="utf-8")
        return 0
    kept = pathlib.Path(description).read_text(encoding="utf-8")
    for type_of_a_parameter in ("LPCData", "FrameCallBackData", "PlatformInfo", "cJSON"):
        if f"<class-decl name='{type_of_a_parameter}' size-in-bits" not in kept:
            print(f"{description} does not describe {type_of_a_parameter}")
            return 1
    # Its exit status is a set of bits, of which the first means that it could not compare.
    done = subprocess.run(["abidiff", "--no-show-locs", description, library], capture_output=True, text=True)
    print(done.stdout + done.stderr)
    print("as it was" if done.returncode == 0 else "another interface: see the head of tests/abi/compare.py")
    return 1 if done.returncode else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
