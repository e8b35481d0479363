"""NATS's own kind of logins: keys and signed claims, as its servers and clients read them.

The forms are those of NATS's documentation: base32 texts of a prefix, the key and a CRC-16, and
JSON Web Tokens that are signed by Ed25519.
"""

import base64
import json
import subprocess
import time
from pathlib import Path

_SEED = 18 << 3  # "S"
_KINDS = {"operator": 14 << 3, "account": 0, "user": 20 << 3}  # "O", "A", "U"
_RAW = 32  # bytes of a key, at the end of its DER form

_NO_LIMITS = {"subs": -1, "data": -1, "payload": -1}
_STREAMS = {"mem_storage": -1, "disk_storage": -1, "streams": -1, "consumer": -1}
_CLAIMS = {
    "operator": {},
    "account": {"limits": {**_NO_LIMITS, "imports": -1, "exports": -1, "wildcards": True,
                           "conn": -1, "leaf": -1},
                "default_permissions": {"pub": {}, "sub": {}}},
    "user": {**_NO_LIMITS, "pub": {}, "sub": {}},
}


def _crc16(data: bytes) -> int:
    crc = 0
    for byte in data:
        crc ^= byte << 8
        for _ in range(8):
            crc = (crc << 1 ^ 0x1021 if crc & 0x8000 else crc << 1) & 0xFFFF
    return crc


def _text(data: bytes) -> str:
    return base64.b32encode(data + _crc16(data).to_bytes(2, "little")).decode().rstrip("=")


def _web(data: bytes) -> str:
    return base64.urlsafe_b64encode(data).decode().rstrip("=")


class Party:
    """An operator, an account or a user: a pair of keys, and the claims that its issuer signs."""

    def __init__(self, kind: str, directory: Path, name: str) -> None:
        self.kind, self.name = kind, name
        self._file = directory / f"{name}.key"
        subprocess.run(["openssl", "genpkey", "-algorithm", "ed25519", "-out", self._file],
                       check=True)
        self.public = _text(bytes([_KINDS[kind]]) + self._der("-pubout"))

    def _der(self, *options: str) -> bytes:
        return subprocess.run(["openssl", "pkey", "-in", self._file, "-outform", "DER", *options],
                              check=True, capture_output=True).stdout[-_RAW:]

    @property
    def seed(self) -> str:
        """The secret key."""
        prefix = bytes([_SEED | _KINDS[self.kind] >> 5, (_KINDS[self.kind] & 31) << 3])
        return _text(prefix + self._der())

    def sign(self, data: bytes) -> bytes:
        """The signature of the data."""
        message = self._file.with_suffix(".message")
        message.write_bytes(data)
        return subprocess.run(["openssl", "pkeyutl", "-sign", "-inkey", self._file, "-rawin", "-in",
                               message], check=True, capture_output=True).stdout

    def token(self, issuer: "Party", keeps_streams: bool = False) -> str:
        """What the issuer says of it."""
        content = json.loads(json.dumps(_CLAIMS[self.kind]))
        if keeps_streams:
            content["limits"].update(_STREAMS)
        claims = {"jti": self.public, "iat": int(time.time()), "iss": issuer.public,
                  "name": self.name, "sub": self.public,
                  "nats": {**content, "type": self.kind, "version": 2}}
        head = {"typ": "JWT", "alg": "ed25519-nkey"}
        body = ".".join(_web(json.dumps(part).encode()) for part in (head, claims))
        return f"{body}.{_web(issuer.sign(body.encode()))}"

    def credentials(self, issuer: "Party") -> Path:
        """The file with which a user logs in."""
        path = self._file.with_suffix(".creds")
        path.write_text(f"-----BEGIN NATS USER JWT-----\n{self.token(issuer)}\n"
                        "------END NATS USER JWT------\n\n"
                        f"-----BEGIN USER NKEY SEED-----\n{self.seed}\n"
                        "------END USER NKEY SEED------\n", encoding="ascii")
        return path


def server_settings(operator: Party, account: Party, system: Party) -> str:
    """With which a server believes the users of the account, which keeps streams, and nobody else.

    The server's own messages are in the other account.
    """
    return (f"operator: {operator.token(operator)}\nsystem_account: {system.public}\n"
            "resolver: MEMORY\nresolver_preload: {\n"
            f"{system.public}: {system.token(operator)}\n"
            f"{account.public}: {account.token(operator, keeps_streams=True)}\n}}\n")
