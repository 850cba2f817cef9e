"""One connection to a peer: frames, greeting, calls and posts. Blocking, for one thread.

Every operation has a bound, in seconds; a peer that sends nothing, or too much, ends in an error.
"""
from __future__ import annotations

import contextlib
import ipaddress
import os
import secrets
import socket
import struct
import time
from pathlib import Path
from typing import Any, NamedTuple, Sequence

import msgpack

from gverrors import CallFailed, ConnectionLost, Failure, TimedOut
from gvkeys import is_proof_of_server, proof_of_client
from gvvalues import Pairs, Unfit, decode, parse

HEADER = struct.Struct("<3sBBBHIIIIQQII16s")
MAGIC = b"GVM\x01"
HELLO, WELCOME, CALL, POST, REPLY, ERROR, EVENT, CHALLENGE, PROOF = range(1, 10)
LARGEST_PAYLOAD = 64 * 2**20
LARGEST_GREETING = 64 * 2**10
RELEASE = 8  # the member that gives loans of objects back
LENT_OBJECT = 1  # the ext type of an object that the sender lends


class Frame(NamedTuple):
    """A frame, but for the fields that a client of its own calls has no use for."""

    type: int
    message_id: int
    payload: bytes


def _is_loopback(host: str) -> bool:
    """Whether a numeric address is one of this machine alone."""
    address = ipaddress.ip_address(host.partition("%")[0])
    mapped = getattr(address, "ipv4_mapped", None)
    return (mapped or address).is_loopback


def machine_id() -> str:
    """The id that the sessions of this machine greet with."""
    with contextlib.suppress(OSError):
        return Path("/etc/machine-id").read_text(encoding="ascii").strip()
    return secrets.token_hex(16)


class Connection:
    """A connection whose handshake is done.

    session, machine: the peer's, from its greeting. A peer that breaks the rules, and a send that
    stopped half way, close it; whatever is asked of it then throws ConnectionLost.
    """

    def __init__(self, address: str, keys: Sequence[bytes], bound: float) -> None:
        """Connects to "tcp://host:port" and greets. Throws Failure."""
        self.peer = address
        self._received = bytearray()
        self._last_id = 0
        self._loans: list[int] = []
        deadline = time.monotonic() + bound
        protocol, _, place = address.partition("://")
        host, _, port = place.rpartition(":")
        try:
            if protocol != "tcp":
                raise ValueError("this client speaks tcp:// only")
            self._socket = socket.create_connection((host.strip("[]"), int(port)), bound)
        except (OSError, ValueError, OverflowError) as error:
            raise ConnectionLost(f"cannot connect to {address}: {error}") from None
        try:
            self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.is_loopback = _is_loopback(self._socket.getpeername()[0])
            self.session, self.machine = self._greet(keys, deadline)
        except OSError as error:
            self.close()
            raise ConnectionLost(f"cannot connect to {address}: {error}") from None
        except BaseException:
            self.close()
            raise

    def close(self) -> None:
        self._socket.close()

    @property
    def is_closed(self) -> bool:
        return self._socket.fileno() < 0

    def call(self, service: int, member: int, arguments: list[Any], bound: float) -> bytes:
        """Calls a method and gives the payload of its reply; the arguments are packed as they are.

        Throws CallFailed, ConnectionLost, TimedOut."""
        deadline = time.monotonic() + bound
        payload = pack(arguments)
        if len(payload) > LARGEST_PAYLOAD:
            raise Failure(f"arguments of {len(payload)} bytes, {LARGEST_PAYLOAD} at most")
        self._last_id += 1
        message = self._last_id
        self._send(CALL, payload, deadline, service=service, member=member, id_=message)
        while True:
            frame = self._read(deadline, LARGEST_PAYLOAD)
            if frame.type not in (CALL, POST, REPLY, ERROR, EVENT):
                raise self._broken(f"a frame of type {frame.type} after the handshake")
            if frame.type in (REPLY, ERROR) and frame.message_id == message:
                if frame.type == ERROR:
                    raise CallFailed(self.value(frame.payload, "s"))
                return frame.payload
            self._unpack(frame.payload)  # for the objects that it lends
            self._give_back(deadline)
            if frame.type == CALL:
                text = pack("this client offers no service")
                self._send(ERROR, text, deadline, id_=frame.message_id)

    def value(self, payload: bytes, signature: str) -> Any:
        """The value of a payload; what it lends goes back. Throws CallFailed, ConnectionLost."""
        raw = self._unpack(payload)
        self._give_back(time.monotonic() + 1)
        try:
            return decode(raw, parse(signature))
        except Unfit as error:
            raise CallFailed(f"a result of {self.peer} cannot be read: {error}") from None

    # The handshake

    def _greet(self, keys: Sequence[bytes], deadline: float) -> tuple[str, str]:
        capabilities = {"nonce": ["r", secrets.token_bytes(32)]} if keys else {}
        hello = pack([1, capabilities, secrets.token_hex(16), machine_id(), os.getpid()])
        self._send(HELLO, hello, deadline)
        frame = self._read(deadline, LARGEST_GREETING)
        if frame.type == CHALLENGE:
            frame = self._prove(keys, hello, frame, deadline)
        elif frame.type == WELCOME and keys:
            raise self._broken("a welcome without asking for the key")
        if frame.type == ERROR:
            raise ConnectionLost(f"{self.peer} refuses: {self.value(frame.payload, 's')}")
        if frame.type != WELCOME:
            raise self._broken(f"a frame of type {frame.type} instead of a welcome")
        version, _, session, machine, _ = self.value(frame.payload, "(ua{sv}ssu)")
        if version != 1:
            raise self._broken(f"protocol version {version}, expected 1")
        return session, machine

    def _prove(
        self, keys: Sequence[bytes], hello: bytes, challenge: Frame, deadline: float
    ) -> Frame:
        """Answers the challenge; gives the welcome when the peer has shown that it has a key."""
        if not keys:
            raise ConnectionLost(f"{self.peer}: the peer asks for a key, and there is none")
        nonce = self.value(challenge.payload, "r")
        if len(nonce) != 32:
            raise self._broken(f"a challenge of {len(nonce)} bytes, expected 32")
        self._send(PROOF, pack(proof_of_client(keys[0], hello, nonce)), deadline)
        frame = self._read(deadline, LARGEST_GREETING)
        if frame.type != PROOF:
            if frame.type == WELCOME:
                raise self._broken("a welcome without a proof of the key")
            return frame
        proof = self.value(frame.payload, "r")
        welcome = self._read(deadline, LARGEST_GREETING)
        if not is_proof_of_server(keys, proof, hello, nonce, welcome.payload):
            raise self._broken("a proof by none of the keys")
        return welcome

    # Frames

    def _send(self, type_: int, payload: bytes, deadline: float, *, service: int = 0,
              object_: int = 0, member: int = 0, id_: int = 0) -> None:
        left = deadline - time.monotonic()
        milliseconds = min(max(1, int(left * 1000)), 2**32 - 1) if type_ == CALL else 0
        header = HEADER.pack(b"GVM", 1, type_, 0, 0, len(payload), service, object_, member, id_,
                             0, milliseconds, 0, b"")
        try:
            self._socket.settimeout(max(left, 0.001))
            self._socket.sendall(header + payload)
        except OSError as error:
            self.close()
            raise ConnectionLost(f"the connection to {self.peer} was lost: {error}") from None

    def _read(self, deadline: float, largest: int) -> Frame:
        """The next frame. A part of one that was there when the bound passed is kept."""
        while True:
            if self._received[:4] != MAGIC[: len(self._received)]:
                raise self._broken("bytes that begin no frame of version 1")
            if len(self._received) >= HEADER.size:
                break
            self._receive(deadline)
        (_, _, type_, call_type, reserved, size, _, _, _, id_, _, _, reserved_too, _
         ) = HEADER.unpack_from(self._received)
        if not HELLO <= type_ <= PROOF or call_type > 2 or reserved or reserved_too:
            raise self._broken("a header with a type, flag or byte that has no meaning")
        if size > largest:
            raise self._broken(f"a payload of {size} bytes, {largest} at most")
        while len(self._received) < HEADER.size + size:
            self._receive(deadline)
        payload = bytes(self._received[HEADER.size : HEADER.size + size])
        del self._received[: HEADER.size + size]
        return Frame(type_, id_, payload)

    def _receive(self, deadline: float) -> None:
        left = deadline - time.monotonic()
        try:
            if left <= 0:
                raise TimeoutError
            self._socket.settimeout(left)
            more = self._socket.recv(256 * 1024)
        except TimeoutError:
            raise TimedOut(f"no answer of {self.peer} in time") from None
        except OSError as error:
            self.close()
            raise ConnectionLost(f"the connection to {self.peer} was lost: {error}") from None
        if not more:
            self.close()
            raise ConnectionLost(f"the connection to {self.peer} was lost: it has closed it")
        self._received += more

    def _broken(self, what: str) -> ConnectionLost:
        self.close()
        return ConnectionLost(f"{self.peer} breaks the protocol: it sent {what}")

    # Payloads

    def _unpack(self, payload: bytes) -> Any:
        try:
            return msgpack.unpackb(
                payload,
                unicode_errors="surrogateescape",
                strict_map_key=False,
                object_pairs_hook=Pairs,
                ext_hook=self._note_loan,
            )
        except (ValueError, TypeError, RecursionError) as error:
            raise self._broken(f"a payload that is no MessagePack value: {error}") from None

    def _note_loan(self, code: int, content: bytes) -> None:
        """An object, which this client cannot hold: it goes back to its owner."""
        if code == LENT_OBJECT:
            description = msgpack.unpackb(content, unicode_errors="surrogateescape")
            decode(description[:1], parse("(u)"))
            self._loans.append(description[0])

    def _give_back(self, deadline: float) -> None:
        while self._loans:
            self._send(POST, pack([1]), deadline, object_=self._loans.pop(), member=RELEASE)


def pack(value: Any) -> bytes:
    return msgpack.packb(value, unicode_errors="surrogateescape")
