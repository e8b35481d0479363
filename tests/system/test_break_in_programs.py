"""The programs themselves: they load no library that a stranger planted, and are built so that a
bug is hard to exploit."""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from harness import settings

BUILD = settings.build_directory()
BIN = BUILD / "bin"
CHECK = settings.REPOSITORY / "script" / "lib" / "check_hardening.py"

# A planted library makes a file when it is loaded.
PLANTED = """
#include <fcntl.h>
#include <unistd.h>
__attribute__((constructor)) static void loaded(void) { close(open("%s", O_CREAT, 0600)); }
"""

PREFIXES = {"libtelnet.so.2": "telnet_", "libpam.so.0": "pam_"}


def functions_of(program: Path, prefix: str) -> list[str]:
    """The functions with this prefix that the program imports."""
    symbols = subprocess.run(["readelf", "--wide", "--dyn-syms", program], check=True,
                             capture_output=True, text=True).stdout
    return re.findall(rf" UND ({prefix}\w+)", symbols)


def plant(library: str, program: Path, place: Path, trace: Path) -> None:
    """Put a library of this name, with all that the program imports from it, in this directory."""
    functions = functions_of(program, PREFIXES[library])
    assert functions
    source = place / "planted.c"
    source.write_text(PLANTED % trace + "".join(f"void {name}(void) {{}}\n" for name in functions))
    subprocess.run(["gcc", "-shared", "-fPIC", f"-Wl,-soname,{library}", "-o", place / library,
                    source], check=True)


@pytest.mark.parametrize("program, library", [("zevctl", "libtelnet.so.2"),
                                              ("qor_pam_auth", "libpam.so.0")])
def test_a_library_in_the_current_directory_is_not_loaded(tmp_path, program, library):
    """Once the loader is told to look there, it loads the planted one: the trap works."""
    if not (BIN / program).exists():
        assert (BUILD.name, program) == ("tsan", "zevctl"), "only this build is without the client"
        return
    trace = tmp_path / "loaded"
    plant(library, BIN / program, tmp_path, trace)
    told = {**os.environ, "LD_LIBRARY_PATH": "."}
    for env, loaded in ((os.environ, False), (told, True)):
        subprocess.run([BIN / program, "--version"], cwd=tmp_path, stdin=subprocess.DEVNULL,
                       capture_output=True, env=env, check=False)
        assert trace.exists() == loaded


def check(*arguments: str | Path) -> subprocess.CompletedProcess[str]:
    """Run the check that script/build runs on the programs."""
    return subprocess.run([sys.executable, "-B", CHECK, *arguments], capture_output=True, text=True,
                          check=False)


def test_the_build_passes_the_check():
    only = ["--run-paths-only"] if BUILD.name in ("asan", "tsan") else []
    done = check(*only, BIN, BUILD / "lib")
    assert (done.returncode, done.stderr) == (0, "")


def test_what_is_installed_has_no_run_path(tmp_path):
    """The station's own libraries, in the system's path, replace the stand-ins."""
    trees = [tree for tree in (BUILD, BUILD / "release") if (tree / "CMakeCache.txt").exists()]
    subprocess.run(["cmake", "--install", trees[0], "--prefix", "/usr"], check=True,
                   env={**os.environ, "DESTDIR": str(tmp_path)}, capture_output=True)
    done = check("--run-paths-only", "--installed", tmp_path)
    assert (done.returncode, done.stderr) == (0, "")
    installed = {path.name for path in tmp_path.rglob("*") if path.is_file()}
    assert {"zevd", "qor_pam_auth", "libjix.so", "libtqauth.so"} <= installed


PROGRAM = """
#include <string.h>
#include <unistd.h>
int main(int argc, char **argv) {
  char text[64];
  const long size = read(0, text, argc * 8);
  strcpy(text + argc, argv[0]);
  return text[size];
}
"""

SOUND = ("-O2", "-D_FORTIFY_SOURCE=3", "-fstack-protector-strong", "-fPIE", "-pie",
         "-Wl,-z,relro,-z,now,-z,noexecstack")


@pytest.mark.parametrize("name, options, finding", [
    ("tool", (), None),
    ("zevd", ("-Wl,-rpath,$ORIGIN/../lib",), None),
    ("zevd", ("-Wl,-rpath,$ORIGIN/../lib:",),
     "run path [$ORIGIN/../lib:] instead of [$ORIGIN/../lib]"),
    ("zevd", (), "run path [] instead of [$ORIGIN/../lib]"),
    ("tool", ("-Wl,-rpath,:",), "run path [:] instead of []"),
    ("tool", ("-Wl,-rpath,$ORIGIN/../lib",), "run path [$ORIGIN/../lib] instead of []"),
    ("tool", ("-Wl,--disable-new-dtags,-rpath,/tmp",), "run path [/tmp] instead of []"),
    ("tool", ("-fno-pie", "-no-pie"), "not position-independent"),
    ("tool", ("-Wl,-z,lazy",), "no full RELRO"),
    ("tool", ("-Wl,-z,norelro",), "no full RELRO"),
    ("tool", ("-Wl,-z,execstack",), "stack may hold code"),
    ("tool", ("-fno-stack-protector",), "no stack protector"),
    ("tool", ("-U_FORTIFY_SOURCE",), "no fortified call"),
])
def test_the_check_of_the_build_finds_each_fault(tmp_path, name, options, finding):
    source = tmp_path / "program.c"
    source.write_text(PROGRAM)
    place = tmp_path / "bin"
    place.mkdir()
    subprocess.run(["gcc", "-w", *SOUND, *options, "-o", place / name, source], check=True)
    done = check(place)
    expected = (0, "") if finding is None else (1, f"{place / name}: {finding}\n")
    assert (done.returncode, done.stderr) == expected


def test_the_check_of_the_build_needs_something_to_check(tmp_path):
    done = check(tmp_path)
    assert (done.returncode, done.stderr) == (1, "no programs found\n")


def test_a_build_with_another_run_path_fails(tmp_path):
    """script/build runs the check and ends with its status."""
    tree = tmp_path / "tree"
    (tree / "script" / "lib").mkdir(parents=True)
    shutil.copy(settings.REPOSITORY / "script" / "build", tree / "script")
    shutil.copy(CHECK, tree / "script" / "lib")
    for directory in ("bin", "lib"):
        (tree / "build" / directory).mkdir(parents=True)
    source = tmp_path / "program.c"
    source.write_text(PROGRAM)
    subprocess.run(["gcc", "-w", *SOUND, "-Wl,-rpath,:", "-o", tree / "build/bin/tool", source],
                   check=True)
    tools = tmp_path / "tools"
    tools.mkdir()
    (tools / "cmake").write_text("#!/bin/sh\n")
    (tools / "cmake").chmod(0o755)
    done = subprocess.run([tree / "script" / "build"], capture_output=True, text=True, check=False,
                          env={**os.environ, "PATH": f"{tools}:{os.environ['PATH']}"})
    assert done.returncode == 1
    assert "run path [:] instead of []" in done.stderr
