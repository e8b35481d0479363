"""What the environment may say about a test run, and the paths that follow from it."""

import os
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[3]
SYSTEM_TESTS = REPOSITORY / "tests" / "system"

STANDARD_ROOT = Path("/usr/opt/qor")

NO_NAMESPACES = "ZEVD_TEST_NO_NAMESPACES"
BUILD = "ZEVD_TEST_BUILD"
PATIENCE = "ZEVD_TEST_PATIENCE"


def namespaces_forbidden() -> bool:
    """True in the fallback: the run was told, or has found, to do without namespaces."""
    return os.environ.get(NO_NAMESPACES) == "1"


def build_directory() -> Path:
    """The directory that holds bin/zevd."""
    default = REPOSITORY / "build"
    if namespaces_forbidden():
        default = default / "fallback"
    return Path(os.environ.get(BUILD) or default).resolve()


def daemon() -> Path:
    """The program under test."""
    return build_directory() / "bin" / "zevd"


def root() -> Path:
    """The directory under which the daemon under test keeps its files."""
    return build_directory() / "root" if namespaces_forbidden() else STANDARD_ROOT


def patience() -> float:
    """The factor by which every waiting limit is stretched; sanitizer builds need more than 1."""
    return float(os.environ.get(PATIENCE) or 1)


def sanitizer_options(added: str) -> dict[str, str]:
    """The environment that gives a daemon under AddressSanitizer further options."""
    return {"ASAN_OPTIONS": f"{os.environ.get('ASAN_OPTIONS', '')} {added}".strip()}
