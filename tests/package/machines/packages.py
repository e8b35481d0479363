"""The packages under test, as script/package has left them."""

import os
import re
import shutil
import subprocess
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[3]
BUILD = REPOSITORY / "build"
PACKAGES = BUILD / "packages"
NAMES = ("zevd", "zevctl", "zevweb", "zevfleet", "libjix-standin", "libtqauth-standin")


def found() -> list[Path]:
    """The packages that a station installs, without those of the debug symbols."""
    packages = sorted(PACKAGES.glob("*.deb"))
    assert [package.name.partition("_")[0] for package in packages] == sorted(NAMES), \
        f"{PACKAGES}: run script/package first"
    return packages


def field(package: Path, name: str) -> str:
    """A field of the package's description."""
    return subprocess.run(["dpkg-deb", "--field", package, name], check=True, capture_output=True,
                          text=True).stdout.strip()


def wanted() -> set[str]:
    """What the packages need and recommend of Debian; of alternatives the first."""
    relations = [relation.split("|")[0]
                 for package in found() for name in ("Depends", "Recommends")
                 for relation in field(package, name).split(",")]
    names = {re.match(r"\s*([a-z0-9+.-]*)", relation).group(1) for relation in relations}
    return names - set(NAMES) - {""}


def with_version(package: Path, version: str, directory: Path) -> Path:
    """The same package under another version."""
    tree = directory / package.name
    subprocess.run(["dpkg-deb", "--raw-extract", package, tree], check=True)
    control = tree / "DEBIAN/control"
    before = field(package, "Version")
    control.write_text(control.read_text().replace(f"Version: {before}\n", f"Version: {version}\n")
                       .replace(f"(= {before})", f"(= {version})"))
    return _packed(tree, directory / package.name.replace(before, version))


def made(name: str, files: dict[str, Path], directory: Path, **fields: str) -> Path:
    """A package of the station's own with these files, by their paths."""
    tree = directory / name
    for path, source in files.items():
        (tree / path).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source, tree / path)
    lines = {"Package": name, "Version": "1", "Architecture": "all",
             "Maintainer": "the station", "Description": "for a test", **fields}
    (tree / "DEBIAN").mkdir()
    (tree / "DEBIAN/control").write_text("".join(f"{key}: {value}\n"
                                                 for key, value in lines.items()))
    return _packed(tree, directory / f"{name}_1_all.deb")


def _packed(tree: Path, package: Path) -> Path:
    os.chmod(tree, 0o755)
    subprocess.run(["dpkg-deb", "--root-owner-group", "-Zgzip", "-z1", "--build", tree, package],
                   check=True, capture_output=True)
    return package
