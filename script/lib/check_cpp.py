"""Static checks of every C++ source, with the flags of the build.

Usage: check_cpp.py BUILD_DIRECTORY...

A source that several builds compile is checked as the first of them does.

Each source must survive clang++ with warnings as errors; every build makes sure of g++. What the
project ships is checked by clang-tidy, which gives clang++'s warnings too, and the daemon's sources
by the check of the lock annotations in their headers, which only clang++ understands. A source that
the build does not know is a finding: it would be neither compiled nor tested.
"""

import concurrent.futures
import json
import os
import shlex
import subprocess
import sys
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]
DAEMON = REPOSITORY / "zevd"
TESTS = REPOSITORY / "tests"
BUILD = REPOSITORY / "build"
WARNINGS = ["-fsyntax-only", "-Wall", "-Wextra", "-Wshadow", "-Wconversion",
            "-Wno-unknown-warning-option", "-Werror"]  # g++ has options of its own


def compilations(builds: list[Path]) -> dict[Path, dict]:
    """How the builds compile each source: once, though unit tests compile some again."""
    entries = [entry for build in builds
               for entry in json.loads((build / "compile_commands.json").read_text())]
    sources = {Path(entry["file"]): entry for entry in reversed(entries)}
    return {path: entry for path, entry in sources.items() if BUILD not in path.parents}


def write_database(known: dict[Path, dict], directory: Path) -> None:
    """clang-tidy checks a source once for every entry of the database it is given."""
    directory.mkdir(exist_ok=True)
    (directory / "compile_commands.json").write_text(json.dumps(list(known.values())))


def unknown_to(known: dict[Path, dict]) -> list[Path]:
    """C++ sources in the tree that nothing compiles."""
    return sorted(path for path in REPOSITORY.rglob("*.cpp")
                  if BUILD not in path.parents and path not in known)


def flags_of(command: str) -> list[str]:
    """The command without the compiler's name, the output and the request to write one."""
    words = shlex.split(command)[1:]
    output = words.index("-o")
    return [word for word in words[:output] + words[output + 2:] if word != "-c"]


def check(source: Path, entry: dict, database: Path) -> list[str]:
    """The run that one source must survive."""
    if TESTS in source.parents:
        return ["clang++", *WARNINGS, *flags_of(entry["command"])]
    warnings = [f"--extra-arg={flag}" for flag in WARNINGS[1:-1]]
    locks = ["--extra-arg=-Wthread-safety"] if DAEMON in source.parents else []
    return ["clang-tidy", "--quiet", "-p", str(database), *warnings, *locks, str(source)]


def survives(command: list[str], directory: str) -> bool:
    """Run one check; only a failing one is worth reading."""
    run = subprocess.run(command, cwd=directory, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                         text=True, check=False)
    if run.returncode != 0:
        print(f"{shlex.join(command)}\n{run.stdout}", file=sys.stderr)
    return run.returncode == 0


def main() -> None:
    builds = [Path(build).resolve() for build in sys.argv[1:]]
    database = builds[0] / "lint"
    known = compilations(builds)
    write_database(known, database)
    unknown = unknown_to(known)
    for source in unknown:
        print(f"{source.relative_to(REPOSITORY)}: not part of the build", file=sys.stderr)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        runs = [pool.submit(survives, check(source, entry, database), entry["directory"])
                for source, entry in known.items()]
        failed = [run for run in runs if not run.result()]
    print(f"{len(known)} sources: {len(runs)} checks, {len(failed)} failed")
    sys.exit(bool(unknown) or not runs or bool(failed))


if __name__ == "__main__":
    main()
