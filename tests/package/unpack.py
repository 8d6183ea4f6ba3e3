"""Unpacks packages into a folder, without installing anything."""

import subprocess
import tarfile
import zipfile

from contents import LICENCES, check_licence_text
from fault import Fault, require


def output_of(*command):
    done = subprocess.run(command, capture_output=True, text=True, timeout=60)
    require(done.returncode == 0, f"{' '.join(map(str, command))}: {done.stderr}")
    return done.stdout


def one_package(folder, name):
    file = folder / name
    if not file.is_file():
        raise Fault(f"no package {file}")
    return file


def the_one_folder(folder, name):
    entries = [path.name for path in folder.iterdir()]
    require(entries == [name], f"the archive holds {entries}, and not one folder {name}")
    return folder / name


def unpack_tarball(packages, version, folder):
    name = f"TolmLPCFrame-{version}-linux-x86_64"
    with tarfile.open(one_package(packages, name + ".tar.gz")) as archive:
        archive.extractall(folder)
    return the_one_folder(folder, name)


def unpack_zip(packages, version, folder):
    name = f"TolmLPCFrame-{version}-windows-x86_64"
    with zipfile.ZipFile(one_package(packages, name + ".zip")) as archive:
        archive.extractall(folder)
    return the_one_folder(folder, name)


# What each has to depend on, at least; the rest of its fields is the same.
def debian_packages(version):
    runtime = f"libtolmlpcframe{version.split('.')[0]}"
    same = f"{runtime} (= {version})"
    return {
        runtime: ["libc6 (", "libstdc++6 (", "libpugixml1", "libwebsockets1"],
        "libtolmlpcframe-dev": [same],
        "tolmlpcframe": [same, "libc6 (", "libstdc++6 (", "libpugixml1"],
    }


def check_fields(package, name, version, depends):
    for field, value in (("Package", name), ("Version", version), ("Architecture", "amd64")):
        found = output_of("dpkg-deb", "-f", package, field).strip()
        require(found == value, f"{package.name}: {field} is \"{found}\", and not \"{value}\"")
    for field in ("Maintainer", "Description", "Section"):
        require(output_of("dpkg-deb", "-f", package, field).strip(), f"{package.name} has no {field}")
    found = output_of("dpkg-deb", "-f", package, "Depends").strip()
    for dependency in depends:
        require(f", {dependency}" in f", {found}", f"{package.name} does not depend on {dependency}: {found}")


def unpack_debian(packages, version, folder):
    """All of them into one folder, as an installation would; no two hold the same file."""
    owners = {}
    for name, depends in debian_packages(version).items():
        package = one_package(packages, f"{name}_{version}_amd64.deb")
        check_fields(package, name, version, depends)
        for line in output_of("dpkg-deb", "-c", package).splitlines():
            path = line.split(maxsplit=5)[5].split(" -> ")[0]
            if path.endswith("/"):
                continue
            require(path.startswith("./usr/"), f"{package.name} holds {path}")
            require(path not in owners, f"{path} is in {name} and in {owners.get(path)}")
            owners[path] = name
        output_of("dpkg-deb", "-x", package, folder)
        check_licence_text(folder / f"usr/share/doc/{name}/copyright", LICENCES)
    check_parts(owners, version)
    return folder / "usr"


def check_parts(owners, version):
    """A host that is only run needs the first package only."""
    runtime, development, programs = debian_packages(version)
    for path, name in {
        f"./usr/lib/libTolmLPCFrame.so.{version}": runtime,
        f"./usr/lib/libTolmLPCFrame.so.{version.split('.')[0]}": runtime,
        "./usr/lib/libTolmLPCFrame.so": development,
        "./usr/lib/libtolm_plugin.a": development,
        "./usr/include/TolmLPCFrame.h": development,
        "./usr/lib/pkgconfig/tolmlpcframe.pc": development,
        "./usr/lib/cmake/TolmLPCFrame/TolmLPCFrameConfig.cmake": development,
        "./usr/libexec/tolmlpcframe/tolm_host": programs,
        "./usr/share/man/man1/TolmGuard.exe.1": programs,
    }.items():
        require(owners.get(path) == name, f"{path} is in {owners.get(path)}, and not in {name}")
