"""What a package has to hold, as it lies below its prefix."""

from fault import Fault, require

DOCUMENTS = "share/doc/TolmLPCFrame"
HOST_FOLDER = "libexec/tolmlpcframe"

COMMON = [
    "include/TolmLPCFrame.h",
    "include/TolmLPCFrameDiagnostics.h",
    "include/TolmPlugin/Plugin.h",
    "include/tolmlpcframe/cjson/cJSON.h",
    "lib/libtolm_plugin.a",
    "lib/cmake/TolmLPCFrame/TolmLPCFrameConfig.cmake",
    "lib/cmake/TolmLPCFrame/TolmLPCFrameConfigVersion.cmake",
    "lib/cmake/TolmLPCFrame/TolmLPCFrameTargets.cmake",
    "lib/cmake/TolmLPCFrame/TolmLPCFrameTargets-release.cmake",
    HOST_FOLDER + "/LpcFrame.xml",
    HOST_FOLDER + "/TolmAgent/TolmAgent/TolmAgent_Exe64.exe",
    HOST_FOLDER + "/TolmAgent/TolmGuard/TolmGuard.exe",
    DOCUMENTS + "/plugin-manifest.schema.json",
    DOCUMENTS + "/examples/CMakeLists.txt",
]
LINUX = [
    "lib/libTolmLPCFrame.so",
    "lib/libTolmLPCFrame.so.{major}",
    "lib/libTolmLPCFrame.so.{version}",
    "lib/pkgconfig/tolmlpcframe.pc",
    "lib/pkgconfig/tolmplugin.pc",
    HOST_FOLDER + "/tolm_host",
    "share/man/man1/TolmAgent_Exe64.exe.1",
    "share/man/man1/TolmGuard.exe.1",
]
WINDOWS = [
    "bin/TolmLPCFrame.dll",
    "lib/libTolmLPCFrame.dll.a",
    HOST_FOLDER + "/tolm_host.exe",
    HOST_FOLDER + "/TolmLPCFrame.dll",
]

# Words by which each licence is known.
LICENCES = {
    "Boost": "Boost Software License - Version 1.0",
    "CLI11": "Redistributions in binary form must reproduce",
    "RapidJSON": "Permission is hereby granted",
    "cJSON": "Dave Gamble",
    "fmt": "Victor Zverovich",
    "libwebsockets": "Andy Green",
    "pugixml": "Arseny Kapoulkine",
    "spdlog": "Gabi Melman",
}
WINDOWS_LICENCES = {
    "GCC-runtime": "GCC RUNTIME LIBRARY EXCEPTION",
    "GPL-3": "GNU GENERAL PUBLIC LICENSE",
    "MinGW-w64-and-winpthreads": "winpthreads",
}


def wanted_files(root, version, windows):
    """Paths below a prefix; guides and examples are those of the tree."""
    names = {"version": version, "major": version.split(".")[0]}
    wanted = [path.format(**names) for path in COMMON + (WINDOWS if windows else LINUX)]
    wanted.append(DOCUMENTS + "/README.md")
    wanted += [f"{DOCUMENTS}/{path.relative_to(root)}" for path in (root / "docs").rglob("*") if path.is_file()]
    wanted += [f"{DOCUMENTS}/examples/{path.name}" for path in (root / "examples").glob("*.cpp")]
    return wanted


def check_files(prefix, root, version, windows):
    missing = []
    for path in wanted_files(root, version, windows):
        file = prefix / path
        if not file.is_file() or file.stat().st_size == 0:
            missing.append(path)
    require(not missing, "missing or empty:\n  " + "\n  ".join(missing))
    tests = [path for path in prefix.rglob("*") if "gtest" in path.name.lower() or "gmock" in path.name.lower()]
    require(not tests, f"what belongs to tests only is packed: {tests}")


def check_licence_files(prefix, windows):
    for name, words in (LICENCES | (WINDOWS_LICENCES if windows else {})).items():
        check_licence_text(prefix / DOCUMENTS / "licences" / f"{name}.txt", {name: words})


def check_licence_text(file, licences):
    if not file.is_file():
        raise Fault(f"no licence text {file}")
    text = file.read_text(errors="replace").lower()
    for name, words in licences.items():
        require(words.lower() in text, f"{file.name} has not the licence of {name}: no \"{words}\"")


def check_no_path_of_the_build(prefix, root):
    """A package works wherever it lies, and says nothing of where it was built."""
    needle = f"{root}/".encode()
    for file in prefix.rglob("*"):
        if file.is_file() and not file.is_symlink():
            require(needle not in file.read_bytes(), f"{file.relative_to(prefix)} names the folder of the build")


def check_exported_targets(prefix):
    """Our own flags and libraries are no business of whoever links the package."""
    for file in (prefix / "lib/cmake/TolmLPCFrame").glob("*Targets*.cmake"):
        text = file.read_text()
        for word in ("tolm_flags", "-Werror", "-static", "spdlog", "Boost::", "pugixml", "_WIN32_WINNT"):
            require(word not in text, f"{file.name} speaks of {word}")
