"""Values by their signatures: from Python to what MessagePack writes, and from what it read back.

In Python a value is None, a bool, int, float, str (what is not UTF-8 as surrogate escapes), bytes,
or a list; a list stands for tuples and structs, too, and one of [key, value] lists for a map.
"""
from __future__ import annotations

import reprlib
import struct
from typing import Any, NamedTuple

MOST_LEVELS = 64
LONGEST_SIGNATURE = 4096

INTEGERS = {
    "c": (-(2**7), 2**7 - 1), "y": (0, 2**8 - 1),
    "n": (-(2**15), 2**15 - 1), "q": (0, 2**16 - 1),
    "i": (-(2**31), 2**31 - 1), "u": (0, 2**32 - 1),
    "x": (-(2**63), 2**63 - 1), "t": (0, 2**64 - 1),
}


class Unfit(ValueError):
    """A value that does not convert to the type, or a signature that is none."""


class Pairs(list):
    """A map as it was read: a list of its (key, value) tuples."""


class Type(NamedTuple):
    """A signature, taken apart: its code ("{" for a map, "(" for a tuple) and what is in it."""

    text: str
    code: str
    parts: tuple[Type, ...] = ()


def parse(signature: str) -> Type:
    """The type that a whole signature stands for."""
    if len(signature) > LONGEST_SIGNATURE:
        raise Unfit(f"a signature of {len(signature)} characters")
    kind, end = _parse(signature, 0, 0)
    if end != len(signature):
        raise Unfit(f"'{signature}' is no signature")
    return kind


def _parse(text: str, begin: int, level: int) -> tuple[Type, int]:
    """The type that begins there, and where it ends."""
    code, end, parts = text[begin : begin + 1], begin + 1, []
    if level > MOST_LEVELS:
        raise Unfit(f"a signature of more than {MOST_LEVELS} levels")
    if code == "a" and text[end : end + 1] == "{":
        code, end = "{", end + 1
    if code in ("a", "m"):
        part, end = _parse(text, end, level + 1)
        parts.append(part)
    elif code in ("(", "{"):
        close = ")" if code == "(" else "}"
        while text[end : end + 1] != close:
            part, end = _parse(text, end, level + 1)
            parts.append(part)
        end += 1
        if code == "(" and text[end : end + 1] == "<":  # the names of a struct
            end = text.find(">", end) + 1
    is_known = code and code in "Vbcynqiuxtfdsrovam({*"
    if not is_known or (code == "{" and len(parts) != 2) or end == 0:
        raise Unfit(f"'{text}' is no signature")
    return Type(text[begin:end], code, tuple(parts)), end


def signature_of(value: Any) -> str:
    """The signature that a value has in a dynamic value."""
    if isinstance(value, int) and not isinstance(value, bool):
        for code in "ixt":
            if INTEGERS[code][0] <= value <= INTEGERS[code][1]:
                return code
        raise Unfit(f"{value} does not fit into 64 bits")
    signature = {bool: "b", float: "d", str: "s", bytes: "r", list: "av"}.get(type(value))
    if signature is None:
        raise Unfit(f"a {type(value).__name__} has no signature")
    return signature


def encode(value: Any, kind: Type, level: int = 0) -> Any:
    """What MessagePack is to write for a value as that type. Converts only where nothing is lost.

    Throws Unfit, and UnicodeEncodeError for surrogates that stand for no byte."""
    if level > MOST_LEVELS:
        raise Unfit(f"a value of more than {MOST_LEVELS} levels")

    def inside(part: Any, type_: Type = kind) -> Any:
        return encode(part, type_, level + 1)

    code, parts = kind.code, kind.parts
    if code == "v":
        if value is None:
            return None
        content = parse(signature_of(value))
        return [content.text, inside(value, content)]
    if code == "m":
        return [] if value is None else [inside(value, parts[0])]
    if code == "b" and isinstance(value, (bool, int)) and value in (0, 1):
        return bool(value)
    if code in INTEGERS and isinstance(value, (int, float)):
        if INTEGERS[code][0] <= value <= INTEGERS[code][1] and int(value) == value:
            return int(value)
    if code in ("f", "d") and type(value) in (int, float) and _holds(code, value):
        return float(value)
    if code == "s" and isinstance(value, str):
        value.encode(errors="surrogateescape")
        return value
    if code == "r" and isinstance(value, bytes):
        return value
    if isinstance(value, list):
        if code == "a":
            return [inside(part, parts[0]) for part in value]
        if code == "(" and len(value) == len(parts):
            return [inside(part, type_) for part, type_ in zip(value, parts)]
        if code == "{" and all(isinstance(pair, list) and len(pair) == 2 for pair in value):
            pairs = {_key(inside(key, parts[0])): inside(item, parts[1]) for key, item in value}
            if len(pairs) == len(value):
                return pairs
    raise Unfit(f"{reprlib.repr(value)} does not convert to '{kind.text}'")


def _holds(code: str, number: int | float) -> bool:
    """Whether a float of that code has the very value, any NaN included."""
    try:
        return number != number or struct.unpack(code, struct.pack(code, number))[0] == number
    except (OverflowError, struct.error):
        return False


def _key(value: Any) -> Any:
    """A key of a Python dictionary that MessagePack writes as it writes the value."""
    return tuple(map(_key, value)) if isinstance(value, list) else value


def decode(raw: Any, kind: Type, level: int = 0) -> Any:
    """The value of that type which MessagePack has read. Throws Unfit where it is another."""
    if level > MOST_LEVELS:
        raise Unfit(f"a value of more than {MOST_LEVELS} levels")

    def inside(part: Any, type_: Type) -> Any:
        return decode(part, type_, level + 1)

    code, parts = kind.code, kind.parts
    if code in INTEGERS and type(raw) is int and INTEGERS[code][0] <= raw <= INTEGERS[code][1]:
        return raw
    if code in ("f", "d") and type(raw) in (int, float):
        return float(raw)
    if type(raw) is {"V": type(None), "b": bool, "s": str, "r": bytes}.get(code):
        return raw
    if code == "{" and isinstance(raw, Pairs):
        return [[inside(key, parts[0]), inside(item, parts[1])] for key, item in raw]
    if code == "v" and raw is None:
        return None
    if type(raw) is list:
        if code == "v" and len(raw) == 2 and isinstance(raw[0], str) and raw[0] != "v":
            return inside(raw[1], parse(raw[0]))
        if code == "a":
            return [inside(part, parts[0]) for part in raw]
        if code == "(" and len(raw) == len(parts):
            return [inside(part, type_) for part, type_ in zip(raw, parts)]
        if code == "m" and len(raw) < 2:
            return inside(raw[0], parts[0]) if raw else None
    if code == "o":
        raise Unfit("it is an object, which this client does not take")
    raise Unfit(f"expected a value of signature '{kind.text}', got {reprlib.repr(raw)}")
