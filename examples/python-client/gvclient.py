"""A client of a robot's modules: finds them through the master, calls their methods, posts them.

    with Client("127.0.0.1:9559") as client:
        greeter = client.module("Greeter")
        print(greeter.call("greet", "Ada"))

Needs the Debian package python3-msgpack only. docs/protocol.md tells what crosses the wire. For one
thread; every operation ends within the client's bound, or throws TimedOut.
"""
from __future__ import annotations

from typing import Any, NamedTuple, Sequence

from gvconnection import Connection
from gverrors import CallFailed, ConnectionLost, Failure, TimedOut
from gvkeys import read_keys
from gvvalues import INTEGERS, Type, Unfit, encode, parse

__all__ = [
    "CallFailed", "Client", "ConnectionLost", "Entry", "Failure", "Method", "Module", "TimedOut",
    "read_keys",
]

DIRECTORY = 1
META_OBJECT = 2
DESCRIPTION = "(sa(ussssa(ss)s)a(uss)a(uss))"
ENTRY = "(sususas)"
MOST_ADDRESSES = 8
BOUND_OF_AN_ADDRESS = 2.0
LOOPBACK = ("tcp://127.", "tcp://[::1]:")


class Entry(NamedTuple):
    """What the service directory tells of one service."""

    name: str
    id: int
    machine: str
    process: int
    session: str
    addresses: list[str]


class Method(NamedTuple):
    """A method of a module; parameter_texts are name and description of each parameter."""

    id: int
    name: str
    parameters: str
    result: str
    description: str
    parameter_texts: list[list[str]]
    result_text: str

    def __str__(self) -> str:
        return self.name + self.parameters

    def encode(self, arguments: Sequence[Any]) -> tuple[int, list[Any]]:
        """How far the arguments are from the parameters, and what is sent. Throws Unfit."""
        types = parse(self.parameters).parts
        if types and types[-1].code == "*":
            types = types[:-1] + (parse("v"),) * (len(arguments) + 1 - len(types))
        if len(types) != len(arguments):
            raise Unfit(f"it takes {len(types)} argument(s), not {len(arguments)}")
        encoded = [encode(value, kind) for value, kind in zip(arguments, types)]
        return sum(map(_distance, arguments, types)), encoded


def _distance(value: Any, kind: Type) -> int:
    """0 where value and type are of one kind, 1 where a number converts, 2 for a dynamic value."""
    if kind.code == "v":
        return 2
    alike = {bool: "b", int: "".join(INTEGERS), float: "fd"}.get(type(value), kind.code)
    return 0 if kind.code in alike else 1


class Module:
    """A module that was found, over the connection to its process."""

    def __init__(self, name: str, service: int, connection: Connection, bound: float) -> None:
        """Asks the module for its description. Throws Failure."""
        self.name = name
        self._service = service
        self._connection = connection
        self._bound = bound
        described = connection.call(service, META_OBJECT, [], bound)
        self.description, methods, _, _ = connection.value(described, DESCRIPTION)
        self.methods = [Method(*fields) for fields in methods]

    def named(self, name: str) -> list[Method]:
        """The methods of a name, or the one of a full signature like "add(ii)", by rising id.

        Throws Failure where there is none."""
        found = [method for method in self.methods if name in (method.name, str(method))]
        if not found:
            raise Failure(f"{self.name} has no method '{name}'")
        return found

    def call(self, method: str, *arguments: Any, bound: float | None = None) -> Any:
        """Calls a method and waits for its result, within the bound (None: the client's).

        Throws CallFailed with what the method threw; Failure where the arguments do not fit, and
        nothing was sent then; ConnectionLost; TimedOut."""
        chosen, encoded = self._choose(method, arguments)
        bound = self._bound if bound is None else bound
        try:
            reply = self._connection.call(self._service, chosen.id, encoded, bound)
        except TimedOut as error:
            raise TimedOut(f"{self.name}.{chosen} takes more than {bound:g} s: {error}") from None
        return self._connection.value(reply, chosen.result)

    def post(self, method: str, *arguments: Any) -> int:
        """Starts a method, and gives the id of its task at once. Throws as call does."""
        self.named(method)
        return self.call("pCall", method, *arguments)

    def wait(self, task: int, bound: float | None = None) -> None:
        """Waits for the end of a posted task. Throws as call does."""
        self.call("wait", task, 0, bound=bound)

    def _choose(self, name: str, arguments: Sequence[Any]) -> tuple[Method, list[Any]]:
        """The one method that the arguments fit best, and what is sent to it."""
        fitting, reasons = [], []
        for method in self.named(name):
            try:
                fitting.append((*method.encode(arguments), method))
            except ValueError as error:
                reasons.append(f"\n  {method}: {error}")
        if not fitting:
            raise Failure(f"{self.name}: the arguments do not fit" + "".join(reasons))
        least = min(distance for distance, _, _ in fitting)
        best = [(method, encoded) for distance, encoded, method in fitting if distance == least]
        if len(best) > 1:
            several = ", ".join(str(method) for method, _ in best)
            raise Failure(f"{self.name}: several methods take the arguments: {several}")
        return best[0]


class Client:
    """A process's place in a network of modules. Close it, or use it in a with statement."""

    def __init__(self, address: str, keys: Sequence[bytes] = (), bound: float = 30.0) -> None:
        """Connects to the master at "host:port". The keys, where there are any, are required of
        every peer; the first one is shown. The bound, in seconds, is for each operation, and for
        each of the addresses that a host's name stands for. Throws Failure."""
        self._keys = keys
        self._bound = bound
        master = Connection("tcp://" + address, keys, bound)
        self._connections = {master.session: master}
        # Who is reached over loopback is on this machine, whatever id it has here.
        self._own_machine = master.machine if master.is_loopback else None
        try:
            self._directory = Module("ServiceDirectory", DIRECTORY, master, bound)
        except BaseException:
            self.close()
            raise

    def __enter__(self) -> Client:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        for connection in self._connections.values():
            connection.close()

    def services(self) -> list[Entry]:
        """All services of the network, by rising id."""
        return [Entry(*fields) for fields in self._directory.call("services")]

    def module(self, name: str) -> Module:
        """The module of that name, over a connection to its process. Throws Failure."""
        entry = Entry(*self._directory.call("service", name))
        connection = self._connections.get(entry.session)
        if connection is None or connection.is_closed:
            connection = self._connections[entry.session] = self._reach(entry)
        return Module(name, entry.id, connection, self._bound)

    def _reach(self, entry: Entry) -> Connection:
        """A connection to the session of an entry: the first address where that session answers."""
        is_near = entry.machine == self._own_machine
        loopback = [address for address in entry.addresses if address.startswith(LOOPBACK)]
        others = [address for address in entry.addresses if address not in loopback]
        failures = []
        for address in ((loopback if is_near else []) + others)[:MOST_ADDRESSES]:
            try:
                bound = min(self._bound, BOUND_OF_AN_ADDRESS)
                connection = Connection(address, self._keys, bound)
            except Failure as error:
                failures.append(str(error))
                continue
            if connection.session == entry.session:
                return connection
            connection.close()
            failures.append(f"{address} is another session than that of {entry.name}")
        raise ConnectionLost(
            f"cannot reach {entry.name}: " + ("; ".join(failures) or "no address of it can be used")
        )
