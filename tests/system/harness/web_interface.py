"""The JSON interface of zevweb as a test asks it: each answer is compared with openapi.json."""

import json
import re
import urllib.parse
from collections.abc import Callable

import jsonschema
import pytest

from harness import settings
from harness.web import Web

DESCRIPTION = json.loads((settings.REPOSITORY / "zevweb/openapi.json").read_text())

# Whom the proxy vouches for, and from where: so a station without security will do.
PERSON = {"X-Remote-User": "root", "X-Forwarded-For": "192.0.2.9"}

# Sends a request (method, path with query, body, headers) and gives status, type and bytes.
Transport = Callable[[str, str, bytes | None, dict[str, str]], tuple[int, str, bytes]]


def _schema(described: dict) -> dict:
    """A schema of the description that stands by itself."""
    return {**described, "components": DESCRIPTION["components"]}


def described_path(path: str) -> str:
    """The path of the description that a request's path is an instance of."""
    for template in DESCRIPTION["paths"]:
        if re.fullmatch(re.sub(r"\{[a-z]+\}", "[^/]+", template), path):
            return template
    raise AssertionError(f"openapi.json does not describe {path}")


def check_parameters(operation: dict, query: list[tuple[str, str]]) -> None:
    """What a test asks with is described, too."""
    known = {parameter["name"] for parameter in operation.get("parameters", [])
             if parameter["in"] == "query"}
    assert {name for name, _ in query} <= known


def check(method: str, path: str, status: int, kind: str, body: bytes) -> None:
    """The answer is one that the description has."""
    operation = DESCRIPTION["paths"][described_path(path)][method.lower()]
    answer = operation["responses"][str(status)]
    kind = kind.partition(";")[0]
    assert kind in answer["content"], (path, kind)
    if kind == "application/json":
        jsonschema.Draft202012Validator(_schema(answer["content"][kind]["schema"])).validate(
            json.loads(body))


class Api:
    """Asks in the name of one person or machine. `seen` are the operations that were answered with
    200."""

    def __init__(self, transport: Transport, headers: dict[str, str] | None = None) -> None:
        self._transport = transport
        self._headers = headers or {}
        self.seen: set[tuple[str, str]] = set()

    def request(self, method: str, path: str, query: list[tuple[str, str]], body: bytes | None,
                headers: dict[str, str]) -> tuple[int, str, bytes]:
        """Status, type and bytes of the answer."""
        encoded = urllib.parse.quote(path) + ("?" + urllib.parse.urlencode(
            query, quote_via=urllib.parse.quote) if query else "")
        return self._transport(method, encoded, body, {**self._headers, **headers})

    def _ask(self, method: str, path: str, query: list[tuple[str, str]],
             body: bytes | None) -> tuple[int, dict]:
        status, kind, answer = self.request(method, path, query, body, {})
        check(method, path, status, kind, answer)
        if status == 200:
            self.seen.add((method, described_path(path)))
            check_parameters(DESCRIPTION["paths"][described_path(path)][method.lower()], query)
        return status, json.loads(answer)

    def get(self, path: str, *more: tuple[str, str], **query) -> dict:
        """The data of an answer; `more` is for parameters that are no names of Python's."""
        status, data = self._ask("GET", path, [(name, str(value)) for name, value in query.items()]
                                 + list(more), None)
        assert status == 200, data
        return data

    def refused(self, status: int, text: str, path: str, **query) -> None:
        """See a request refused with this status and text."""
        told, data = self._ask("GET", path, [(name, str(value)) for name, value in query.items()],
                               None)
        assert (told, data.get("error")) == (status, text), (told, data)

    def post(self, path: str, data: dict | None = None) -> tuple[int, str]:
        """The status, and what has become of the command in words."""
        body = b"" if data is None else json.dumps(data).encode()
        status, answer = self._ask("POST", path, [], body)
        return status, answer["text"] if status == 200 else answer["error"]


def behind_proxy(station, scratch, **options) -> Web:
    """zevweb, as a proxy reaches it."""
    return Web(station, scratch, lines=f'[proxy]\nsocket = "{scratch}/proxy.sock"\n', **options)


def person(web: Web) -> Api:
    """Asks as a person."""
    def send(method: str, path: str, body: bytes | None,
             headers: dict[str, str]) -> tuple[int, str, bytes]:
        answer = web.ask(method, path, body, {**PERSON, **headers}, local=True)
        return answer.status, answer.headers["Content-Type"], answer.body

    return Api(send)


def machine(web: Web, name: str = "machine") -> Api:
    """Asks with a token."""
    def send(method: str, path: str, body: bytes | None,
             headers: dict[str, str]) -> tuple[int, str, bytes]:
        answer = web.ask(method, path, body, headers)
        return answer.status, answer.headers["Content-Type"], answer.body

    return Api(send, {"Authorization": f"Bearer {web.token(name)}"})


@pytest.fixture
def web(station, tmp_path):
    """zevweb behind a proxy; it starts when it is first asked."""
    with behind_proxy(station, tmp_path) as made:
        yield made


@pytest.fixture
def api(web):
    """A person who asks it."""
    return person(web)
