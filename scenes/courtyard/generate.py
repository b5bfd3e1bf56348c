#!/usr/bin/env python3
"""Writes the models of the courtyard scene into model/. Standard library only; units are metres, z is up.

Run it after changing a shape; the models are kept in the repository, so a render needs no Python.
"""

import math
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
from modelling import Model, arc, cross, smooth, sub, unit  # noqa: E402

FOLDER = Path(__file__).resolve().parent / "model"

BAY = 2.4         # distance between two columns
SPRING = 2.6      # height at which arches begin
RADIUS = 0.9      # of an arch
WALL_TOP = 4.2
THICK = 0.25      # half thickness of an arcade wall
RING = 0.5        # radius of the ring that the sculpture winds around


def column():
    model = Model()
    model.shader("stone")
    model.box((-0.28, -0.28, 0), (0.28, 0.28, 0.14), "-z")
    shaft = [(0.19 - 0.035 * (i / 8) ** 1.8, 0.40 + 1.80 * i / 8) for i in range(9)]
    model.lathe([
        arc((0.22, 0.20), 0.06, -90, 90, 6),                  # lower torus
        [(0.22, 0.26), (0.205, 0.28), (0.205, 0.30)],
        arc((0.2, 0.335), 0.035, -90, 90, 6),                 # upper torus
        [(0.2, 0.37), (0.192, 0.385), *shaft],
        arc((0.155, 2.225), 0.025, -90, 90, 6),               # ring below the capital
        [(0.152, 2.25), (0.152, 2.30)],
        smooth([(0.152, 2.30), (0.17, 2.34), (0.22, 2.40), (0.265, 2.44), (0.27, 2.46)], 3),
    ], 28)
    model.box((-0.31, -0.31, 2.46), (0.31, 0.31, SPRING))     # abacus
    model.write(FOLDER / "column.obj")


def bay():
    """One arch between two columns, along x from -BAY / 2 to BAY / 2; both faces are shown."""
    model = Model()
    model.shader("plaster")
    half, steps = BAY / 2, 28
    angles = [math.pi * i / steps for i in range(steps + 1)]

    def ring(radius, y):
        return [(-radius * math.cos(a), y, SPRING + radius * math.sin(a)) for a in angles]

    top = [(half * (2 * i / steps - 1), WALL_TOP) for i in range(steps + 1)]
    for y, front in ((-THICK, True), (THICK, False)):
        arch = ring(RADIUS, y)
        for i in range(steps):
            points = [arch[i], arch[i + 1], (top[i + 1][0], y, WALL_TOP), (top[i][0], y, WALL_TOP)]
            model.face(points if front else points[::-1])
        for side in (-1, 1):
            points = [(side * half, y, SPRING), (side * RADIUS, y, SPRING), (side * half, y, WALL_TOP)]
            model.face(points if front == (side < 0) else points[::-1])
    for side in (-1, 1):  # underside beside the abacus
        x0, x1 = sorted((side * RADIUS, side * half))
        model.face([(x0, THICK, SPRING), (x1, THICK, SPRING), (x1, -THICK, SPRING), (x0, -THICK, SPRING)])
    inward = [(math.cos(a), 0, -math.sin(a)) for a in angles]
    near, far = ring(RADIUS, -THICK - 0.05), ring(RADIUS, THICK + 0.05)
    model.shader("stone")
    model.grid([near, far], [inward, inward])
    # The raised ring around the opening, and a string course and a cornice above it.
    for y, front in ((-THICK - 0.05, True), (THICK + 0.05, False)):
        inner, outer = ring(RADIUS, y), ring(RADIUS + 0.17, y)
        edge = ring(RADIUS + 0.17, -THICK if front else THICK)
        outward = [tuple(-x for x in n) for n in inward]
        for i in range(steps):
            points = [inner[i], inner[i + 1], outer[i + 1], outer[i]]
            model.face(points if front else points[::-1])
        model.grid([edge, outer] if front else [outer, edge], [outward, outward])
    model.box((-half, -THICK - 0.06, 3.82), (half, THICK, 3.90), "+y -x +x")
    model.box((-half, -THICK - 0.12, 4.08), (half, THICK, WALL_TOP), "+y -x +x")
    model.write(FOLDER / "bay.obj")


def roof():
    """Round tiles over one bay: along x, falling from y = 3.3 to the eaves at y = -0.6."""
    model = Model()
    model.shader("terracotta")
    ribs, steps = 8, 6
    width = BAY / ribs
    slope = 0.42
    along = unit((0, 1, slope))
    for rib in range(ribs):
        x0 = -BAY / 2 + rib * width
        for low, high, lift in ((-0.6, 0.7, 0.04), (0.7, 2.0, 0.02), (2.0, 3.3, 0.0)):
            points, normals = [], []
            for y, raise_ in ((low, lift), (high, lift - 0.035)):
                row, row_normals = [], []
                for i in range(steps + 1):
                    angle = math.pi * i / steps
                    normal = unit(cross(cross((0, 0, 1), along), along))
                    normal = tuple(-x for x in normal) if normal[2] < 0 else normal
                    c, s = -math.cos(angle), math.sin(angle)
                    z = WALL_TOP + 0.14 + slope * y + raise_ + 0.5 * width * s
                    row.append((x0 + width * (0.5 + 0.5 * c), y, z))
                    row_normals.append(unit((c, s * normal[1], max(s, 0.15) * normal[2])))
                points.append(row)
                normals.append(row_normals)
            # Columns run along +x and rows up the slope: x cross y looks up.
            model.grid([list(p) for p in zip(*points)], [list(n) for n in zip(*normals)])
            front = points[0]
            for i in range(steps):  # closed ends of the tiles
                model.face([(x0 + width / 2, low, WALL_TOP + 0.14 + slope * low + lift), front[i + 1], front[i]])
    model.write(FOLDER / "roof.obj")


def building():
    """Everything that stands once: walls, ceilings, platforms, ground."""
    model = Model()
    model.shader("wall")
    model.box((-9.3, 9, -0.2), (9.3, 9.3, 5.9), "-z")
    model.box((-9.3, -6.3, -0.2), (-9, 9, 5.9), "-z")
    model.box((9, -6.3, -0.2), (9.3, 9, 5.9), "-z")
    model.shader("wood")
    for side in (-1, 1):  # ceilings with beams
        x0, x1 = sorted((side * 6.2, side * 9))
        model.box((x0, -6.3, 4.05), (x1, 9, 4.2))
        for k in range(15):
            y = -5.9 + k * 1.0
            model.box((x0, y, 3.9), (x1, y + 0.16, 4.05), "+z")
    model.box((-6.2, 6.2, 4.05), (6.2, 9, 4.2))
    for k in range(12):
        x = -5.6 + k * 1.0
        model.box((x, 6.2, 3.9), (x + 0.16, 9, 4.05), "+z")
    model.shader("stone")
    for side in (-1, 1):  # platforms, and a dado along the walls
        x0, x1 = sorted((side * 5.5, side * 9))
        model.box((x0, -6.5, -0.2), (x1, 9, 0.12), "-z")
        x0, x1 = sorted((side * 8.92, side * 9))
        model.box((x0, -6.3, 0.12), (x1, 9, 0.95))
    model.box((-5.5, 5.5, -0.2), (5.5, 9, 0.12), "-z")
    for x0, x1 in ((-9, -1.25), (1.25, 9)):
        model.box((x0, 8.92, 0.12), (x1, 9, 0.95))
    # The frame of the lit doorway.
    for x0, x1 in ((-1.25, -1.0), (1.0, 1.25)):
        model.box((x0, 8.86, 0.12), (x1, 9, 3.1))
    model.box((-1.4, 8.82, 3.1), (1.4, 9, 3.35))
    # Gable ends of the side roofs.
    model.shader("plaster")
    for side in (-1, 1):
        points = [(side * x, -6.25, z) for x, z in ((5.75, 4.2), (9, 4.2), (9, 5.67), (5.75, 4.34))]
        model.face(points if side > 0 else points[::-1])
    model.shader("ground")
    model.box((-30, -40, -0.5), (30, 40, -0.03), "-z -x +x -y +y")
    model.write(FOLDER / "building.obj")


def tiles():
    """The floor of the court: two shades, with joints between the tiles."""
    model = Model()
    size, joint = 0.92, 0.012
    columns, rows = 12, 22
    for shade, name in enumerate(("tile_light", "tile_dark")):
        model.shader(name)
        for r in range(rows):
            for c in range(columns):
                if (r + c) % 2 == shade:
                    x, y = (c - columns / 2) * size, 5.5 - (r + 1) * size
                    model.box((x + joint, y + joint, -0.03), (x + size - joint, y + size - joint, 0), "-z")
    model.write(FOLDER / "tiles.obj")


def pedestal():
    model = Model()
    model.shader("stone")
    model.box((-1.1, -1.1, 0), (1.1, 1.1, 0.14), "-z")
    model.box((-0.9, -0.9, 0.14), (0.9, 0.9, 0.28), "-z")
    model.box((-0.58, -0.58, 0.28), (0.58, 0.58, 0.42), "-z")
    model.box((-0.5, -0.5, 0.42), (0.5, 0.5, 1.0), "-z")
    model.box((-0.6, -0.6, 1.0), (0.6, 0.6, 1.1))
    model.write(FOLDER / "pedestal.obj")


def knot():
    """A (2, 3) torus knot standing upright, its lowest point at z = 0."""
    model = Model()
    model.shader("sculpture")
    around, across, tube = 200, 18, 0.16

    def center(t):
        r = RING + 0.22 * math.cos(3 * t)
        return (r * math.cos(2 * t), 0.24 * math.sin(3 * t), r * math.sin(2 * t))

    points, normals = [], []
    lowest = 0.0
    for i in range(around + 1):
        t = 2 * math.pi * (i % around) / around
        tangent = unit(sub(center(t + 1e-4), center(t - 1e-4)))
        # The direction away from the torus's own ring turns with the knot and closes after one round.
        ring = (RING * math.cos(2 * t), 0.0, RING * math.sin(2 * t))
        side = unit(cross(tangent, sub(center(t), ring)))
        up = cross(tangent, side)
        row, row_normals = [], []
        for k in range(across + 1):
            a = 2 * math.pi * (k % across) / across
            normal = tuple(math.cos(a) * u + math.sin(a) * s for u, s in zip(up, side))
            row.append(tuple(c + tube * n for c, n in zip(center(t), normal)))
            row_normals.append(normal)
            lowest = min(lowest, row[-1][2])
        points.append(row)
        normals.append(row_normals)
    points = [[(x, y, z - lowest) for x, y, z in row] for row in points]
    model.grid(points, normals)
    model.write(FOLDER / "knot.obj")


def vases():
    tall = Model()
    tall.shader("glaze_blue")
    tall.lathe([
        [(0.001, 0.0), (0.17, 0.0)],
        smooth([(0.17, 0.0), (0.19, 0.03), (0.24, 0.2), (0.31, 0.45), (0.30, 0.66), (0.19, 0.86), (0.115, 0.98),
                (0.11, 1.06), (0.17, 1.14)], 4),
        smooth([(0.17, 1.14), (0.155, 1.145), (0.09, 1.06), (0.085, 0.95), (0.1, 0.85)], 3),
    ], 40)
    tall.write(FOLDER / "vase_tall.obj")
    wide = Model()
    wide.shader("terracotta")
    wide.lathe([
        [(0.001, 0.0), (0.2, 0.0)],
        smooth([(0.2, 0.0), (0.21, 0.04), (0.3, 0.16), (0.42, 0.36), (0.45, 0.52), (0.40, 0.66), (0.36, 0.7)], 4),
        smooth([(0.36, 0.7), (0.42, 0.72), (0.43, 0.75), (0.41, 0.78), (0.35, 0.77)], 3),
        smooth([(0.35, 0.77), (0.34, 0.7), (0.38, 0.6), (0.40, 0.5), (0.3, 0.25), (0.001, 0.2)], 3),
    ], 40)
    wide.write(FOLDER / "vase_wide.obj")


def banner():
    """A cloth hanging from a rod, in the plane of x and z below its top edge; one sheet, seen from both sides."""
    rows, columns, width, height = 20, 16, 1.1, 1.75

    def surface(u, v):
        fold = 0.05 * v * math.sin(9 * u + 1.3 * v) + 0.08 * v * v * math.sin(2.2 * u + 2 * v)
        point = max(0.0, v - 0.8) * (1 - abs(2 * u - 1)) * 0.9  # the lower edge runs to a tip
        return ((u - 0.5) * width * (1 - 0.05 * v), fold, -v * height - point)

    model = Model()
    model.shader("cloth_red")
    points, normals = [], []
    for i in range(columns + 1):
        row, row_normals = [], []
        for j in range(rows + 1):
            u, v, e = i / columns, j / rows, 1e-3
            row.append(surface(u, v))
            du, dv = sub(surface(u + e, v), surface(u - e, v)), sub(surface(u, v + e), surface(u, v - e))
            row_normals.append(unit(cross(du, dv)))
        points.append(row)
        normals.append(row_normals)
    model.grid(points, normals)
    model.shader("wood")
    rod = [[(x, 0.03 * math.cos(a), 0.03 * math.sin(a))
            for a in (2 * math.pi * (k % 10) / 10 for k in range(11))] for x in (0.72, -0.72)]
    round_normals = [[(0, y / 0.03, z / 0.03) for _, y, z in row] for row in rod]
    model.grid(rod, round_normals)
    model.write(FOLDER / "banner.obj")


def lights():
    """The lit doorway and the strips below the arcade ceilings."""
    model = Model()
    model.shader("glow")
    model.face([(-1.0, 8.97, 0.12), (1.0, 8.97, 0.12), (1.0, 8.97, 3.1), (-1.0, 8.97, 3.1)])
    for x in (-7.9, 7.1):
        model.face([(x, 7.5, 3.88), (x + 0.8, 7.5, 3.88), (x + 0.8, -5.5, 3.88), (x, -5.5, 3.88)])
    model.write(FOLDER / "lights.obj")


def place():
    """The objects and where they stand, as scene text: instances turn and move, they never scale."""
    base = 0.12  # height of the platforms
    turns = {"back": (1, 0, 0, 1), "right": (0, 1, -1, 0), "left": (0, -1, 1, 0)}
    rows = ["# Written by generate.py.", ""]
    for name in ("column", "bay", "roof", "banner", "knot", "vase_tall", "vase_wide", "pedestal"):
        rows += ["object", f"    name {name}", f'    obj "model/{name}.obj"', "end", ""]
    rows += ["object", "    name courtyard"]
    rows += [f'    obj "model/{name}.obj"' for name in ("building", "tiles", "lights")]

    def instance(name, x, y, z, turn="back", shader=""):
        a, b, c, d = turns[turn]
        rows.extend(["    instance", f"        object {name}"])
        if shader:
            rows.append(f'        shader "{shader}"')
        rows.extend([f"        matrix {a} {b} 0 {x:g}  {c} {d} 0 {y:g}  0 0 1 {z:g}  0 0 0 1", "    end"])

    for k in range(6):
        instance("column", -6 + k * BAY, 6, base)
    for k in range(5):
        instance("column", -6, -6 + k * BAY, base)
        instance("column", 6, -6 + k * BAY, base)
    for k in range(5):
        at = (k - 2) * BAY
        instance("bay", at, 6, base)
        instance("bay", -6, at, base, "left")
        instance("bay", 6, at, base, "right")
    # The roofs run on to the outer corners, where they meet in a valley. The last one overlaps its neighbour.
    spots = [((k - 2) * BAY, 0.0) for k in range(5)]
    for at, lift in [(-7.8, -0.002), (-7.2, 0.0), *spots, (7.2, 0.0), (7.8, -0.002)]:
        instance("roof", at, 6, base + lift)
        if at > -7:
            instance("roof", -6, at, base + lift, "left")
            instance("roof", 6, at, base + lift, "right")
    for x, shader in ((-2.4, ""), (2.4, "cloth_blue"), (-4.8, "cloth_gold"), (4.8, "")):
        instance("banner", x, 6, 3.25, "back", shader)
    for y, shader in ((-2.4, "cloth_blue"), (2.4, "cloth_gold")):
        instance("banner", -6, y, 3.25, "left", shader)
        instance("banner", 6, y, 3.25, "right", "" if shader == "cloth_blue" else "cloth_blue")
    instance("pedestal", 0, 1.2, 0)
    instance("knot", 0, 1.2, 1.1)
    instance("vase_wide", -3.3, -0.9, 0)
    instance("vase_tall", -4.1, -0.3, 0)
    instance("vase_tall", 2.7, -3.4, 0)
    instance("vase_wide", 4.4, 3.9, 0)
    rows += ["end", ""]
    (FOLDER.parent / "geometry" / "courtyard.zp").write_text("\n".join(rows), encoding="ascii")


if __name__ == "__main__":
    for make in (column, bay, roof, building, tiles, pedestal, knot, vases, banner, lights):
        make()
    place()
    for path in sorted(FOLDER.glob("*.obj")):
        print(f"{path.stat().st_size:8d} {path.name}")
