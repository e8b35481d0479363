"""Tokens for machines: made, listed and withdrawn by the operators' client."""

import hashlib
import json
import os
import re
import time

import pytest

from harness import zevctl

REMARK = ("zevctl: this is the only time that the token is shown; keep it where only the machine "
          "that uses it can read it\n")


@pytest.fixture
def tokens(station):
    """The file in which they are kept; its directory belongs to another user."""
    os.chown(station.config_file.parent, 0, 65534)
    return station.config_file.parent / "web.tokens"


def create(*arguments: str) -> str:
    done = zevctl.run(None, "token", "create", *arguments)
    assert (done.returncode, done.stderr) == (0, REMARK)
    return done.stdout.removesuffix("\n")


def test_a_token_is_shown_once_and_kept_as_a_hash(tokens):
    secret = create("metrics")
    assert re.fullmatch(r"zev_[0-9a-f]{64}", secret)
    text = tokens.read_text()
    assert secret not in text and hashlib.sha256(secret.encode()).hexdigest() in text
    info = tokens.stat()
    assert (info.st_mode & 0o7777, info.st_gid) == (0o640, 65534)
    listed = zevctl.succeed(None, "token", "list")
    assert "metrics" in listed and "never" in listed and secret not in listed


def test_a_token_may_expire(tokens):
    before = int(time.time())
    told = zevctl.data(None, "token", "create", "--days", "2", "short")
    assert list(told) == ["name", "made", "expires", "expired", "token"]
    assert told["expires"] - told["made"] == 2 * 86400 and told["made"] >= before
    kept, = zevctl.data(None, "token", "list")
    del told["token"]
    assert kept == told
    expired = re.sub(r"(?m)^short \d+ \d+", "short 5 6", tokens.read_text())
    tokens.write_text(expired)
    assert zevctl.data(None, "token", "list")[0]["expired"] is True


def test_a_withdrawn_token_is_gone(tokens):
    create("one")
    create("two")
    assert zevctl.succeed(None, "token", "withdraw", "one") == ""
    assert [token["name"] for token in zevctl.data(None, "token", "list")] == ["two"]
    zevctl.refuse(None, zevctl.FAILED, 'no token is called "one"; there is two', "token",
                  "withdraw", "one")
    zevctl.succeed(None, "token", "withdraw", "two")
    zevctl.refuse(None, zevctl.FAILED, 'no token is called "one"; there is none', "token",
                  "withdraw", "one")


def test_names_are_plain_and_stand_for_one_token(tokens):
    create("one")
    zevctl.refuse(None, zevctl.FAILED,
                  "there is a token one already; withdraw it first, or choose another name",
                  "token", "create", "one")
    for name in ("a b", "", "a/b", "x" * 65, "a\nb 1 never"):
        done = zevctl.run(None, "token", "create", name)
        assert done.returncode == zevctl.USAGE, name
        assert "must be 1 to 64 letters, digits, dots, '_' and '-'" in done.stderr
    assert len(zevctl.data(None, "token", "list")) == 1


def test_a_file_that_is_no_list_of_tokens_is_left_alone(tokens):
    tokens.write_text("# tokens\nnonsense\n")
    for arguments in (["create", "one"], ["list"], ["withdraw", "one"]):
        zevctl.refuse(None, zevctl.FAILED, f"{tokens}:2: this line is no token; remove it",
                      "token", *arguments)
    assert tokens.read_text() == "# tokens\nnonsense\n"
    tokens.unlink()
    tokens.symlink_to("/etc/hostname")
    zevctl.refuse(None, zevctl.FAILED, f"{tokens} cannot be read: it is a link; run this as root, "
                  "or remove what stands there", "token", "list")


def test_names_of_tokens_are_completed(tokens):
    create("metrics")
    assert zevctl.succeed(None, "complete", "token", "withdraw", "") == "metrics\n"
    assert zevctl.succeed(None, "complete", "token", "") == "create\nlist\nwithdraw\n"
    assert zevctl.succeed(None, "complete", "token", "list", "") == ""
    assert json.loads(zevctl.succeed(None, "--json", "token", "list"))[0]["name"] == "metrics"
