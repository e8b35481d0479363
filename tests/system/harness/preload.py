"""Libraries of this directory that are loaded into a program before its own ones."""

import subprocess
from pathlib import Path

from harness import settings


def build(name: str, directory: Path, *options: str) -> Path:
    """Build the library of this name in the directory."""
    library = directory / f"{name}.so"
    subprocess.run(["cc", "-Wall", "-Wextra", "-Werror", "-O1", "-shared", "-fPIC", *options,
                    "-o", library, Path(__file__).with_name(f"{name}.c")], check=True)
    return library


def environment(library: Path, *sanitizer_options: str, **variables: str) -> dict[str, str]:
    """What has to be in the program's environment, with the variables that the library reads."""
    # A sanitizer wants to be the first library; what comes before it here needs none.
    options = " ".join(["verify_asan_link_order=0", *sanitizer_options])
    return {"LD_PRELOAD": str(library), **variables, **settings.sanitizer_options(options)}
