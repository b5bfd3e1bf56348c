#!/usr/bin/env python3
"""Writes the models and pictures of the still life into model/ and image/. Units are decimetres, z is up.

Run it after changing a shape; its output is kept in the repository, so a render needs no Python.
"""

import math
import random
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
from modelling import Model, arc, smooth, unit, write_png  # noqa: E402

HERE = Path(__file__).resolve().parent
MODEL, IMAGE = HERE / "model", HERE / "image"


def ball(name, shader, radius, steps=48):
    """Stands on z = 0. Not closed at the poles by points, but by a fan of thin faces."""
    model = Model()
    model.shader(shader)
    model.lathe([arc((0, radius), radius, -89.9, 89.9, steps)], 2 * steps)
    model.write(MODEL / name)


def torus(name, shader, ring, tube, steps=40):
    model = Model()
    model.shader(shader)
    points, normals = [], []
    for k in range(3 * steps + 1):
        a = 2 * math.pi * (k % (3 * steps)) / (3 * steps)
        c, s = math.cos(a), math.sin(a)
        row, bend = [], []
        for i in range(steps + 1):
            b = 2 * math.pi * (i % steps) / steps
            x, z = math.cos(b), math.sin(b)
            row.append(((ring + tube * x) * c, (ring + tube * x) * s, tube + tube * z))
            bend.append((x * c, x * s, z))
        points.append(row)
        normals.append(bend)
    model.grid(points, normals)
    model.write(MODEL / name)


def jug():
    """Thick glass, inside and outside; the two meet in a round rim."""
    outer = smooth([(0.01, 0.0), (0.55, 0.0), (0.62, 0.06), (0.70, 0.5), (0.74, 1.0), (0.60, 1.55), (0.36, 1.95),
                    (0.33, 2.3), (0.42, 2.56)], 8)
    inner = smooth([(0.36, 2.56), (0.27, 2.3), (0.30, 1.95), (0.53, 1.52), (0.67, 1.0), (0.63, 0.5), (0.54, 0.16),
                    (0.01, 0.13)], 8)
    model = Model()
    model.shader("glass_green")
    model.lathe([outer[:9], outer[8:] + arc((0.39, 2.56), 0.03, 0, 180, 8) + inner], 96)
    model.write(MODEL / "jug.obj")


def can():
    """Brushed metal: tangents of its sides run around, along the first texture coordinate."""
    model = Model()
    model.shader("brushed")
    model.lathe([
        arc((0.56, 0.04), 0.04, -90, 0, 6),
        [(0.6, 0.04), (0.6, 1.26)],
        arc((0.56, 1.26), 0.04, 0, 90, 6),
        [(0.56, 1.3), (0.01, 1.3)],
    ], 96)
    model.write(MODEL / "can.obj")


def bowl():
    profile = smooth([(0.01, 0.02), (0.3, 0.02), (0.34, 0.1), (0.62, 0.24), (0.9, 0.52), (0.98, 0.66)], 8)
    inside = smooth([(0.93, 0.66), (0.85, 0.54), (0.58, 0.3), (0.3, 0.18), (0.01, 0.15)], 8)
    model = Model()
    model.shader("glaze")
    model.lathe([profile + arc((0.955, 0.66), 0.025, 0, 180, 6) + inside], 96)
    model.write(MODEL / "bowl.obj")


def floor():
    model = Model()
    model.shader("tiles")
    half = 14
    points = [(-half, -half, 0), (half, -half, 0), (half, half, 0), (-half, half, 0)]
    model.face(points, uvs=[(p[0] / 4, p[1] / 4) for p in points])
    model.write(MODEL / "floor.obj")


def pane():
    model = Model()
    model.shader("pane")
    model.face([(-1.1, 0, 0), (1.1, 0, 0), (1.1, 0, 2.6), (-1.1, 0, 2.6)])
    model.shader("frame")
    for low, high in (((-1.2, -0.05, 0), (-1.1, 0.05, 2.7)), ((1.1, -0.05, 0), (1.2, 0.05, 2.7)),
                      ((-1.1, -0.05, 2.6), (1.1, 0.05, 2.7))):
        model.box(low, high)
    model.write(MODEL / "pane.obj")


def clay_pieces():
    model = Model()
    model.shader("clay")
    model.box((-0.42, -0.42, 0), (0.42, 0.42, 0.84))
    model.write(MODEL / "cube.obj")


def tile_pictures():
    """Two by two tiles of worn stone with grooves, and the normals of their rounded edges."""
    size, tile = 512, 256
    noise = random.Random(3)
    blobs = [(noise.random() * size, noise.random() * size, 6 + 40 * noise.random() ** 2, noise.uniform(-1, 1))
             for _ in range(260)]
    cells = {}
    for x, y, r, w in blobs:  # each blob in the cells that it reaches, over the picture's edges too
        for i in range(int((x - r) // 32), int((x + r) // 32) + 1):
            for j in range(int((y - r) // 32), int((y + r) // 32) + 1):
                cells.setdefault((i % 16, j % 16), []).append((x, y, r, w))

    def stain(x, y):
        total = 0.0
        for bx, by, r, w in cells.get((x // 32, y // 32), []):
            dx = (x - bx + size / 2) % size - size / 2
            dy = (y - by + size / 2) % size - size / 2
            d = (dx * dx + dy * dy) / (r * r)
            if d < 1:
                total += w * (1 - d) ** 2
        return total

    shades = [(0.55, 0.50, 0.43), (0.30, 0.22, 0.17), (0.30, 0.22, 0.17), (0.55, 0.50, 0.43)]

    def groove(x, y):
        """Distance to the nearest edge of a tile, in pixels, and the way to it."""
        dx, dy = x % tile + 0.5, y % tile + 0.5
        edges = [(dx, (-1, 0)), (tile - dx, (1, 0)), (dy, (0, 1)), (tile - dy, (0, -1))]
        return min(edges)

    def color(x, y):
        base = shades[(x // tile) + 2 * (y // tile)]
        distance, _ = groove(x, y)
        grime = 0.35 if distance < 3 else 1.0
        f = (1 + 0.12 * stain(x, y)) * grime
        return tuple(c * f for c in base)

    def normal(x, y):
        distance, (ex, ey) = groove(x, y)
        slope = 0.8 * max(0.0, 1 - abs(distance - 5) / 5)
        n = unit((ex * slope, ey * slope, 1))
        return n

    write_png(IMAGE / "tiles.png", size, size, color)
    # Normals are vectors, not colours: bytes without a curve, in -1 to 1.
    write_png(IMAGE / "tiles_normal.png", size, size, lambda x, y: tuple(0.5 + 0.5 * v for v in normal(x, y)),
              curve=False)


def place():
    rows = []

    def part(name):
        rows.extend(["object", f"    name {name}", f'    obj "model/{name}.obj"', "end", ""])

    def instance(name, x, y, z=0.0, turn=0.0, shader=""):
        c, s = math.cos(math.radians(turn)), math.sin(math.radians(turn))
        matrix = [c, -s, 0, x, s, c, 0, y, 0, 0, 1, z, 0, 0, 0, 1]
        rows.extend(["    instance", f"        object {name}", "        matrix " + " ".join(f"{v + 0.0:g}" for v in matrix)])
        if shader:
            rows.append(f'        shader "{shader}"')
        rows.append("    end")

    for name in ("floor", "ball", "small_ball", "torus", "jug", "can", "bowl", "pane", "cube"):
        part(name)
    rows += ["object", "    name still_life"]
    instance("floor", 0, 0)
    instance("ball", -0.35, 0.9, shader="mirror")
    instance("ball", 1.75, -0.1, shader="glass")
    instance("torus", -2.35, -0.35)
    instance("jug", -1.55, 1.9)
    instance("can", 3.05, 1.0)
    instance("bowl", -0.2, -1.25)
    instance("small_ball", -0.42, -1.3, 0.2, shader="orange")
    instance("small_ball", 0.12, -1.08, 0.2, shader="wax")
    instance("small_ball", 0.0, -1.55, 0.22, shader="orange")
    instance("small_ball", 1.1, -1.5, shader="pearl")
    instance("small_ball", -1.35, -1.35, shader="copper")
    instance("cube", -3.35, 1.3, turn=28)
    instance("cube", 0.75, 2.6, turn=-18)
    instance("pane", 2.35, 3.1, turn=-14)
    rows += ["end", ""]
    (HERE / "geometry" / "still_life.zp").write_text("\n".join(rows), encoding="ascii")


if __name__ == "__main__":
    ball("ball.obj", "mirror", 0.8)
    ball("small_ball.obj", "orange", 0.28, 32)
    torus("torus.obj", "gold", 0.55, 0.22)
    jug()
    can()
    bowl()
    floor()
    pane()
    clay_pieces()
    tile_pictures()
    place()
    for path in sorted([*MODEL.glob("*.obj"), *IMAGE.glob("*.png")]):
        print(f"{path.stat().st_size:8d} {path.name}")
