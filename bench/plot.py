"""Pictures of figures, as SVG: bars in groups, lines over a growing number.  The same figures give the same bytes."""

import html
import math

COLOURS = ("#1b6ca8", "#c0392b", "#1e8449", "#b9770e", "#8e44ad", "#117a65", "#7f8c8d")
WIDTH, HEIGHT, LEFT, RIGHT, TOP, BOTTOM = 900, 300, 70, 150, 40, 40


def shown(value):
    return f"{value:,.0f}" if value >= 10 else f"{value:.2g}"


def text(x, y, words, more=""):
    return f'<text x="{x:.1f}" y="{y:.1f}"{more}>{html.escape(str(words))}</text>'


def decades(values):
    """The powers of ten around all values."""
    values = [value for value in values if value > 0]
    low = math.floor(math.log10(min(values)))
    return low, max(low + 1, math.ceil(math.log10(max(values))))


def panel(title, levels, series):
    """Title, the lines of the powers of ten and the names of the series; and where a value stands."""
    low, high = levels
    span = HEIGHT - TOP - BOTTOM
    y = lambda value: TOP + span * (1 - (math.log10(value) - low) / (high - low))
    lines = [text(LEFT, TOP - 16, title, ' font-weight="bold"')]
    for power in range(low, high + 1):
        at = y(10.0 ** power)
        lines.append(f'<line x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{at:.1f}" y2="{at:.1f}" stroke="#ddd"/>')
        lines.append(text(LEFT - 6, at + 4, f"{10.0 ** power:,g}", ' text-anchor="end"'))
    for n, name in enumerate(series):
        lines.append(text(WIDTH - RIGHT + 12, TOP + 12 + 17 * n, name, f' fill="{COLOURS[n % len(COLOURS)]}"'))
    return lines, y


def page(panels):
    height = HEIGHT * len(panels)
    lines = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
             'font-family="sans-serif" font-size="12">', f'<rect width="{WIDTH}" height="{height}" fill="white"/>']
    for n, drawn in enumerate(panels):
        lines += [f'<g transform="translate(0,{n * HEIGHT})">', *drawn, "</g>"]
    return "\n".join([*lines, "</svg>", ""])


def bars(title, groups):
    """{GROUP: {SERIES: value}} on a scale of powers of ten; a value stands above its bar."""
    series = list(dict.fromkeys(name for values in groups.values() for name in values))
    levels = decades(value for values in groups.values() for value in values.values())
    lines, y = panel(title, levels, series)
    room = (WIDTH - LEFT - RIGHT) / len(groups)
    width = room / (len(series) + 1)
    ground = y(10.0 ** levels[0])
    for n, (group, values) in enumerate(groups.items()):
        lines.append(text(LEFT + (n + 0.5) * room, HEIGHT - BOTTOM + 18, group, ' text-anchor="middle"'))
        for name, value in values.items():
            if value <= 0:
                continue
            which = series.index(name)
            x = LEFT + n * room + (which + 0.5) * width
            lines.append(f'<rect x="{x:.1f}" y="{y(value):.1f}" width="{width * 0.9:.1f}" '
                         f'height="{ground - y(value):.1f}" fill="{COLOURS[which % len(COLOURS)]}"/>')
            lines.append(text(x + width * 0.45, y(value) - 3, shown(value), ' text-anchor="middle" font-size="9"'))
    return lines


def curves(title, series):
    """{SERIES: {n: value}}, both on scales of powers of ten."""
    lines, y = panel(title, decades(value for points in series.values() for value in points.values()), series)
    numbers = sorted({n for points in series.values() for n in points})
    low, high = math.log10(numbers[0]), max(math.log10(numbers[-1]), math.log10(numbers[0]) + 1)
    x = lambda n: LEFT + (WIDTH - LEFT - RIGHT) * (math.log10(n) - low) / (high - low)
    for n in numbers:
        lines.append(text(x(n), HEIGHT - BOTTOM + 18, f"{n:,}", ' text-anchor="middle"'))
    for which, points in enumerate(series.values()):
        colour = COLOURS[which % len(COLOURS)]
        places = [(x(n), y(value)) for n, value in sorted(points.items())]
        lines.append('<polyline points="' + " ".join(f"{a:.1f},{b:.1f}" for a, b in places) +
                     f'" fill="none" stroke="{colour}" stroke-width="2"/>')
        lines += [f'<circle cx="{a:.1f}" cy="{b:.1f}" r="3" fill="{colour}"/>' for a, b in places]
    return lines
