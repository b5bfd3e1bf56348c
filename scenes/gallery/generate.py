#!/usr/bin/env python3
"""Writes the models, the pictures and the placing of the gallery scene. Units are metres, z is up.

Run it after changing a shape; its output is kept in the repository, so a render needs no Python.
"""

import math
import random
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
from modelling import Model, arc, cross, smooth, sub, unit, write_png  # noqa: E402

HERE = Path(__file__).resolve().parent
MODEL, IMAGE = HERE / "model", HERE / "image"

HALF = 2.8          # half width of the room, along x
CELL = 1.4          # of the ceiling's coffers, along x
CELL_Y = 1.5        # along y
LENGTH = 7 * CELL_Y
HEIGHT = 3.6        # underside of the ceiling's beams
WINDOW = (5.5, 7.9, 0.25, 3.05)  # from y, to y, from z, to z; in the wall at x = HALF


def room():
    """Walls that look inwards, with an opening for the window, and all woodwork along them."""
    model = Model()
    top = HEIGHT + 0.35
    y0, y1, z0, z1 = WINDOW
    model.shader("wall")
    model.face([(-HALF, 0, 0), (-HALF, LENGTH, 0), (-HALF, LENGTH, top), (-HALF, 0, top)][::-1])
    model.face([(-HALF, LENGTH, 0), (HALF, LENGTH, 0), (HALF, LENGTH, top), (-HALF, LENGTH, top)])
    model.face([(-HALF, 0, 0), (HALF, 0, 0), (HALF, 0, top), (-HALF, 0, top)][::-1])
    for a, b, c, d in ((0, y0, 0, top), (y1, LENGTH, 0, top), (y0, y1, 0, z0), (y0, y1, z1, top)):
        model.face([(HALF, a, c), (HALF, b, c), (HALF, b, d), (HALF, a, d)][::-1])
    model.shader("trim")
    deep = HALF + 0.4  # the reveal of the window
    model.face([(HALF, y0, z0), (deep, y0, z0), (deep, y0, z1), (HALF, y0, z1)])
    model.face([(HALF, y1, z0), (deep, y1, z0), (deep, y1, z1), (HALF, y1, z1)])
    model.face([(HALF, y0, z0), (HALF, y1, z0), (deep, y1, z0), (deep, y0, z0)])
    model.face([(HALF, y0, z1), (HALF, y1, z1), (deep, y1, z1), (deep, y0, z1)])
    for a in (y0 + (y1 - y0) / 3, y0 + 2 * (y1 - y0) / 3):  # glazing bars
        model.box((deep - 0.14, a - 0.025, z0), (deep - 0.08, a + 0.025, z1))
    for c in (1.2, 2.15):
        model.box((deep - 0.14, y0, c - 0.025), (deep - 0.08, y1, c + 0.025))
    model.shader("daylight")
    model.face([(deep, y0, z0), (deep, y1, z0), (deep, y1, z1), (deep, y0, z1)][::-1])
    model.shader("trim")
    # Skirting and cornice: profiles of (distance from the wall, height), swept around the room.
    skirting = [(0.022, 0), (0.022, 0.13), (0.016, 0.145), (0.016, 0.16), (0.008, 0.18), (0, 0.18)]
    cornice = [(0, 3.36), (0.02, 3.36), (0.02, 3.4)] + [(r, z) for r, z in arc((0.14, 3.4), 0.12, 180, 90, 6)]
    cornice += [(0.14, 3.54), (0.17, 3.54), (0.17, 3.62)]
    for profile in (skirting, cornice):
        for (d0, h0), (d1, h1) in zip(profile, profile[1:]):
            def ring(d, h):
                return [(-HALF + d, d, h), (HALF - d, d, h), (HALF - d, LENGTH - d, h), (-HALF + d, LENGTH - d, h)]
            low, high = ring(d0, h0), ring(d1, h1)
            for i in range(4):
                j = (i + 1) % 4
                model.face([low[j], low[i], high[i], high[j]])
    model.write(MODEL / "room.obj")


def ceiling():
    """A grid of stepped beams; panels between them, of which those along the middle shine."""
    model = Model()
    high = HEIGHT + 0.32
    model.shader("ceiling")
    for i in range(5):
        x = -HALF + i * CELL
        model.box((x - 0.1, -0.1, HEIGHT), (x + 0.1, LENGTH + 0.1, high), "+z")
    for j in range(8):
        y = j * CELL_Y
        for i in range(4):
            x = -HALF + i * CELL
            model.box((x + 0.1, y - 0.1, HEIGHT), (x + CELL - 0.1, y + 0.1, high), "+z -x +x")
    for i in range(4):
        for j in range(7):
            x0, x1 = -HALF + i * CELL + 0.1, -HALF + (i + 1) * CELL - 0.1
            y0, y1 = j * CELL_Y + 0.1, (j + 1) * CELL_Y - 0.1
            lit = i in (1, 2) and j <= 5
            edge = 0.06  # a step around each panel
            model.shader("ceiling")
            for low, up in (((x0, y0), (x0 + edge, y1)), ((x1 - edge, y0), (x1, y1)),
                            ((x0 + edge, y0), (x1 - edge, y0 + edge)), ((x0 + edge, y1 - edge), (x1 - edge, y1))):
                model.box((*low, HEIGHT + 0.14), (*up, high), "+z")
            model.shader("panel" if lit else "ceiling")
            z = high - 0.02
            model.face([(x0, y0, z), (x0, y1, z), (x1, y1, z), (x1, y0, z)])
    model.write(MODEL / "ceiling.obj")


def floor():
    """Herringbone. Each block shows its own piece of one picture of boards; what lies between is dark."""
    noise = random.Random(11)
    model = Model()
    width, count = 0.11, 6  # a block is `count` widths long
    turn = math.sqrt(0.5)
    gap = 0.0007
    reach = int(1.1 * (HALF + LENGTH) / width)
    model.shader("parquet")

    def block(x, y, along_x):
        w, h = (count, 1) if along_x else (1, count)
        low = (x * width + gap, y * width + gap)
        up = ((x + w) * width - gap, (y + h) * width - gap)
        corners = [low, (up[0], low[1]), up, (low[0], up[1])]
        points = [(turn * (a - b), turn * (a + b) + LENGTH / 2, 0) for a, b in corners]
        xs, ys = [p[0] for p in points], [p[1] for p in points]
        if max(xs) < -HALF or min(xs) > HALF or max(ys) < 0 or min(ys) > LENGTH:
            return
        row, start = noise.randrange(16), round(noise.random(), 2)
        v0, v1 = (row + 0.06) / 16, (row + 0.94) / 16
        u0, u1 = start, start + 0.5
        uvs = [(u0, v0), (u1, v0), (u1, v1), (u0, v1)]
        model.face(points, uvs=uvs if along_x else [uvs[3], uvs[0], uvs[1], uvs[2]])

    for y in range(-reach, reach):
        for x in range(-reach, reach):
            if (x - y) % (2 * count) == 0:
                block(x, y, True)
            if (x - y) % (2 * count) == 2 * count - 1:
                block(x, y, False)
    model.shader("dark")
    model.face([(-HALF, 0, -0.004), (HALF, 0, -0.004), (HALF, LENGTH, -0.004), (-HALF, LENGTH, -0.004)])
    model.write(MODEL / "floor.obj")


def board_picture():
    """Sixteen boards, one below the other, each with its own tone and grain."""
    noise = random.Random(5)
    boards = []
    for _ in range(16):
        tone = noise.uniform(0.72, 1.18)
        boards.append((tone, noise.uniform(-0.06, 0.06), [noise.uniform(0, 6.3) for _ in range(6)],
                       noise.uniform(5, 13)))

    def pixel(x, y):
        tone, warm, phase, rings = boards[y // 16]
        u, v = 2 * math.pi * x / 512, (y % 16) / 16
        # Rings of the trunk, cut lengthwise: they bend along the board and repeat at its end.
        bend = 0.35 * math.sin(u + phase[0]) + 0.15 * math.sin(3 * u + phase[1])
        grain = math.sin(rings * (v + bend) * 2 + phase[2]) + 0.5 * math.sin(2.7 * rings * (v + bend) + phase[3])
        fine = math.sin(40 * v + 5 * math.sin(2 * u + phase[4])) * math.sin(7 * u + phase[5])
        f = tone * (1 + 0.13 * grain + 0.05 * fine)
        return (0.30 * f * (1 + warm), 0.165 * f, 0.082 * f * (1 - warm))

    write_png(IMAGE / "boards.png", 512, 256, pixel)


def mixed(a, b, t):
    return tuple(p + (q - p) * t for p, q in zip(a, b))


def step(edge, x, width):
    t = min(max((x - edge) / width + 0.5, 0), 1)
    return t * t * (3 - 2 * t)


def dusk(u, v):
    """Hills above a lake."""
    water = v < 0.34
    h = 0.68 - v if water else v
    if water:
        u += 0.006 * math.sin(300 * v + 9 * math.sin(9 * u)) * (0.4 - v) * 3
    t = (h - 0.34) / 0.66
    color = mixed((0.95, 0.50, 0.16), (0.80, 0.25, 0.20), step(0.25, t, 0.5))
    color = mixed(color, (0.10, 0.13, 0.30), step(0.7, t, 0.8))
    distance = math.hypot((u - 0.63) * 1.7, h - 0.55)
    color = mixed(color, (1.0, 0.86, 0.55), 0.6 * math.exp(-distance * 6))
    color = mixed((1.0, 0.93, 0.72), color, step(0.085, distance, 0.008))
    for k, tint in enumerate(((0.42, 0.18, 0.24), (0.22, 0.11, 0.22), (0.08, 0.06, 0.14))):
        crest = 0.52 - 0.055 * k + 0.05 * math.sin(5 * u + 2.1 * k) + 0.024 * math.sin(13 * u + 4 * k)
        crest += 0.007 * math.sin(47 * u + k) + (0.05 - 0.02 * k) * (0.5 - u) * (-1) ** k
        color = mixed(tint, color, step(crest, h, 0.006))
    return mixed(color, (0.05, 0.06, 0.14), 0.35) if water else color


def arcs(u, v):
    """Quarter circles in a grid of four by five."""
    palette = [(0.86, 0.78, 0.62), (0.72, 0.16, 0.08), (0.05, 0.13, 0.27), (0.90, 0.53, 0.10), (0.10, 0.32, 0.30)]
    i, j = min(int(u * 4), 3), min(int(v * 5), 4)
    x, y = u * 4 - i, v * 5 - j
    pick = random.Random(31 * i + 7 * j + 3)
    corner, shade = pick.randrange(4), pick.sample(palette, 4)
    if corner & 1:
        x = 1 - x
    if corner & 2:
        y = 1 - y
    r = math.hypot(x, y)
    color = shade[0]
    for k, radius in enumerate((0.95, 0.65, 0.35)):
        color = mixed(shade[k + 1], color, step(radius, r, 0.02))
    return color


def waves(u, v):
    """Bands that lean over each other, cream to blue."""
    f = 7 * (v + 0.09 * math.sin(6 * u + 1) + 0.05 * math.sin(11 * u - 5 * v))
    band = math.floor(f)
    inside = f - band
    t = min(max((band + 1) / 8, 0), 1)
    color = mixed((0.03, 0.10, 0.26), (0.86, 0.80, 0.66), t ** 1.4)
    return mixed((0.88, 0.62, 0.24), mixed(color, (1, 1, 1), 0.14 * inside), step(0.05, inside, 0.03))


def fields(u, v):
    """Two soft fields on a ground."""
    def block(a, b):
        return (step(0.1, u, 0.05) * (1 - step(0.9, u, 0.05)) * step(a, v, 0.06) * (1 - step(b, v, 0.06)))
    color = mixed((0.55, 0.11, 0.05), (0.62, 0.16, 0.06), v)
    color = mixed(color, (0.93, 0.47, 0.08), 0.9 * block(0.47, 0.92))
    return mixed(color, (0.20, 0.03, 0.05), 0.92 * block(0.08, 0.40))


PICTURES = {"dusk": (dusk, 2.3, 1.35, 480), "arcs": (arcs, 1.0, 1.25, 288), "waves": (waves, 1.3, 1.0, 320),
            "fields": (fields, 1.0, 1.3, 160)}


def frame(model, shader, width, height, profile):
    """Around a rectangle in the xz plane, mitred. The profile runs outwards: (distance outside, distance before)."""
    model.shader(shader)

    def ring(out, front):
        x, z = width / 2 + out, height / 2 + out
        return [(-x, -front, -z), (x, -front, -z), (x, -front, z), (-x, -front, z)]

    for (o0, f0), (o1, f1) in zip(profile, profile[1:]):
        inner, outer = ring(o0, f0), ring(o1, f1)
        for i in range(4):
            j = (i + 1) % 4
            model.face([inner[j], inner[i], outer[i], outer[j]])


def pictures():
    profile = [(0, 0.012), (0.008, 0.022), (0.02, 0.022), *arc((0.062, 0.022), 0.034, 180, 0, 8), (0.1, 0.03),
               (0.11, 0.0)]
    flat = [(0, 0.012), (0, 0.035), (0.045, 0.035), (0.045, 0)]
    for name, (paint, width, height, pixels) in PICTURES.items():
        rows = round(pixels * height / width)
        write_png(IMAGE / f"{name}.png", pixels, rows,
                  lambda x, y: paint((x + 0.5) / pixels, 1 - (y + 0.5) / rows))
        model = Model()
        model.shader(name)
        x, z = width / 2, height / 2
        model.face([(-x, -0.012, -z), (x, -0.012, -z), (x, -0.012, z), (-x, -0.012, z)],
                   uvs=[(0.002, 0.002), (0.998, 0.002), (0.998, 0.998), (0.002, 0.998)])
        if name in ("dusk", "waves"):
            frame(model, "gilt", width, height, profile)
        else:
            frame(model, "ebony", width, height, flat)
        model.write(MODEL / f"{name}.obj")
    model = Model()
    model.shader("mirror")
    x, z = 0.7, 1.15
    model.face([(-x, -0.012, -z), (x, -0.012, -z), (x, -0.012, z), (-x, -0.012, z)])
    frame(model, "gilt", 2 * x, 2 * z, profile)
    model.write(MODEL / "mirror.obj")


def curtain():
    """One length of cloth along x from 0, gathered at the top; folds deepen downwards and wander."""
    model = Model()
    model.shader("curtain")
    columns, rows, length, high = 200, 8, 1.5, 3.2

    def at(u, v):
        x = length * u + 0.02 * math.sin(9 * u + 1) * (1 - v)
        phase = 2 * math.pi * (13 * u + 0.35 * math.sin(7 * u)) + 0.5 * (1 - v) * math.sin(11 * u)
        depth = 0.045 * (1 + 0.5 * (1 - v)) * (0.75 + 0.25 * math.sin(23 * u))
        return (x, depth * math.sin(phase) + 0.02 * math.sin(5 * u + 2 * v), 0.03 + (high - 0.03) * v)

    points, normals = [], []
    for i in range(columns + 1):
        u = i / columns
        points.append([at(u, j / rows) for j in range(rows + 1)])
        normals.append([unit(cross(sub(at(u + 1e-4, j / rows), at(u - 1e-4, j / rows)),
                                   sub(at(u, j / rows + 1e-4), at(u, j / rows - 1e-4)))) for j in range(rows + 1)])
    model.grid(points, normals)
    model.write(MODEL / "curtain.obj")


def rod():
    """Along x from 0; knobs at its ends."""
    model = Model()
    model.shader("brass")
    steps, length = 20, 3.2
    points, normals = [], []
    profile = [(0.018, 0.0), (0.018, length)]
    ball = [(0.045 * math.sin(math.radians(a)), -0.045 * math.cos(math.radians(a))) for a in range(0, 181, 15)]
    for shape, shift in ((profile, 0), (ball, 0), (ball, length)):
        points, normals = [], []
        for k in range(steps + 1):
            a = 2 * math.pi * (k % steps) / steps
            c, s = math.cos(a), math.sin(a)
            points.append([(x + shift, r * c, r * s) for r, x in shape])
            normals.append([unit((x if shape is ball else 0, r * c, r * s)) for r, x in shape])
        model.grid(points, normals)
    model.write(MODEL / "rod.obj")


def bench():
    model = Model()
    model.shader("walnut")
    for x in (-0.72, 0.72):
        for y in (-0.17, 0.17):
            model.box((x - 0.03, y - 0.03, 0), (x + 0.03, y + 0.03, 0.38), "-z")
        model.box((x - 0.025, -0.14, 0.3), (x + 0.025, 0.14, 0.36))
    model.box((-0.8, -0.22, 0.36), (0.8, 0.22, 0.4))
    model.shader("leather")
    # A cushion: a rounded box by the superellipse of its plan and its section.
    def power(value, exponent):
        return math.copysign(abs(value) ** exponent, value)

    points, normals = [], []
    for k in range(65):
        a = 2 * math.pi * (k % 64) / 64
        row, bend = [], []
        for i in range(13):
            b = math.radians(-90 + 180 * i / 12)
            c, s = power(max(math.cos(b), 0), 0.22), power(math.sin(b), 0.5)
            x, y = power(math.cos(a), 0.12), power(math.sin(a), 0.12)
            row.append((0.8 * c * x, 0.23 * c * y, 0.45 + 0.055 * s))
            n = (power(max(math.cos(b), 0), 1.78) * power(math.cos(a), 1.88) / 0.8,
                 power(max(math.cos(b), 0), 1.78) * power(math.sin(a), 1.88) / 0.23, power(math.sin(b), 1.5) / 0.055)
            bend.append(unit(n))
        points.append(row)
        normals.append(bend)
    model.grid(points, normals)
    model.write(MODEL / "bench.obj")


def pedestal():
    model = Model()
    model.shader("dark")
    model.box((-0.22, -0.22, 0), (0.22, 0.22, 0.04), "-z +z")
    model.shader("white")
    model.box((-0.25, -0.25, 0.04), (0.25, 0.25, 1.05))
    model.write(MODEL / "pedestal.obj")


def vitrine():
    """A plinth and a case of five panes between brass edges."""
    model = Model()
    low, high, half, bar = 0.9, 1.7, 0.4, 0.012
    model.shader("walnut")
    model.box((-0.38, -0.38, 0), (0.38, 0.38, 0.06), "-z")
    model.box((-half - 0.02, -half - 0.02, 0.06), (half + 0.02, half + 0.02, low))
    model.shader("linen")
    model.box((-half + bar, -half + bar, low), (half - bar, half - bar, low + 0.02), "-z")
    model.shader("brass")
    for x in (-half, half - bar):
        for y in (-half, half - bar):
            model.box((x, y, low), (x + bar, y + bar, high))
    for z in (low, high - bar):
        for s in (-half, half - bar):
            model.box((-half + bar, s, z), (half - bar, s + bar, z + bar))
            model.box((s, -half + bar, z), (s + bar, half - bar, z + bar))
    model.shader("pane")
    e, m = half - bar, half - bar / 2
    z0, z1 = low + bar, high - bar
    model.face([(-e, -m, z0), (e, -m, z0), (e, -m, z1), (-e, -m, z1)])
    model.face([(e, m, z0), (-e, m, z0), (-e, m, z1), (e, m, z1)])
    model.face([(m, -e, z0), (m, e, z0), (m, e, z1), (m, -e, z1)])
    model.face([(-m, e, z0), (-m, -e, z0), (-m, -e, z1), (-m, e, z1)])
    model.face([(-e, -e, high - bar / 2), (e, -e, high - bar / 2), (e, e, high - bar / 2), (-e, e, high - bar / 2)])
    model.write(MODEL / "vitrine.obj")


def knot():
    """A (2, 5) torus knot that lies on its ring, its lowest point at z = 0."""
    model = Model()
    model.shader("gold")
    around, across, tube = 200, 12, 0.032

    def center(t):
        r = 0.19 + 0.075 * math.cos(5 * t)
        return (r * math.cos(2 * t), 0.075 * math.sin(5 * t), r * math.sin(2 * t))

    points, normals = [], []
    for i in range(around + 1):
        t = 2 * math.pi * (i % around) / around
        tangent = unit(sub(center(t + 1e-4), center(t - 1e-4)))
        ring = (0.19 * math.cos(2 * t), 0.0, 0.19 * math.sin(2 * t))
        side = unit(cross(tangent, sub(center(t), ring)))
        up = cross(tangent, side)
        row, bend = [], []
        for k in range(across + 1):
            a = 2 * math.pi * (k % across) / across
            n = tuple(math.cos(a) * s + math.sin(a) * w for s, w in zip(side, up))
            row.append(tuple(c + tube * x for c, x in zip(center(t), n)))
            bend.append(n)
        points.append(row)
        normals.append(bend)
    lowest = min(p[2] for row in points for p in row)
    model.grid([[(x, y, z - lowest) for x, y, z in row] for row in points], normals)
    model.write(MODEL / "knot.obj")


def twist():
    """Marble: three lobes that turn as they rise, swell and close."""
    model = Model()
    model.shader("marble")
    around, high = 60, 44

    def at(a, v):
        r = 0.012 + 0.185 * (math.sin(math.pi * min(0.16 + 0.84 * v, 1)) ** 0.75) * (1 - 0.35 * v)
        lobes = 1 + 0.34 * math.cos(3 * a) * math.sin(math.pi * min(v * 1.05, 1)) ** 0.5
        turn = a + 2.4 * v
        return (r * lobes * math.cos(turn), r * lobes * math.sin(turn), 0.92 * v)

    points, normals = [], []
    e = 1e-4
    for k in range(around + 1):
        a = 2 * math.pi * (k % around) / around
        points.append([at(a, j / high) for j in range(high + 1)])
        bends = []
        for j in range(high + 1):
            v = min(max(j / high, e), 1 - e)
            bends.append(unit(cross(sub(at(a + e, v), at(a - e, v)), sub(at(a, v + e), at(a, v - e)))))
        normals.append(bends)
    model.grid(points, normals)
    model.write(MODEL / "twist.obj")


def vase():
    outer = smooth([(0.005, 0.0), (0.1, 0.0), (0.108, 0.02), (0.15, 0.14), (0.19, 0.3), (0.17, 0.44), (0.09, 0.54),
                    (0.062, 0.6), (0.075, 0.66)], 5)
    inner = smooth([(0.066, 0.662), (0.053, 0.6), (0.08, 0.53), (0.12, 0.48)], 4)
    model = Model()
    model.shader("glaze")
    model.lathe([outer + arc((0.0705, 0.661), 0.0045, 20, 160, 4) + inner], 44)
    model.write(MODEL / "vase.obj")


def pebbles():
    """Three polished pebbles, one upon the other."""
    model = Model()
    model.shader("steel")
    z = 0.0
    for radius, half in ((0.21, 0.12), (0.155, 0.095), (0.1, 0.075)):
        profile = [(radius * math.cos(math.radians(a)), z + half + half * math.sin(math.radians(a)))
                   for a in [-89.5 + 179 * i / 18 for i in range(19)]]
        model.lathe([profile], 48)
        z += 2 * half - 0.004
    model.write(MODEL / "pebbles.obj")


def place():
    rows = []
    names = ("room", "ceiling", "floor", "curtain", "rod", "bench", "pedestal", "vitrine", "knot", "twist", "vase",
             "pebbles", "mirror", *PICTURES)
    for name in names:
        rows += ["object", f"    name {name}", f'    obj "model/{name}.obj"', "end", ""]
    rows += ["object", "    name gallery"]

    def instance(name, x=0.0, y=0.0, z=0.0, turn=0.0):
        c, s = math.cos(math.radians(turn)), math.sin(math.radians(turn))
        matrix = [c, -s, 0, x, s, c, 0, y, 0, 0, 1, z, 0, 0, 0, 1]
        numbers = " ".join(f"{round(v, 6) + 0.0:g}" for v in matrix)
        rows.extend(["    instance", f"        object {name}", f"        matrix {numbers}", "    end"])

    for name in ("room", "ceiling", "floor"):
        instance(name)
    instance("dusk", 0, LENGTH, 1.72)
    instance("mirror", -HALF, 6.75, 1.62, 90)
    instance("arcs", -HALF, 4.7, 1.65, 90)
    instance("fields", -HALF, 8.9, 1.65, 90)
    instance("waves", HALF, 9.35, 1.65, -90)
    instance("curtain", HALF - 0.16, 5.2, 0, 90)
    instance("curtain", HALF - 0.16, 6.72, 0, 90)
    instance("rod", HALF - 0.16, 5.1, 3.2, 90)
    instance("bench", -0.95, 4.0, 0, 14)
    instance("vitrine", 0.75, 5.6, 0, 12)
    instance("knot", 0.75, 5.6, 0.92, 40)
    instance("pedestal", -1.75, 6.0, 0, 8)
    instance("twist", -1.75, 6.0, 1.05)
    instance("pedestal", 1.75, 8.4, 0, -10)
    instance("vase", 1.75, 8.4, 1.05)
    instance("pedestal", -1.75, 9.2, 0, 5)
    instance("pebbles", -1.75, 9.2, 1.05)
    rows += ["end", ""]
    (HERE / "geometry" / "gallery.zp").write_text("\n".join(rows), encoding="ascii")


if __name__ == "__main__":
    for make in (room, ceiling, floor, board_picture, pictures, curtain, rod, bench, pedestal, vitrine, knot, twist,
                 vase, pebbles, place):
        make()
    for path in sorted([*MODEL.glob("*.obj"), *IMAGE.glob("*.png")]):
        print(f"{path.stat().st_size:8d} {path.name}")
