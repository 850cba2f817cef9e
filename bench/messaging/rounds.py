"""Runs the workloads of messaging_bench in turn, and with them those of other libraries, and makes tables.

All write lines "peer workload metric value unit". A figure's ratio is that to plain sockets of the same round.
"""
import collections
import contextlib
import os
import pathlib
import re
import statistics
import subprocess
import tempfile

KINDS = ("raw", "gv", "jx")
RAW = "raw_block"
WORKLOADS = "ABCDEFG"
ONE_CORE = ("taskset", "-c", "0")

# {(workload, metric): (description, target, whose figure is held to it)}; a target is of the ratio, or in the unit.
RATIO, PLAIN = "ratio", "plain"
ROWS = {
    ("A", "p50"): ("one call at a time, median", ("<=", 0.20, RATIO), "jx"),
    ("A", "p99"): ("one call at a time, 99 of 100 below", ("<=", 0.35, RATIO), "jx"),
    ("A", "untyped_p50"): ("the same untyped, median", None, "jx"),
    ("Aasleep", "p50"): ("the same without polling, median", ("<=", 1.0, RATIO), "jx"),
    ("A1", "p50"): ("both sides on one core, median", ("<=", 1.35, RATIO), "jx"),
    ("A1", "p99"): ("both sides on one core, 99 of 100", None, "jx"),
    ("A1", "untyped_p50"): ("the same untyped, median", ("<=", 1.5, RATIO), "jx"),
    ("B", "inflight64"): ("64 in flight, one thread", (">=", 1.0, RATIO), "gv"),
    ("B", "queued64"): ("64 in flight, queued by the server", (">=", 1.0, RATIO), "gv"),
    ("B", "threads8_one_connection"): ("8 threads, one connection", (">=", 150_000, PLAIN), "gv"),
    ("C", "echo1K"): ("echo of 1 KiB", (">=", 4.0, RATIO), "gv"),
    ("C", "echo64K"): ("echo of 64 KiB", (">=", 2.0, RATIO), "gv"),
    ("C", "echo1024K"): ("echo of 1 MiB", (">=", 1.6, RATIO), "gv"),
    ("D", "list100"): ("100 dynamic values", (">=", 3.0, RATIO), "gv"),
    ("E", "call_by_name"): ("call in one process, by name", ("<=", 50, PLAIN), "jx"),
    ("E", "call_by_name_untyped"): ("the same untyped", None, "jx"),
    ("E", "call_by_slot"): ("call in one process, resolved before", ("<=", 15, PLAIN), "gv"),
    ("E", "post_wait_p50"): ("task posted and waited for", ("<=", 1, PLAIN), "gv"),
    ("E", "post_wait_asleep_p50"): ("the same, the pool asleep", ("<=", 25, PLAIN), "gv"),
    ("E", "post_threads1"): ("tasks posted by one thread", None, "gv"),
    ("E", "post_threads4"): ("tasks posted by four threads", (">=", 4_000_000, PLAIN), "gv"),
    ("F", "server_idle_rss"): ("idle server, memory", ("<=", 8192, PLAIN), "jx"),
    ("F", "server_idle_threads"): ("idle server, threads", ("<=", os.cpu_count() + 3, PLAIN), "jx"),
    ("F", "server_per_connection"): ("memory of a connection, server", ("<=", 6, PLAIN), "gv"),
    ("F", "client_per_connection"): ("memory of a connection, client", ("<=", 6, PLAIN), "gv"),
    ("F", "connect_and_call"): ("connecting, and the first call", None, "gv"),
    ("G", "threads1"): ("1 client", None, "jx"),
    ("G", "threads4"): ("4 clients", None, "jx"),
    ("G", "threads16"): ("16 clients", (">=", 1.0, RATIO), "jx"),
    ("G", "threads64"): ("64 clients", (">=", 1.0, RATIO), "jx"),
}
REFERENCES = {  # of rows that plain sockets do not have
    "Aasleep": ("A", "p50"), "queued64": ("B", "inflight64"),
}


@contextlib.contextmanager
def server(program, kind, under=(), environment=None):
    """Yields the port and the process id of a server that ends with the block."""
    with subprocess.Popen([*under, program, kind, "server", "0"], text=True, stdout=subprocess.PIPE,
                          env=environment) as process:
        _, port, pid = process.stdout.readline().split()
        try:
            yield port, pid
        finally:
            subprocess.run(["kill", pid], check=True)  # the server itself: a tracer ends with it


def client(program, kind, *words, under=(), environment=None):
    return subprocess.run([*under, program, kind, *map(str, words)], text=True, stdout=subprocess.PIPE,
                          check=True, timeout=300, env=environment).stdout


class Figures:
    """{(workload, metric): {peer: [values of a round, for each round]}} and the units."""

    def __init__(self):
        self.values = collections.defaultdict(lambda: collections.defaultdict(list))
        self.units = {}
        self.peers = []

    def add(self, number, text):
        for line in text.splitlines():
            print(line, flush=True)
            words = line.split()
            if line.startswith("#") or len(words) != 5:
                continue
            peer, workload, metric, value, unit = words
            rounds = self.values[workload, metric][peer]
            rounds += [[] for _ in range(number + 1 - len(rounds))]
            rounds[number].append(float(value))
            self.units[workload, metric] = unit
            if peer not in self.peers:
                self.peers.append(peer)

    def median(self, row, peer):
        values = [statistics.median(each) for each in self.values[row].get(peer, []) if each]
        return statistics.median(values) if values else None

    def ratio(self, row, peer):
        """To plain sockets, the median of the rounds' ratios."""
        workload, metric = row[0], row[1].removeprefix("untyped_")
        reference = REFERENCES.get(workload) or REFERENCES.get(metric) or (workload, metric)
        pairs = zip(self.values[row].get(peer, []), self.values[reference].get(RAW, []))
        ratios = [statistics.median(ours) / statistics.median(theirs) for ours, theirs in pairs if ours and theirs]
        return statistics.median(ratios) if ratios else None


def passes(workloads, scale):
    """What runs together: under what, and in what environment."""
    common = {**os.environ, "BENCH_SCALE": str(scale)}
    for letters in ("F", "ABCDEG"):  # memory is that of a server that has done nothing else
        wanted = "".join(letter for letter in letters if letter in workloads)
        if wanted:
            yield (), {**common, "BENCH_ONLY": wanted}
    if "A" in workloads:
        yield ONE_CORE, {**common, "BENCH_ONLY": "A", "BENCH_SUFFIX": "1"}
        yield (), {**common, "BENCH_ONLY": "A", "BENCH_SUFFIX": "asleep", "GV_POLLING": "0"}


def run_others(folder, names, scale):
    """One round of the other libraries' programs, by the script that comes with them."""
    with tempfile.TemporaryDirectory() as out:
        environment = {**os.environ, "BENCH_SCALE": str(scale), "ROUNDS": "1", "OUT": out}
        return subprocess.run([pathlib.Path(folder, "run.sh"), *names], text=True, stdout=subprocess.PIPE,
                              check=True, env=environment).stdout


def run_workloads(program, workloads, rounds, scale, others, names):
    figures = Figures()
    for number in range(rounds):
        for under, environment in passes(workloads, scale):
            for kind in KINDS:
                with server(program, kind, under, environment) as (port, pid):
                    figures.add(number, client(program, kind, "client", port, pid, under=under, environment=environment))
        if others:
            figures.add(number, run_others(others, names, scale))
    return figures


def total_calls(summary):
    """All system calls in what `strace -c` wrote: its last line, whose error column may be empty."""
    total = re.search(r"^\s*100\.00\s+\S+\s+(?:\d+\s+)?(\d+)(?:\s+\d+)?\s+total$", summary, re.MULTILINE)
    return int(total.group(1))


def system_calls(program, kind, calls):
    """The client's and the server's a call. Set-up is taken off: what a hundred calls take."""
    totals = []
    for count in (100, 100 + calls):
        with tempfile.TemporaryDirectory() as folder:
            files = [pathlib.Path(folder, side) for side in ("client", "server")]
            traced = [["strace", "-c", "-f", "-qq", "-o", str(file)] for file in files]
            with server(program, kind, traced[1]) as (port, _):
                client(program, kind, "calls", port, count, under=traced[0])
            totals.append([total_calls(file.read_text()) for file in files])
    return [(more - fewer) / calls for fewer, more in zip(*totals)]


def number(value):
    if value is None:
        return ""
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def verdict(figures, row):
    _, target, peer = ROWS[row]
    if not target:
        return ""
    sign, bound, form = target
    value = figures.ratio(row, peer) if form == RATIO else figures.median(row, peer)
    is_met = value is not None and (value <= bound if sign == "<=" else value >= bound)
    unit = "" if form == RATIO else " " + figures.units[row]
    return f"{peer} {sign} {bound:,}{unit}{'' if is_met else ' missed'}"


def own_table(figures, traced):
    lines = [("workload", "unit", "raw", "gv", "jx", "gv / raw", "jx / raw", "target")]
    for row, (description, _, _) in ROWS.items():
        if row not in figures.values:
            continue
        values = (number(figures.median(row, peer)) for peer in (RAW, "gv", "jx"))
        ratios = (number(figures.ratio(row, peer)) for peer in ("gv", "jx"))
        lines.append((description, figures.units[row], *values, *ratios, verdict(figures, row)))
    for place, side in enumerate(("client", "server")):
        raw, gv, jx = (traced[kind][place] for kind in KINDS)
        lines.append((f"system calls of the {side}", "each call", *(f"{n:.1f}" for n in (raw, gv, jx)),
                      number(gv / raw), number(jx / raw), ""))
    return lines


COLUMNS = {  # of the table with other libraries: ratios to plain sockets
    "A p50": ("A", "p50"), "A p99": ("A", "p99"), "one core": ("A1", "p50"), "64 in flight": ("B", "inflight64"),
    "1 KiB": ("C", "echo1K"), "64 KiB": ("C", "echo64K"), "1 MiB": ("C", "echo1024K"), "list": ("D", "list100"),
    "16 clients": ("G", "threads16"), "64 clients": ("G", "threads64"),
}


def peers_table(figures):
    lines = [("peer", *COLUMNS)]
    first = [peer for peer in ("gv", "jx") if peer in figures.peers]
    for peer in first + sorted(set(figures.peers) - set(first)):
        cells = [number(figures.ratio(row, peer)) for row in COLUMNS.values()]
        if any(cells):
            lines.append((peer, *cells))
    return lines


def measure(program, workloads, smoke, others=None, names=()):
    """The tables by name."""
    figures = run_workloads(program, workloads, 1 if smoke else 3, 0.02 if smoke else 1, others, names)
    traced = {kind: system_calls(program, kind, 200 if smoke else 4000) for kind in KINDS}
    tables = {"messaging": own_table(figures, traced)}
    if others:
        tables["peers"] = peers_table(figures)
    return tables
