#!/usr/bin/python3
"""Lists, describes, calls and posts the modules of a robot from the command line."""
from __future__ import annotations

import os
import sys
from typing import Any, Sequence

from gvclient import Client, Failure, Method, read_keys
from jxjson import json_of, value_of

USAGE = """\
usage: jxcall [OPTION...] COMMAND

  list                              the services of the network, by id
  help MODULE METHOD                what a method takes and gives
  call MODULE METHOD [ARGUMENT...]  calls it, and prints the result as JSON
  post MODULE METHOD [ARGUMENT...]  starts it, prints the task's id, and waits for its end

An ARGUMENT is JSON; one that begins as no JSON does is a text. A list of pairs stands for a map.

  --address HOST:PORT  of the robot's master; 127.0.0.1:9559 if not given
  --key-file FILE      the keys that the robot asks for
  --timeout SECONDS    how long each step may take; 30 if not given
"""


class UsageError(Exception):
    """A command line that says nothing to do."""


def options_of(arguments: Sequence[str]) -> tuple[dict[str, str], list[str]]:
    """The options, which stand first, and the command: what follows it is its own, "-1" too."""
    options = {"--address": "127.0.0.1:9559", "--key-file": "", "--timeout": "30"}
    words = list(arguments)
    while words and words[0].startswith("--"):
        if words[0] not in options or len(words) < 2:
            raise UsageError
        options[words[0]] = words[1]
        words = words[2:]
    return options, words


def seconds_of(text: str) -> float:
    try:
        seconds = float(text)
    except ValueError:
        raise UsageError from None
    if not 0 < seconds <= 1_000_000:
        raise UsageError
    return seconds


def argument_of(text: str) -> Any:
    """The value that an argument of a call stands for."""
    if text not in ("true", "false", "null") and not text.startswith(tuple('[{"-0123456789')):
        return text
    try:
        return value_of(text)
    except (ValueError, TypeError, RecursionError):
        raise UsageError(f"this is no JSON of a value: {text}\n") from None


def show_help(methods: list[Method]) -> None:
    for method in methods:
        show(f"{method} -> {method.result}")
        if method.description:
            show(f"  {method.description}")
        for name, text in method.parameter_texts:
            show(f"  {name}: {text}")
        if method.result_text:
            show(f"  result: {method.result_text}")


def run(client: Client, command: str, names: list[str], values: list[Any]) -> None:
    if command == "list":
        for entry in client.services():
            show(f"{entry.id:5} {entry.name}")
        return
    module, method = client.module(names[0]), names[1]
    if command == "help":
        show_help(module.named(method))
    elif command == "call":
        show(json_of(module.call(method, *values)))
    else:
        task = module.post(method, *values)
        show(f"task {task} runs")
        module.wait(task)
        show(f"task {task} has ended")


def show(line: str) -> None:
    sys.stdout.buffer.write(line.encode(errors="surrogateescape") + b"\n")
    sys.stdout.buffer.flush()


def complain(text: str) -> None:
    sys.stderr.buffer.write(text.encode(errors="surrogateescape"))


def main(arguments: Sequence[str]) -> int:
    try:
        options, words = options_of(arguments)
        bound = seconds_of(options["--timeout"])
        command, names = "".join(words[:1]), words[1:3]
        expected = {"list": 0, "help": 2, "call": 2, "post": 2}.get(command)
        if len(names) != expected or (command == "help" and len(words) > 3):
            raise UsageError
        values = [argument_of(text) for text in words[3:]]
        keys = read_keys(options["--key-file"]) if options["--key-file"] else []
        with Client(options["--address"], keys, bound) as client:
            run(client, command, names, values)
    except UsageError as error:
        complain(f"jxcall: {error}" if str(error) else USAGE)
        return 2
    except Failure as error:
        complain(f"jxcall: {error}\n")
        return 1
    except (BrokenPipeError, KeyboardInterrupt):
        return 1
    return 0


if __name__ == "__main__":
    # Whatever the locale says, the robot's texts are UTF-8.
    raw = map(os.fsencode, sys.argv[1:])
    sys.exit(main([argument.decode(errors="surrogateescape") for argument in raw]))
