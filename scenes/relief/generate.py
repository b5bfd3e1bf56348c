#!/usr/bin/env python3
"""Writes the plain shapes that the height pictures carve, and those pictures. Units are metres, z is up.

Run it after changing a shape; its output is kept in the repository, so a render needs no Python.
"""

import math
import struct
import sys
import zlib
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
from modelling import Model, unit, write_png  # noqa: E402

HERE = Path(__file__).resolve().parent
MODEL, IMAGE = HERE / "model", HERE / "image"
WALL_LOW, WALL_HIGH = (-4.5, 0.0), (4.5, 3.0)


def write_heights(name, size, height):
    """A grey picture of sixteen bits, for eight would show as steps. Mid-grey moves nothing."""
    grey = [[round(65535 * min(max(height((x + 0.5) / size, 1 - (y + 0.5) / size), 0.0), 1.0)) for x in range(size)]
            for y in range(size)]
    rows = b"".join(b"\0" + struct.pack(f">{size}H", *row) for row in grey)

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    IMAGE.mkdir(exist_ok=True)
    (IMAGE / name).write_bytes(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", size, size, 16, 0, 0, 0, 0))
                               + chunk(b"IDAT", zlib.compress(rows, 9)) + chunk(b"IEND", b""))


def ramp(low, high, x):
    t = min(max((x - low) / (high - low), 0.0), 1.0)
    return t * t * (3 - 2 * t)


def tile(u, v):
    """A square tile: a frame with a groove, and a rosette of eight petals around a boss."""
    x, y = 2 * u - 1, 2 * v - 1
    edge = 1 - max(abs(x), abs(y))
    frame = ramp(0.0, 0.05, edge) - 0.75 * ramp(0.11, 0.19, edge)
    r, turn = math.hypot(x, y), math.atan2(y, x)
    outline = 0.42 + 0.27 * abs(math.cos(4 * turn)) ** 0.7
    petal = ramp(0, 0.16, outline - r) * (0.55 + 0.35 * math.cos(math.pi * (r / outline - 0.6)))
    petal *= 1 - 0.45 * math.exp(-((math.sin(4 * turn) * r / 0.13) ** 2)) * ramp(0.2, 0.3, r)
    boss = math.sqrt(max(0.0, 1 - (r / 0.21) ** 2))
    ring = math.exp(-(((r - 0.24) / 0.03) ** 2))
    corner = math.exp(-(((abs(x) - 0.66) ** 2 + (abs(y) - 0.66) ** 2) / 0.012))
    return 0.1 + 0.55 * frame * 0.8 + 0.75 * max(petal * ramp(0.2, 0.28, r), boss * 0.95) - 0.25 * ring + 0.3 * corner


def scales(u, v):
    """Overlapping scales, twice each way; the picture repeats without a seam."""
    best = 0.0
    x, y = 4 * u, 4 * v
    for row in range(math.floor(y) - 1, math.floor(y) + 3):
        offset = 0.5 * (row % 2)
        for column in range(math.floor(x - offset) - 1, math.floor(x - offset) + 3):
            dx, dy = x - column - offset - 0.5, y - row
            r = math.hypot(dx, 0.75 * dy) / 0.72
            if r < 1 and dy > -0.75:
                best = max(best, math.sqrt(1 - r**6) * (0.35 + 0.55 * (0.5 - 0.6 * dy)) + 0.06 * math.exp(-((dx / 0.05) ** 2)))
    return best


def color(u, v):
    """Fired clay with paler glaze on what stands out."""
    h = tile(u, v)
    x, y = 2 * u - 1, 2 * v - 1
    grain = 0.06 * math.sin(37 * u + 9 * math.sin(6 * math.pi * v)) * math.sin(2 * math.pi * 11 * v)
    clay, glaze = (0.42, 0.17, 0.09), (0.16, 0.36, 0.4)
    share = ramp(0.5, 0.62, h) if math.hypot(x, y) < 0.75 else 0.0
    ochre = (0.68, 0.45, 0.14)
    top = ochre if math.hypot(x, y) < 0.23 else glaze
    return tuple((1 + grain) * (a + share * (b - a)) for a, b in zip(clay, top))


def wall():
    """Six by two tiles of four by four faces; the shader splits each of them further."""
    model = Model()
    model.shader("tiles")
    across, up = 24, 8
    (x0, z0), (x1, z1) = WALL_LOW, WALL_HIGH
    def corner(i, j):
        return (x0 + (x1 - x0) * i / across, 0, z0 + (z1 - z0) * j / up)

    for i in range(across):
        for j in range(up):
            at = [(i, j), (i + 1, j), (i + 1, j + 1), (i, j + 1)]
            model.face([corner(*c) for c in at], [(0, -1, 0)] * 4, [(c[0] / 4, c[1] / 4) for c in at])
    model.write(MODEL / "wall.obj")


def ball(radius):
    model = Model()
    model.shader("scales")
    around, up = 36, 18

    def at(i, j):
        # Not closed at the poles by points, where a texture has no direction, but by a fan of thin faces.
        a, b = 2 * math.pi * (i % around) / around, math.radians(-89 + 178 * j / up)
        n = (math.cos(a) * math.cos(b), math.sin(a) * math.cos(b), math.sin(b))
        return tuple(radius * x for x in n), n, (6 * i / around, 3 * j / up)

    for i in range(around):
        for j in range(up):
            corners = [at(*c) for c in ((i, j), (i + 1, j), (i + 1, j + 1), (i, j + 1))]
            model.face(*([c[k] for c in corners] for k in range(3)))
    model.write(MODEL / "ball.obj")


def floor():
    model = Model()
    model.shader("plaster")
    model.face([(-12, -12, 0), (12, -12, 0), (12, 3, 0), (-12, 3, 0)])
    model.box((-4.7, 0.14, 0), (4.7, 0.6, 3.12), skip="-z")
    model.write(MODEL / "floor.obj")


def place():
    rows = []
    for name in ("wall", "ball", "floor"):
        rows += ["object", f"    name {name}", f'    obj "model/{name}.obj"', "end", ""]
    rows += ["object", "    name relief"]
    for name, x, y, z in (("wall", 0, 0, 0), ("floor", 0, 0, 0), ("ball", 1.25, -1.5, 0.76)):
        rows += ["    instance", f"        object {name}", f"        matrix 1 0 0 {x:g} 0 1 0 {y:g} 0 0 1 {z:g} 0 0 0 1",
                 "    end"]
    rows += ["end", ""]
    (HERE / "geometry" / "relief.zp").write_text("\n".join(rows), encoding="ascii")


if __name__ == "__main__":
    wall()
    ball(0.7)
    floor()
    write_heights("tile_height.png", 192, tile)
    write_heights("scales_height.png", 128, scales)
    write_png(IMAGE / "tile.png", 256, 256, lambda x, y: color((x + 0.5) / 256, (y + 0.5) / 256))
    place()
    for path in sorted([*MODEL.iterdir(), *IMAGE.iterdir()]):
        print(f"{path.stat().st_size:8d} {path.name}")
