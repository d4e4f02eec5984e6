"""A plot of a few curves as SVG, in lines that can be read."""
import html
import math

WIDTH, HEIGHT, LEFT, RIGHT, TOP, BOTTOM = 640, 320, 70, 20, 54, 46
COLOURS = ("#1b6ca8", "#c2571a", "#3d8b37", "#7a4fa3")
PAPER, INK, FAINT = "#ffffff", "#222222", "#d8d8d8"


def decades(low, high):
    """The powers of ten from at or below the one to at or above the other."""
    begin, end = math.floor(math.log10(low)), math.ceil(math.log10(high))
    return [10.0 ** power for power in range(begin, max(end, begin + 1) + 1)]


def steps(high):
    """From zero on, four to nine round steps to at or above the highest."""
    size = 10.0 ** math.floor(math.log10(high))
    for part in (size / 5, size / 2, size, 2 * size):
        if high / part <= 8:
            return [part * step for step in range(math.ceil(high / part) + 1)]
    raise AssertionError("a number is less than ten times its power of ten")


def short(value):
    for letter, size in (("G", 1e9), ("M", 1e6), ("k", 1e3)):
        if value >= size:
            return f"{value / size:g}{letter}"
    return f"{value:g}"


def svg(title, across, up, curves):
    """`curves` is {name: [(x, y), ...]}, with x above 0. Axes are by decades where the numbers lie more than a factor of 30 apart; an axis of
    equal steps begins at 0."""
    xs, ys = ([point[at] for points in curves.values() for point in points] for at in (0, 1))
    marks, scales = [], []
    for values in (xs, ys):
        by_decades = min(values) > 0 and max(values) > 30 * min(values)
        ticks = decades(min(values), max(values)) if by_decades else steps(max(values) or 1)
        place = math.log10 if by_decades else float
        low, high = place(ticks[0]), place(ticks[-1])
        marks.append(ticks)
        scales.append(lambda value, place=place, low=low, high=high: (place(value) - low) / (high - low))

    def x_of(value):
        return round(LEFT + scales[0](value) * (WIDTH - LEFT - RIGHT), 1)

    def y_of(value):
        return round(HEIGHT - BOTTOM - scales[1](value) * (HEIGHT - TOP - BOTTOM), 1)

    lines = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" font-size="12" fill="{INK}">',
             f"<title>{html.escape(title)}</title>", f'<rect width="{WIDTH}" height="{HEIGHT}" fill="{PAPER}"/>',
             f'<text x="{LEFT}" y="18" font-size="14">{html.escape(title)}</text>']
    for tick in marks[0]:
        lines += [f'<line x1="{x_of(tick)}" y1="{TOP}" x2="{x_of(tick)}" y2="{HEIGHT - BOTTOM}" stroke="{FAINT}"/>',
                  f'<text x="{x_of(tick)}" y="{HEIGHT - BOTTOM + 15}" text-anchor="middle">{short(tick)}</text>']
    for tick in marks[1]:
        lines += [f'<line x1="{LEFT}" y1="{y_of(tick)}" x2="{WIDTH - RIGHT}" y2="{y_of(tick)}" stroke="{FAINT}"/>',
                  f'<text x="{LEFT - 6}" y="{y_of(tick) + 4}" text-anchor="end">{short(tick)}</text>']
    lines += [f'<text x="{(LEFT + WIDTH - RIGHT) / 2:g}" y="{HEIGHT - 10}" text-anchor="middle">{html.escape(across)}</text>',
              f'<text x="14" y="{(TOP + HEIGHT - BOTTOM) / 2:g}" text-anchor="middle" '
              f'transform="rotate(-90 14 {(TOP + HEIGHT - BOTTOM) / 2:g})">{html.escape(up)}</text>']
    for number, (name, points) in enumerate(curves.items()):
        colour = COLOURS[number % len(COLOURS)]
        lines += [f'<polyline fill="none" stroke="{colour}" stroke-width="2" points="{" ".join(f"{x_of(x)},{y_of(y)}" for x, y in points)}"/>',
                  *(f'<circle cx="{x_of(x)}" cy="{y_of(y)}" r="2.5" fill="{colour}"/>' for x, y in points if len(points) < 15),
                  f'<text x="{WIDTH - RIGHT}" y="{18 + 13 * number}" text-anchor="end" fill="{colour}">{html.escape(name)}</text>']
    return "\n".join([*lines, "</svg>"]) + "\n"
