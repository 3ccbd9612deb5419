"""What a soak measured: a file of samples, whether something grew, and a picture of it.

A sample is one process at one moment.  A leak raises the least that a process needs, noise does not: the least of the second
quarter of the run, when everything is warm, is compared with the least of its last quarter.
"""

import csv
import itertools
import re
import typing

WARM = 0.25  # the part of the run in which everything may still grow
LAST = 0.75  # where the part begins that is compared
MOST_DESCRIPTORS = 3  # that come and go with the services that are killed and leave


class Sample(typing.NamedTuple):
    seconds: float
    service: str
    pid: int
    private_kib: int
    resident_kib: int
    descriptors: int


def write_csv(path, samples):
    with open(path, "w", encoding="utf-8", newline="") as out:
        table = csv.writer(out)
        table.writerow(Sample._fields)
        table.writerows(samples)


class Growth(typing.NamedTuple):
    service: str
    private_kib: tuple  # the least in the second quarter, and in the last
    descriptors: tuple

    def faults(self, most_kib):
        kib = self.private_kib[1] - self.private_kib[0]
        descriptors = self.descriptors[1] - self.descriptors[0]
        if kib > most_kib:
            yield f"{self.service} grew by {kib} KiB"
        if descriptors > MOST_DESCRIPTORS:
            yield f"{self.service} has {descriptors} descriptors more than before"


def growths(samples, seconds):
    """One for each service that was there in both parts; whichever of its processes was there."""
    for service in sorted({s.service for s in samples}):
        mine = [s for s in samples if s.service == service]
        early = [s for s in mine if WARM * seconds <= s.seconds < 0.5 * seconds]
        late = [s for s in mine if s.seconds >= LAST * seconds]
        if early and late:
            yield Growth(service,
                         (min(s.private_kib for s in early), min(s.private_kib for s in late)),
                         (min(s.descriptors for s in early), min(s.descriptors for s in late)))


# --- the traffic, of the metrics that the loader gives


class Traffic(typing.NamedTuple):
    seconds: float
    service: str
    pid: int  # 0: one line goes on over all processes of the service
    messages: float  # in a second, both ways
    queue_bytes: int


def metrics_in(text):
    """What an OpenMetrics text says of each service: {service: {metric: value}}."""
    services = {}
    for metric, service, value in re.findall(r'^(\w+)\{service="([^"\\]*)"\} (\S+)$', text, re.MULTILINE):
        services.setdefault(service, {})[metric] = float(value)
    return services


def traffic(looks):
    """Of two looks (seconds, services) each, what passed between them; nothing where the counters began anew."""
    messages = lambda one: one["kelo_in_messages_total"] + one["kelo_out_messages_total"]
    for (earlier, before), (seconds, now) in itertools.pairwise(looks):
        for service in now.keys() & before.keys():
            passed = messages(now[service]) - messages(before[service])
            if passed >= 0 and seconds > earlier:
                yield Traffic(seconds, service, 0, passed / (seconds - earlier),
                              int(now[service].get("kelo_queue_bytes", 0)))


# --- the picture

COLOURS = ("#1b6ca8", "#c0392b", "#1e8449", "#8e44ad", "#b9770e", "#117a65", "#7f8c8d", "#2c3e50", "#d35400")
WIDTH, PANEL, LEFT, RIGHT, TOP, GAP = 900, 220, 60, 120, 30, 50


def rounded_up(value):
    """The next of 1, 2, 5, 10, 20, 50 and so on."""
    step = 1
    while True:
        for factor in (1, 2, 5):
            if step * factor >= value:
                return step * factor
        step *= 10


def panel(samples, seconds, top, title, value):
    """Axes and one line a service; a line is interrupted where another process begins."""
    most = rounded_up(max((value(s) for s in samples), default=1))
    x = lambda t: LEFT + (WIDTH - LEFT - RIGHT) * t / seconds
    y = lambda v: top + PANEL * (1 - v / most)
    yield f'<text x="{LEFT}" y="{top - 10}" font-weight="bold">{title}</text>'
    for part in range(5):
        level = most * part / 4
        yield f'<line x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{y(level):.1f}" y2="{y(level):.1f}" stroke="#ddd"/>'
        yield f'<text x="{LEFT - 6}" y="{y(level) + 4:.1f}" text-anchor="end">{level:g}</text>'
    for part in (0, WARM, 0.5, LAST, 1):
        at = x(part * seconds)
        yield f'<line x1="{at:.1f}" x2="{at:.1f}" y1="{top}" y2="{top + PANEL}" stroke="#ddd"/>'
        yield f'<text x="{at:.1f}" y="{top + PANEL + 15}" text-anchor="middle">{part * seconds / 60:.1f} min</text>'
    for n, service in enumerate(sorted({s.service for s in samples})):
        mine = [s for s in samples if s.service == service]
        for pid in dict.fromkeys(s.pid for s in mine):
            points = " ".join(f"{x(s.seconds):.1f},{y(value(s)):.1f}" for s in mine if s.pid == pid)
            yield (f'<polyline points="{points}" fill="none" stroke="{COLOURS[n % len(COLOURS)]}" '
                   'stroke-width="1.5" stroke-linecap="round"/>')
        yield (f'<text x="{WIDTH - RIGHT + 10}" y="{top + 12 + 16 * n}" '
               f'fill="{COLOURS[n % len(COLOURS)]}">{service}</text>')


def picture(samples, seconds, panels):
    """A panel below the other for each title and what it shows of a sample."""
    height = TOP + len(panels) * PANEL + (len(panels) - 1) * GAP + 30
    lines = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
             'font-family="sans-serif" font-size="12">',
             f'<rect width="{WIDTH}" height="{height}" fill="white"/>']
    for n, (title, value) in enumerate(panels):
        lines += panel(samples, seconds, TOP + n * (PANEL + GAP), title, value)
    return "\n".join([*lines, "</svg>", ""])


def svg(samples, seconds):
    return picture(samples, seconds, [("Private memory, KiB", lambda s: s.private_kib),
                                      ("Descriptors", lambda s: s.descriptors)])


def traffic_svg(looks, seconds):
    return picture(list(traffic(looks)), seconds, [("Messages per second", lambda s: s.messages),
                                                   ("Waits until the service reads, bytes", lambda s: s.queue_bytes)])
