"""Checks that the sources of each program keep to its layers, which layers.toml lists.

A file may include the files of its own layer and of those below it, as long as the includes make no
circle; the .h and the .cpp of a name count as one. Every file is in the table and every entry of
the table is a file. No file is so long that it must hold more than one thing.
"""

import re
import sys
import tomllib
from collections.abc import Iterator
from graphlib import CycleError, TopologicalSorter
from pathlib import Path, PurePath

REPOSITORY = Path(__file__).resolve().parents[2]
TABLE = Path(__file__).with_name("layers.toml")
PROGRAMS = {"zevd", "zevctl", "zevkeep", "zevweb", "zevfleet", "journal", "qor_pam_auth",
            "platform"}
SOURCES = {".cpp", ".h"}
LONGEST = 450
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])(.+)[>"]', re.MULTILINE)


class Program:
    """The files of one program, which go by their names without suffix, and its layers."""

    def __init__(self, name: str, layers: list[dict]) -> None:
        self.name = name
        self.directory = REPOSITORY / name
        self.files = sorted(path for path in self.directory.rglob("*") if path.suffix in SOURCES)
        self.layers = [layer["layer"] for layer in layers]
        self.entries = [(file, level) for level, layer in enumerate(layers)
                        for file in layer["files"].split()]
        self.level = dict(self.entries)

    def name_of(self, path: Path) -> str:
        return path.relative_to(self.directory).with_suffix("").as_posix()

    def included_by(self, path: Path) -> Iterator[tuple[str, str | None]]:
        """The headers that a file includes, each with its name in the table, if it has one."""
        for bracket, header in INCLUDE.findall(path.read_text()):
            if bracket == '"' or (self.directory / header).is_file():
                yield header, self.entry_for(header, PurePath(self.name_of(path)).parent)

    def entry_for(self, header: str, directory: PurePath) -> str | None:
        """What the table calls a header; of several, one in the including file's directory."""
        end = "/" + PurePath(header).with_suffix("").as_posix()
        found = [entry for entry in self.level if f"/{entry}".endswith(end)]
        return min(found, key=lambda entry: PurePath(entry).parent != directory, default=None)

    def table_findings(self) -> Iterator[str]:
        names = {self.name_of(path) for path in self.files}
        for entry, level in self.entries:
            if self.level[entry] != level:
                yield f"{self.name}: {entry} is in the table twice"
            if entry not in names and not (REPOSITORY / f"{entry}.h").is_file():
                yield f"{self.name}: {entry} is in the table, but there is no such file"
        for name in sorted(names - self.level.keys()):
            yield f"{self.name}: {name} is not in the table"

    def include_findings(self) -> Iterator[str]:
        """Includes that lead upwards or nowhere, and circles among those within a layer."""
        beside: dict[str, dict[str, None]] = {}
        for path in self.files:
            file, name = path.relative_to(REPOSITORY), self.name_of(path)
            own = self.level.get(name, len(self.layers))
            for header, included in self.included_by(path):
                if included is None:
                    yield f'{file}: includes "{header}", which is not in the table'
                elif self.level[included] > own:
                    yield (f'{file} (layer "{self.layers[own]}"): includes "{header}", which is '
                           f'above it (layer "{self.layers[self.level[included]]}")')
                elif self.level[included] == own and included != name:
                    beside.setdefault(name, {})[included] = None
        yield from (f"{self.name}: circle of includes: {circle}" for circle in circles(beside))

    def length_findings(self) -> Iterator[str]:
        for path in self.files:
            length = path.read_text().count("\n")
            if length > LONGEST:
                yield f"{path.relative_to(REPOSITORY)}: {length} lines; {LONGEST} are allowed"

    def findings(self) -> Iterator[str]:
        yield from self.table_findings()
        yield from self.include_findings()
        yield from self.length_findings()


def circles(includes: dict[str, dict[str, None]]) -> Iterator[str]:
    """One circle after the other; one include of each is left out to find the next."""
    while True:
        try:
            return TopologicalSorter(includes).prepare()
        except CycleError as error:
            circle = error.args[1][::-1]  # who is included comes before who includes it
            yield " -> ".join(circle)
            del includes[circle[0]][circle[1]]


def main() -> None:
    table = tomllib.loads(TABLE.read_text())
    findings = [finding for name in sorted(PROGRAMS | table.keys())
                for finding in Program(name, table.get(name, [])).findings()]
    print("\n".join(findings), file=sys.stderr)
    sys.exit(bool(findings))


if __name__ == "__main__":
    main()
