"""Runs the workloads over the framework and over plain sockets in turn, and makes a table of them."""
import collections
import contextlib
import itertools
import pathlib
import re
import statistics
import subprocess
import tempfile

KINDS = ("raw", "gv")
WORKLOADS = "ABCDG"
ONE_CORE = ("taskset", "-c", "0")
DESCRIPTIONS = {
    "A p50": "one call at a time, median", "A p99": "one call at a time, 99 of 100 below",
    "A1 p50": "the same on one core, median", "A1 p99": "the same on one core, 99 of 100",
    "B inflight64": "64 in flight, one thread",
    "C echo1K": "echo of 1 KiB", "C echo64K": "echo of 64 KiB", "C echo1024K": "echo of 1 MiB",
    "D list100": "100 dynamic values",
    "G clients1": "1 client", "G clients4": "4 clients", "G clients16": "16 clients",
    "G clients64": "64 clients",
}
TARGETS = {"A p50": ("<=", 0.4), "B inflight64": (">=", 0.6)}  # in terms of raw; see the page


@contextlib.contextmanager
def server(program, kind, under=()):
    """Yields the address of a server that ends with the block."""
    with subprocess.Popen([*under, program, kind, "serve"], text=True, stdout=subprocess.PIPE) as process:
        address, pid = process.stdout.readline().split()
        try:
            yield address
        finally:
            subprocess.run(["kill", pid], check=True)  # the server itself: a tracer ends with it


def client(program, kind, *words, under=()):
    return subprocess.run([*under, program, kind, *map(str, words)], text=True, stdout=subprocess.PIPE,
                          check=True, timeout=300).stdout


def run_workloads(program, workloads, rounds, scale):
    """{metric: {kind: [value of each round]}} and {metric: unit}; "A1": with both sides on one core."""
    found, units = collections.defaultdict(lambda: collections.defaultdict(list)), {}
    passes = [((), workloads, "")] + [(ONE_CORE, "A", "1")] * ("A" in workloads)
    for _, (under, letters, suffix), kind in itertools.product(range(rounds), passes, KINDS):
        with server(program, kind, under) as address:
            for line in client(program, kind, "run", address, letters, scale, under=under).splitlines():
                print(line, flush=True)
                _, workload, metric, value, unit = line.split()
                found[f"{workload}{suffix} {metric}"][kind].append(float(value))
                units[f"{workload}{suffix} {metric}"] = unit
    return found, units


def total_calls(summary):
    """All system calls in what `strace -c` wrote: its last line, whose error column may be empty."""
    total = re.search(r"^\s*100\.00\s+\S+\s+(?:\d+\s+)?(\d+)(?:\s+\d+)?\s+total$", summary, re.MULTILINE)
    return int(total.group(1))


def system_calls(program, calls):
    """{kind: (client's, server's)}: system calls a call. Set-up is what a hundred calls cost more."""
    result = {}
    for kind in KINDS:
        totals = []
        for count in (100, 100 + calls):
            with tempfile.TemporaryDirectory() as folder:
                files = [pathlib.Path(folder, side) for side in ("client", "server")]
                traced = [["strace", "-c", "-f", "-qq", "-o", str(file)] for file in files]
                with server(program, kind, traced[1]) as address:
                    client(program, kind, "call", address, count, under=traced[0])
                totals.append([total_calls(file.read_text()) for file in files])
        result[kind] = tuple((more - fewer) / calls for fewer, more in zip(*totals))
    return result


def verdict(metric, ratio):
    if metric not in TARGETS:
        return ""
    sign, bound = TARGETS[metric]
    isMet = ratio <= bound if sign == "<=" else ratio >= bound
    return f"{sign} {bound}{'' if isMet else ' missed'}"


def rows(found, units):
    for metric, values in found.items():
        raw, gv = (statistics.median(values[kind]) for kind in KINDS)
        ratio = statistics.median(ours / theirs for ours, theirs in zip(values["gv"], values["raw"]))
        digits = 1 if units[metric] == "us" else 0
        yield (DESCRIPTIONS[metric], units[metric], f"{raw:.{digits}f}", f"{gv:.{digits}f}", f"{ratio:.2f}",
               verdict(metric, ratio))


def table(found, units, traced):
    lines = [("workload", "unit", "raw", "gv", "gv / raw", "target"), *rows(found, units)]
    for place, side in enumerate(("client", "server")):
        raw, gv = traced["raw"][place], traced["gv"][place]
        lines.append((f"system calls of the {side}", "each call", f"{raw:.1f}", f"{gv:.1f}", f"{gv / raw:.2f}", ""))
    return lines


def measure(program, workloads, smoke):
    found, units = run_workloads(program, workloads, 1 if smoke else 3, 0.02 if smoke else 1)
    return table(found, units, system_calls(program, 200 if smoke else 4000))
