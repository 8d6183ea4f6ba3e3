"""What protects the binaries that ship, read off them."""

import subprocess
import sys

from figures import ROOT, Failed

ORDER = 85


def run(run):
    packed = subprocess.run(["./dev", "package"], cwd=ROOT, capture_output=True, text=True)
    if packed.returncode != 0:
        raise Failed(f"./dev package failed:\n{packed.stdout}{packed.stderr[-4000:]}")
    sys.path.insert(0, str(ROOT / "tests/package"))
    import hardening  # beside the other checks of packages
    import tempfile
    import pathlib
    import tarfile
    import zipfile

    with tempfile.TemporaryDirectory(prefix="tolm-binaries-") as folder:
        for package in sorted((ROOT / "build/packages").iterdir()):
            if package.name.endswith(".tar.gz"):
                with tarfile.open(package) as archive:
                    archive.extractall(folder)
            elif package.suffix == ".zip":
                with zipfile.ZipFile(package) as archive:
                    archive.extractall(folder)
        looked_at = [(file, faults_of(file)) for file, faults_of in hardening.binaries(pathlib.Path(folder))]
    run.add("binaries.looked_at", len(looked_at), "files", ">= 10", len(looked_at) >= 10)
    faults = [f"{file.name} {what}" for file, found in looked_at for what in found]
    for fault in faults:
        print(f"  {fault}")
    run.add("binaries.unprotected", len(faults), "faults", "0", not faults)
