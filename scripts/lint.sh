# What reads the sources and runs nothing of them. To be sourced by ./dev.

lint_packages=(clang-14 clang-format-14 clang-tidy-14 cppcheck)
linted=(src platform sdk apps)

configure() { # preset
  cmake --preset "$1" >"build/configure-$1.log" 2>&1 ||
    { cat "build/configure-$1.log" >&2; fail "configuring '$1' failed"; }
}

check_format() {
  say "checking the format"
  git ls-files '*.h' '*.cpp' | xargs clang-format-14 --dry-run -Werror || fail "run clang-format-14 -i on these"
}

# As clang compiles them on Linux, its own warnings included: that nothing is used without its lock is one of these.
check_tidy() {
  say "checking with clang-tidy"
  configure clang-debug
  python3 - build/clang-debug/compile_commands.json "${linted[@]}" <<'PYTHON' |
import json, os, sys
files = {os.path.relpath(entry["file"]) for entry in json.load(open(sys.argv[1]))}
print("\0".join(sorted(file for file in files if file.split("/")[0] in sys.argv[2:])), end="")
PYTHON
    xargs -0 -P "$(nproc)" -n 1 clang-tidy-14 -p build/clang-debug --quiet 2> >(grep -v ' generated\.$' >&2) ||
    fail "clang-tidy found something"
}

# It knows neither __VA_OPT__ nor what a log line is made of, so that it is told what a log line reads.
check_cppcheck() {
  say "checking with cppcheck"
  local includes
  mapfile -t includes < <(git ls-files "${linted[@]/%//*.h}" | grep -oE '.*/(include|src)/' | sort -u | sed 's/^/-I/')
  cppcheck --quiet -j "$(nproc)" --std=c++20 --language=c++ --enable=warning,performance,portability \
    --suppressions-list=.cppcheck-suppressions --error-exitcode=1 \
    -D__linux__ -D__x86_64__ -UTOLM_LOG '-DTOLM_LOG(level, tag, ...)=log(level, tag, __VA_ARGS__)' \
    -Iinclude -Isrc -Iapps -Iplatform/os "${includes[@]}" "${linted[@]}" || fail "cppcheck found something"
}
