"""Draws the pictures of klt-sum-report as SVG text. Colours are defined by the page's style:
functions have the classes f1 to f8, and f0 for "others"; curves have l1 to l6, cells of a matrix q1
to q7. The <title> of a mark describes the mark, and browsers show it as a tooltip.

The functions get names as they are, and cut and escape them.
"""

import html
import math

WIDTH = 960
LEFT = 150      # width of the labels
RIGHT = 12
PLOT = WIDTH - LEFT - RIGHT
NAME = 60       # characters of a name that are shown
AXIS_NAME = 22  # beside a picture


def plain(name):
    """A name on one line; characters that can't be shown become replacement characters."""
    return "".join(" " if c in "\t\n\r\v\f" else c if c.isprintable() else "\N{REPLACEMENT CHARACTER}"
                   for c in name)


def name_text(name, limit=300):
    """A name as HTML text, cut in the middle, since names often differ in their ends only."""
    if len(name) > limit:
        name = name[:(limit + 1) // 2] + "…" + name[len(name) - limit // 2:]
    return html.escape(plain(name))


def name_label(name, limit=NAME):
    """A name as HTML that is cut and shown whole on hover."""
    shown = name_text(name, limit)
    return shown if len(name) <= limit else f'<span title="{name_text(name)}">{shown}</span>'


def number(value):
    """A number in about six characters."""
    for factor, sign in ((1e12, "T"), (1e9, "G"), (1e6, "M"), (1e3, "k")):
        if factor <= abs(value) < 1e15:
            return f"{value / factor:.3g}{sign}" if abs(value) < 999.5 * factor else \
                f"{value / factor:.0f}{sign}"
    if isinstance(value, int) and abs(value) < 1000:
        return str(value)
    return f"{value:.4g}"


def count_text(value):
    """A whole number, rounded if it has more than nine digits."""
    return f"{value:,}" if value < 10**9 else number(value)


def bytes_text(value):
    for factor, unit in ((2**40, "TiB"), (2**30, "GiB"), (2**20, "MiB"), (2**10, "KiB")):
        if value >= factor:
            return f"{value / factor:.3g} {unit}" if value < 1000 * factor else \
                f"{value / factor:.0f} {unit}"
    return f"{value} B"


class TimeText:
    """Formats ticks; if the length of a tick is known, in the unit that fits the span of the
    run."""

    def __init__(self, tick, span):
        self.tick, self.unit = tick, self._unit(tick, span)

    @staticmethod
    def _unit(tick, span):
        """The factor by which ticks are multiplied, and the resulting unit."""
        if not tick:
            return 1, "ticks"
        units = ((tick, "s"), (tick * 1e3, "ms"), (tick * 1e6, "µs"), (tick * 1e9, "ns"))
        return next((unit for unit in units if span * unit[0] >= 1), units[-1])

    @staticmethod
    def _show(ticks, unit):
        value = ticks * unit[0]
        return f"{value:.4g} {unit[1]}" if value < 9999.5 else f"{value:,.0f} {unit[1]}"

    def __call__(self, ticks):
        return self._show(ticks, self.unit)

    def short(self, ticks):
        """A duration, in the unit that fits it."""
        return self._show(ticks, self._unit(self.tick, abs(ticks)))


def coordinate(value):
    return f"{value:.1f}".removesuffix(".0")


def svg(height, label, content):
    return (f'<svg viewBox="0 0 {WIDTH} {coordinate(height)}" role="img" aria-label="{label}">'
            f'{"".join(content)}</svg>\n')


def text(x, y, words, anchor="end", title=""):
    """`words` and `title` are HTML."""
    title = f"<title>{title}</title>" if title else ""
    return (f'<text x="{coordinate(x)}" y="{coordinate(y)}" text-anchor="{anchor}">{words}{title}'
            "</text>")


def name_at(x, y, name, anchor="end", limit=AXIS_NAME):
    """A name as a text that shows the whole name on hover if it is cut."""
    return text(x, y, name_text(name, limit), anchor,
                name_text(name) if len(name) > limit else "")


def titled_rect(x, y, width, height, kind, title):
    return (f'<rect class="{kind}" x="{coordinate(x)}" y="{coordinate(y)}" '
            f'width="{coordinate(width)}" height="{coordinate(height)}">'
            f"<title>{title}</title></rect>")


def round_step(span, count):
    """The smallest of 1, 2 and 5 times a power of ten that divides `span` in at most `count`."""
    power = 10.0 ** math.floor(math.log10(span / count))
    return next(step * power for step in (1, 2, 5, 10) if step * power * count >= span * .999999)


def round_numbers(low, high, count):
    """Round numbers from `low` to `high`, about `count` of them, as pairs of number and text."""
    step = round_step(high - low, count)
    digits = max(-math.floor(math.log10(step) + 1e-9), 0)
    first = math.ceil(low / step - 1e-9)
    values = [(first + k) * step for k in range(count + 2)]
    return [(v, f"{v + 0.0:,.{digits}f}") for v in values if v <= high + step * 1e-9]


class TimeScale:
    """The positions of an axis's columns. The axis ends at the end of the run, in its last column."""

    def __init__(self, axis, time_text):
        self.axis, self.time_text = axis, time_text
        self.step = PLOT * axis.width / (axis.end - axis.start)

    def x(self, column):
        return min(LEFT + column * self.step, LEFT + PLOT)

    def width(self, column):
        return self.x(column + 1) - self.x(column)

    def span(self, column):
        start = self.axis.start + column * self.axis.width
        end = min(start + self.axis.width, self.axis.end)
        return f"{self.time_text(start)} to {self.time_text(end)}"

    def labels(self, y):
        """Round times, each with a mark."""
        factor, unit = self.time_text.unit
        start, end = (time * factor for time in (self.axis.start, self.axis.end))
        for value, shown in round_numbers(start, end, 8) if end > start else ():
            x = LEFT + PLOT * (value - start) / (end - start)
            anchor = "start" if x < LEFT + 20 else "end" if x > LEFT + PLOT - 30 else "middle"
            yield f'<path class="grid" d="M{coordinate(x)} {coordinate(y - 17)}v5"/>'
            yield text(x, y, f"{shown} {unit}", anchor)


def others(own, keys):
    """The time of the functions that aren't in `keys`."""
    return sum(value for key, value in own.items() if key not in keys)


def stacked(scale, columns, available, series):
    """The share of functions in the time of all threads, column by column. `series` are pairs of
    key and name; other keys are shown as "others"."""
    height, top = 220, 8
    parts = []
    for percent in (0, 25, 50, 75, 100):
        y = top + height * (1 - percent / 100)
        parts.append(f'<path class="grid" d="M{LEFT} {coordinate(y)}h{PLOT}"/>')
        parts.append(text(LEFT - 8, y + 4, f"{percent} %"))
    keys = [key for key, _ in series]
    base = [0.0] * len(columns)
    gap = 1 if scale.step > 4 else 0
    for place, key in enumerate(keys + [None], 1):
        marks = []
        for column, own in enumerate(columns):
            value = own.get(key, 0) if key is not None else others(own, keys)
            share = min(value / available[column], 1 - base[column]) if available[column] else 0
            if share > 0:
                y = top + height * (1 - base[column] - share)
                width = coordinate(max(scale.width(column) - gap, .5))
                marks.append(f"M{coordinate(scale.x(column))} {coordinate(y)}"
                             f"h{width}v{coordinate(height * share)}h-{width}z")
                base[column] += share
        if marks:
            kind = f"f{place}" if key is not None else "f0"
            parts.append(f'<path class="{kind} layer" d="{"".join(marks)}"/>')
    for column, own in enumerate(columns):
        lines = [scale.span(column)]
        for key, name in series:
            if own.get(key):
                lines.append(f"{name_text(name)}: {own[key] / max(available[column], 1):.1%}")
        rest = others(own, keys)
        if rest:
            lines.append(f"others: {rest / max(available[column], 1):.1%}")
        parts.append(titled_rect(scale.x(column), top, scale.width(column), height, "hover",
                                 "\n".join(lines)))
    parts += scale.labels(top + height + 18)
    return svg(top + height + 26, "Share of functions over time", parts)


def lanes(scale, cells, times, names, series):
    """The function with the most time for each group of threads and column. `names` are those of
    the groups."""
    row, top = 18 if len(names) <= 16 else 12, 4
    keys = {key: place for place, (key, _) in enumerate(series, 1)}
    labels = dict(series)
    parts = []
    for group, name in enumerate(names):
        y = top + group * row
        parts.append(name_at(LEFT - 8, y + row - 5, name))
        column = 0
        while column < scale.axis.count:
            main = main_key(cells.get((group, column)), keys)
            start, own, time = column, 0, 0
            while column < scale.axis.count and main_key(cells.get((group, column)), keys) == main:
                cell = cells.get((group, column), {})
                own += cell.get(main, 0) if main is not None else others(cell, keys)
                time += times.get((group, column), 0)
                column += 1
            if main == "idle":
                continue
            title = (f"{name_text(name)}, {scale.span(start).split(' to ')[0]} to "
                     f"{scale.span(column - 1).split(' to ')[1]}\n"
                     f"{name_text(labels.get(main, 'others'))}: {own / max(time, 1):.1%}")
            parts.append(titled_rect(scale.x(start), y, scale.x(column) - scale.x(start), row - 2,
                                     f"f{keys.get(main, 0)}", title))
    height = top + len(names) * row
    parts += scale.labels(height + 14)
    return svg(height + 22, "Main function of each thread over time", parts)


def main_key(cell, keys):
    """The key of the function with the most time: None for others, "idle" if there is no time."""
    best = max(cell or (), key=lambda key: cell[key], default=None)
    if not cell or not cell[best]:
        return "idle"
    return best if best in keys else None


def matrix(cells, names, what, show):
    """A square of cells, with senders as rows and receivers as columns. `cells` are numbers by pair
    of groups, and `show` formats a number. Shades are logarithmic, from the smallest to the largest
    number."""
    width, top = 460, 34
    left = 120
    step = min((width - left - 4) / max(len(names), 1), 70)
    cells = {key: value for key, value in cells.items() if value and None not in key}
    low, high = (math.log(f(cells.values(), default=1)) for f in (min, max))
    parts = [text(left, 12, "receiver →", "start"), text(left - 8, top - 6, "sender ↓")]
    for group, name in enumerate(names):
        if step >= 12 or group % 2 == 0:
            parts.append(name_at(left - 8, top + (group + .5) * step + 4, name, limit=17))
    stride = max(math.ceil(60 / step), 1)
    for group in range(0, len(names), stride):
        if group == 0 or left + group * step < width - 55:
            parts.append(name_at(left + group * step, top - 6, names[group], "start", 9))
    for (sender, receiver), value in sorted(cells.items()):
        shade = 1 + round(6 * (math.log(value) - low) / (high - low)) if high > low else 7
        parts.append(titled_rect(left + receiver * step, top + sender * step, max(step - 1, 1),
                                 max(step - 1, 1), f"q{shade}",
                                 f"{name_text(names[sender])} → {name_text(names[receiver])}: "
                                 f"{show(value)}"))
    height = top + len(names) * step + 4
    if cells:
        what += f", {show(min(cells.values()))} to {show(max(cells.values()))}"
    return (f'<figure><figcaption>{what}</figcaption><svg viewBox="0 0 {width} '
            f'{coordinate(height)}" role="img" aria-label="{what}">{"".join(parts)}</svg>'
            "</figure>\n")


def lines(scale, curves, band, label):
    """Curves over time, given as pairs of name and Curve. `band`, a Curve or None, is drawn as an
    area from its lowest to its highest values."""
    height, top = 130, 8
    drawn = [(name, means(curve)) for name, curve in curves]
    extent = [v for _, points in drawn for v in points if v is not None]
    if band:
        extent += [v for point in band.points if point for v in point[2:4]]
    if not extent:
        return ""
    low, high = min(extent), max(extent)
    marks = []
    # A value may be so much larger than the difference that no round numbers lie between them.
    if max(abs(low), abs(high)) * 1e-12 < high - low < 1e300 and high - low > 1e-300:
        step = round_step(high - low, 3)
        low, high = math.floor(low / step) * step, math.ceil(high / step) * step
        marks = [value for value, _ in round_numbers(low, high, 5)]
    # Halved, because the difference of large numbers may overflow.
    room = (high / 2 - low / 2) or 1.0
    marks = marks or [low + room * k for k in range(3)]

    def y(value):
        return top + height * (1 - min(max((value / 2 - low / 2) / room, 0.0), 1.0))

    parts = []
    for value in marks:
        parts.append(f'<path class="grid" d="M{LEFT} {coordinate(y(value))}h{PLOT}"/>')
        parts.append(text(LEFT - 8, y(value) + 4, number(value)))
    if band:
        for column, point in enumerate(band.points):
            if point:
                parts.append(f'<path class="s1 band" d="M{coordinate(scale.x(column))} '
                             f'{coordinate(y(point[3]))}h{coordinate(scale.width(column))}'
                             f'V{coordinate(y(point[2]))}h-{coordinate(scale.width(column))}z"/>')
    for place, (_, points) in enumerate(drawn, 1):
        path = "".join(path_of(scale, points, y))
        parts.append(f'<path class="line l{place}" d="{path}"/>')
    for column in range(scale.axis.count):
        values = [f"{name_text(name)}: {number(points[column])}" for name, points in drawn
                  if points[column] is not None]
        if band and band.points[column]:
            values.append(f"{number(band.points[column][2])} to {number(band.points[column][3])}")
        if values:
            parts.append(titled_rect(scale.x(column), top, scale.width(column), height, "hover",
                                     "\n".join([scale.span(column), *values])))
    parts += scale.labels(top + height + 18)
    return svg(top + height + 26, label, parts)


def means(curve):
    values = [point and point[1] / point[0] for point in curve.points]
    return [v if v is not None and math.isfinite(v) else None for v in values]


def path_of(scale, points, y):
    """A line through neighbouring points; a point without a neighbour is a short dash."""
    pen_down = False
    for column, value in enumerate(points):
        if value is None:
            pen_down = False
            continue
        x = scale.x(column) + scale.width(column) / 2
        alone = not pen_down and (column + 1 == len(points) or points[column + 1] is None)
        yield f"{'L' if pen_down else 'M'}{coordinate(x)} {coordinate(y(value))}"
        if alone:
            yield "h3"
        pen_down = True
