#!/usr/bin/env python3
"""Writes the beads into image/, the other shapes into model/ and places them all. Units are centimetres, z is up.

Run it after changing a shape; its output is kept in the repository, so a render needs no Python.
"""

import math
import random
import struct
import sys
import zlib
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
from modelling import Model  # noqa: E402

HERE = Path(__file__).resolve().parent
MODEL, IMAGE = HERE / "model", HERE / "image"

COUNT = 140000  # beads of the pool
PITCH = 0.055  # the n-th bead of the sunflower lies PITCH * sqrt(n) from the middle
GOLDEN = math.pi * (3 - math.sqrt(5))
CROWN = 2.1  # radius of the crown's foot


def write_particles(path, beads, width=512):
    """A TIFF of four 32-bit floats a pixel: centre and radius. Zip-compressed, one strip. The last row is filled
    up with beads of no size; numbers keep 1/4096, so that most of their bytes are zero."""
    beads = beads + [(*beads[-1][:3], 0.0)] * (-len(beads) % width)
    height = len(beads) // width
    raw = struct.pack(f"<{4 * len(beads)}f", *(round(4096 * v) / 4096 for bead in beads for v in bead))
    data = zlib.compress(raw, 9)
    data += b"\0" * (len(data) % 2)
    at = 8 + len(data)
    bits, formats, directory = at, at + 8, at + 16
    short, long = 3, 4
    tags = [(256, long, 1, width), (257, long, 1, height), (258, short, 4, bits), (259, short, 1, 8),
            (262, short, 1, 2), (273, long, 1, 8), (277, short, 1, 4), (278, long, 1, height),
            (279, long, 1, len(data)), (284, short, 1, 1), (338, short, 1, 0), (339, short, 4, formats)]
    path.parent.mkdir(exist_ok=True)
    path.write_bytes(struct.pack("<2sHI", b"II", 42, directory) + data + struct.pack("<8H", *[32] * 4, *[3] * 4)
                     + struct.pack("<H", len(tags)) + b"".join(struct.pack("<HHII", *tag) for tag in tags)
                     + struct.pack("<I", 0))


def surface(r):
    """Height of the pool: a crater below the crown, and the rings that run from it."""
    if r < CROWN:
        return 0.35 - 1.0 * (1 - (r / CROWN) ** 2)
    far = r - CROWN
    return 0.35 * math.exp(-1.5 * far) + 0.42 * math.exp(-0.13 * far) * math.sin(1.9 * far) * min(1, far)


def dye(x, y, noise):
    """The bead's colour: four arms of a spiral, ragged at their edges."""
    r = math.hypot(x, y)
    wave = math.sin(4 * math.atan2(y, x) - 5.5 * math.log(r + 2) + 0.5 * math.sin(0.9 * x) * math.sin(1.1 * y))
    wave += noise.gauss(0, 0.22)
    pick = noise.random()
    if pick < 0.012:
        return "gold"
    if pick < 0.04:
        return "glass"
    return "ivory" if wave > 0.55 else "turquoise" if wave > -0.35 else "blue"


def pool(beads, noise):
    for n in range(COUNT):
        r, angle = PITCH * math.sqrt(n + 0.5), n * GOLDEN
        x, y = r * math.cos(angle), r * math.sin(angle)
        color = dye(x, y, noise)
        beads[color].append((x, y, surface(r) + noise.uniform(-0.012, 0.012), noise.uniform(0.046, 0.056)))


def crown(beads, noise):
    """A wall of beads that leans out and ends in jets, and what the jets have thrown off."""
    jets = 15
    reach = [noise.uniform(0.75, 1.25) for _ in range(jets)]
    for n in range(17000):
        angle = 2 * math.pi * noise.random()
        phase = angle / (2 * math.pi) * jets
        jet = int(phase + 0.5) % jets
        off = 2 * abs(phase - round(phase))  # 0 in the middle of a jet, 1 between two
        top = 0.75 + 1.35 * reach[jet] * (1 - off) ** 3
        h = top * noise.random() ** 0.85
        if off > 1.1 - 0.35 * h and h > 0.7:
            continue
        r = CROWN + 0.38 * h ** 1.6 + noise.gauss(0, 0.03)
        color = noise.choices(("ivory", "turquoise", "blue", "gold", "glass"), (40, 30, 12, 6, 12))[0]
        beads[color].append((r * math.cos(angle), r * math.sin(angle), 0.3 + h, noise.uniform(0.034, 0.052)))
    for jet in range(jets):
        tip = 0.3 + 0.75 + 1.35 * reach[jet]
        for n in range(26):
            rise = 1.3 * noise.random() ** 1.5
            r = CROWN + 0.38 * (tip + rise) ** 1.5 + noise.gauss(0, 0.06)
            angle = 2 * math.pi * (jet + noise.gauss(0, 0.1)) / jets
            color = noise.choices(("ivory", "turquoise", "gold", "glass"), (4, 2, 1, 4))[0]
            size = noise.uniform(0.03, 0.06) if color != "glass" else noise.uniform(0.05, 0.13)
            beads[color].append((r * math.cos(angle), r * math.sin(angle), tip + rise, size))


def marbles(beads):
    """What fell, on its way back up, and others that lie in the troughs."""
    beads["glass"].append((0.0, 0.0, 1.55, 0.95))
    for radius, angle, size in ((5.45, -118, 0.62), (6.1, -62, 0.5), (8.7, -100, 0.42), (8.5, -140, 0.6),
                                (5.6, -12, 0.7), (8.9, -28, 0.5), (5.5, 195, 0.55)):
        a = math.radians(angle)
        beads["glass"].append((radius * math.cos(a), radius * math.sin(a), surface(radius) + 0.8 * size, size))


def place(names):
    rows = ["object", "    name table", '    obj "model/table.obj"', "end", ""]
    for name in names:
        rows += ["object", f"    name {name}_beads", f'    particle_texture "image/{name}.tif"', "end", ""]
    rows += ["object", "    name beads", "    instance", "        object table", "    end"]
    for name in names:
        rows += ["    instance", f"        object {name}_beads", f'        shader "{name}"', "    end"]
    rows += ["end", ""]
    (HERE / "geometry" / "beads.zp").write_text("\n".join(rows), encoding="ascii")


if __name__ == "__main__":
    generator = random.Random(8)
    all_beads = {name: [] for name in ("blue", "turquoise", "ivory", "gold", "glass")}
    pool(all_beads, generator)
    crown(all_beads, generator)
    marbles(all_beads)
    for key, value in all_beads.items():
        write_particles(IMAGE / f"{key}.tif", value)
    table = Model()
    table.shader("table")
    table.face([(-300, -300, -1), (300, -300, -1), (300, 300, -1), (-300, 300, -1)])
    table.write(MODEL / "table.obj")
    place(all_beads)
    print(sum(map(len, all_beads.values())), "beads")
    for entry in sorted([*MODEL.glob("*.obj"), *IMAGE.glob("*.tif")]):
        print(f"{entry.stat().st_size:8d} {entry.name}")
