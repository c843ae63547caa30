#!/usr/bin/env python3
"""Draws what measure.py wrote, and puts it as a table into a page.

usage: report.py IN.json PAGE.md PLOT.svg

The table replaces what stands in the page between the lines that name this program. Exits with 1
where postwire-serve answers fewer requests a second than Boost.Beast, or has a longer p99.
"""
import collections
import json
import pathlib
import statistics
import sys
import xml.sax.saxutils

TITLES = {'postwire': 'postwire-serve', 'beast': 'Boost.Beast', 'poco': 'POCO HTTPServer',
          'httplib': 'cpp-httplib', 'raw': 'no HTTP at all'}
PANELS = ('rate', 'requests a second'), ('p99_us', 'latency p99, microseconds')
BEGIN, END = '<!-- written by report.py -->\n', '<!-- end -->\n'
COLOURS = {'postwire': '#0b6e4f', 'raw': '#c9c9c9'}
OTHERS = '#7f9bb3'


def collect(data):
    """Values of all rounds: by number of connections, server and quantity."""
    values = collections.defaultdict(list)
    for run in data['runs']:
        for key in 'rate', 'p50_us', 'p99_us', 'cpu_us':
            values[run['connections'], run['server'], key].append(run[key])
    return values


def number(value):
    return f'{value:,.0f}'.replace(',', ' ') if value >= 100 else f'{value:.1f}'


def calls_of(data, server):
    calls = data['calls'].get(server)
    if not calls:
        return '–'
    return ', '.join(name if n == 1 else f'{n:g} {name}' for name, n in calls.items())


def ratio(values, connections, key):
    """Ours over Beast's, of the same round; the median of all rounds."""
    ours, theirs = (values[connections, server, key] for server in ('postwire', 'beast'))
    return statistics.median(a / b for a, b in zip(ours, theirs, strict=True))


def table(data, values, servers, connections):
    facts = data['machine']
    yield (f'{facts["processor"]}, {facts["processors"]} processors, Linux {facts["kernel"]}; '
           f'{len(values[connections[0], servers[0], "rate"])} rounds of {data["seconds"]} s each, '
           f'medians; load of the machine before: {facts["load_before"]}'
           + (', which server and wrk went before.' if data['realtime'] else '.'))
    for n in connections:
        yield f'\n{n} connection{"s" if n > 1 else ""}:\n'
        yield '| server | requests/s | p50 µs | p99 µs | processor µs/request |'
        yield '|---|---:|---:|---:|---:|'
        for server in servers:
            cells = (number(statistics.median(values[n, server, key]))
                     for key in ('rate', 'p50_us', 'p99_us', 'cpu_us'))
            yield f'| {TITLES[server]} | {" | ".join(cells)} |'
    yield '\nSystem calls of one exchange, counted by strace:\n'
    yield '| server | calls |'
    yield '|---|---|'
    for server in servers:
        yield f'| {TITLES[server]} | {calls_of(data, server)} |'


def verdicts(values, connections):
    for n in connections:
        rate, p99 = ratio(values, n, 'rate'), ratio(values, n, 'p99_us')
        yield (f'Over {n} connection{"s" if n > 1 else ""} postwire-serve answers {rate:.2f} times '
               f'as many requests a second as Boost.Beast; its p99 is {p99:.2f} times as long.'), \
            rate >= 1 and p99 <= 1


def bar(x, y, width, server, values, scale):
    middle, low, high = statistics.median(values), min(values), max(values)
    end = x + middle * scale
    yield (f'<rect x="{x}" y="{y}" width="{middle * scale:.1f}" height="18" '
           f'fill="{COLOURS.get(server, OTHERS)}"/>')
    yield (f'<path d="M{x + low * scale:.1f} {y + 9}H{min(x + high * scale, x + width):.1f}" '
           f'stroke="#222" stroke-width="1.5"/>')
    yield f'<text x="{max(end, min(x + high * scale, x + width)) + 6:.1f}" y="{y + 13}">' \
          f'{number(middle)}</text>'


def panel(left, top, values, servers, n, key, title):
    name_width, width = 120, 190
    yield f'<text x="{left}" y="{top}" font-weight="bold">{title}, {n} ' \
          f'connection{"s" if n > 1 else ""}</text>'
    # One bad round must not flatten the others: the line of a range may be cut off.
    scale = width / (1.15 * max(statistics.median(values[n, server, key]) for server in servers))
    for row, server in enumerate(servers):
        y = top + 10 + row * 25
        label = xml.sax.saxutils.escape(TITLES[server])
        yield f'<text x="{left + name_width - 6}" y="{y + 13}" text-anchor="end">{label}</text>'
        yield from bar(left + name_width, y, width, server, values[n, server, key], scale)


def plot(values, servers, connections):
    height = 30 + 25 * len(servers) + 20
    total = height * len(PANELS) + 30
    yield (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 800 {total}" '
           'font-family="sans-serif" font-size="12" fill="#222">')
    yield f'<rect width="800" height="{total}" fill="#fff"/>'
    for row, (key, title) in enumerate(PANELS):
        for column, n in enumerate(connections):
            yield from panel(15 + 400 * column, 24 + row * height, values, servers, n, key, title)
    yield (f'<text x="15" y="{total - 12}" fill="#555">Bars: median of all rounds. Lines: from the '
           'lowest round to the highest.</text>')
    yield '</svg>'


def main():
    source, page, picture = map(pathlib.Path, sys.argv[1:])
    data = json.loads(source.read_text())
    values = collect(data)
    connections = sorted({n for n, _, _ in values})
    servers = [name for name in TITLES if (connections[0], name, 'rate') in values]
    judged = list(verdicts(values, connections))
    lines = [*table(data, values, servers, connections), '', *(text for text, _ in judged)]
    before, _, rest = page.read_text().partition(BEGIN)
    _, _, after = rest.partition(END)
    page.write_text(f'{before}{BEGIN}' + '\n'.join(lines) + f'\n{END}{after}')
    picture.write_text('\n'.join(plot(values, servers, connections)) + '\n')
    print('\n'.join(lines))
    sys.exit(not all(good for _, good in judged))


if __name__ == '__main__':
    main()
