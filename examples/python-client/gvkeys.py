"""The keys of a network, and how two peers show each other that they have one.

What is proved is bound to the greetings: hello and welcome are their payloads.
"""
from __future__ import annotations

import hashlib
import hmac
from pathlib import Path
from typing import Sequence

from gverrors import Failure


def read_keys(path: str) -> list[bytes]:
    """The keys of a file: its lines but for blank ones and those that begin with "#"."""
    try:
        lines = [line.strip() for line in Path(path).read_bytes().split(b"\n")]
    except OSError as error:
        raise Failure(f"cannot read the key file {path}: {error.strerror}") from None
    keys = [line for line in lines if line and not line.startswith(b"#")]
    if not keys:
        raise Failure(f"the key file {path} holds no key")
    return keys


def proof_of_client(key: bytes, hello: bytes, challenge: bytes) -> bytes:
    return _seal(key, b"gv1 client" + _digest(hello) + challenge)


def is_proof_of_server(
    keys: Sequence[bytes], proof: bytes, hello: bytes, challenge: bytes, welcome: bytes
) -> bool:
    """Whether it was made with one of the keys; takes the same time for each wrong one."""
    text = b"gv1 server" + _digest(hello) + challenge + _digest(welcome)
    return any([hmac.compare_digest(_seal(key, text), proof) for key in keys])


def _digest(text: bytes) -> bytes:
    return hashlib.sha256(text).digest()


def _seal(key: bytes, text: bytes) -> bytes:
    return hmac.digest(key, text, "sha256")
