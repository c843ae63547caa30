#!/usr/bin/env python3
"""Draws what measure.py wrote, and puts it as tables into a page.

usage: report.py IN.json PAGE.md PLOT.svg

The tables replace what stands in the page between the lines that name this program. Exits with 1
where a floor is missed in a row that was measured on two or more processors that had nothing else to
do: less than BUSY of them in use before it began.
"""
import collections
import json
import math
import pathlib
import statistics
import sys

TITLES = {'postwire': 'postwire::Server', 'program': 'postwire-serve --answer',
          'nginx': 'nginx, `return 200`', 'beast': 'Boost.Beast', 'poco': 'POCO HTTPServer',
          'httplib': 'cpp-httplib', 'raw': 'no HTTP at all'}
BEGIN, END = '<!-- written by report.py -->\n', '<!-- end -->\n'
# Whose figures are held to floors, and the words that tell one from the other.
OURS = {'postwire': '', 'program': 'postwire-serve: '}
COLOURS = {'postwire': '#0b6e4f', 'program': '#58b368', 'nginx': '#b5541c', 'beast': '#3b6ea5',
           'poco': '#8f6bb1', 'httplib': '#a3873b', 'raw': '#b5b5b5'}
BUSY = 0.1
median = statistics.median


def number(value):
    return f'{value:,.0f}'.replace(',', ' ') if value >= 100 else f'{value:.3g}'


def grouped(runs, *keys):
    """Runs by these keys; in the order of the rounds."""
    groups = collections.defaultdict(list)
    for run in runs:
        groups[tuple(run[key] for key in keys)].append(run)
    return groups


def ratio(ours, theirs, key):
    """Of the same round; the median of all rounds."""
    pairs = [(a[key], b[key]) for a, b in zip(ours, theirs) if b[key]]
    return median(a / b for a, b in pairs) if pairs else math.inf


# The floors: each yields what was measured, its floor in words, its value, and whether that is kept.

def rates(runs):
    groups = grouped(runs, 'server', 'connections')
    for server, n in sorted(groups, key=lambda key: key[1]):
        if server in OURS:
            ours = groups[server, n]
            for peer, floor in ('nginx', 0.8 if n > 1 else None), ('beast', 1 if n > 1 else 0.99):
                if floor and (peer, n) in groups:
                    value = ratio(ours, groups[peer, n], 'rate')
                    yield (f'{OURS[server]}requests a second, {n} connection{"s" if n > 1 else ""}',
                           f'at least {floor} of {TITLES[peer].partition(",")[0]}', f'{value:.2f}',
                           value >= floor)


def latency(runs):
    groups = grouped(runs, 'server', 'connections')
    for server, n in sorted(key for key in groups if key[0] in OURS):
        value = ratio(groups[server, n], groups['nginx', n], 'p99_ms')
        at = [median(run['p99_ms'] for run in groups[name, n]) for name in (server, 'nginx')]
        yield (f'{OURS[server]}p99 at half of nginx\'s most, {n} connections', 'at most 1.2 of nginx',
               f'{value:.2f} ({at[0]:.2g} and {at[1]:.2g} ms)', value <= 1.2)


def idle(runs):
    for run in runs:
        server, _, bits = run['server'].partition(', ')
        what = f'{OURS[server]}10 000 idle connections, {bits or "64 bit"}'
        yield (f'{what}: resident, address space each', 'at most 8 and 16 KiB',
               f'{run["resident_kib"]:.2g} and {run["space_kib"]:.2g} KiB',
               run['resident_kib'] <= 8 and run['space_kib'] <= 16)
        value = run['rate'] / run['alone']
        yield f'{what}: 64 others', 'at least 0.9 of the rate', f'{value:.2f}', value >= 0.9


def slow(runs):
    for (server,), ours in grouped(runs, 'server').items():
        value = median(run['rate'] / run['alone'] for run in ours)
        yield (f'{OURS[server]}1 000 connections that send a byte a second: 64 others',
               'at least 0.8 of the rate', f'{value:.2f}', value >= 0.8)


def sleeping(runs):
    value = median(run['quick_p99_ms'] for run in runs)
    yield ('a tenth of the requests sleeps 20 ms: p99 of the others', 'at most 5 ms',
           f'{value:.2g} ms', value <= 5)


def compute(runs):
    value = median(run['two'] / run['one'] for run in runs)
    yield ('a handler that computes 200 µs, two processors', 'at least 1.7 of one', f'{value:.2f}',
           value >= 1.7)


def upload(runs):
    groups = grouped(runs, 'server')
    value = 1 / ratio(groups['postwire',], groups['nginx',], 'seconds')
    at = [median(run['seconds'] for run in groups[server,]) for server in ('postwire', 'nginx')]
    yield ('1 GiB to disk', 'at least 0.8 of nginx', f'{value:.2f} ({at[0]:.1f} and {at[1]:.1f} s)',
           value >= 0.8)


ROWS = {row.__name__: row for row in (rates, latency, idle, slow, sleeping, compute, upload)}


def judged(data):
    """What each floor says of itself, and whether it is missed on a machine that allows to say so."""
    for name in (name for name in ROWS if name in data['rows']):
        row = data['rows'][name]
        quiet = data['machine']['processors'] > 1 and row['busy_before'] < BUSY
        for what, floor, value, good in ROWS[name](row['runs']):
            verdict = 'kept' if good else 'missed' if quiet else 'missed, the machine was busy'
            yield f'| {what} | {floor} | {value} | {verdict} |', quiet and not good


def table(data):
    facts, rows = data['machine'], data['rows']
    groups = grouped(rows['rates']['runs'], 'server', 'connections')
    connections = sorted({n for _, n in groups})
    servers = [name for name in TITLES if (name, connections[0]) in groups]
    used = ', '.join(f'{name} {row["busy_before"]:.0%}' for name, row in rows.items())
    yield (f'{facts["processor"]}, {facts["processors"]} processors, Linux {facts["kernel"]}; '
           f'medians of {len(groups[servers[0], connections[0]])} rounds of '
           f'{rows["rates"]["seconds"]:g} s; in use by others before each row: {used}.')
    for key, title in ('rate', 'Requests a second'), ('cpu_us', 'Processor time a request, µs'):
        yield f'\n{title}, over connections:\n'
        yield f'| server | {" | ".join(map(number, connections))} |'
        yield f'|---|{"---:|" * len(connections)}'
        for server in servers:
            cells = (number(median(run[key] for run in groups[server, n]
                                   if key == 'rate' or run['rate']))
                     if any(run['rate'] for run in groups[server, n]) else '–'
                     for n in connections)
            yield f'| {TITLES[server]} | {" | ".join(cells)} |'
    yield '\n| measured | floor | is | |'
    yield '|---|---|---|---|'


WIDTH, HEIGHT, LEFT, TOP = 620, 330, 70, 30


def plot(data):
    """Requests a second over connections, both a scale of their own, a line a server."""
    groups = grouped(data['rows']['rates']['runs'], 'server', 'connections')
    connections = sorted({n for _, n in groups})
    most = max(run['rate'] for runs in groups.values() for run in runs)
    step = 10 ** math.floor(math.log10(most)) / 2

    def x(n):
        return LEFT + WIDTH * math.log(n / connections[0]) / math.log(connections[-1])

    def y(rate):
        return TOP + HEIGHT * (1 - rate / most)

    yield (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 880 {TOP + HEIGHT + 60}" '
           'font-family="sans-serif" font-size="12" fill="#222">')
    yield f'<rect width="880" height="{TOP + HEIGHT + 60}" fill="#fff"/>'
    yield f'<text x="{LEFT}" y="18" font-weight="bold">requests a second</text>'
    for i in range(int(most / step) + 1):
        yield (f'<path d="M{LEFT} {y(i * step):.1f}h{WIDTH}" stroke="#ddd"/>'
               f'<text x="{LEFT - 6}" y="{y(i * step) + 4:.1f}" text-anchor="end">'
               f'{number(i * step) if i else 0}</text>')
    for n in connections:
        yield f'<text x="{x(n):.1f}" y="{TOP + HEIGHT + 18}" text-anchor="middle">{n}</text>'
    yield (f'<text x="{LEFT + WIDTH}" y="{TOP + HEIGHT + 38}" text-anchor="end">connections; dots: '
           'medians; lines up and down: from the lowest round to the highest</text>')
    shown = [name for name in TITLES if (name, connections[0]) in groups]
    for row, server in enumerate(shown):
        colour = COLOURS[server]
        points = []
        for n in connections:
            if (server, n) in groups:
                values = [run['rate'] for run in groups[server, n]]
                points.append(f'{x(n):.1f} {y(median(values)):.1f}')
                yield (f'<path d="M{x(n):.1f} {y(min(values)):.1f}V{y(max(values)):.1f}" '
                       f'stroke="{colour}"/><circle cx="{x(n):.1f}" cy="{y(median(values)):.1f}" '
                       f'r="3" fill="{colour}"/>')
        yield f'<path d="M{"L".join(points)}" fill="none" stroke="{colour}" stroke-width="2"/>'
        yield (f'<path d="M{LEFT + WIDTH + 20} {TOP + 20 * row}h20" stroke="{colour}" '
               f'stroke-width="3"/><text x="{LEFT + WIDTH + 46}" y="{TOP + 20 * row + 4}">'
               f'{TITLES[server].replace("`", "")}</text>')
    yield '</svg>'


def main():
    source, page, picture = map(pathlib.Path, sys.argv[1:])
    data = json.loads(source.read_text())
    verdicts = list(judged(data))
    lines = [*table(data), *(text for text, _ in verdicts)]
    before, _, rest = page.read_text().partition(BEGIN)
    _, _, after = rest.partition(END)
    page.write_text(f'{before}{BEGIN}' + '\n'.join(lines) + f'\n{END}{after}')
    picture.write_text('\n'.join(plot(data)) + '\n')
    print('\n'.join(lines))
    sys.exit(any(missed for _, missed in verdicts))


if __name__ == '__main__':
    main()
