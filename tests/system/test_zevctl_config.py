"""The client's "config check", "diff" and "import": what they find, and how they end."""

import os
import re

import pytest

from harness import zevctl
from harness.station import console_line
from harness.waiting import wait_until

GOOD = console_line("box", 2001, address="192.0.2.1")


def check(station, text: str, name: str = "some.conf", status: int = zevctl.FAILED) -> list[str]:
    """What a check of this file says, without the file's path and the summary."""
    path = station.config / name
    path.write_text(text, encoding="latin-1")
    done = zevctl.run(None, "config", "check", str(path))
    assert (done.returncode, done.stderr) == (status, ""), done
    *findings, summary = done.stdout.splitlines()
    assert re.fullmatch(rf"{path}: \d+ consoles?, \d+ errors?", summary)
    return [finding.removeprefix(f"{path}:") for finding in findings]


def test_a_good_file_has_no_findings(station):
    assert check(station, f"# a comment\n\n   \n{GOOD}", status=zevctl.OK) == []


@pytest.mark.parametrize("fields, place, what", [
    ({"address": "ts1.example.org"}, "1:5", '"ts1.example.org" is no address'),
    ({"address": "010.0.0.1"}, "1:5", '"010.0.0.1" has a leading zero'),
    ({"address": "10.1.2"}, "1:5", '"10.1.2" is no whole address'),
    ({"port": 70000}, "1:15", 'the console port "70000" is no port'),
    ({"port": "x"}, "1:15", 'the console port "x" is no port'),
    ({"mapped_port": 80}, "1:23", "the user port 80 is one of the system's"),
    ({"mapped_port": 6500}, "1:23", "the user port 6500 is the daemon's main port"),
    ({"mapped_port": 65536}, "1:23", 'the user port "65536" is no port'),
    ({"name": "a/b"}, "1:1", 'the name "a/b" cannot be that of a log file'),
    ({"name": "consolidated"}, "1:1", 'the name "consolidated" cannot be that of a log file'),
    ({"name": "n" * 65}, "1:1", "the console name is longer than 64 bytes"),
    ({"logging": 2}, "1:46", 'the logging flag is "2"'),
    ({"auth": "yes"}, "1:52", 'the authentication flag is "yes"'),
    ({"event_file": "nowhere"}, "1:54", 'there is no event file "nowhere"'),
])
def test_what_the_daemon_would_swallow_is_named(station, fields, place, what):
    told = check(station, console_line(**{"name": "box", "port": 2001, "address": "192.0.2.1",
                                          **fields}))
    assert len(told) == 1 and told[0].startswith(f"{place}: error: {what}"), told
    assert "; " in told[0]


@pytest.mark.parametrize("line, place, what", [
    (GOOD.replace(" \n", "\n"), "1:56", "the line does not end in a blank"),
    (GOOD.replace(' 1 0 1 0 "" ', " 1 0 1"), "1:51", "the authentication flag is missing"),
    (GOOD.replace(' "', '  "'), "1:35", "more than one blank before the OS type"),
    (GOOD.replace('"Unix 5.1"', "Unix"), "1:35", "the OS type is not in quotes"),
    (GOOD.replace("Unix 5.1", ""), "1:35", "the OS type is empty"),
    (GOOD.replace(" 23 ", "\t23 "), "1:19", "a tab, which does not separate fields"),
    (GOOD.replace("\n", "\r\n"), "1:57", "a carriage return in the line"),
    ("x" * 9000, "1:8192", "the line is longer than 8191 bytes"),
])
def test_lines_that_the_daemon_takes_otherwise_are_named(station, line, place, what):
    told = check(station, line)
    assert len(told) == 1 and told[0].startswith(f"{place}: error: {what}"), told


@pytest.mark.parametrize("other, what", [
    (console_line("box", 2002, address="192.0.2.1"), 'a second console is named "box"'),
    (console_line("BOX", 2002, address="192.0.2.1"),
     'the names "BOX" and "box" are the same to commands and logs'),
    (console_line("b", 2001, address="192.0.2.1"), "a second console at 192.0.2.1:2001"),
])
def test_consoles_that_are_in_each_others_way_are_named(station, other, what):
    told = check(station, GOOD + other)
    assert len(told) == 1 and what in told[0] and f"{station.config}/some.conf:1:" in told[0]


def test_a_port_that_is_taken_twice_is_named(station):
    told = check(station, "".join(console_line(name, port, address="192.0.2.1", mapped_port=6501)
                                  for name, port in (("a", 1), ("b", 2))))
    assert len(told) == 1 and told[0].startswith("2:18: error: the user port 6501 is taken twice")


def test_event_files_are_checked(station):
    (station.events / "set").write_text("a 1 0 (\nb 1 0 (x)\\1\nc\n\nd x 0 fine\n")
    told = check(station, console_line("box", 1, address="192.0.2.1", event_file="set"))
    path = station.events / "set"
    assert [finding.split(": ")[:2] for finding in told] == [
        [f"{path}:1:7", "error"], [f"{path}:2:7", "warning"], [f"{path}:3:2", "error"],
        [f"{path}:5:3", "error"]]


def test_findings_as_json(station):
    path = station.config / "some.conf"
    path.write_text(GOOD.replace(" \n", "\n"))
    done = zevctl.run(None, "--json", "config", "check", str(path))
    assert done.returncode == zevctl.FAILED
    assert '"line":1,"column":56,"severity":"error","what":"the line does not end' in done.stdout


def test_a_file_whose_name_tells_nothing_needs_a_format(station):
    path = station.config / "consoles"
    path.write_text(GOOD)
    done = zevctl.run(None, "config", "check", str(path))
    assert done.returncode == zevctl.USAGE and "--format toml or --format conf" in done.stderr
    assert zevctl.succeed(None, "config", "check", "--format", "conf", str(path)) == (
        f"{path}: 1 console, 0 errors\n")


def test_what_the_check_lets_pass_the_daemon_takes(station):
    """Names at their longest, a range, a group and an included file, up to the daemon's list."""
    (station.config / "consoles.d").mkdir()
    (station.config / "consoles.d" / "more.toml").write_text(
        '[[console]]\nname = "' + "n" * 64 + '"\ntcp = "192.0.2.9"\n')
    (station.config / "consoles.toml").write_text(
        '[group.g]\nmodel = "A200"\n'
        '[[console]]\nname = "r-[08-10]"\ntcp = "192.0.2.[1-3]:2001"\ngroup = "g"\n')
    assert zevctl.succeed(None, "config", "check").endswith(": 4 consoles, 0 errors\n")
    station.start()
    zevctl.succeed(station, "config", "apply")
    assert {(entry["name"], entry["address"], entry["port"], entry["model"])
            for entry in zevctl.data(station, "list")} == {
        ("r-08", "192.0.2.1", 2001, "A200"), ("r-09", "192.0.2.2", 2001, "A200"),
        ("r-10", "192.0.2.3", 2001, "A200"), ("n" * 64, "192.0.2.9", 23, "-")}


def test_mistakes_of_the_readable_file_have_their_places(station):
    told = check(station, '[defaults]\nlogn = true\n\n[[console]]\nname = "a-[1-3]"\n'
                 'tcp = "192.0.2.[1-2]"\n\n[[console]]\nname = "b"\n\n[[console]]\nname = "c"\n'
                 'tcp = "192.0.2.1"\nlog = 1\ngroup = "g"\n', "some.toml")
    assert [re.match(r"(\d+:\d+): error: (\S+ \S+)", line).groups() for line in told] == [
        ("2:1", "unknown key"), ("6:7", '"tcp" stands'), ("8:1", "the console"),
        ("14:7", '"log" has'), ("15:9", "unknown group")]


def test_a_file_of_somebody_else_is_named(station):
    path = station.config / "consoles.toml"
    path.write_text('[[console]]\nname = "a"\ntcp = "192.0.2.1"\n')
    os.chown(path, 77, 77)
    path.chmod(0o666)
    told = zevctl.run(None, "config", "check")
    assert told.returncode == zevctl.FAILED
    assert f"{path}: error: the file belongs to user 77; " in told.stdout
    assert f"{path}: error: everybody can write to the file; " in told.stdout
    refused = zevctl.run(None, "config", "apply")
    assert refused.returncode == zevctl.FAILED and station.config_file.read_text() == ""


@pytest.mark.parametrize("make", [os.mkfifo, os.mkdir])
def test_what_is_no_file_is_refused_at_once(station, make):
    make(station.config / "consoles.toml")
    path = station.config / "consoles.toml"
    zevctl.refuse(None, zevctl.FAILED, f"cannot read {path}: it is no plain file; name another "
                  "file, or mend this one", "config", "check")


@pytest.mark.parametrize("make, reason", [(os.symlink, "it is a link"),
                                          (os.link, "it has more than one name")])
@pytest.mark.parametrize("name", ["consoles.toml", "consoles.d/a.toml", "zev.conf"])
def test_other_names_of_a_file_are_refused(station, name, make, reason):
    (station.config / "consoles.d").mkdir()
    (station.config / "consoles.toml").write_text('[[console]]\nname = "a"\ntcp = "192.0.2.1"\n')
    path = station.config / name
    path.unlink(missing_ok=True)
    (station.root / "far").write_text("far = away\n")
    make(station.root / "far", path)
    for command in ("check", "diff"):
        zevctl.refuse(None, zevctl.FAILED, f"cannot read {path}: {reason}; name another file, or "
                      "mend this one", "config", command)


def test_included_files_behind_a_link_are_refused(station, tmp_path):
    (tmp_path / "a.toml").write_text("far = away\n")
    (station.config / "consoles.d").symlink_to(tmp_path)
    (station.config / "consoles.toml").write_text("")
    zevctl.refuse(None, zevctl.FAILED, f"cannot read {station.config}/consoles.d/a.toml: Not a "
                  "directory; name another file, or mend this one", "config", "check")


def test_a_zev_conf_of_somebody_else_is_refused(station):
    os.chown(station.config_file, 77, 77)
    (station.config / "consoles.toml").write_text('[[console]]\nname = "a"\ntcp = "192.0.2.1"\n')
    zevctl.refuse(None, zevctl.FAILED, f"{station.config_file} belongs to user 77; give it to the "
                  "owner of its directory", "config", "check")


# Which of the station's files count


def test_an_empty_sample_does_not_hide_the_zev_conf_that_counts(station):
    station.write_config(GOOD.replace(" 2001 ", " x "))
    (station.config / "consoles.toml").write_text("# the package's\n[defaults]\nlogin = true\n")
    done = zevctl.run(None, "config", "check")
    assert done.returncode == zevctl.FAILED
    assert f'{station.config_file}:1:15: error: the console port "x" is no port' in done.stdout
    assert done.stdout.endswith(f"\n{station.config_file}: 1 console, 1 error\n")
    assert done.stderr == (
        f"zevctl: {station.config_file} counts, which was not made by apply, as consoles.toml has "
        'no consoles; make one from it with "zevctl config import"\n')


@pytest.mark.parametrize("applied, how", [
    (False, "was not made by apply"), (True, "has been edited since the last apply")])
def test_of_two_files_with_consoles_both_are_checked(station, applied, how):
    path = station.config / "consoles.toml"
    path.write_text('[[console]]\nname = "a"\ntcp = "192.0.2.1"\n')
    if applied:
        zevctl.succeed(None, "config", "apply")
        assert zevctl.succeed(None, "config", "check") == f"{path}: 1 console, 0 errors\n"
    station.config_file.write_text(station.config_file.read_text() + GOOD.replace(" 23 ", " y "))
    path.write_text('[[console]]\nname = "a"\ntcp = "192.0.2.1:x"\n')
    done = zevctl.run(None, "config", "check")
    assert done.returncode == zevctl.FAILED
    assert f'{path}:3:7: error: the console port "x" is no port' in done.stdout
    assert 'error: the management port "y" is no port' in done.stdout
    consoles = "2 consoles" if applied else "1 console"
    assert done.stdout.endswith(f"\n{path}: 1 console, 1 error\n"
                                f"{station.config_file}: {consoles}, 1 error\n")
    assert done.stderr == (
        f"zevctl: {station.config_file} counts, which {how}; consoles.toml takes its place only "
        'with "zevctl config apply --force"\n')


# diff


def test_diff_tells_what_comes_and_goes_and_whom_it_costs(station):
    boxes = {name: station.console(name) for name in ("stays", "goes", "off")}
    station.start()
    for name, box in boxes.items():
        box.accept()
        station.wait_connected(name)
    for name in ("stays", "goes", "goes", "off"):
        station.attach(name)
    port = {name: box.port for name, box in boxes.items()}
    (station.config / "consoles.toml").write_text(
        f'[defaults]\nmodel = "A200"\nplatform = "sys1"\nos = "Unix 5.1"\nevents = false\n'
        f'login = false\nmanagement_port = 23\n'
        f'[[console]]\nname = "renamed"\ntcp = "127.0.0.1:{port["stays"]}"\n'
        f'[[console]]\nname = "off"\ntcp = "127.0.0.1:{port["off"]}"\nenabled = false\n'
        f'[[console]]\nname = "new"\ntcp = "192.0.2.1"\n')
    told = zevctl.data(station, "config", "diff")
    assert [(entry["console"], entry["change"], entry["users_lost"]) for entry in told] == [
        ("goes", "goes", 2), ("stays", "changes", 0), ("off", "changes", 1), ("new", "comes", 0)]
    assert told[1]["fields"] == [{"field": "console name", "before": "stays", "after": "renamed"}]
    shown = zevctl.succeed(station, "config", "diff")
    assert re.search(r"^-  goes +127\.0\.0\.1:\d+ +2", shown, re.MULTILINE)
    assert "enable flag 1 -> 0" in shown
    zevctl.succeed(station, "config", "apply", "--force", "-y")
    assert zevctl.succeed(station, "config", "diff") == "no console comes, goes or changes\n"
    wait_until(lambda: {entry["name"] for entry in zevctl.data(station, "list")}
               == {"renamed", "off", "new"}, what="the daemon to have what diff told")
    assert [entry["console"] for entry in zevctl.data(station, "who")] == ["renamed"]


def test_diff_without_a_daemon_does_not_know_the_users(station):
    station.console_line("goes", 2001)
    (station.config / "consoles.toml").write_text(
        '[[console]]\nname = "new"\ntcp = "192.0.2.1"\n')
    done = zevctl.run(None, "--port", "1", "--json", "config", "diff")
    assert done.returncode == zevctl.OK
    assert done.stderr.startswith("zevctl: the users are not known: ")
    assert '"console":"goes","change":"goes"' in done.stdout and '"users_lost":null' in done.stdout


# import


def test_import_and_apply_change_nothing(station):
    """What is imported makes the same lines again, whatever the fields are."""
    lines = [console_line("a", 2001, address="192.0.2.1", mapped_port=6501, events=1, auth=1),
             console_line("b", 2002, address="192.0.2.1", logging=0, enable=0),
             console_line("c", 2003, address="192.0.2.1", model="P100", os_type="o\\s",
                          platform="p")]
    station.write_config("# by hand\n" + "".join(lines))
    path = station.config / "consoles.toml"
    zevctl.succeed(None, "config", "import", "--output", str(path))
    zevctl.succeed(None, "config", "apply", "--force")
    assert station.config_file.read_text().splitlines()[1:] == [
        line.rstrip("\n") for line in lines]


def test_import_never_writes_over_a_file(station):
    station.write_config(GOOD)
    path = station.config / "consoles.toml"
    mine = '[[console]]\nname = "mine"\ntcp = "192.0.2.1"\n'
    path.write_text(mine)
    zevctl.refuse(None, zevctl.FAILED, f"cannot write {path}: File exists; name a file that is not "
                  "there yet", "config", "import", "--output", str(path))
    assert path.read_text() == mine
    path.write_text("half [")
    zevctl.refuse(None, zevctl.FAILED, f"cannot write {path}: File exists; name a file that is not "
                  "there yet", "config", "import", "--output", str(path))


def test_import_replaces_a_file_without_consoles_and_keeps_it(station):
    station.write_config(GOOD)
    os.chown(station.config, 7, 8)
    path, kept = station.config / "consoles.toml", station.config / "consoles.toml.orig"
    path.write_text("# the package's\n")
    path.chmod(0o640)
    done = zevctl.run(None, "config", "import", "--output", str(path))
    assert (done.returncode, done.stderr) == (zevctl.OK, f"zevctl: {path} had no consoles, and has "
                                              "been replaced; what stood there is kept in "
                                              "consoles.toml.orig\n")
    assert kept.read_text() == "# the package's\n"
    assert '[[console]]\nname = "box"\n' in path.read_text()
    info = path.stat()
    assert (info.st_uid, info.st_gid, info.st_mode & 0o777) == (7, 8, 0o640)


def test_import_never_writes_over_what_was_kept(station):
    station.write_config(GOOD)
    path, kept = station.config / "consoles.toml", station.config / "consoles.toml.orig"
    path.write_text("# new\n")
    kept.write_text("# old\n")
    zevctl.refuse(None, zevctl.FAILED, f"cannot keep {path} as consoles.toml.orig: File exists; "
                  "move one of them away", "config", "import", "--output", str(path))
    assert (path.read_text(), kept.read_text()) == ("# new\n", "# old\n")


def test_import_refuses_lines_that_the_daemon_leaves_out(station):
    station.write_config("box 192.0.2.1\n")
    done = zevctl.run(None, "config", "import")
    assert (done.returncode, done.stdout) == (zevctl.FAILED, "")
    assert "zev.conf:1:14: error: the console port is missing" in done.stderr


# completion


@pytest.mark.parametrize("words, offered", [
    (["config", ""], ["check", "diff", "apply", "import"]),
    (["config", "a"], ["apply"]),
    (["config", "check", ""], ["<file>"]),
    (["config", "check", "--format", ""], ["toml", "conf"]),
    (["config", "apply", ""], []),
    (["config", "apply", "--fo"], ["--force"]),
])
def test_the_commands_of_config_are_completed(words, offered):
    assert zevctl.succeed(None, "complete", *words).split() == offered
