"""The models file and its visible effect: a Pellox console has a grace period on connecting."""

import re

import pytest

from harness.debuglog import messages, parse

LIMIT = 20


@pytest.fixture
def pellox_models(station):
    """Finds out which of the models count as Pellox ones, given a models file."""
    def ask(text: str | None, *models: str) -> set[str]:
        if text is None:
            station.models_file.unlink()
        else:
            station.models_file.write_text(text, encoding="latin-1", newline="")
        consoles = {f"c{number}": station.console(f"c{number}", model=model)
                    for number, model in enumerate(models)}
        station.start()
        for console in consoles.values():
            console.accept()
        return {model for name, model in zip(consoles, models) if has_grace(station, name)}

    return ask


def has_grace(station, name: str) -> bool:
    """True when the console had to stay established for two seconds before it counted.

    Any other console is connected at the first check that finds it established.
    """
    connected = station.wait_log(
        re.compile(rf"^UpdateConnectionStatus: Connected to {name} \("), limit=LIMIT)
    look = re.compile(rf'^CheckConnectionStatus: Checking status for "{name}" ')
    looks = [record for record in parse(station.log_text()[:connected.end])
             if look.match(record.message)]
    return len(looks) > 1 and elapsed(looks[0].stamp, connected.stamp) >= 2


def elapsed(earlier: str, later: str) -> int:
    """The seconds between the stamps of two debug lines that are less than a day apart."""
    return (seconds(later) - seconds(earlier)) % (24 * 60 * 60)


def seconds(stamp: str) -> int:
    """The time of day of a debug line's stamp."""
    hours, minutes, rest = stamp.partition("_")[2].split(":")
    return int(hours) * 3600 + int(minutes) * 60 + int(rest)


def load_messages(station) -> list[str]:
    """The messages about the models file."""
    return [message for message in messages(station.log_text())
            if message.startswith("LoadModels: ")]


def test_series_and_model_ignore_case(station, pellox_models):
    assert pellox_models("px|m100\nPX|M200\npX|mIxEd\nA|A200\n",
                         "M100", "m200", "MiXeD", "A200", "M10", "M1000") == {
                             "M100", "m200", "MiXeD"}
    assert load_messages(station) == []


def test_the_grace_lasts_two_seconds_of_the_clock(station):
    station.console("slow", model="P100")
    station.start()
    attempt = station.wait_log(re.compile("^ConnectToConsole: Attempting to connect to slow "))
    connected = station.wait_log(re.compile("^UpdateConnectionStatus: Connected to slow "))
    assert elapsed(attempt.stamp, connected.stamp) >= 2


def test_blanks_belong_to_series_and_model(pellox_models):
    assert pellox_models("PX |M100\n PX|M200\nPX|M300 \nPX| M400\nPX|M500\n",
                         "M100", "M200", "M300", "M400", "M500") == {"M500"}


def test_comments_and_empty_lines_are_skipped(pellox_models):
    assert pellox_models("#PX|M100\n\n\r\n\r PX|M200\n #|M300\nPX|M400\n",
                         "M100", "M200", "M300", "M400") == {"M400"}


def test_a_line_without_series_or_model_is_ignored(station, pellox_models):
    assert pellox_models("PX\nPX|\n|M100\nPX|\r\nM200\nPX|M300\n",
                         "M100", "M200", "M300", "PX") == {"M300"}
    assert load_messages(station) == []


def test_bars_before_the_series_are_skipped_and_later_ones_belong_to_the_model(pellox_models):
    assert pellox_models("||PX|M100\nPX||M200\nPX|M300|A\n",
                         "M100", "M200", "|M200", "M300", "M300|A") == {
                             "M100", "|M200", "M300|A"}


def test_line_ends_of_other_systems_are_understood(pellox_models):
    assert pellox_models("PX|M100\r\nPX|M200\rPX|M300\nPX|M400", "M100", "M200", "M300",
                         "M400") == {"M100", "M200", "M400"}


def test_a_model_of_two_series_is_pellox_when_one_of_them_is(pellox_models):
    assert pellox_models("A|M100\nPX|M100\nPX|M200\nA|M200\nA|M300\n",
                         "M100", "M200", "M300") == {"M100", "M200"}


def test_twenty_models_are_kept(pellox_models):
    others = "".join(f"# no entry\nno entry\nA|A{number}\n" for number in range(19))
    assert pellox_models(others + "PX|M100\nPX|M200\n", "M100", "M200") == {"M100"}


def test_a_missing_file_leaves_every_console_ordinary(station, pellox_models):
    assert pellox_models(None, "M100", "PX") == set()
    assert load_messages(station) == [
        f"LoadModels: fopen( {station.models_file}, ...) failed : No such file or directory\n"]
    station.wait_connected("c0")
    station.attach("c0")


@pytest.mark.parametrize("text", ["", "# nothing\n\n", "PX\n|\n||\n"])
def test_a_file_without_models_is_reported(station, pellox_models, text):
    assert pellox_models(text, "M100") == set()
    assert load_messages(station) == [
        f"LoadModels: No models found in {station.models_file}!!\n"]


def test_long_lines_and_foreign_bytes_are_tolerated(pellox_models):
    every_byte = "".join(chr(byte) for byte in range(1, 256) if chr(byte) not in "\r\n")
    long_line = "A|" + "x" * 9000
    assert pellox_models(f"{every_byte}\n{long_line}\nPX|M100\n", "M100") == {"M100"}
