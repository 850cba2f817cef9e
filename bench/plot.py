#!/usr/bin/env python3
"""Draws the tables of docs/benchmarks.md, remote calls and growth, into docs/benchmarks.svg.

The same tables give the same bytes.
"""
import html
import math
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGE = ROOT / "docs" / "benchmarks.md"
PICTURE = ROOT / "docs" / "benchmarks.svg"

WIDTH = 960
LEFT, RIGHT = 270, 930  # of the bars; what they are stands to their left
INK, FAINT, PAPER = "#1f2430", "#d5d9e0", "#ffffff"
COLOURS = {"gv": "#2f6fbd", "jx": "#e07b1a"}
POWERS = ["1 ns", "10 ns", "100 ns", "1 µs", "10 µs", "100 µs", "1 ms", "10 ms", "100 ms", "1 s", "10 s"]


def block(page, name):
    """The line on the machine, and the tables: each a list of rows of cells, the header first."""
    text = re.search(f"<!-- {name}: begin -->\n(.*?)<!-- {name}: end -->", page, re.DOTALL).group(1)
    machine, *tables = text.strip().split("\n\n")
    rows = [[[cell.strip() for cell in line.strip("|").split("|")] for line in table.splitlines()] for table in tables]
    return machine, [[header, *body] for header, _, *body in rows]


def value(cell):
    return float(cell.replace(",", ""))


class Drawing:
    def __init__(self):
        self.parts = []

    def text(self, x, y, words, anchor="start", size=13, turned=False, **style):
        look = "".join(f' {key}="{each}"' for key, each in style.items())
        if turned:
            look += f' transform="rotate(-90 {x:.1f} {y:.1f})"'
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" text-anchor="{anchor}"{look}>{html.escape(words)}</text>')

    def line(self, x1, y1, x2, y2, colour=FAINT, width=1):
        self.parts.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" stroke-width="{width}"/>')

    def bar(self, x1, x2, y, height, colour):
        self.parts.append(f'<rect x="{min(x1, x2):.1f}" y="{y:.1f}" width="{abs(x2 - x1):.1f}" height="{height}" fill="{colour}"/>')

    def curve(self, points, colour):
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        self.parts.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        self.parts += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3.5" fill="{colour}"/>' for x, y in points]

    def finished(self, height):
        head = (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height:.0f}" width="{WIDTH}" height="{height:.0f}" '
                f'font-family="sans-serif" fill="{INK}">\n<title>What a call costs</title>\n'
                f'<rect width="100%" height="100%" fill="{PAPER}"/>\n')
        return head + "\n".join(self.parts) + "\n</svg>\n"


def decades(values):
    """The whole powers of ten around them, at least one decade."""
    first, last = math.floor(math.log10(min(values))), math.ceil(math.log10(max(values)))
    return first, max(last, first + 1)


def scale(limits, start, end):
    """Where a value stands between two places on paper."""
    first, last = limits
    return lambda number: start + (math.log10(number) - first) / (last - first) * (end - start)


def remote_rows(table):
    """(what, is a rate, {peer: ratio}, target) of the rows that have a ratio; a target only if it is one of ratios."""
    rows = []
    for what, unit, *_, gv, jx, target in table[1:]:
        ratios = {peer: value(cell) for peer, cell in (("gv", gv), ("jx", jx)) if cell}
        bound = re.fullmatch(r"(\w+) [<>]= ([\d.,]+)( missed)?", target)
        if ratios:
            rows.append((what, unit.endswith("/s"), ratios, (bound[1], value(bound[2])) if bound else None))
    return rows


def draw_remote(drawing, y, machine, table):
    rows = remote_rows(table)
    numbers = [number for _, _, ratios, _ in rows for number in ratios.values()]
    limits = decades(numbers + [target[1] for _, _, _, target in rows if target])
    place = scale(limits, LEFT, RIGHT)
    drawing.text(20, y, "Remote calls beside plain sockets", size=17, **{"font-weight": "bold"})
    drawing.text(20, y + 19, machine, size=12)
    legend = LEFT
    for words, colour in (("gv, the framework", COLOURS["gv"]), ("jx, modules through proxies", COLOURS["jx"])):
        drawing.bar(legend, legend + 14, y + 32, 10, colour)
        drawing.text(legend + 20, y + 42, words)
        legend += 215
    drawing.line(legend + 7, y + 30, legend + 7, y + 45, INK, 3)
    drawing.text(legend + 16, y + 42, "target, of the bar that it crosses")
    y += 68
    for are_rates, heading in ((False, "Times and sizes: less is better"), (True, "Rates: more is better")):
        drawing.text(20, y, heading, **{"font-weight": "bold"})
        top, y = y + 8, y + 12
        ticks = len(drawing.parts)
        for what, is_rate, ratios, target in rows:
            if is_rate != are_rates:
                continue
            drawing.text(LEFT - 10, y + 14, what, "end")
            for row, peer in enumerate(COLOURS):
                if peer in ratios:
                    drawing.bar(place(1), place(ratios[peer]), y + 1 + 9 * row, 8, COLOURS[peer])
                if target and target[0] == peer:
                    drawing.line(place(target[1]), y - 1 + 9 * row, place(target[1]), y + 11 + 9 * row, INK, 3)
            y += 23
        below = drawing.parts[ticks:]
        del drawing.parts[ticks:]
        for power in range(limits[0], limits[1] + 1):
            drawing.line(place(10.0 ** power), top, place(10.0 ** power), y, INK if power == 0 else FAINT)
            drawing.text(place(10.0 ** power), y + 15, f"{10.0 ** power:g}", "middle", 12)
        drawing.parts += below
        drawing.text((LEFT + RIGHT) / 2, y + 32, "times the figure of plain sockets (logarithmic; bars start at 1, as plain sockets)", "middle", 12)
        y += 62
    return y


def short(number):
    """1, 10, 1K: powers of ten for an axis."""
    for suffix in ("", "K", "M", "G"):
        if number < 1000:
            return f"{number:g}{suffix}"
        number /= 1000


def draw_curve(drawing, left, top, table):
    right, bottom = left + 360, top + 170
    points = [(value(row[0]), value(row[1])) for row in table[1:]]
    across, up = decades([x for x, _ in points]), decades([ns for _, ns in points])
    place_x, place_y = scale(across, left, right), scale(up, bottom, top)
    for power in range(across[0], across[1] + 1):
        drawing.line(place_x(10 ** power), top, place_x(10 ** power), bottom)
        drawing.text(place_x(10 ** power), bottom + 16, short(10 ** power), "middle", 12)
    for power in range(up[0], up[1] + 1):
        drawing.line(left, place_y(10 ** power), right, place_y(10 ** power))
        drawing.text(left - 7, place_y(10 ** power) + 4, POWERS[power], "end", 12)
    drawing.curve([(place_x(x), place_y(ns)) for x, ns in points], COLOURS["jx"])
    drawing.text((left + right) / 2, bottom + 34, table[0][0], "middle")
    drawing.text(left - 62, (top + bottom) / 2, "time of one call", "middle", turned=True)


def draw_growth(drawing, y, machine, tables):
    drawing.text(20, y, "How one call grows with what is around it", size=17, **{"font-weight": "bold"})
    drawing.text(20, y + 19, machine, size=12)
    drawing.text(20, y + 36, "Calls of modules through proxies (jx); both axes logarithmic.", size=12)
    for place, table in enumerate(tables):
        draw_curve(drawing, 95 + 475 * (place % 2), y + 60 + 235 * (place // 2), table)
    return y + 60 + 235 * math.ceil(len(tables) / 2)


def draw():
    page = PAGE.read_text()
    drawing = Drawing()
    drawing.text(20, 38, "What a call costs", size=24, **{"font-weight": "bold"})
    machine, (remote,) = block(page, "messaging")
    y = draw_remote(drawing, 76, machine, remote)
    y = draw_growth(drawing, y + 8, *block(page, "growth"))
    PICTURE.write_text(drawing.finished(y))


if __name__ == "__main__":
    draw()
