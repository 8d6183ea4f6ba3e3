#!/usr/bin/env bash
# A second compiler's opinion on what is built for Windows: clang reads every file of the preset "windows",
# with that build's include folders and definitions and MinGW's headers, and makes nothing of it. To be
# called after that preset has been configured; with arguments, only for files whose path has one of them in it.
set -euo pipefail
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."

commands=build/windows/compile_commands.json
clang=clang++-14
jobs=${TOLM_SYNTAX_JOBS:-2}
fail() { printf 'scripts/syntax-windows.sh: %s\n' "$*" >&2; exit 1; }

[ -f "$commands" ] || fail "there is no $commands: configure the preset 'windows' first"
command -v "$clang" >/dev/null || fail "there is no $clang"
gcc=$(x86_64-w64-mingw32-g++-posix -print-file-name=include) || fail "there is no MinGW-w64 with posix threads"
[ -d "$gcc/c++/x86_64-w64-mingw32" ] || fail "no headers of the standard library below $gcc"

options=(--target=x86_64-w64-mingw32 -fsyntax-only -pedantic -Wall -Wextra -Wconversion -Wshadow -Wthread-safety -Werror
  # clang would take the headers of a MinGW of its own choice, or the build machine's.
  -nostdinc++ -nostdlibinc -isystem "$gcc/c++" -isystem "$gcc/c++/x86_64-w64-mingw32" -isystem "$gcc/c++/backward"
  -idirafter /usr/x86_64-w64-mingw32/include
  # What follows differs between the compilers without a fault in the code.
  # GCC does not ask for the members that a designated initialiser leaves to their defaults.
  -Wno-missing-field-initializers
  # clang 14 has no other name for the formats that GCC calls gnu_printf: its own printf means these.
  -Dgnu_printf=printf)

list=$(mktemp)
trap 'rm -f "$list"' EXIT
# One line for each file: the file, then its include folders and definitions. All else is GCC's or the build's.
python3 - "$commands" "$@" >"$list" <<'PYTHON'
import json, os, shlex, sys

root, seen = os.getcwd(), set()
for entry in json.load(open(sys.argv[1])):
    file = os.path.relpath(entry["file"], root)
    # Neither what others wrote nor what the build generates.
    if not file.endswith(".cpp") or file.startswith(("build/", "..")) or file in seen:
        continue
    if len(sys.argv) > 2 and not any(part in file for part in sys.argv[2:]):
        continue
    seen.add(file)
    kept, words = [file], iter(shlex.split(entry["command"]))
    for word in words:
        if word in ("-isystem", "-include"):
            kept += [word, next(words)]
        elif word.startswith(("-I", "-D", "-std=")):
            kept.append(word)
    print(shlex.join(kept))
PYTHON
files=$(wc -l <"$list")
[ "$files" != 0 ] || fail "no such file in $commands"

# Each file says what it has to say at once, and the others are looked at all the same.
export clang
check() {
  local words said
  eval "words=($1)"
  shift
  [ -f "${words[0]}" ] || { printf '%s: there is no such file any more\n' "${words[0]}" >&2; return 1; }
  said=$("$clang" "$@" "${words[@]:1}" "${words[0]}" 2>&1) || { printf '%s\n' "$said" >&2; return 1; }
}
export -f check
tr '\n' '\0' <"$list" | xargs -0 -P "$jobs" -I{} bash -c 'check "$@"' check {} "${options[@]}" ||
  fail "clang found something"
printf 'clang finds nothing in %d files of the Windows build\n' "$files" >&2
