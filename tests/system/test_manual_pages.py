"""The manual pages against the programs: every option, command and field, and clean sources."""

import re
import subprocess

import pytest

from harness import settings, zevctl
from harness.debuglog import messages

ZEVCTL_PAGE = settings.REPOSITORY / "zevctl/zevctl.1"
ZEVD_PAGE = settings.REPOSITORY / "zevd/zevd.8"
TOML_PAGE = settings.REPOSITORY / "zevctl/consoles.toml.5"
CONF_PAGE = settings.REPOSITORY / "zevd/zev.conf.5"
FLEET_PAGE = settings.REPOSITORY / "zevfleet/zevfleet.8"


def page(path) -> str:
    """The page as it is read, without the marks for bold and underlined text."""
    shown = subprocess.run(["mandoc", "-T", "ascii", path], capture_output=True, text=True,
                           check=True).stdout
    return re.sub(".\b", "", shown)


def section(path, title: str) -> str:
    """One section of the page, without its title."""
    found = re.search(rf"^{title}\n(.*?)(?=^\S)", page(path), re.MULTILINE | re.DOTALL)
    assert found, f"{path.name} has no section {title}"
    return found[1]


def items(text: str) -> dict[str, str]:
    """The entries of a section's list, each with its text in one line."""
    found = re.split(r"^     (\S.*)\n(?=             \S)", text, flags=re.MULTILINE)
    return {tag: " ".join(body.split()) for tag, body in zip(found[1::2], found[2::2])}


def options_of(help_text: str) -> set[str]:
    """The long options in a help text of the client."""
    return set(re.findall(r"(?:^  |,)(--[a-z-]+)", help_text, re.MULTILINE))


@pytest.mark.parametrize("path", [ZEVCTL_PAGE, ZEVD_PAGE, CONF_PAGE, TOML_PAGE, FLEET_PAGE])
def test_the_source_is_clean(path):
    done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", path], capture_output=True,
                          text=True, check=False)
    assert (done.returncode, done.stdout) == (0, "")


def test_the_page_of_the_fleet_names_every_command_option_and_key():
    program = settings.build_directory() / "bin/zevfleet"

    def help_of(*words: str) -> str:
        return subprocess.run([program, *words, "--help"], capture_output=True, text=True,
                              check=True).stdout

    commands = re.findall(r"^  ([a-z]+) ", help_of().partition("Subcommands:")[2], re.MULTILINE)
    described = page(FLEET_PAGE)
    for command in commands:
        assert re.search(rf"^     {command}\b", described, re.MULTILINE), command
        for option in options_of(help_of(command)) - {"--help"}:
            assert option in described or option == "--yes", option
    source = (settings.REPOSITORY / "zevfleet/fleet_options.cpp").read_text(encoding="ascii")
    for key in re.findall(r'\{"([a-z_]+)", Take', source):
        assert re.search(rf"\b{key}\b", described), key


# The client


def helps(*command: str) -> dict[str, str]:
    """The help texts of a command and of the commands within it, each by its name."""
    text = zevctl.succeed(None, *command, "--help")
    within = re.findall(r"^  ([a-z]+) ", text.partition("Subcommands:")[2], re.MULTILINE)
    return {" ".join(command): text} | {name: found for word in within
                                        for name, found in helps(*command, word).items()}


def test_the_clients_page_names_every_command_and_option():
    text = page(ZEVCTL_PAGE)
    known = helps()
    commands = {word for name in known for word in name.split()}
    assert len(commands) >= 18 and "apply" in commands
    wanted = commands.union(*(options_of(found) for found in known.values()))
    assert {word for word in wanted if not re.search(
        rf"(?<![\w-]){word}(?![\w-])", text)} == set()


def test_the_clients_page_names_no_option_that_is_not_there():
    known = set().union(*(options_of(found) for found in helps().values()))
    assert set(re.findall(r"(?<![\w-])--[a-z-]+", page(ZEVCTL_PAGE))) <= known


def test_the_clients_page_tells_every_exit_status():
    source = (settings.REPOSITORY / "zevctl/exit_status.h").read_text()
    declared = re.findall(r"^  k\w+ = (\d+),", source, re.MULTILINE)
    assert len(declared) == 13
    told = re.findall(r"^     (\d+) ", section(ZEVCTL_PAGE, "EXIT STATUS"), re.MULTILINE)
    assert told == declared


# The daemon's options


def test_the_daemons_page_names_every_option(station):
    usage = station.run("-h").stdout
    wanted = set(re.findall(r"^   (-[a-zA-Z]) ", usage, re.MULTILINE))
    assert len(wanted) == 12
    shown = set(re.findall(r"^     (-[a-zA-Z])\b", page(ZEVD_PAGE), re.MULTILINE))
    assert shown == wanted


def test_the_daemons_page_tells_the_default_of_every_option_that_has_one(station):
    usage = station.run("-h").stdout.replace(str(station.root), str(settings.STANDARD_ROOT))
    defaults = dict(re.findall(r"^   (-\w) (?:(?!^   -)[\s\S])*?Default: (.*)$", usage,
                               re.MULTILINE))
    assert len(defaults) == 8
    texts = re.split(r"^     (-\w)\b", section(ZEVD_PAGE, "OPTIONS"), flags=re.MULTILINE)
    told = {option: re.search(r"(\S+(?: days)?) if not given", " ".join(text.split()))
            for option, text in zip(texts[1::2], texts[2::2])}
    assert {option: found[1] for option, found in told.items() if found} == defaults


# The daemon's files


def test_the_page_of_the_files_names_every_field_of_a_console(station):
    """What the daemon misses in lines that end too early are its fields, in their order."""
    words = ["c1", "127.0.0.1", "2001", "23", "0", "A200", "sys1", '"OS"', "1", "0", "0", "1",
             '""']
    lines = [" ".join(words[:count]) for count in range(1, len(words) + 1)]
    lines[7] = lines[7][:-1]  # the newline behind the closing quote would be the next field
    station.write_config("".join(f"{line}\n" for line in lines))
    station.start("-d", "1")
    station.wait_log("ACCESSIBLE CONSOLES:")
    missed = [re.fullmatch(r"LoadConfigFile: Missing (.*) at line \d+\n", said)
              for said in messages(station.log_text())]
    fields = ["console name"] + [found[1] for found in missed if found]
    assert len(fields) == len(words)
    assert list(items(section(CONF_PAGE, "CONSOLES"))) == [
        f"{number}. {field}" for number, field in enumerate(fields, 1)]


def test_the_page_of_the_files_names_every_part_of_a_pattern(station):
    (station.events / "set").write_text("n\nn 1\nn 1 0\n")
    station.start("-d", "1")
    station.wait_log("ACCESSIBLE CONSOLES:")
    missed = [re.fullmatch(r"ParseRegExFile: (.*) missing in line \d of .*\n", said)
              for said in messages(station.log_text())]
    parts = ["name"] + [found[1].lower() for found in missed if found]
    assert len(parts) == 4
    assert list(items(section(CONF_PAGE, "EVENT FILES"))) == [
        f"{number}. {part}" for number, part in enumerate(parts, 1)]


def test_the_page_of_the_files_names_every_setting(station):
    """The settings that the daemon knows are those whose keys are in its sources; it writes one."""
    station.start()
    written = (station.config / "qor.conf").read_text()
    sources = "".join(path.read_text()
                      for path in sorted((settings.REPOSITORY / "zevd").glob("*.cpp")))
    keys = re.findall(r'"([A-Z_]+)="', sources)
    assert re.findall(r"^([A-Z_]+)=", written, re.MULTILINE) == ["ZEVD_ARCH_INT"] == keys[:1]
    assert list(items(section(CONF_PAGE, "SETTINGS"))) == keys


def test_the_page_of_the_files_names_every_series_with_a_meaning():
    source = (settings.REPOSITORY / "zevd/models.cpp").read_text()
    series = re.findall(r'Series\[\] = "(\w+)"', source)
    assert len(series) == 1
    assert re.findall(r"\b[A-Z]{2,}\b", section(CONF_PAGE, "MODELS")) == series


def test_the_examples_of_the_files_are_understood(station):
    """What is said where files are read would be a complaint."""
    examples = re.findall(r"^\.Bd .*\n([\s\S]*?)^\.Ed$", CONF_PAGE.read_text(), re.MULTILINE)
    consoles, patterns, models, setting = (text.replace(r"\ \&", " ") for text in examples)
    station.write_config(consoles)
    station.models_file.write_text(models)
    (station.events / "disk").write_text(patterns)
    (station.config / "qor.conf").write_text(setting)
    station.start("-d", "1")
    station.wait_log(re.compile(r"^OpenConsolidatedLogFile: opened "))
    said = messages(station.log_text())
    assert "name = lab1\n" in said and "events = 1\n" in said
    readers = ("GetZevdArchIntFromConfFile", "LoadConfigFile", "LoadEventFiles", "LoadEventFile",
               "ParseRegExFile", "LoadModels")
    assert [text for text in said if text.startswith(tuple(f"{name}:" for name in readers))] == []
    assert (station.config / "qor.conf").read_text() == setting


# The readable configuration


def test_the_page_of_the_readable_file_names_every_key():
    source = (settings.REPOSITORY / "zevctl/config_keys.h").read_text()
    keys = re.findall(r'KeyRow\{\s*"(\w+)"', source)
    assert len(keys) >= 18
    described = TOML_PAGE.read_text().partition(".Sh KEYS\n")[2].partition(".Sh ")[0]
    told = [key for tags in re.findall(r"^\.It (.*)$", described, re.MULTILINE)
            for key in re.split(", ", tags)]
    assert sorted(told) == sorted(keys)


def test_the_examples_of_the_readable_file_are_without_errors(station):
    (station.events / "disk").write_text("disk_error 300 0 disk.*error\n")
    section = TOML_PAGE.read_text().partition("\n.Sh EXAMPLES\n")[2].partition("\n.Sh ")[0]
    examples = re.findall(r"^\.Bd .*\n([\s\S]*?)^\.Ed$", section, re.MULTILINE)
    assert len(examples) >= 2
    for number, example in enumerate(examples):
        path = station.config / f"example{number}.toml"
        path.write_text(example)
        found = zevctl.data(None, "config", "check", str(path))
        assert [finding for finding in found if finding["severity"] == "error"] == []


def test_the_sample_of_a_new_installation_is_without_errors_once_it_is_no_comment(station):
    (station.events / "disk").write_text("disk_error 300 0 disk.*error\n")
    sample = (settings.REPOSITORY / "packaging/config/consoles.toml").read_text()
    path = station.config / "consoles.toml"
    path.write_text(sample)
    assert zevctl.succeed(None, "config", "check", str(path)) == (
        f"{path}: 0 consoles, 0 errors\n")
    path.write_text(re.sub(r"^#(?! )", "", sample, flags=re.MULTILINE))
    told = zevctl.succeed(None, "config", "check", str(path))
    assert re.search(r": [1-9]\d* consoles, 0 errors\n$", told)
