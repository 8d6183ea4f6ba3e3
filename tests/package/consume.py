"""Builds programs with an unpacked package, as its users would."""

import os
import re
import shlex
import subprocess

from contents import DOCUMENTS
from fault import require

EXAMPLES = {"example_host": "ExampleHost", "example_clock_plugin": "ExampleClockPlugin",
            "example_relay_plugin": "ExampleRelayPlugin"}


def run_tool(command, **more):
    done = subprocess.run(command, capture_output=True, text=True, timeout=300, **more)
    require(done.returncode == 0, f"{shlex.join(map(str, command))} failed:\n{done.stdout}{done.stderr}")
    return done.stdout


def cjson_functions(prefix, folder):
    """A file with the functions that the package's cJSON.h declares, and how many they are."""
    header = (prefix / "include/tolmlpcframe/cjson/cJSON.h").read_text()
    names = re.findall(r"^CJSON_PUBLIC\([^)]*\)\s*(\w+)\(", header, re.MULTILINE)
    require(len(names) > 70, f"cJSON.h declares {len(names)} functions only")
    file = folder / "cjson_functions.inc"
    file.write_text("".join(f", {name}\n" for name in names))
    return file, len(names) + 1


def build_with_cmake(prefix, source, folder, toolchain, **variables):
    config = prefix / "lib/cmake/TolmLPCFrame"
    # When another system's libraries are built, CMake looks for packages below that system's folders only.
    where = {"CMAKE_TOOLCHAIN_FILE": toolchain, "TolmLPCFrame_DIR": config} if toolchain else {
        "CMAKE_PREFIX_PATH": prefix}
    options = [f"-D{name}={value}" for name, value in (where | variables).items()]
    run_tool(["cmake", "-S", source, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release", *options])
    cache = (folder / "CMakeCache.txt").read_text()
    require(f"TolmLPCFrame_DIR:PATH={config}\n" in cache.replace("UNINITIALIZED", "PATH"),
            f"find_package found another package than that in {prefix}")
    run_tool(["cmake", "--build", folder])


def build_examples(prefix, folder, toolchain):
    build_with_cmake(prefix, prefix / DOCUMENTS / "examples", folder, toolchain)


def build_consumer(prefix, source, folder, toolchain):
    """Returns how many functions of cJSON its host counts."""
    folder.mkdir()
    functions, count = cjson_functions(prefix, folder)
    build_with_cmake(prefix, source, folder, toolchain, CJSON_FUNCTIONS=functions)
    return count


def pkg_config(prefix, *arguments):
    # Nothing but the package's own files; a path of the system is a path like any other.
    environment = dict(os.environ, PKG_CONFIG_LIBDIR=str(prefix / "lib/pkgconfig"), PKG_CONFIG_ALLOW_SYSTEM_CFLAGS="1",
                       PKG_CONFIG_ALLOW_SYSTEM_LIBS="1")
    environment.pop("PKG_CONFIG_PATH", None)
    return shlex.split(run_tool(["pkg-config", *arguments], env=environment))


def check_included(source, flags, prefix):
    """The headers include their own kind and the standard library's: a user has to install nothing else."""
    listed = run_tool(["g++", "-std=c++20", "-M", source, *flags]).replace("\\\n", " ").split()[1:]
    ours = [path for path in listed if os.path.realpath(path).startswith(str(prefix))]
    require(len(ours) >= 2, f"{source.name} includes nothing of the package")
    for path in listed:
        other = re.search(r"/(boost|rapidjson|spdlog|fmt|CLI|cjson|pugi\w*|libwebsockets)[/.]", path)
        require(path in ours or not other, f"{source.name} needs {path}, which is not in the package")


def build_with_pkg_config(prefix, version, folder):
    folder.mkdir()
    for program, name in EXAMPLES.items():
        module = "tolmlpcframe" if program == "example_host" else "tolmplugin"
        found = pkg_config(prefix, "--modversion", module)
        require(found == [version], f"{module}.pc says version {found}")
        flags = pkg_config(prefix, "--cflags", module)
        source = prefix / DOCUMENTS / "examples" / f"{name}.cpp"
        check_included(source, flags, prefix)
        run_tool(["g++", "-std=c++20", "-Wall", "-Wextra", "-Werror", source, *flags, "-o", folder / program,
                  *pkg_config(prefix, "--libs", module)])
