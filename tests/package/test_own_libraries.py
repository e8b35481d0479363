"""A station's own libraries in place of the stand-ins, without building the daemon again."""

import subprocess

import pytest

from harness import settings

from machines import packages

pytestmark = pytest.mark.needs_machine

LIBRARIES = {
    "jix": r"""
#include <cstdio>
#include "jix.h"
JixStatus JixConnCreate(const JixConnOptions*, JixConn**) { return 77; }
JixStatus JixEventCreateVa(JixEvent**, ...) { return 77; }
JixStatus JixItemSetVa(JixEvent*, ...) { return 77; }
JixStatus JixVarSet(JixEvent*, const char*, int, const char*) { return 77; }
JixStatus JixEventPost(JixConn*, const JixEvent*) { return 77; }
void JixEventDestroy(JixEvent*) {}
void JixConnDestroy(JixConn*) {}
void JixStatusTextGet(JixStatus, char* text, size_t size) { snprintf(text, size, "own trouble"); }
""",
    "tqauth": r"""
#include "tqauth.h"
char* authenticate(int, char**) { return nullptr; }
""",
}


@pytest.fixture(params=sorted(LIBRARIES))
def own(request, tmp_path):
    """The name of a library, and the station's own."""
    name = request.param
    source = tmp_path / f"{name}.cpp"
    source.write_text(LIBRARIES[name])
    library = tmp_path / f"lib{name}.so"
    subprocess.run(["g++", "-shared", "-fPIC", f"-Wl,-soname,lib{name}.so", "-I",
                    settings.REPOSITORY / "platform" / name, "-o", library, source], check=True)
    return name, library


def loaded(machine, name: str) -> set[str]:
    """The files from which the running daemon has the library."""
    maps = machine.output("cat", f"/proc/{machine.daemon()}/maps").splitlines()
    return {row.split()[-1] for row in maps if row.endswith(f"/lib{name}.so")}


def test_a_file_that_the_loader_finds_first_wins(installed, own):
    name, library = own
    assert loaded(installed, name) == {f"/usr/lib/lib{name}.so"}
    installed.path(f"/usr/local/lib/lib{name}.so").write_bytes(library.read_bytes())
    installed.run("ldconfig")
    installed.run("systemctl", "restart", "zevd.service")
    assert loaded(installed, name) == {f"/usr/local/lib/lib{name}.so"}


def test_a_directory_named_by_the_station_wins_whatever_its_files_name(installed, own):
    name, library = own
    installed.path("/opt/station").mkdir()
    installed.path(f"/opt/station/lib{name}.so").write_bytes(library.read_bytes())
    installed.path("/etc/ld.so.conf.d/zz-station.conf").write_text("/opt/station\n")
    installed.run("ldconfig")
    installed.run("systemctl", "restart", "zevd.service")
    assert loaded(installed, name) == {f"/opt/station/lib{name}.so"}


def test_a_package_of_the_stations_takes_the_place_of_the_stand_in(installed, own, tmp_path):
    name, library = own
    package = packages.made(f"lib{name}", {f"usr/lib/lib{name}.so": library}, tmp_path)
    said = installed.install(package)
    assert f"Removing lib{name}-standin" in said
    installed.run("ldconfig")
    installed.run("systemctl", "restart", "zevd.service")
    assert loaded(installed, name) == {f"/usr/lib/lib{name}.so"}
    assert installed.path(f"/usr/lib/lib{name}.so").read_bytes() == library.read_bytes()
    installed.run("apt-get", "check")
