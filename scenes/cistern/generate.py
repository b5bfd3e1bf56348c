#!/usr/bin/env python3
"""Writes the models of the cistern into model/. Standard library only; units are metres, z is up.

Run it after changing a shape; the models are kept in the repository, so a render needs no Python.
All of it is in world space: the scene's root object holds the models themselves, for only there can density cells
keep the photons' light.
"""

import math
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
from modelling import Model, arc, smooth  # noqa: E402

FOLDER = Path(__file__).resolve().parent / "model"

BAY = 2.0        # side of a vault's square
SPRING = 1.6     # height at which the vaults begin
RIM = 0.74       # radius of the opening in the middle vault
ROOF = 2.78
HALF = 1.5 * BAY
TOP = 0.55       # of the stone block
PIT = (-0.82, -2.75, 0.78, -0.6)  # the basin: left, near, right, far
DEEP = -1.0                       # its bottom


class Placed(Model):
    """A model whose shapes stand at `at`."""

    def __init__(self):
        super().__init__()
        self.at = (0, 0, 0)

    def face(self, points, normals=None, uvs=None):
        super().face([tuple(a + b for a, b in zip(p, self.at)) for p in points], normals, uvs)


def vault(model, opening):
    """Two barrels that cross over the square around `at`; seen from below. Each strip runs along its barrel."""
    r, steps, parts = BAY / 2, 16, 4
    lines = [-r * math.cos(math.pi * i / steps) for i in range(steps + 1)]

    def start(y):  # the groin, or the opening where that is farther out
        return max(abs(y), math.sqrt(max(opening * opening - y * y, 0)))

    for turn in range(4):
        c, s = (1, 0, -1, 0)[turn], (0, 1, 0, -1)[turn]

        def place(x, y, c=c, s=s):
            height = math.sqrt(max(r * r - y * y, 0))
            return (c * x - s * y, s * x + c * y, SPRING + height), (s * y / r, -c * y / r, -height / r)

        for a, b in zip(lines, lines[1:]):
            for k in range(parts):
                low, high = k / parts, (k + 1) / parts
                corners = [(start(y) + (r - start(y)) * t, y) for t, y in ((low, b), (high, b), (high, a), (low, a))]
                placed = [place(*corner) for corner in corners]
                flat = [p for i, p in enumerate(placed) if p[0] != placed[i - 1][0]]  # none at a groin's foot
                if len(flat) >= 3:
                    model.face([p for p, _ in flat], [n for _, n in flat])


def shell():
    """Floor and basin, walls, vaults and the shaft of the opening."""
    model = Placed()
    model.shader("floor")
    left, near, right, far = PIT
    for x0, y0, x1, y1 in ((-HALF, -HALF, HALF, near), (-HALF, far, HALF, HALF),
                           (-HALF, near, left, far), (right, near, HALF, far)):
        model.face([(x0, y0, 0), (x1, y0, 0), (x1, y1, 0), (x0, y1, 0)])
    model.shader("basin")
    rim = [(left, near), (right, near), (right, far), (left, far)]
    model.face([(*p, DEEP) for p in rim])
    for a, b in zip(rim, rim[1:] + rim[:1]):
        model.face([(*b, DEEP), (*a, DEEP), (*a, 0), (*b, 0)])
    model.shader("wall")
    top = SPRING + BAY / 2 + 0.02
    corners = [(-HALF, -HALF), (HALF, -HALF), (HALF, HALF), (-HALF, HALF)]
    for i, (a, b) in enumerate(zip(corners, corners[1:] + corners[:1])):
        if i == 3:
            model.shader("red_wall")
        model.face([(*b, 0), (*a, 0), (*a, top), (*b, top)])
    model.shader("vault")
    for i in range(-1, 2):
        for j in range(-1, 2):
            model.at = (i * BAY, j * BAY, 0)
            vault(model, RIM if i == j == 0 else 0.0)
    model.at = (0, 0, 0)
    low = SPRING + math.sqrt(1 - RIM * RIM / 2) - 0.02
    model.shader("slate")  # dark: a sunlit shaft would be a small bright lamp of its own
    model.lathe([[(RIM, ROOF), (RIM, low)], [(RIM, low), (RIM + 0.1, low)], [(RIM + 0.1, low), (RIM + 0.1, ROOF)]], 48)
    model.write(FOLDER / "shell.obj")


def roof():
    """What keeps the light outside: black, so that no time goes into photons that land on it."""
    model = Model()
    model.shader("outside")
    steps, side = 48, HALF + 0.02

    def square(angle):
        c, s = math.cos(angle), math.sin(angle)
        scale = side / max(abs(c), abs(s))
        return (scale * c, scale * s, ROOF)

    def ring(angle):
        return (RIM * math.cos(angle), RIM * math.sin(angle), ROOF)

    for i in range(steps):
        a, b = 2 * math.pi * i / steps, 2 * math.pi * (i + 1) / steps
        model.face([ring(a), square(a), square(b)])
        model.face([ring(a), square(b), ring(b)])
    model.box((-side, -side, DEEP - 0.02), (side, side, ROOF), "+z")
    model.write(FOLDER / "roof.obj")


def columns():
    model = Placed()
    model.shader("stone")
    for x in (-BAY / 2, BAY / 2):
        for y in (-BAY / 2, BAY / 2):
            model.at = (x, y, 0)
            model.box((-0.2, -0.2, 0), (0.2, 0.2, 0.1), "-z")
            model.lathe([
                arc((0.155, 0.14), 0.04, -90, 90, 5),
                [(0.155, 0.18), (0.14, 0.2), (0.132, 0.5), (0.126, 0.9), (0.118, 1.3)],
                arc((0.118, 1.32), 0.02, -90, 90, 4),
                smooth([(0.118, 1.34), (0.124, 1.37), (0.15, 1.43), (0.19, 1.47), (0.2, 1.5)], 2),
            ], 28)
            model.box((-0.23, -0.23, 1.5), (0.23, 0.23, SPRING + 0.03), "")
    # Half pillars where the vaults come down to the walls.
    model.at = (0, 0, 0)
    for k in (-1.5, -0.5, 0.5, 1.5):
        for w, z0, z1, d in ((0.16, 0, 1.5, 0.1), (0.2, 1.5, SPRING + 0.03, 0.14)):
            a, b = max(k * BAY - w, -HALF), min(k * BAY + w, HALF)
            model.box((a, HALF - d, z0), (b, HALF, z1), "+y -z" if z0 == 0 else "+y")
            model.box((a, -HALF, z0), (b, -HALF + d, z1), "-y -z" if z0 == 0 else "-y")
            if abs(k) < 1:  # the corners have theirs
                model.box((-HALF, a, z0), (-HALF + d, b, z1), "-x -z" if z0 == 0 else "-x")
                model.box((HALF - d, a, z0), (HALF, b, z1), "+x -z" if z0 == 0 else "+x")
    model.write(FOLDER / "columns.obj")


def block():
    """The pier that stands in the basin, half in the sun. Dark above, so that caustics show."""
    model = Model()
    model.shader("slate")
    model.box((-0.36, -1.40, TOP - 0.06), (0.54, -0.72, TOP))
    model.box((-0.32, -1.36, DEEP), (0.50, -0.76, TOP - 0.06), "-z +z")
    model.write(FOLDER / "block.obj")


def carafe():
    """Thick glass, inside and outside, which meet in a round rim; its foot keeps clear of the stone."""
    base = TOP + 0.001
    outer = smooth([(0.002, 0.0), (0.09, 0.0), (0.105, 0.012), (0.118, 0.08), (0.105, 0.15), (0.055, 0.22),
                    (0.036, 0.27), (0.036, 0.31), (0.052, 0.35)], 5)
    inner = smooth([(0.046, 0.35), (0.030, 0.31), (0.030, 0.27), (0.049, 0.218), (0.098, 0.15), (0.111, 0.08),
                    (0.096, 0.022), (0.002, 0.018)], 5)
    model = Placed()
    model.at = (-0.15, -0.98, base)
    model.shader("glass")
    model.lathe([outer[:6], outer[5:] + arc((0.049, 0.35), 0.003, 0, 180, 6)[1:] + inner[1:]], 56)
    model.write(FOLDER / "carafe.obj")


def ring():
    """A hoop of polished brass; the sun meets its inner side."""
    model = Placed()
    model.at = (0.17, -1.16, TOP + 0.001)
    model.shader("brass")
    model.lathe([
        [(0.163, 0.0), (0.163, 0.09)], [(0.163, 0.09), (0.155, 0.09)],
        [(0.155, 0.09), (0.155, 0.0)], [(0.155, 0.0), (0.163, 0.0)],
    ], 96)
    model.write(FOLDER / "ring.obj")


def pots():
    """Fired clay: two on the floor, a small dark one on the stone."""
    profile = [smooth([(0.01, 0.0), (0.1, 0.0), (0.12, 0.02), (0.2, 0.2), (0.21, 0.32), (0.15, 0.46), (0.1, 0.52),
                       (0.1, 0.57), (0.135, 0.61)], 4)
               + smooth([(0.12, 0.61), (0.085, 0.57), (0.085, 0.51), (0.13, 0.44), (0.19, 0.32), (0.18, 0.2),
                         (0.1, 0.03), (0.01, 0.02)], 3)]
    model = Placed()
    for x, y, z, size, shader in ((1.0, 0.1, 0, 1.15, "clay"), (1.35, 0.45, 0, 0.85, "clay"),
                                  (0.42, -0.84, TOP + 0.001, 0.34, "slate")):
        model.shader(shader)
        model.at = (x, y, z)
        model.lathe([[(r * size, h * size) for r, h in run] for run in profile], 32)
    model.write(FOLDER / "pots.obj")


if __name__ == "__main__":
    for make in (shell, roof, columns, block, carafe, ring, pots):
        make()
    for path in sorted(FOLDER.glob("*.obj")):
        print(f"{path.stat().st_size:8d} {path.name}")
