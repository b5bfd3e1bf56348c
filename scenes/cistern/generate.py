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
ROOF = 2.78
HALF = 1.5 * BAY
SLAB = 0.5       # side of a floor slab
OUTER = -HALF - 0.25         # outer face of the arcade's wall
SILL, WIDE = 0.45, 0.78      # of its arches: height of the sill, half width
TOP = 0.5        # of the stone table
TABLE = (-1.06, -0.7, 0.06, 0.1)  # left, near, right, far


class Placed(Model):
    """A model whose shapes stand at `at`."""

    def __init__(self):
        super().__init__()
        self.at = (0, 0, 0)

    def face(self, points, normals=None, uvs=None):
        super().face([tuple(a + b for a, b in zip(p, self.at)) for p in points], normals, uvs)


def vault(model):
    """Two barrels that cross over the square around `at`; seen from below. Each strip runs along its barrel.

    Few and large faces: a photon on a tiny one would make its single cell very bright.
    """
    r, steps, parts = BAY / 2, 12, 2
    lines = [-r * math.cos(math.pi * i / steps) for i in range(steps + 1)]

    for turn in range(4):
        c, s = (1, 0, -1, 0)[turn], (0, 1, 0, -1)[turn]

        def place(x, y, c=c, s=s):
            height = math.sqrt(max(r * r - y * y, 0))
            return (c * x - s * y, s * x + c * y, SPRING + height), (s * y / r, -c * y / r, -height / r)

        for a, b in zip(lines, lines[1:]):
            for k in range(parts):
                low, high = k / parts, (k + 1) / parts
                corners = [(abs(y) + (r - abs(y)) * t, y) for t, y in ((low, b), (high, b), (high, a), (low, a))]
                placed = [place(*corner) for corner in corners]
                flat = [p for i, p in enumerate(placed) if p[0] != placed[i - 1][0]]  # none at a groin's foot
                if len(flat) >= 3:
                    model.face([p for p, _ in flat], [n for _, n in flat])


def arch(middle):
    """The opening's upper edge, (y, z) from near to far."""
    return [(middle - WIDE * math.cos(math.pi * i / 12), SPRING + WIDE * math.sin(math.pi * i / 12))
            for i in range(13)]


def pierced(model, x, top, inward):
    """The plane of the arcade's wall at `x` with its three openings, seen from the room or from outside."""
    def face(points):
        points = [(x, y, z) for y, z in points]
        model.face(points if inward else points[::-1])

    for j in range(-1, 2):
        m = j * BAY
        for a, b in ((m - BAY / 2, m - WIDE), (m + WIDE, m + BAY / 2)):
            face([(a, 0), (b, 0), (b, top), (a, top)])
        face([(m - WIDE, 0), (m + WIDE, 0), (m + WIDE, SILL), (m - WIDE, SILL)])
        for (a, za), (b, zb) in zip(arch(m), arch(m)[1:]):
            face([(a, za), (b, zb), (b, top), (a, top)])


def shell():
    """Floor, walls, the arcade's reveals and vaults."""
    model = Placed()
    count = round(2 * HALF / SLAB)
    for shade, name in enumerate(("floor", "dark_floor")):
        model.shader(name)
        for i in range(count):
            for j in range(count):
                if (i + j) % 2 == shade:
                    x, y = i * SLAB - HALF, j * SLAB - HALF
                    model.face([(x, y, 0), (x + SLAB, y, 0), (x + SLAB, y + SLAB, 0), (x, y + SLAB, 0)])
    top = SPRING + BAY / 2 + 0.02
    corners = [(-HALF, -HALF), (HALF, -HALF), (HALF, HALF), (-HALF, HALF)]
    for name, a, b in zip(("wall", "red_wall", "wall"), corners, corners[1:]):
        model.shader(name)
        model.face([(*b, 0), (*a, 0), (*a, top), (*b, top)])
    model.shader("wall")
    pierced(model, -HALF, top, True)
    for j in range(-1, 2):
        m = j * BAY
        edge = [(m - WIDE, SILL), *arch(m), (m + WIDE, SILL), (m - WIDE, SILL)]
        for (a, za), (b, zb) in zip(edge, edge[1:]):
            model.face([(OUTER, a, za), (OUTER, b, zb), (-HALF, b, zb), (-HALF, a, za)])
    model.shader("vault")
    for i in range(-1, 2):
        for j in range(-1, 2):
            model.at = (i * BAY, j * BAY, 0)
            vault(model)
    model.write(FOLDER / "shell.obj")


def roof():
    """What keeps the light outside: black, so that no time goes into photons that land on it."""
    model = Model()
    model.shader("outside")
    side = HALF + 0.02
    model.box((OUTER, -side, -0.02), (side, side, ROOF), "-x")
    model.face([(OUTER, -side, 0), (OUTER, -side, ROOF), (OUTER, -HALF, ROOF), (OUTER, -HALF, 0)])
    model.face([(OUTER, HALF, 0), (OUTER, HALF, ROOF), (OUTER, side, ROOF), (OUTER, side, 0)])
    pierced(model, OUTER, ROOF, False)
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
    """The table in the sun: a slab on a pier, dark enough for caustics to stand out."""
    left, near, right, far = TABLE
    model = Model()
    model.shader("slate")
    model.box((left, near, TOP - 0.07), (right, far, TOP))
    model.box((left + 0.12, near + 0.1, 0), (right - 0.12, far - 0.1, TOP - 0.07), "-z +z")
    model.write(FOLDER / "block.obj")


def carafe():
    """Thick glass, inside and outside, which meet in a round rim, and a ball; both keep clear of the stone."""
    base = TOP + 0.001
    outer = smooth([(0.002, 0.0), (0.09, 0.0), (0.105, 0.012), (0.118, 0.08), (0.105, 0.15), (0.055, 0.22),
                    (0.036, 0.27), (0.036, 0.31), (0.052, 0.35)], 5)
    inner = smooth([(0.046, 0.35), (0.030, 0.31), (0.030, 0.27), (0.049, 0.218), (0.098, 0.15), (0.111, 0.08),
                    (0.096, 0.022), (0.002, 0.018)], 5)
    model = Placed()
    model.at = (-0.8, -0.1, base)
    model.shader("glass")
    model.lathe([outer[:6], outer[5:] + arc((0.049, 0.35), 0.003, 0, 180, 6)[1:] + inner[1:]], 56)
    model.at = (-0.24, -0.26, base + 0.07)
    model.shader("amber")
    model.lathe([arc((0, 0), 0.07, -89, 89, 32)], 48)
    model.write(FOLDER / "carafe.obj")


def ring():
    """A hoop of polished brass; the sun meets its inner side."""
    model = Placed()
    model.at = (-0.58, -0.44, TOP + 0.001)
    model.shader("brass")
    r, thick, high = 0.165, 0.008, 0.075
    model.lathe([
        [(r + thick, 0.0), (r + thick, high)], [(r + thick, high), (r, high)],
        [(r, high), (r, 0.0)], [(r, 0.0), (r + thick, 0.0)],
    ], 128)
    model.write(FOLDER / "ring.obj")


def pots():
    """Fired clay, on the floor."""
    profile = [smooth([(0.01, 0.0), (0.1, 0.0), (0.12, 0.02), (0.2, 0.2), (0.21, 0.32), (0.15, 0.46), (0.1, 0.52),
                       (0.1, 0.57), (0.135, 0.61)], 4)
               + smooth([(0.12, 0.61), (0.085, 0.57), (0.085, 0.51), (0.13, 0.44), (0.19, 0.32), (0.18, 0.2),
                         (0.1, 0.03), (0.01, 0.02)], 3)]
    model = Placed()
    for x, y, z, size, shader in ((0.35, 1.25, 0, 1.15, "clay"), (0.0, 1.6, 0, 0.85, "clay")):
        model.shader(shader)
        model.at = (x, y, z)
        model.lathe([[(r * size, h * size) for r, h in run] for run in profile], 32)
    model.write(FOLDER / "pots.obj")


if __name__ == "__main__":
    for make in (shell, roof, columns, block, carafe, ring, pots):
        make()
    for path in sorted(FOLDER.glob("*.obj")):
        print(f"{path.stat().st_size:8d} {path.name}")
