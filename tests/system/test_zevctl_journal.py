"""`zevctl journal`: the segments, and whatever is wrong with them."""

import json
import re
import shutil

import pytest

from harness import zevctl
from harness.keeper import keep
from journal_writer import JournalWriter, cut, flip


@pytest.fixture
def journal(station):
    """Three sealed segments, of which two are compressed, and one that is being written."""
    with JournalWriter(station.root / "journal", hold=True) as written:
        box = written.console("box")
        for _ in range(3):
            written.output(box, b"some output\n")
            written.new_segment()
        written.output(box, b"the newest\n")
        keep()
        yield written


def index(journal, number: int):
    return journal.segment(number).with_suffix(".idx")


def packed(journal, number: int):
    return journal.segment(number).with_suffix(".seg.zst")


def found(*wanted: str) -> list[dict]:
    """Verify, and see that the findings are about these files or segments, in this order."""
    done = zevctl.run(None, "--json", "journal", "verify")
    assert (done.returncode, done.stderr) == (zevctl.DAMAGED, "")
    findings = json.loads(done.stdout)[0]["findings"]
    assert [(finding["file"] or str(finding["segment"])).lstrip("0")
            for finding in findings] == list(wanted), findings
    # The same in words, each with what to do.
    done = zevctl.run(None, "journal", "verify")
    assert done.returncode == zevctl.DAMAGED
    lines = done.stderr.splitlines()
    assert len(lines) == len(findings) and all(
        re.match(r"zevctl: .*: .*; .", line) for line in lines)
    return findings


def test_a_sound_journal(journal):
    assert re.fullmatch(
        rf"station {journal.station:016x}: 4 segments, 3 of them sealed, 8 records, nothing is "
        rf"wrong\n"
        r"last seal: segment 3, hash [0-9a-f]{64}\n", zevctl.succeed(None, "journal", "verify"))
    told = zevctl.data(None, "journal", "verify")[0]
    assert told["findings"] == [] and told["last_seal"]["segment"] == 3 and told["sealed"] == 3


def test_the_list(journal):
    listed = zevctl.data(None, "journal", "list")
    assert [(one["segment"], one["state"], one["records"]) for one in listed] == [
        (1, "compressed", 2), (2, "compressed", 2), (3, "compressed", 2), (4, "open", 2)]
    assert listed[0]["file_size"] == packed(journal, 1).stat().st_size
    assert listed[3]["hash"] is None and listed[3]["size"] == journal.segment(4).stat().st_size
    text = zevctl.succeed(None, "journal", "list")
    assert text.splitlines()[0].split() == ["SEGMENT", "STATE", "FIRST", "LAST", "RECORDS", "BYTES",
                                            "ON", "DISK", "SEAL"]
    assert listed[1]["hash"] in text


def test_a_changed_byte(journal):
    flip(packed(journal, 2), 40)
    assert "damaged" in found("2.seg.zst")[0]["problem"]
    flip(packed(journal, 2), 40)
    flip(index(journal, 3), 60)
    assert "checksum" in found("3.idx")[0]["problem"]
    flip(index(journal, 3), 60)
    flip(index(journal, 1), -1)
    found("1.idx")
    flip(index(journal, 1), -1)
    zevctl.succeed(None, "journal", "verify")


def test_a_changed_byte_of_what_is_not_sealed(journal):
    flip(journal.segment(4), 70)
    assert found("4.seg")[0]["offset"] == 64


def test_missing_segments(journal):
    for number in (1, 2):
        index(journal, number).unlink()
        packed(journal, number).unlink()
    assert [one["problem"] for one in found("1")] == ["segments 1 to 2 are missing"]


def test_an_index_alone_and_records_alone(journal):
    index(journal, 1).unlink()
    packed(journal, 2).unlink()
    found("1.idx", "2")


def test_exchanged_segments(journal):
    for name in (index, packed):
        kept = name(journal, 1).read_bytes()
        shutil.copy(name(journal, 2), name(journal, 1))
        name(journal, 2).write_bytes(kept)
    found("1.idx", "1.seg.zst", "2.idx", "2.seg.zst")


def test_a_foreign_segment(journal, tmp_path):
    with JournalWriter(tmp_path / "other", station=7, first_segment=5) as other:
        other.console("box")
    shutil.copy(other.segment(5), journal.segment(5))
    assert "another station" in found("5.seg")[0]["problem"]


def test_a_truncated_segment(journal):
    cut(packed(journal, 3), -1)
    found("3.seg.zst")


def test_a_journal_that_cannot_be_verified(station):
    place = station.root / "journal"
    zevctl.refuse(None, zevctl.FAILED, f"{place}: there is no journal; set ZEVD_JOURNAL= in "
                                       f"qor.conf "
                  "to have one", "journal", "verify")
    aside = station.root / "aside"
    with JournalWriter(aside) as journal:
        journal.console("box")
    place.symlink_to(aside)
    zevctl.refuse(None, zevctl.FAILED, f"{place} is a link or no directory; put the journal's "
                  "directory in its place", "journal", "list")
    zevctl.succeed(None, "journal", "verify", "--journal-dir", str(aside))
    (aside / "id").unlink()
    done = zevctl.run(None, "journal", "verify", "--journal-dir", str(aside))
    assert done.returncode == zevctl.FAILED and "/id cannot be read: " in done.stderr
