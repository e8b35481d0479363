"""Checks that programs and shared libraries carry what is to stop the misuse of a bug.

Usage: check_hardening.py [--run-paths-only | --installed] DIRECTORY...

Every ELF file in the directories must be position-independent, have nothing to write to once it is
loaded (full RELRO) and no stack that holds code, and call the checks of the stack protector and of
_FORTIFY_SOURCE. In the build tree the daemon has its run path; everything else, and everything that
is installed, has none. An empty element of a run path is the current directory: whoever calls a
program there runs the libraries that a stranger left there.

Sanitizer builds are checked for run paths only.
"""

import re
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

RUN_PATHS = {"zevd": "$ORIGIN/../lib"}
RUN_PATH = re.compile(r"\((?:RUNPATH|RPATH)\).*\[(.*)\]")
FORTIFIED = re.compile(r" UND __(?!stack_)\w+_chk\b")


def readelf(path: Path) -> str:
    """Header, program headers, dynamic section and dynamic symbols."""
    return subprocess.run(["readelf", "--wide", "-h", "-l", "-d", "--dyn-syms", path], check=True,
                          capture_output=True, text=True).stdout


def run_path_findings(path: Path, elf: str, installed: bool) -> Iterator[str]:
    wanted = "" if installed else RUN_PATHS.get(path.name, "")
    for found in RUN_PATH.findall(elf) or [None]:
        if (found or "") != wanted or found == "":
            yield f"run path [{found or ''}] instead of [{wanted}]"


def hardening_findings(elf: str) -> Iterator[str]:
    if not re.search(r"Type: +DYN", elf):
        yield "not position-independent"
    if "GNU_RELRO" not in elf or not re.search(r"\(FLAGS(_1)?\).*\b(BIND_)?NOW\b", elf):
        yield "no full RELRO"
    if not re.search(r"GNU_STACK .* RW +0x", elf):
        yield "stack may hold code"
    if " UND __stack_chk_fail" not in elf:
        yield "no stack protector"
    if not FORTIFIED.search(elf):
        yield "no fortified call"


def elf_files(directories: list[str]) -> Iterator[Path]:
    for directory in map(Path, directories):
        for path in sorted(directory.rglob("*")):
            if path.is_file() and not path.is_symlink():
                with path.open("rb") as file:
                    if file.read(4) == b"\x7fELF":
                        yield path


def main() -> None:
    arguments = sys.argv[1:]
    options = {argument for argument in arguments if argument.startswith("--")}
    files = list(elf_files([argument for argument in arguments if argument not in options]))
    found = False
    for path in files:
        elf = readelf(path)
        findings = list(run_path_findings(path, elf, "--installed" in options))
        if "--run-paths-only" not in options:
            findings += hardening_findings(elf)
        for finding in findings:
            print(f"{path}: {finding}", file=sys.stderr)
            found = True
    if not files:
        print("no programs found", file=sys.stderr)
    sys.exit(found or not files)


if __name__ == "__main__":
    main()
