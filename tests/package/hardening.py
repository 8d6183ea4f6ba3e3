"""What protects the programs and libraries of a package against faults in memory, as their files show it."""

import re
import subprocess

from fault import require

OBJDUMP = "x86_64-w64-mingw32-objdump"
# Windows loads these at an address of its choice among all 64 bits, and runs no data.
WINDOWS_FLAGS = ("HIGH_ENTROPY_VA", "DYNAMIC_BASE", "NX_COMPAT")
# What the stack protector says when it ends a process; the function itself is linked in and has no name any more.
SMASHED = b"*** stack smashing detected ***"


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def faults_of_elf(file):
    headers = output("readelf", "--wide", "--file-header", "--segments", "--dynamic", file)
    symbols = output("nm", "--dynamic", "--undefined-only", file)
    stack = re.search(r"^\s*GNU_STACK\s.*$", headers, re.M)
    run_path = re.findall(r"\((?:RPATH|RUNPATH)\)[^[]*\[([^]]*)\]", headers)
    shown = {
        "lies at a fixed address": not re.search(r"Type:\s+DYN ", headers),
        "has writable relocations (no -z relro)": "GNU_RELRO" not in headers,
        "resolves functions while it runs (no -z now)": not re.search(r"BIND_NOW|Flags:.*\bNOW\b", headers),
        "can run its stack": stack is None or " RWE " in stack[0],
        "has relocations in its code": "TEXTREL" in headers,
        f"looks for libraries in {run_path}": any(not path.startswith("$ORIGIN") for path in run_path if path),
        "does not guard its stack": "__stack_chk_fail" not in symbols,
        "does not check the sizes of what it copies": not re.search(r"\b__\w+_chk\b", symbols.replace("__stack_chk_fail", "")),
    }
    return [what for what, wrong in shown.items() if wrong]


def faults_of_pe(file):
    headers = output(OBJDUMP, "-p", file)
    shown = {f"has no {flag}": flag not in headers for flag in WINDOWS_FLAGS}
    shown["does not guard its stack"] = SMASHED not in file.read_bytes()
    return [what for what, wrong in shown.items() if wrong]


def faults_of_archive(file):
    symbols = output("nm", file)
    return [] if "__stack_chk_fail" in symbols else ["does not guard its stack"]


KINDS = {b"\x7fELF": faults_of_elf, b"MZ": faults_of_pe, b"!<arch>\n": faults_of_archive}


def binaries(prefix):
    """Each program, library and archive below `prefix`, and what gives its faults."""
    for file in sorted(prefix.rglob("*")):
        if not file.is_file() or file.is_symlink() or file.name.endswith(".dll.a"):
            continue
        begin = file.read_bytes()[:8]
        for mark, faults_of in KINDS.items():
            if begin.startswith(mark):
                yield file, faults_of


def check_hardening(prefix):
    found = list(binaries(prefix))
    require(len(found) >= 5, f"too few binaries below {prefix}: {[file.name for file, _ in found]}")
    wrong = [f"{file.relative_to(prefix)} {what}" for file, faults_of in found for what in faults_of(file)]
    require(not wrong, "not protected as it should be:\n  " + "\n  ".join(wrong))
