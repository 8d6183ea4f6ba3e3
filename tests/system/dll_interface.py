#!/usr/bin/env python3
"""What the programs and the library for Windows show and need, read from their files on the build machine.

  dll_interface.py exports OBJDUMP FILT LIBRARY CJSON_HEADER HEADER...
      The library exports the operations of the headers and all of cJSON, and nothing else.
  dll_interface.py imports OBJDUMP FILE...
      The files need only libraries that every Windows has; programs may need the frame's as well.
"""

import pathlib
import re
import subprocess
import sys

# What the host calls; read from the headers as well, so that neither list may lose one.
OPERATIONS = {
    "TolmLPCFrameInit", "TolmLPCFrameUnInit", "TolmLPCFrameNotifyStartPlugins", "TolmLPCFrameStartPlugin",
    "RegisterLpcMsgCallback", "RegisterUrl", "IsPluginURL", "GetHttpHeaders", "GetLPCLastError",
    "SubscribeNotify", "SyncSend", "AsyncSend",
    "SetLogSink", "SetLogLevel", "SetLogStderrLevel", "SetLogFile",
}

OF_WINDOWS = {
    "advapi32.dll", "bcrypt.dll", "crypt32.dll", "iphlpapi.dll", "kernel32.dll", "msvcrt.dll", "ntdll.dll",
    "psapi.dll", "shell32.dll", "user32.dll", "userenv.dll", "ws2_32.dll",
}
OF_THE_FRAME = "tolmlpcframe.dll"


def described(objdump, file):
    return subprocess.run([objdump, "-p", file], check=True, capture_output=True, text=True).stdout


def exported_names(objdump, filt, library):
    # Behind "[Ordinal/Name Pointer] Table" each line is "[ordinal] name", up to an empty one.
    table = described(objdump, library).partition("[Ordinal/Name Pointer] Table")[2].partition("\n\n")[0]
    mangled = re.findall(r"^\s*\[\s*\d+\](?:\s*\+base\[\s*\d+\])?\s+(?:[0-9a-f]{4}\s+)?(\S+)\s*$", table, re.M)
    plain = subprocess.run([filt], check=True, capture_output=True, text=True, input="\n".join(mangled)).stdout
    # An operation without its parameters; what is no function of ours keeps its whole text.
    names = [re.sub(r"^(TolmLPCFrame::\w+|cJSON\w*)(\(.*)?$", r"\1", line) for line in plain.splitlines()]
    if len(set(names)) != len(mangled):
        sys.exit(f"{library}: two exports of one name")
    return set(names)


def documented_names(cjson_header, headers):
    operation = re.compile(r"^TOLM_LPCFRAME_API [a-zA-Z:]+ ([a-zA-Z]+)\(", re.M)
    text = "\n".join(pathlib.Path(header).read_text(encoding="utf-8") for header in headers)
    operations = set(operation.findall(text))
    if operations != OPERATIONS:
        sys.exit(f"the headers and the list differ in {sorted(operations ^ OPERATIONS)}")
    cjson = re.findall(r"^CJSON_PUBLIC\([^)]*\) *([a-zA-Z_]+)\(", pathlib.Path(cjson_header).read_text(), re.M)
    if "cJSON_Parse" not in cjson:
        sys.exit(f"{cjson_header} declares no cJSON_Parse")
    return {"TolmLPCFrame::" + name for name in operations} | set(cjson)


def check_exports(objdump, filt, library, cjson_header, *headers):
    documented = documented_names(cjson_header, headers)
    exported = exported_names(objdump, filt, library)
    faults = [f"{library} does not export {name}" for name in sorted(documented - exported)]
    faults += [f"{library} exports {name}" for name in sorted(exported - documented)]
    print(f"{library}: {len(exported)} exports, {len(documented)} are documented")
    return faults


def check_imports(objdump, *files):
    faults = []
    for file in files:
        needed = {name.lower() for name in re.findall(r"DLL Name: (\S+)", described(objdump, file))}
        print(f"{file}: {' '.join(sorted(needed))}")
        if "kernel32.dll" not in needed:
            faults.append(f"{file}: its imports cannot be read")
        program = pathlib.Path(file).suffix.lower() == ".exe"
        allowed = OF_WINDOWS | ({OF_THE_FRAME} if program else set())
        faults += [f"{file} needs {name}" for name in sorted(needed - allowed)]
    return faults


def main():
    check = {"exports": check_exports, "imports": check_imports}[sys.argv[1]]
    faults = check(*sys.argv[2:])
    print("\n".join(faults) if faults else "as it should be")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
