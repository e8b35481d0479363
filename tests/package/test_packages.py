"""The packages as files, and their units as far as they can be judged without being started."""

import os
import re
import subprocess
from pathlib import Path

import pytest

from harness import settings

from machines import packages


@pytest.fixture(scope="module")
def tree(tmp_path_factory):
    """What all packages together would install."""
    root = tmp_path_factory.mktemp("tree")
    for package in packages.found():
        subprocess.run(["dpkg-deb", "--extract", package, root], check=True)
    return root


def test_packages_have_the_sources_version():
    declared = re.search(r"project\(zevd VERSION (\S+)",
                         (settings.REPOSITORY / "CMakeLists.txt").read_text()).group(1)
    assert {packages.field(package, "Version") for package in packages.found()} == {declared}


def test_every_package_has_its_symbols_in_another():
    with_symbols = {package.name.split("-dbgsym_")[0]
                    for package in (packages.PACKAGES / "debug").glob("*-dbgsym_*.deb")}
    assert with_symbols == set(packages.NAMES)


def test_nothing_is_privileged_by_its_mode(tree):
    for directory, _, names in os.walk(tree):
        for path in (os.path.join(directory, name) for name in ("", *names)):
            assert os.lstat(path).st_mode & 0o6002 == 0 or os.path.islink(path), path


def test_nothing_of_the_stations_own_is_in_a_package(tree):
    """Neither an upgrade nor a check of the package's files is to touch configuration or logs."""
    below = [path.relative_to(tree) for path in (tree / "usr/opt/qor").rglob("*")]
    assert sorted(map(str, below)) == ["usr/opt/qor/bin", "usr/opt/qor/bin/qor_pam_auth"]


def test_installed_programs_are_hardened(tree):
    done = subprocess.run(["/usr/bin/python3", "-B",
                           settings.REPOSITORY / "script/lib/check_hardening.py", "--installed",
                           tree], capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stderr


def test_scripts_of_the_packages_are_shell(tmp_path):
    for package in packages.found():
        parts = tmp_path / package.name
        subprocess.run(["dpkg-deb", "--control", package, parts], check=True)
        for script in (parts / name for name in ("preinst", "postinst", "prerm", "postrm")):
            if script.exists():
                subprocess.run(["sh", "-n", script], check=True)
                assert "\nset -e\n" in script.read_text()


def test_lintian_found_no_errors():
    found = (packages.PACKAGES / "lintian.txt").read_text()
    assert not re.search(r"^E:", found, re.MULTILINE)


def test_units_are_sound(tree, tmp_path):
    """With the programs that they name taken from the packages; in a machine from the machine."""
    units = tmp_path / "units"
    units.mkdir()
    programs = re.compile(r"(?<==)(\+?)(/usr/(?:bin|libexec)/zev)")
    for unit in filter(Path.is_file, (tree / "lib/systemd/system").iterdir()):
        (units / unit.name).write_text(programs.sub(rf"\1{tree}\2", unit.read_text()))
    names = [unit.name.replace("@.", "@1.") for unit in units.iterdir()]
    assert "zevd.service" in names
    done = subprocess.run(["systemd-analyze", "verify", "--man=no", *sorted(names)],
                          env={**os.environ, "SYSTEMD_UNIT_PATH": f"{units}:"},
                          capture_output=True, text=True, check=False)
    complaints = [line for line in (done.stdout + done.stderr).splitlines() if "zevd" in line]
    assert (done.returncode, complaints) == (0, [])
