"""Checks that the page's packages are pinned, and that nothing says where they come from.

npm writes the address of the registry that it used into the lock file: another machine would ask
there. With a digest for every package it does not matter which registry gives it.
"""

import json
import re
import sys
from collections.abc import Iterator
from pathlib import Path

PAGE = Path(__file__).resolve().parents[2] / "zevweb/page"
VERSION = re.compile(r"\d+\.\d+\.\d+(-[\w.-]+)?")
ADDRESS = re.compile(r"https?:")
KINDS = ("dependencies", "devDependencies", "optionalDependencies", "peerDependencies")


def wanted(package: dict) -> dict[str, str]:
    """What a package asks for itself."""
    return {name: version for kind in KINDS for name, version in package.get(kind, {}).items()}


def package_findings(package: dict) -> Iterator[str]:
    for name, version in wanted(package).items():
        if not VERSION.fullmatch(version):
            yield f"{name} is not pinned: {version}"


def lock_findings(text: str, package: dict) -> Iterator[str]:
    for number, line in enumerate(text.split("\n"), 1):
        if ADDRESS.search(line):
            yield f"line {number}: an address"
    locked = json.loads(text)["packages"]
    if wanted(locked[""]) != wanted(package):
        yield "not made from package.json: run npm install --package-lock-only"
    for place, one in locked.items():
        if "resolved" in one:
            yield f"{place}: resolved; set omit-lockfile-registry-resolved=true for npm"
        if place and not VERSION.fullmatch(one.get("version", "")):
            yield f"{place}: no version"
        if place and not one.get("integrity", "").startswith("sha512-"):
            yield f"{place}: no digest"


def main() -> None:
    package = json.loads((PAGE / "package.json").read_text())
    lock = (PAGE / "package-lock.json").read_text()
    wrong = [("package.json", finding) for finding in package_findings(package)]
    wrong += [("package-lock.json", finding) for finding in lock_findings(lock, package)]
    for name, finding in wrong:
        print(f"zevweb/page/{name}: {finding}", file=sys.stderr)
    print(f"{len(json.loads(lock)['packages']) - 1} packages locked")
    sys.exit(bool(wrong))


if __name__ == "__main__":
    main()
