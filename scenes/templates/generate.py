#!/usr/bin/env python3
"""Writes the models of the scenes that `zephlore new` copies, and the cameras of the turntable. Metres, z is up.

Run it after changing a shape; its output is kept in the repository and put into the program. Models carry no normals:
the `smooth_angle` of their shaders makes them round, which keeps the files small.
"""

import math
import random
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
from modelling import Model, arc, cross, smooth, sub, unit  # noqa: E402

HERE = Path(__file__).resolve().parent


def turned(model, profile, segments, center=(0, 0, 0)):
    """Turns (radius, height) points, from bottom to top, around a vertical axis; a radius of 0 closes the end."""
    def at(k, radius, z):
        angle = 2 * math.pi * (k % segments) / segments
        return (center[0] + radius * math.cos(angle), center[1] + radius * math.sin(angle), center[2] + z)

    for (r0, z0), (r1, z1) in zip(profile, profile[1:]):
        for k in range(segments):
            corners = [at(k, r0, z0), at(k + 1, r0, z0), at(k + 1, r1, z1), at(k, r1, z1)]
            if r0 == 0:
                corners = corners[1:]
            elif r1 == 0:
                corners = corners[:3]
            model.face(corners)


def ball(model, radius, steps=16, segments=40, center=(0, 0, 0)):
    """Stands on the height of its center."""
    profile = arc((0, radius), radius, -90, 90, steps)
    profile[0], profile[-1] = (0, 0), (0, 2 * radius)
    turned(model, profile, segments, center)


def quad(model, center, right, up):
    """Half sides; its front looks along right x up."""
    def corner(a, b):
        return tuple(c + a * r + b * u for c, r, u in zip(center, right, up))
    model.face([corner(-1, -1), corner(1, -1), corner(1, 1), corner(-1, 1)])


def lamp(model, center, target, width, height):
    """A rectangle that looks at `target`."""
    front = unit(sub(target, center))
    right = unit(cross((0, 0, 1) if abs(front[2]) < 0.99 else (0, 1, 0), front))
    up = cross(front, right)
    quad(model, center, [x * width / 2 for x in right], [x * height / 2 for x in up])


def sweep(model, half, back, front, height, radius, steps=16):
    """Floor and wall without a corner between them, open to the front (-y)."""
    rows = [(front, 0.0), (back - radius, 0.0)]
    rows += [(back - radius + y, radius + z) for y, z in arc((0, 0), radius, -90, 0, steps)[1:]]
    rows.append((back, height))
    for (y0, z0), (y1, z1) in zip(rows, rows[1:]):
        model.face([(-half, y0, z0), (half, y0, z0), (half, y1, z1), (-half, y1, z1)])


def write(template, name, *parts):
    """Parts are a shader and a function that adds faces."""
    model = Model()
    for shader, add in parts:
        model.shader(shader)
        add(model)
    model.write(HERE / template / "model" / f"{name}.obj")


def studio():
    write("studio", "backdrop", ("backdrop", lambda m: sweep(m, 2.6, 1.7, -3.2, 3.2, 0.9)))
    write("studio", "lights",
          ("key_light", lambda m: lamp(m, (-1.5, -1.1, 1.7), (0, 0, 0.3), 1.1, 1.1)),
          ("fill_light", lambda m: lamp(m, (2.0, -1.3, 1.0), (0, 0, 0.3), 1.2, 1.6)),
          ("rim_light", lambda m: lamp(m, (1.0, 1.1, 1.7), (0, 0, 0.3), 1.2, 0.3)))
    outer = smooth([(0, 0), (0.07, 0), (0.11, 0.07), (0.135, 0.17), (0.1, 0.29), (0.045, 0.39), (0.042, 0.46),
                    (0.065, 0.5)], 3)
    inner = smooth([(0.056, 0.5), (0.034, 0.46), (0.037, 0.39), (0.09, 0.29), (0.1, 0.17), (0, 0.1)], 2)
    write("studio", "vase", ("glaze", lambda m: turned(m, outer + inner, 48)))
    write("studio", "ball", ("glass", lambda m: ball(m, 1, 20, 48)))
    bowl = [(0, 0), (0.06, 0)] + arc((0, 0.13), 0.13, -60, 0, 8)
    bowl += [(0.122, 0.13)] + arc((0, 0.13), 0.122, 0, -75, 8) + [(0, 0.012)]
    write("studio", "bowl", ("gold", lambda m: turned(m, bowl, 48)))


def exterior():
    write("exterior", "ground",
          ("grass", lambda m: quad(m, (0, 0, 0), (3000, 0, 0), (0, 3000, 0))),
          ("stone", lambda m: m.box((-4.6, -0.4, 0), (4.2, 4.4, 0.16), "-z")),
          ("stone", lambda m: [m.box((-1.9 + i % 2 * 0.5, 4.8 + i * 0.75, 0), (-1.0 + i % 2 * 0.5, 5.35 + i * 0.75, 0.05),
                                     "-z") for i in range(7)]))
    write("exterior", "house",
          ("plaster", lambda m: m.box((-4, -5, 0), (4, -4.8, 3))),    # back
          ("plaster", lambda m: m.box((3.8, -4.8, 0), (4, 0, 3))),    # sides
          ("plaster", lambda m: m.box((-4, -4.8, 0), (-3.8, 0, 3))),
          ("plaster", lambda m: m.box((0.6, -0.2, 0), (3.8, 0, 3))),  # front, beside the glass
          ("wood", lambda m: m.box((-4.7, -5.4, 3), (4.7, 2.0, 3.22))),  # roof
          ("wood", lambda m: [m.box((-3.8 + i * 0.16, -4.8, 0.16), (-3.66 + i * 0.16, -4.7, 3)) for i in range(47)]),
          ("wood", lambda m: m.box((1.5, 0, 0.16), (2.4, 0.03, 2.3))),  # door
          ("metal", lambda m: [m.box((x, -0.14, 0.16), (x + 0.06, -0.06, 3)) for x in (-3.8, -2.36, -0.92, 0.54)]),
          ("metal", lambda m: [m.box((x, 1.6, 0.16), (x + 0.12, 1.72, 3)) for x in (-4.3, -0.06, 4.18)]),
          ("metal", lambda m: m.box((2.25, 0.05, 1.0), (2.29, 0.09, 1.4))),
          ("pane", lambda m: quad(m, (-1.6, -0.1, 1.58), (-2.2, 0, 0), (0, 0, 1.42))))
    write("exterior", "bench",
          ("wood", lambda m: [m.box((-0.9, -0.24 + i * 0.13, 0.42), (0.9, -0.13 + i * 0.13, 0.46)) for i in range(4)]),
          ("metal", lambda m: [m.box((x, -0.2, 0), (x + 0.05, 0.22, 0.42)) for x in (-0.75, 0.7)]))

    def crown(model):
        """A ball of lumps: what the smooth angle rounds is the lump, what it leaves sharp lies between them."""
        dice = random.Random(4)
        lumps = [(0, 0, 2.1, 0.95)]
        for k in range(13):
            angle, z = 2.4 * k, 2.1 + 1.5 * (k / 12 - 0.45)
            reach = 0.75 * math.sqrt(max(0.1, 1 - ((z - 2.25) / 1.15) ** 2))
            lumps.append((reach * math.cos(angle), reach * math.sin(angle), z, dice.uniform(0.42, 0.6)))
        for x, y, z, radius in lumps:
            ball(model, radius, 8, 14, (x, y, z))

    trunk = [(0.13, 0), (0.09, 0.3), (0.07, 1.2), (0.05, 2.2)]
    write("exterior", "tree", ("leaves", crown), ("wood", lambda m: turned(m, trunk, 10)))


def interior():
    width, depth, height = 2.4, 5.2, 2.7  # half the width; the window is in the wall at y = depth
    left, right, sill, top = -1.1, 1.1, 0.8, 2.35
    write("interior", "room",
          ("plaster", lambda m: [
              quad(m, (-width, depth / 2, height / 2), (0, -depth / 2, 0), (0, 0, height / 2)),
              quad(m, (width, depth / 2, height / 2), (0, depth / 2, 0), (0, 0, height / 2)),
              quad(m, (0, 0, height / 2), (-width, 0, 0), (0, 0, height / 2)),
              quad(m, (0, depth / 2, height), (width, 0, 0), (0, -depth / 2, 0)),
              m.box((-width, depth, 0), (left, depth + 0.25, height), "-x -z +z"),
              m.box((right, depth, 0), (width, depth + 0.25, height), "+x -z +z"),
              m.box((left, depth, top), (right, depth + 0.25, height), "-x +x +z"),
              m.box((left, depth, 0), (right, depth + 0.25, sill), "-x +x -z")]),
          ("floor", lambda m: quad(m, (0, depth / 2, 0), (width, 0, 0), (0, depth / 2, 0))),
          ("white", lambda m: [
              m.box((-width, 0, 0), (-width + 0.015, depth, 0.09), "-x -z"),
              m.box((-width, depth - 0.015, 0), (width, depth, 0.09), "+y -z"),
              m.box((left - 0.08, depth - 0.07, sill - 0.04), (right + 0.08, depth + 0.12, sill))] + [
              m.box((x, depth + 0.1, sill), (x + 0.06, depth + 0.15, top)) for x in (left, -0.03, right - 0.06)] + [
              m.box((left, depth + 0.1, z), (right, depth + 0.15, z + 0.06)) for z in (sill, top - 0.06)]))
    write("interior", "daylight",
          ("daylight", lambda m: quad(m, (0, depth + 0.2, (sill + top) / 2), (1.1, 0, 0), (0, 0, (top - sill) / 2))))
    write("interior", "table",
          ("wood", lambda m: m.box((-0.8, -0.45, 0.7), (0.8, 0.45, 0.74))),
          ("wood", lambda m: [m.box((x, y, 0), (x + 0.06, y + 0.06, 0.7), "-z +z")
                              for x in (-0.74, 0.68) for y in (-0.39, 0.33)]),
          ("wood", lambda m: [m.box((-0.74, y, 0.6), (0.74, y + 0.02, 0.7), "+z") for y in (-0.37, 0.35)]))
    write("interior", "chair",
          ("cloth", lambda m: m.box((-0.22, -0.22, 0.42), (0.22, 0.22, 0.47))),
          ("wood", lambda m: [m.box((x, y, 0), (x + 0.035, y + 0.035, 0.42 if y < 0 else 0.9), "-z")
                              for x in (-0.22, 0.185) for y in (-0.22, 0.185)]),
          ("wood", lambda m: [m.box((-0.22, 0.19, z), (0.22, 0.215, z + 0.07)) for z in (0.6, 0.72, 0.83)]))
    outer = smooth([(0, 0), (0.05, 0), (0.085, 0.07), (0.09, 0.14), (0.05, 0.22), (0.035, 0.27), (0.05, 0.3)], 3)
    inner = smooth([(0.043, 0.3), (0.028, 0.27), (0.042, 0.22), (0.08, 0.14), (0, 0.03)], 2)
    write("interior", "vase", ("glaze", lambda m: turned(m, outer + inner, 32)))

    def fruit(model):
        for x, y, r in ((0, 0, 0.042), (0.085, 0.02, 0.04), (0.04, 0.085, 0.044)):
            ball(model, r, 10, 20, (x, y, 0))

    write("interior", "fruit", ("orange", fruit))
    write("interior", "picture",
          ("wood", lambda m: [m.box((-0.5, -0.03, -0.35), (-0.46, 0, 0.35)), m.box((0.46, -0.03, -0.35), (0.5, 0, 0.35)),
                              m.box((-0.46, -0.03, -0.35), (0.46, 0, -0.31)), m.box((-0.46, -0.03, 0.31), (0.46, 0, 0.35))]),
          ("white", lambda m: quad(m, (0, -0.01, 0), (0.46, 0, 0), (0, 0, 0.31))),
          ("cloth", lambda m: quad(m, (-0.1, -0.012, -0.03), (0.2, 0, 0), (0, 0, 0.2))),
          ("orange", lambda m: quad(m, (0.14, -0.014, 0.06), (0.14, 0, 0), (0, 0, 0.13))))
    shade = arc((0, 0.16), 0.16, -90, 90, 14)
    shade[0], shade[-1] = (0, 0), (0, 0.32)
    write("interior", "lamp",
          ("lamp", lambda m: turned(m, shade, 28, (0, 0, 1.9))),
          ("metal", lambda m: turned(m, [(0.006, 0), (0.006, height - 2.2)], 8, (0, 0, 2.2))),
          ("metal", lambda m: turned(m, [(0.05, 0), (0.05, 0.03), (0, 0.03)], 16, (0, 0, height - 0.031))))


def turntable():
    def knot(t):
        r = 0.145 + 0.062 * math.cos(3 * t)
        return (r * math.cos(2 * t), r * math.sin(2 * t), 0.34 + 0.075 * math.sin(3 * t))

    def tube(model, radius=0.036, steps=150, sides=12):
        rings = []
        for k in range(steps):
            t = 2 * math.pi * k / steps
            tangent = unit(sub(knot(t + 1e-4), knot(t - 1e-4)))
            out = unit(cross(tangent, (0, 0, 1)))
            up = cross(out, tangent)
            rings.append([tuple(p + radius * (math.cos(a) * o + math.sin(a) * u) for p, o, u in zip(knot(t), out, up))
                          for a in (2 * math.pi * i / sides for i in range(sides))])
        for k in range(steps):
            for i in range(sides):
                here, there, j = rings[k], rings[(k + 1) % steps], (i + 1) % sides
                model.face([here[i], here[j], there[j], there[i]])

    write("turntable", "subject",
          ("subject", tube),
          ("base", lambda m: m.box((-0.13, -0.13, 0), (0.13, 0.13, 0.04), "-z")),
          ("base", lambda m: turned(m, [(0.035, 0.04), (0.022, 0.09), (0.022, 0.26)], 20)))

    def marks(model):
        for k in range(24):
            a, half = 2 * math.pi * k / 24, 0.004 if k else 0.012
            c, s = math.cos(a), math.sin(a)
            quad(model, (0.355 * c, 0.355 * s, -0.0195), (0.02 * c, 0.02 * s, 0), (-half * s, half * c, 0))

    plate = [(0.4, -0.05), (0.4, -0.026), (0.394, -0.02), (0, -0.02)]
    write("turntable", "stage",
          ("stage", lambda m: turned(m, [(3, 2.2), (2.9, 0.6), (2.3, 0.0), (1.8, -0.1), (0, -0.1)], 64)),
          ("plate", lambda m: turned(m, plate, 96)),
          ("plate", lambda m: turned(m, [(0.3, -0.1), (0.3, -0.05)], 64)),
          ("mark", marks))
    write("turntable", "lights",
          ("top_light", lambda m: turned(m, [(0, 2.0), (0.75, 2.0)], 32)),
          ("side_light", lambda m: [lamp(m, (2.0 * math.cos(a), 2.0 * math.sin(a), 1.2), (0, 0, 0.25), 0.5, 0.9)
                                    for a in (0.9, 3.0, 5.1)]))

    text = """# One camera for each 15 degrees of the turn. All of them, one after the other:
#
#   zephlore render FOLDER --camera all --output turn.png
#
# writes turn-turn000.png to turn-turn345.png. A film of them:
#
#   ffmpeg -framerate 12 -pattern_type glob -i 'turn-turn*.png' -pix_fmt yuv420p turn.mp4
"""
    for k in range(24):
        a = math.radians(15 * k)
        x, y = 1.85 * math.sin(a), -1.85 * math.cos(a)
        text += f"""
camera
    name "turn{15 * k:03}"
    resolution 720 720
    sample 48
    pose
        position {x:.4f} {y:.4f} 0.72
        target 0 0 0.19
        up_vector 0 0 1
        field_of_view 27
    end
end
"""
    (HERE / "turntable" / "camera").mkdir(parents=True, exist_ok=True)
    (HERE / "turntable" / "camera" / "cameras.zp").write_text(text, encoding="ascii")


for make in (studio, exterior, interior, turntable):
    (HERE / make.__name__ / "model").mkdir(parents=True, exist_ok=True)
    make()
