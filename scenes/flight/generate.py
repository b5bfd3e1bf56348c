#!/usr/bin/env python3
"""Writes the paper dart and the skittles around it into model/ and places them. Units are decimetres, z is up.

Run it after changing a shape; its output is kept in the repository, so a render needs no Python.
"""

import math
import random
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
from modelling import Model, arc, smooth  # noqa: E402

HERE = Path(__file__).resolve().parent
MODEL = HERE / "model"
HEIGHT = 1.9  # at which the dart flies


def dart():
    """Folded of one sheet: two wings, two sides of the keel, and a second layer of paper along the wings' front."""
    model = Model()
    model.shader("paper")
    nose = (1.55, 0, 0)
    for side in (1, -1):
        fold, tip, keel = (-1.05, 0.05 * side, 0.1), (-1.0, 0.95 * side, 0.3), (-0.95, 0, -0.42)
        bend = tuple(0.45 * n + 0.55 * t for n, t in zip(nose, tip))
        model.face([nose, fold, tip])
        model.face([nose, keel, fold])
        lap = (-0.35, 0.06 * side, 0.09)
        model.face([tuple(c + d for c, d in zip(p, (0, 0, 0.012))) for p in (nose, lap, bend)])
    model.write(MODEL / "dart.obj")


def skittle():
    """A turned foot, a slim body, a polished ball on top."""
    model = Model()
    model.shader("wood")
    body = smooth([(0.3, 0.0), (0.33, 0.2), (0.25, 0.75), (0.14, 1.55), (0.11, 1.95), (0.15, 2.1)], 6)
    model.lathe([body], 32)
    model.shader("ball")
    model.lathe([arc((0, 2.28), 0.23, -89.9, 89.9, 20)], 32)
    model.write(MODEL / "skittle.obj")


def floor():
    """Boards that run along the flight, with ends that the eye can follow."""
    model = Model()
    noise = random.Random(4)
    for row in range(-8, 60):
        x = -40 - 6 * noise.random()
        while x < 40:
            length = noise.uniform(3, 7)
            model.shader(noise.choice(("board_light", "board", "board_dark")))
            model.face([(x, row, 0), (x + length, row, 0), (x + length, row + 1, 0), (x, row + 1, 0)])
            x += length
    model.write(MODEL / "floor.obj")


def place():
    rows = []
    for name in ("floor", "dart", "skittle"):
        rows += ["object", f"    name {name}", f'    obj "model/{name}.obj"', "end", ""]
    rows += ["object", "    name flight"]

    def instance(name, matrix, shader=""):
        rows.extend(["    instance", f"        object {name}",
                     "        matrix " + " ".join(f"{v + 0.0:.6g}" for v in matrix)])
        if shader:
            rows.append(f'        shader "{shader}"')
        rows.append("    end")

    instance("floor", [1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1])
    pitch, roll = math.radians(-6), math.radians(6)  # nose up, the near wing down
    c, s, d, t = math.cos(pitch), math.sin(pitch), math.cos(roll), math.sin(roll)
    instance("dart", [c, s * t, s * d, 0, 0, d, -t, 0, -s, c * t, c * d, HEIGHT, 0, 0, 0, 1])
    noise, count = random.Random(3), 0
    for y in (3.2, 7, 13):
        x = -0.6 * y - 6 + noise.random()
        while x < 0.6 * y + 6:
            matrix = turned(x, y + noise.uniform(-0.6, 0.6), noise.uniform(0, 6))
            instance("skittle", matrix, ("red", "yellow", "blue", "white", "gold")[count % 5])
            count += 3
            x += noise.uniform(1.1, 2.7) * (1 + 0.03 * y)
    rows.extend(["end", ""])
    (HERE / "geometry" / "flight.zp").write_text("\n".join(rows), encoding="ascii")


def turned(x, y, angle):
    c, s = math.cos(angle), math.sin(angle)
    return [c, -s, 0, x, s, c, 0, y, 0, 0, 1, 0, 0, 0, 0, 1]


if __name__ == "__main__":
    dart()
    skittle()
    floor()
    place()
    for path in sorted(MODEL.glob("*.obj")):
        print(f"{path.stat().st_size:8d} {path.name}")
