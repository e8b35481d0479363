"""Fixtures and rules of the system tests; README.md tells how to write one."""

import os
import shutil
import signal
import subprocess
import sys
from collections import defaultdict

sys.dont_write_bytecode = True

import pytest

from harness import isolation, settings
from harness.consoles import FakeConsole
from harness.station import Station

ALLOWED_SKIP = "needs a namespace of its own: "

_state = {"mount_point": None, "why": ""}
_reports = defaultdict(list)


def _is_worker(config) -> bool:
    return hasattr(config, "workerinput")


# Where the tests run


def pytest_configure(config) -> None:
    # A shell without job control has its background jobs ignore them, and so what they start.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGQUIT, signal.SIG_DFL)
    _let_others_hear_hangups(config)
    if _is_worker(config):
        return
    if settings.namespaces_forbidden():
        _state["why"] = f"{settings.NO_NAMESPACES}=1"
    else:
        _state["why"] = _prepare_namespaces()
    if _state["why"]:
        _fall_back(config)


def _let_others_hear_hangups(config) -> None:
    """Under nohup the run itself goes on after SIGHUP, but what it starts does not ignore it.

    A signal that has a handler is no longer ignored in a program that is started. A worker goes on
    in any case: it cannot tell, and ends with the run.
    """
    if _is_worker(config) or signal.getsignal(signal.SIGHUP) == signal.SIG_IGN:
        signal.signal(signal.SIGHUP, lambda *_: None)


def _prepare_namespaces() -> str:
    """Make the mount point; the reason when this machine does not allow namespaces."""
    mount_point = isolation.MountPoint(settings.root())
    try:
        mount_point.hold()
    except OSError as error:
        return str(error)
    _state["mount_point"] = mount_point
    return isolation.why_no_namespaces(settings.root())


def _fall_back(config) -> None:
    """Use the build that is rooted in the build tree; the workers learn it from the environment."""
    os.environ[settings.NO_NAMESPACES] = "1"
    if (getattr(config.option, "numprocesses", None) or 0) > 1:
        raise pytest.UsageError("without namespaces tests share one root directory: leave out -n")
    if isolation.lock_out_others(settings.build_directory() / "tests.lock") is None:
        raise pytest.UsageError(f"another run is using {settings.root()}")


def pytest_unconfigure(config) -> None:
    if _state["mount_point"] is not None:
        _state["mount_point"].release()


def pytest_report_header(config) -> str:
    if not settings.namespaces_forbidden():
        where = "a mount and network namespace for every test"
    else:
        where = f"FALLBACK, one test at a time without namespaces ({_state['why']})"
    return f"zevd: {settings.daemon()} with root {settings.root()}; {where}"


@pytest.hookimpl(trylast=True)
def pytest_collection_modifyitems(config, items) -> None:
    if _is_worker(config):
        _spread(items)
    if not settings.namespaces_forbidden():
        return
    for item in items:
        marker = item.get_closest_marker("needs_namespace")
        if marker:
            item.add_marker(pytest.mark.skip(reason=ALLOWED_SKIP + item.name))


def _spread(items) -> None:
    """Spread the tests of each file over the run.

    Workers take tests in this order, and those of one file are alike: twelve at once that start
    three stations each would leave the processors no time.
    """
    files = defaultdict(list)
    for item in items:
        files[item.path].append(item)
    place = {item: (number + 0.5) / len(alike)
             for alike in files.values() for number, item in enumerate(alike)}
    items.sort(key=place.get)


@pytest.fixture(autouse=True)
def isolated():
    """A machine of the test's own, and nothing of it left afterwards."""
    isolation.adopt_orphans()
    before = isolation.children()
    if settings.namespaces_forbidden():
        isolation.empty_directory(settings.root())
    else:
        isolation.enter_private_namespaces(settings.root())
    yield
    isolation.end_children(spared=before)


@pytest.fixture(scope="session")
def program():
    """The daemon under test; a run without it fails, whatever else is missing."""
    path = settings.daemon()
    assert path.is_file() and os.access(path, os.X_OK), f"there is no {path}: build it first"
    shown = subprocess.run([path, "-h"], capture_output=True, text=True, check=True).stdout
    assert f"Default: {settings.root()}/config/zev.conf\n" in shown, (
        f"{path} is not built for the root directory {settings.root()}")
    return path


@pytest.fixture
def station(program, isolated, tmp_path, request):
    """A station with an empty configuration, its daemon not yet started."""
    made = Station(tmp_path)
    yield made
    made.close()
    if not request.node.stash.get(_failed, False):
        shutil.rmtree(tmp_path)


@pytest.fixture
def fake_console():
    """Fake consoles outside a station's configuration: call it to make one."""
    made = []

    def make(*args, **options) -> FakeConsole:
        made.append(FakeConsole(*args, **options))
        return made[-1]

    yield make
    for console in made:
        console.shut()


# What a failure shows

_failed = pytest.StashKey[bool]()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if not report.failed:
        return
    item.stash[_failed] = True
    station = item.funcargs.get("station")
    if station is not None:
        report.sections.append(("last lines of zevd", station.last_lines()))


# Every file must count


def pytest_runtest_logreport(report) -> None:
    _reports[report.nodeid.partition("::")[0]].append(report)


def pytest_sessionfinish(session, exitstatus) -> None:
    if not _is_worker(session.config) and _faults(session.config, exitstatus):
        session.exitstatus = pytest.ExitCode.TESTS_FAILED


def pytest_terminal_summary(terminalreporter, exitstatus, config) -> None:
    for fault in _faults(config, exitstatus):
        terminalreporter.write_line(f"FAILED {fault}", red=True)


def _faults(config, exitstatus) -> list[str]:
    """Why the run does not count although no test failed."""
    if exitstatus not in (pytest.ExitCode.OK, pytest.ExitCode.NO_TESTS_COLLECTED):
        return []
    faults = [f"{report.nodeid} was skipped without leave: {report.longrepr[2]}"
              for reports in _reports.values() for report in reports
              if report.skipped and ALLOWED_SKIP not in report.longrepr[2]]
    if _runs_everything(config):
        files = {path.name for path in settings.SYSTEM_TESTS.glob("test_*.py")}
        faults += [f"{name} gave no test" for name in sorted(files - set(_reports))]
    return faults


def _runs_everything(config) -> bool:
    """True unless the command line asks for some of the tests only."""
    option = config.option
    if option.keyword or option.markexpr or option.collectonly or option.ignore \
            or option.ignore_glob or option.deselect:
        return False
    return any((config.invocation_params.dir / arg).resolve() == settings.SYSTEM_TESTS
               for arg in config.args)
