#!/usr/bin/env python3
"""Writes the balls of fur, the core below the fur and the table into model/. Units are centimetres, z is up.

Run it after changing a shape; its output is kept in the repository, so a render needs no Python.
"""

import math
import random
import struct
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
from modelling import Model, arc, cross, smooth, sub, unit  # noqa: E402

HERE = Path(__file__).resolve().parent
MODEL = HERE / "model"
CORE = 2.6  # radius of the ball that the strands stand on
CENTER = (0.0, 0.0, 4.6)
STRANDS, SEGMENTS = 13000, 5
ROOT, TIP = 0.075, 0.02  # diameters


def add(a, b, scale=1.0):
    return tuple(x + scale * y for x, y in zip(a, b))


def dot(a, b):
    return sum(x * y for x, y in zip(a, b))


def spread(count):
    """Directions evenly over the sphere: a spiral that turns by the golden angle."""
    for i in range(count):
        z = 1 - 2 * (i + 0.5) / count
        r, turn = math.sqrt(1 - z * z), i * math.pi * (3 - math.sqrt(5))
        yield (r * math.cos(turn), r * math.sin(turn), z)


def comb(direction):
    """The way fur lies: down from the crown, and a little around it."""
    around = cross((0, 0, 1), direction)  # nothing at the poles, where fur stands up
    return add(cross(around, direction), around, 0.3)


def strand(direction, lean, step):
    """Points about one unit apart, the length that a curve's unit tangents stand for."""
    point = add(CENTER, direction, CORE)
    way = unit(add(add(direction, comb(direction), 0.35), lean, 0.3))
    points = [point]
    for k in range(SEGMENTS):
        out = unit(sub(point, CENTER))
        way = unit(add(add(add(way, comb(out), 0.24), (0, 0, -1), 0.1), lean, 0.14))
        ahead = add(point, way, step)
        # Neither into the core, nor far from it, nor through the table.
        reach = math.dist(ahead, CENTER)
        height = min(max(reach, CORE + 0.3 * (k + 1)), CORE + 3.4)
        ahead = add(CENTER, sub(ahead, CENTER), height / reach)
        if ahead[2] < 0.08:
            ahead = (ahead[0], ahead[1], 0.08)
        way = unit(sub(ahead, point))
        point = add(point, way, step)
        points.append(point)
    return points


def fur():
    draws = random.Random(5)
    clumps = [(c, [draws.gauss(0, 0.35) for _ in range(3)], draws.uniform(0.85, 1.1)) for c in spread(180)]
    positions, widths = [], []
    for direction in spread(STRANDS):
        direction = unit([x + draws.gauss(0, 0.012) for x in direction])
        center, lean, length = max(clumps, key=lambda c: dot(c[0], direction))
        # Strands of a clump draw together towards its middle.
        lean = add([x + draws.gauss(0, 0.3) for x in lean], sub(center, direction), 1.6)
        positions += strand(direction, lean, length * draws.uniform(0.8, 1.05))
        widths += [ROOT + (TIP - ROOT) * (k / SEGMENTS) ** 1.5 for k in range(SEGMENTS + 1)]
    points_bit, thickness_bit = 2, 4
    header = struct.pack("<4s4If4f", b"HAIR", STRANDS, len(positions), points_bit | thickness_bit, SEGMENTS, ROOT,
                         0, 1, 1, 1)
    data = header.ljust(128, b"\0") + b"".join(struct.pack("<3f", *p) for p in positions)
    (MODEL / "fur.hair").write_bytes(data + struct.pack(f"<{len(widths)}f", *widths))


def core():
    model = Model()
    model.shader("felt")
    model.lathe([arc((0, CENTER[2]), CORE, -89.9, 89.9, 24)], 48)
    model.write(MODEL / "core.obj")


def table():
    """A board that bends up to a backdrop."""
    bend = [(y, z) for y, z in smooth([(-60, 0), (10, 0), (24, 1.6), (36, 9), (42, 24), (44, 60)], 10)]
    points, normals = [], []
    for i, (y, z) in enumerate(bend):
        a, b = bend[max(i - 1, 0)], bend[min(i + 1, len(bend) - 1)]
        normal = unit((0, a[1] - b[1], b[0] - a[0]))
        points.append([(-90, y, z), (90, y, z)])
        normals.append([normal, normal])
    model = Model()
    model.shader("paper")
    model.grid([[row[0] for row in points], [row[1] for row in points]],
               [[row[0] for row in normals], [row[1] for row in normals]])
    model.write(MODEL / "table.obj")


def place():
    rows = ["object", "    name table", '    obj "model/table.obj"', "end", "",
            "object", "    name core", '    obj "model/core.obj"', "end", "",
            "object", "    name fur", '    hair "model/fur.hair"', "end", "",
            "object", "    name pompoms", "    instance", "        object table", "    end"]
    for shader, x, y, turn in (("copper_hair", -11.6, 1.2, 20), ("blond_hair", 0, -2.5, 140),
                               ("dark_hair", 11.6, 1.6, 265)):
        c, s = math.cos(math.radians(turn)), math.sin(math.radians(turn))
        matrix = " ".join(f"{v + 0.0:g}" for v in (c, -s, 0, x, s, c, 0, y, 0, 0, 1, 0, 0, 0, 0, 1))
        for part, dress in (("core", ""), ("fur", shader)):
            rows += ["    instance", f"        object {part}", f"        matrix {matrix}"]
            rows += [f'        shader "{dress}"'] if dress else []
            rows.append("    end")
    rows += ["end", ""]
    (HERE / "geometry" / "pompoms.zp").write_text("\n".join(rows), encoding="ascii")


if __name__ == "__main__":
    MODEL.mkdir(exist_ok=True)
    fur()
    core()
    table()
    place()
    for path in sorted(MODEL.iterdir()):
        print(f"{path.stat().st_size:8d} {path.name}")
