"""What installing the packages on a bare Debian gives."""

import re

import pytest

from harness import settings

from machines import packages
from machines.machine import Machine
from machines.station import ROOT

pytestmark = pytest.mark.needs_machine

UNITS = sorted(path.name for path in (settings.REPOSITORY / "packaging/systemd").iterdir())
SAMPLES = sorted((settings.REPOSITORY / "packaging/config").iterdir())
STARTED = ("zevd.service", "zevd.socket", "zevd-password.socket", "zevd-logs.timer",
           "zevkeep.timer")

# Owner, group and mode of what is there after the first start.
MODES = {
    "": "root:zevd 755",
    "/bin": "root:root 755",
    "/config": "zevd:zevd 750",
    "/config/.cookie": "zevd:zevd 660",
    "/config/consoles.d": "zevd:zevd 750",
    "/config/zev.lock": "zevd:zevd 660",
    "/events": "root:zevd 755",
    "/logs": "zevd:zevd 770",
    "/logs/zev.dated": "zevd:zevd 770",
    "/run": "root:zevd 2770",
    **{f"/config/{sample.name}": "zevd:zevd 640" for sample in SAMPLES},
}


@pytest.fixture(scope="module")
def fresh():
    """The machine on which all of them look, what installing said, and Debian's own from before."""
    machine = Machine().boot()
    try:
        before = debians_own(machine)
        yield machine, machine.install(*packages.found()), before
    finally:
        machine.end()


@pytest.fixture
def machine(fresh):
    return fresh[0]


def debians_own(machine) -> str:
    """What Debian's own service for serial lines consists of, and whether it runs."""
    return machine.output("sh", "-c", "sha256sum /etc/ser2net.yaml /etc/default/ser2net "
                          "/lib/systemd/system/ser2net.service; systemctl cat ser2net.service; "
                          "systemctl show -p MainPID,ActiveState,UnitFileState ser2net.service")


def test_installing_says_nothing_alarming(fresh):
    assert not re.search(r"(?i)\b(error|warning|failed|cannot)\b", fresh[1])


def test_there_are_users_and_groups(machine):
    assert machine.output("id", "-gn", "zevd") == "zevd"
    assert machine.output("id", "-Gn", "zevd-lines").split() == ["zevd-lines", "dialout"]
    assert machine.output("getent", "group", "qoruser").endswith(":")
    for name in ("zevd", "zevd-lines"):
        assert machine.output("getent", "passwd", name).endswith("/nologin")


def test_directories_and_files_have_owners_and_modes(machine):
    found = {path: machine.output("stat", "--format=%U:%G %a", f"{ROOT}{path}") for path in MODES}
    assert found == MODES


def test_the_configuration_is_empty_and_commented(machine):
    for sample in SAMPLES:
        assert machine.path(f"{ROOT}/config/{sample.name}").read_text() == sample.read_text()
        if sample.name.startswith(("zev.", "consoles.")):
            lines = sample.read_text().splitlines()
            assert len(lines) > 3
            assert all(line.startswith("#") for line in lines if line)
    assert machine.output("head", "-n", "1", f"{ROOT}/config/qor.conf") == "ZEVD_ARCH_INT=7"
    assert machine.output("ls", f"{ROOT}/events") == ""
    assert machine.output("zevctl", "list", "--json") == "[]"


@pytest.mark.parametrize("unit", STARTED)
def test_units_run_and_will_after_a_boot(machine, unit):
    assert machine.show(unit, "ActiveState") == "active"
    assert machine.show(unit, "UnitFileState") == "enabled"


def test_security_is_on(machine):
    daemon = machine.daemon()
    assert "-S" not in machine.output("cat", f"/proc/{daemon}/cmdline").split("\0")
    assert machine.run("setpriv", "--reuid=nobody", "--clear-groups", "zevctl", "list", check=False,
                       given="").returncode != 0
    machine.run("zevctl", "list")


def test_units_are_sound(machine):
    instances = [re.sub(r"@\.", "@1.", unit) for unit in UNITS]
    assert machine.run("systemd-analyze", "verify", "--man=no", *instances).stdout == ""


def test_the_manual_is_there(machine):
    pages = [path.name for part in ("zevd", "zevctl")
             for path in (settings.REPOSITORY / part).glob("*.[158]")]
    assert len(pages) >= 3
    for page in pages:
        assert machine.path(f"/usr/share/man/man{page[-1]}/{page}.gz").exists()


def test_bash_completes_commands(machine):
    completed = machine.output(
        "bash", "-c", "source /usr/share/bash-completion/completions/zevctl; "
        "COMP_LINE='zevctl att' COMP_POINT=10; _zevctl; echo ${COMPREPLY[@]}; complete -p zevctl")
    assert completed == "attach\ncomplete -F _zevctl zevctl"


def test_zsh_finds_its_function(machine):
    function = machine.path("/usr/share/zsh/vendor-completions/_zevctl").read_text()
    assert function.startswith("#compdef zevctl\n")
    assert function == machine.output("zevctl", "completion", "zsh") + "\n"


def test_the_pam_service_is_there(machine):
    assert machine.path("/etc/pam.d/qor").read_text() == \
        (settings.REPOSITORY / "packaging/pam.d/qor").read_text()


def test_debians_own_service_is_left_alone(fresh):
    machine, _, before = fresh
    assert "ActiveState=active" in before
    assert debians_own(machine) == before


def test_installed_programs_are_stripped(machine):
    for path in ("/usr/bin/zevd", "/usr/bin/zevctl", "/usr/lib/libjix.so", "/usr/lib/libtqauth.so",
                 "/usr/libexec/zevd/qor_pam_auth"):
        assert b".debug_info" not in machine.path(path).read_bytes()


def test_an_image_is_furnished_and_its_first_boot_starts_the_daemon():
    """Installing where no systemd runs, as in an image that is being made, starts nothing."""
    image = Machine()
    try:
        said = image.install(*packages.found())
        assert "does not run" not in said
        assert image.output("stat", "--format=%U:%G %a", f"{ROOT}/config/zev.conf") == \
            MODES["/config/zev.conf"]
        image.boot()
        for unit in STARTED:
            assert image.show(unit, "ActiveState") == "active"
    finally:
        image.end()
