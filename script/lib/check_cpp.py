"""Static checks of every C++ source, with the flags of the build.

Usage: check_cpp.py BUILD_DIRECTORY...

A source that several builds compile is checked as the first of them does.

Each source must survive clang++ with warnings as errors; every build makes sure of g++. What the
project ships is checked by clang-tidy, which gives clang++'s warnings too, and the daemon's sources
by the check of the lock annotations in their headers, which only clang++ understands. A source that
the build does not know is a finding: it would be neither compiled nor tested.

A check that passed is not run again until something changes that it depends on (see key_of()).
"""

import concurrent.futures
import json
import os
import re
import shlex
import shutil
import subprocess
import sys
import time
from pathlib import Path

from kept_passes import KeptPasses, digest

REPOSITORY = Path(__file__).resolve().parents[2]
DAEMON = REPOSITORY / "zevd"
TESTS = REPOSITORY / "tests"
BUILD = REPOSITORY / "build"
KEPT = BUILD / "lint"
WARNINGS = ["-fsyntax-only", "-Wall", "-Wextra", "-Wshadow", "-Wconversion",
            "-Wno-unknown-warning-option", "-Werror"]  # g++ has options of its own
# Macros are part of what is checked; no outcome depends on the time of day.
PREPROCESS = ["clang++", "-E", "-dD", "-H", "-w", '-D__DATE__=""', '-D__TIME__=""']
INCLUDED = re.compile(rb"^\.+ (.+)$", re.MULTILINE)  # what -H says of every file that it opens


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


def is_test(source: Path) -> bool:
    return TESTS in source.parents


def flags_of(command: str) -> list[str]:
    """The command without the compiler's name, the output and the request to write one.

    Nor is a precompiled header included: every source must include what it needs.
    """
    words = shlex.split(command)[1:]
    output = words.index("-o")
    del words[output:output + 2]
    for i in reversed([i for i, word in enumerate(words) if word == "-include"]):
        if words[i + 1].endswith("/cmake_pch.hxx"):
            del words[i:i + 2]
    return [word for word in words if word not in ("-c", "-Winvalid-pch")]


def check(source: Path, entry: dict, database: Path) -> list[str]:
    """The run that one source must survive."""
    if is_test(source):
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


def stamp(path: Path) -> str:
    """What an upgrade of the file changes."""
    status = path.stat()
    return f"{path.resolve()} {status.st_size} {status.st_mtime_ns}"


def common_key() -> str:
    """What every check depends on: the tools with their libraries, the settings and this file."""
    parts = []
    for name in ("clang++", "clang-tidy"):
        tool = shutil.which(name) or sys.exit(f"{name} is missing: run script/bootstrap")
        loaded = subprocess.run(["ldd", tool], capture_output=True, text=True, check=False).stdout
        parts += [stamp(Path(file)).encode() for file in [tool, *re.findall(r"/\S+", loaded)]]
        parts.append(subprocess.check_output([tool, "--version"]))
    settings = [directory / ".clang-tidy" for directory in REPOSITORY.parents]
    for file in (Path(__file__), *sorted(REPOSITORY.rglob(".clang-tidy")), *settings):
        if file.is_file():
            parts += [str(file).encode(), file.read_bytes()]
    return digest(*parts)


def key_of(source: Path, entry: dict, command: list[str], common: str) -> tuple[str, list[Path]]:
    """A digest of all that decides the outcome of a source's check, and the files among that.

    The preprocessor is asked anew each time, as a header that has just appeared may take the place
    of another one. It gives what the compiler is to read, and names all files that this comes from.
    They count as they are too: clang-tidy looks at comments and at the layout. A source that cannot
    be preprocessed has an empty digest: its check will tell.
    """
    macros = [] if is_test(source) else ["-D__clang_analyzer__"]  # as clang-tidy does
    run = subprocess.run([*PREPROCESS, *macros, *flags_of(entry["command"])],
                         cwd=entry["directory"], capture_output=True, check=False)
    if run.returncode != 0:
        return "", []
    names = sorted({os.fsencode(source), *INCLUDED.findall(run.stderr)})
    files = [Path(entry["directory"]) / os.fsdecode(name) for name in names]
    contents = [file.read_bytes() for file in files]
    return digest(common.encode(), json.dumps([entry, command]).encode(), run.stdout,
                  *names, *contents), files


def edited_since(begin: int, files: list[Path]) -> bool:
    """Whether one of the files has changed, or has gone, since that time in nanoseconds.

    The time of a file may be a tick of the system's clock behind.
    """
    tick = 20_000_000
    return any(not file.exists() or file.stat().st_ctime_ns > begin - tick for file in files)


def outcome(source: Path, entry: dict, database: Path, common: str, kept: KeptPasses) -> str:
    """Check one source, unless it is known to pass."""
    command = check(source, entry, database)
    begin = time.time_ns()
    key, files = key_of(source, entry, command, common)
    if key and kept.has(key):
        return "unchanged"
    if not survives(command, entry["directory"]):
        return "failed"
    if key and not edited_since(begin, files):
        kept.add(key)
    return "passed"


def main() -> None:
    builds = [Path(build).resolve() for build in sys.argv[1:]]
    database = builds[0] / "lint"
    known = compilations(builds)
    write_database(known, database)
    unknown = unknown_to(known)
    for source in unknown:
        print(f"{source.relative_to(REPOSITORY)}: not part of the build", file=sys.stderr)
    common, kept = common_key(), KeptPasses(KEPT)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        # Tests last: they take less time each, and all processors are at work until the end.
        runs = [pool.submit(outcome, source, known[source], database, common, kept)
                for source in sorted(known, key=is_test)]
        outcomes = [run.result() for run in runs]
    kept.forget_oldest()
    counts = {word: outcomes.count(word) for word in ("passed", "unchanged", "failed")}
    print(f"{len(known)} sources: {counts['passed']} passed, {counts['failed']} failed, "
          f"{counts['unchanged']} unchanged since they passed")
    sys.exit(bool(unknown) or not outcomes or "failed" in outcomes)


if __name__ == "__main__":
    main()
