"""JSON as the classic interface writes it: what JSON cannot say is an object of one entry,
{"$binary": "<base64>"}, {"$text": "<base64>"} for a text that is not UTF-8, {"$float": "nan"}
("inf", "-inf"). There are no other objects; a map is a list of pairs."""
from __future__ import annotations

import base64
import json
import math
from decimal import Decimal
from typing import Any

FLOATS = {"nan": math.nan, "inf": math.inf, "-inf": -math.inf}


def value_of(text: str) -> Any:
    """The value of a JSON text. Throws ValueError."""
    json.dumps(json.loads(text), ensure_ascii=False).encode()  # refuses what is not UTF-8
    value = json.loads(
        text,
        object_pairs_hook=_special,
        parse_int=_integer,
        parse_float=_finite,
        parse_constant=_refuse,
    )
    _check(value, 64)
    return value


def json_of(value: Any) -> str:
    """A value as JSON on one line."""
    if isinstance(value, float):
        return _float_text(value)
    if isinstance(value, bytes):
        return f'{{"$binary": "{base64.b64encode(value).decode()}"}}'
    if isinstance(value, list):
        return "[" + ", ".join(map(json_of, value)) + "]"
    if isinstance(value, str):
        try:
            value.encode()
        except UnicodeEncodeError:
            content = base64.b64encode(value.encode(errors="surrogateescape"))
            return f'{{"$text": "{content.decode()}"}}'
    return json.dumps(value, ensure_ascii=False)


def _special(entries: list[tuple[str, Any]]) -> Any:
    (key, content), = entries
    if key == "$float":
        return FLOATS.get(content) or _refuse(content)
    if key not in ("$binary", "$text"):
        _refuse(key)
    raw = base64.b64decode(content, validate=True)
    return raw if key == "$binary" else raw.decode(errors="surrogateescape")


def _integer(digits: str) -> int:
    number = int(digits)
    return number if -(2**63) <= number < 2**64 else _refuse(digits)


def _finite(digits: str) -> float:
    number = float(digits)
    return number if math.isfinite(number) else _refuse(digits)


def _refuse(what: Any) -> Any:
    raise ValueError(f"{what} is not taken")


def _check(value: Any, levels: int) -> None:
    if isinstance(value, list):
        if levels == 0:
            _refuse("a list of more levels")
        for part in value:
            _check(part, levels - 1)


def _float_text(number: float) -> str:
    """The fewest characters that read as this number again, with a point in them."""
    if not math.isfinite(number):
        return f'{{"$float": "{number}"}}'
    sign, digits, exponent = Decimal(repr(number)).normalize().as_tuple()
    first, rest = str(digits[0]), "".join(map(str, digits[1:]))
    scientific = f"{'-' * sign}{first}{rest and '.' + rest}e{exponent + len(rest):+03d}"
    fixed = f"{number:.0f}" if exponent >= 0 else f"{Decimal(repr(number)):f}"
    shortest = min(fixed, scientific, key=len)
    if "." in shortest:
        return shortest
    mantissa, e, power = shortest.partition("e")
    return f"{mantissa}.0{e}{power}"
