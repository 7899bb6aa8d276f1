"""Line plots as SVG, side by side, with no library: numbers against numbers on a logarithmic axis."""
import dataclasses
import html
import math

WIDTH, HEIGHT = 460, 320
LEFT, RIGHT, TOP, BOTTOM = 62, 28, 40, 52
COLOURS = ("#1b6ca8", "#c2571a", "#5aa0d0", "#e0a070")


@dataclasses.dataclass
class Panel:
    title: str
    across: str
    up: str
    lines: dict  # name: [(x, y)...]
    log_y: bool = False


def ticks(low, high, logarithmic):
    if logarithmic:
        return [10.0 ** power for power in range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1)]
    step = 10 ** math.floor(math.log10(high - low or 1))
    step = next(step * part for part in (0.1, 0.2, 0.25, 0.5, 1, 2) if (high - low) / (step * part) <= 6)
    return [step * number for number in range(math.floor(low / step), math.ceil(high / step) + 1)]


def named(value):
    return f"{value:,.0f}" if value >= 1000 else f"{value:g}"


def text(x, y, content, anchor="middle", extra=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {extra}>{html.escape(content)}</text>'


def panel(what, offset):
    points = [point for line in what.lines.values() for point in line]
    parts = [text(offset + WIDTH / 2, 22, what.title, extra='font-weight="bold"')]
    if not points:
        return parts + [text(offset + WIDTH / 2, HEIGHT / 2, "not measured")]
    xs = ticks(min(x for x, _ in points), max(x for x, _ in points), True)
    ys = ticks(min(y for _, y in points) if what.log_y else 0, max(y for _, y in points), what.log_y)

    def place(value, marks, logarithmic):
        scale = math.log10 if logarithmic else float
        return (scale(value) - scale(marks[0])) / ((scale(marks[-1]) - scale(marks[0])) or 1)

    def across(x):
        return offset + LEFT + place(x, xs, True) * (WIDTH - LEFT - RIGHT)

    def up(y):
        return HEIGHT - BOTTOM - place(y, ys, what.log_y) * (HEIGHT - TOP - BOTTOM)

    for x in xs:
        parts += [f'<path d="M{across(x):.1f} {TOP}V{HEIGHT - BOTTOM}" stroke="#ddd"/>', text(across(x), HEIGHT - BOTTOM + 16, named(x))]
    for y in ys:
        parts += [f'<path d="M{offset + LEFT} {up(y):.1f}H{offset + WIDTH - RIGHT}" stroke="#ddd"/>',
                  text(offset + LEFT - 6, up(y) + 4, named(round(y, 6)), "end")]
    parts += [text(offset + (LEFT + WIDTH - RIGHT) / 2, HEIGHT - 14, what.across), text(offset + 8, TOP - 6, what.up, "start")]
    for number, (name, line) in enumerate(what.lines.items()):
        colour = COLOURS[number % len(COLOURS)]
        where = [(across(x), up(y)) for x, y in line]
        parts.append(f'<polyline fill="none" stroke="{colour}" stroke-width="2" points="' +
                     " ".join(f"{x:.1f},{y:.1f}" for x, y in where) + '"/>')
        parts += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>' for x, y in where]
        parts.append(text(offset + LEFT + 10, TOP + 18 + 16 * number, name, "start", f'fill="{colour}"'))
    return parts


def svg(panels):
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH * len(panels)} {HEIGHT}" '
             'font-family="sans-serif" font-size="12">', '<rect width="100%" height="100%" fill="white"/>']
    for number, each in enumerate(panels):
        parts += panel(each, number * WIDTH)
    return "\n".join(parts + ["</svg>", ""])
