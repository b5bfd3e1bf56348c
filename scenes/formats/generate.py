#!/usr/bin/env python3
"""Writes the models, the fur and the mask of five small scenes that the two formats render differently.

Each names no format, so that `zephlore render --format N` chooses. Units are metres, z is up. Run it after changing a
shape; its output is kept in the repository, so a render needs no Python.
"""

import math
import random
import struct
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
from modelling import Model, arc, cross, sub, unit, write_png  # noqa: E402

HERE = Path(__file__).resolve().parent


def ball(model, center, radius, segments=48, rings=24):
    for r in range(rings):
        for s in range(segments):
            corners, normals = [], []
            for i, j in ((r, s), (r, s + 1), (r + 1, s + 1), (r + 1, s)):
                a, b = math.pi * i / rings, 2 * math.pi * j / segments
                n = (math.sin(a) * math.cos(b), math.sin(a) * math.sin(b), math.cos(a))
                normals.append(n)
                corners.append(tuple(c + radius * x for c, x in zip(center, n)))
            order = (3, 2, 1, 0)
            corners, normals = [corners[k] for k in order], [normals[k] for k in order]
            keep = [k for k in range(4) if not any(math.dist(corners[k], corners[m]) < 1e-9 for m in range(k))]
            model.face([corners[k] for k in keep], [normals[k] for k in keep])


def vase(model, scale):
    """A vase of half a metre, in units of 1 / scale metres."""
    run = [(0.09, 0.0)] + [(0.1 + 0.07 * math.sin(2.6 * t) - 0.05 * t**3, 0.52 * t) for t in
                           [i / 40 for i in range(41)]] + [(0.1, 0.53)]
    model.lathe([[(r * scale, z * scale) for r, z in run]], 64)


def lamp():
    """A closed room below a panel of one square metre."""
    folder = HERE / "lamp/model"
    room = Model()
    room.shader("plaster")
    low, high = (-2, -2, 0), (2, 2.4, 2.7)
    for face in ([low, (2, -2, 0), (2, 2.4, 0), (-2, 2.4, 0)],
                 [(-2, -2, 2.7), (-2, 2.4, 2.7), high, (2, -2, 2.7)],
                 [(-2, 2.4, 0), (2, 2.4, 0), high, (-2, 2.4, 2.7)],
                 [(-2, -2, 0), (-2, -2, 2.7), (2, -2, 2.7), (2, -2, 0)]):
        room.face(face)
    room.shader("red")
    room.face([(-2, -2, 0), (-2, 2.4, 0), (-2, 2.4, 2.7), (-2, -2, 2.7)])
    room.shader("blue")
    room.face([(2, -2, 0), (2, -2, 2.7), (2, 2.4, 2.7), (2, 2.4, 0)])
    room.shader("panel")
    room.face([(-0.5, 0.1, 2.69), (-0.5, 1.1, 2.69), (0.5, 1.1, 2.69), (0.5, 0.1, 2.69)])
    room.write(folder / "room.obj")
    things = Model()
    things.shader("wood")
    things.box((-1.2, 0.2, 0.68), (1.2, 1.3, 0.74))
    for x in (-1.12, 1.04):
        for y in (0.26, 1.16):
            things.box((x, y, 0), (x + 0.08, y + 0.08, 0.68))
    things.shader("plaster")
    ball(things, (-0.55, 0.7, 0.99), 0.25)
    things.shader("brass")
    ball(things, (0.55, 0.6, 0.92), 0.18)
    things.write(folder / "things.obj")


def screen():
    """A vase modelled in centimetres and placed in metres, half behind a screen."""
    folder = HERE / "screen/model"
    stage = Model()
    stage.shader("floor")
    stage.face([(-6, -6, 0), (6, -6, 0), (6, 6, 0), (-6, 6, 0)])
    stage.shader("screen")
    stage.box((-0.62, -0.52, 0), (0.02, -0.48, 0.62))
    stage.write(folder / "stage.obj")
    model = Model()
    model.shader("glaze")
    vase(model, 100)
    model.write(folder / "vase.obj")


def fog():
    """Two rows of pillars under a sun, in air that absorbs."""
    folder = HERE / "fog/model"
    ground = Model()
    ground.shader("ground")
    ground.face([(-30, -10, 0), (30, -10, 0), (30, 80, 0), (-30, 80, 0)])
    ground.shader("stone")
    for k in range(10):
        for x in (-2.6, 1.8):
            ground.box((x, 2 + 6 * k, 0), (x + 0.8, 2.8 + 6 * k, 4.5))
            ground.box((x - 0.2, 1.8 + 6 * k, 4.5), (x + 1, 3 + 6 * k, 4.9))
    ground.write(folder / "ground.obj")


def groom():
    """A ball of fur of a hand's size."""
    folder = HERE / "groom/model"
    model = Model()
    model.shader("table")
    model.face([(-1, -1, 0), (1, -1, 0), (1, 1, 0), (-1, 1, 0)])
    model.shader("skin")
    ball(model, (0, 0, 0.055), 0.03)
    model.write(folder / "core.obj")
    draws = random.Random(3)
    strands, segments, positions, widths = 800, 6, [], []
    for i in range(strands):
        z = 1 - 2 * (i + 0.5) / strands
        r, turn = math.sqrt(1 - z * z), i * math.pi * (3 - math.sqrt(5))
        out = (r * math.cos(turn), r * math.sin(turn), z)
        around = cross((0, 0, 1), out)
        lean = [draws.gauss(0, 0.25) for _ in range(3)]
        way = unit([o + 0.5 * a + d for o, a, d in zip(out, around, lean)])
        point = [0.03 * o + c for o, c in zip(out, (0, 0, 0.055))]
        for k in range(segments + 1):
            positions.append(tuple(point))
            widths.append(0.0011 * (1 - 0.75 * k / segments))
            way = unit([w + 0.22 * a - (0.16 if j == 2 else 0) for j, (w, a) in enumerate(zip(way, around))])
            point = [p + 0.0048 * w for p, w in zip(point, way)]
            point[2] = max(point[2], 0.001)
    header = struct.pack("<4s4If4f", b"HAIR", strands, len(positions), 6, segments, widths[0], 0, 1, 1, 1)
    data = header.ljust(128, b"\0")
    data += b"".join(struct.pack("<3f", *p) for p in positions) + struct.pack(f"<{len(widths)}f", *widths)
    (folder / "fur.hair").write_bytes(data)


def leaves():
    """A bush of cards, each a picture of a leaf, before a wall."""
    folder = HERE / "leaves/model"
    stage = Model()
    stage.shader("wall")
    stage.face([(-4, 1.2, 0), (4, 1.2, 0), (4, 1.2, 4), (-4, 1.2, 4)])
    stage.shader("ground")
    stage.face([(-4, -4, 0), (4, -4, 0), (4, 1.2, 0), (-4, 1.2, 0)])
    stage.write(folder / "stage.obj")
    draws = random.Random(9)
    cards = Model()
    cards.shader("leaf")
    for _ in range(420):
        out = unit([draws.gauss(0, 1) for _ in range(3)])
        foot = (0.55 * out[0], 0.5 * out[1], 0.85 + 0.62 * out[2])
        along = unit([o + 0.6 * draws.gauss(0, 1) for o in out])
        side = unit(cross(along, [draws.gauss(0, 1) for _ in range(3)]))
        length = draws.uniform(0.22, 0.34)
        corners = []
        for u, v in ((0, 0), (1, 0), (1, 1), (0, 1)):
            corners.append(tuple(f + length * (v * a + (u - 0.5) * 0.6 * s) for f, a, s in zip(foot, along, side)))
        cards.face(corners, uvs=[(0, 0), (1, 0), (1, 1), (0, 1)])
    cards.write(folder / "cards.obj")

    def inside(x, y):
        """White where the leaf is: a blade between two arcs, with a serrated rim, and a stalk."""
        u, v = (x + 0.5) / 128 - 0.5, 1 - (y + 0.5) / 256
        half = 0.46 * math.sin(math.pi * min(max((v - 0.12) / 0.86, 0), 1)) ** 0.8
        half *= 0.93 + 0.07 * abs(2 * ((v * 14) % 1) - 1)
        return (1.0,) * 3 if abs(u) < half or (v < 0.2 and abs(u) < 0.025) else (0.0,) * 3

    write_png(HERE / "leaves/image/leaf.png", 128, 256, inside, curve=False)


if __name__ == "__main__":
    for make in (lamp, screen, fog, groom, leaves):
        for part in ("model", "image"):
            (HERE / make.__name__ / part).mkdir(parents=True, exist_ok=True)
        make()
        for part in ("model", "image"):
            folder = HERE / make.__name__ / part
            if not any(folder.iterdir()):
                folder.rmdir()
