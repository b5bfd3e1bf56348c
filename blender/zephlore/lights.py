"""Lamps and the world: from watts, strengths and angles to colours of the scene."""

import math

import mathutils
import numpy as np

from . import losses, nodes, pictures, shaders, sky, values
from .text import quoted

NORTH, ZENITH = mathutils.Vector((0, 1, 0)), mathutils.Vector((0, 0, 1))


def light_color(light):
    """The colour of a lamp by its own settings and by the Emission node of its tree."""
    color = np.array(light.color[:3], np.float64)
    if light.use_nodes and light.node_tree:
        out = next((n for n in light.node_tree.nodes if n.type == "OUTPUT_LIGHT" and n.is_active_output), None)
        found, inner = nodes.source(out.inputs[0], ()) if out else (None, ())
        if found is not None and found.node.type == "EMISSION":
            told = shaders.Inputs(found.node, inner)
            color *= values.mean(values.product(told("Color"), told("Strength")), light.name)
        elif found is not None:
            losses.note("%s: of the light's nodes only an Emission counts" % light.name)
    if getattr(light, "use_temperature", False):
        color *= np.array(light.temperature_color)
    return color * 2.0 ** getattr(light, "exposure", 0.0)


def say_light(text, color, group, **told):
    text.triple("color", color)
    if group:
        text.say("group", quoted(group))
    for keyword, value in told.items():
        if isinstance(value, (int, float)):
            text.say(keyword, value)
        else:
            text.triple(keyword, value)
    text.say("offset", 0)


def point(text, light, matrix, group):
    """Watts P shine with the intensity P / (4 pi) W/sr: a colour of P / (4 pi^2)."""
    color = light_color(light) * light.energy / (4 * math.pi**2)
    with text.block("point_light"):
        say_light(text, color, group, position=matrix.translation, blur=float(light.shadow_soft_size),
                  inner_angle=180.0, outer_angle=181.0)


def sun(text, light, matrix, group):
    """A strength is an irradiance in W/m2: a colour of S / pi."""
    with text.block("parallel_light"):
        say_light(text, light_color(light) * light.energy / math.pi, group, direction=-matrix.col[2].xyz,
                  blur=math.degrees(light.angle) / 2)


def spot_ramps(half, blend):
    """(inner angle, outer angle, share) of cones that add up to a spot: the cosine, times a smooth rim.

    Angles in radians. Each cone falls evenly between its angles, so that their sum goes straight between knots.
    """
    rim = (1 - math.cos(half)) * blend
    edge = math.acos(min(math.cos(half) + rim, 1.0))
    knots = [0.0]
    pieces = 1 if math.cos(edge) > 0.9 else 2
    knots += [edge * (i + 1) / pieces for i in range(pieces)] if edge > 1e-3 else []
    knots.append(half)
    ramps = []
    for a, b in zip(knots, knots[1:]):
        drop = math.cos(a) - (math.cos(b) if b < half else 0.0)
        ramps.append((a, max(b, a + 1e-4), drop))
    return ramps


def spot(text, light, matrix, group):
    """As bright along its axis as a point light of the same watts, whatever its angle."""
    color = light_color(light) * light.energy / (4 * math.pi**2)
    for inner, outer, share in spot_ramps(light.spot_size / 2, light.spot_blend):
        with text.block("point_light"):
            say_light(text, color * share, group, position=matrix.translation, blur=float(light.shadow_soft_size),
                      direction=-matrix.col[2].xyz, inner_angle=math.degrees(inner), outer_angle=math.degrees(outer))


def area(exporter, light, matrix, visible, group):
    """A surface of the radiance P / (4 A), A its area in the scene."""
    across = light.size
    down = light.size_y if light.shape in ("RECTANGLE", "ELLIPSE") else light.size
    sides = matrix.col[0].xyz.length * across, matrix.col[1].xyz.length * down
    surface = sides[0] * sides[1]
    round_ = light.shape in ("DISK", "ELLIPSE")
    if round_:
        surface *= math.pi / 4
    if surface <= 0:
        losses.note("%s: an area light without area is left out" % light.name)
        return
    if getattr(light, "spread", math.pi) < math.pi - 1e-3:
        losses.note("%s: the light spreads over the whole half sphere" % light.name)
    color = light_color(light) * light.energy / (4 * surface)
    turned = matrix @ mathutils.Matrix.Diagonal((across, down, 1, 1))
    exporter.place_lamp("disk" if round_ else "square", turned, light, color, visible, group)


LAMP_CORNERS = 64


def write_lamps(folder):
    """Models of area lights, one unit across, that face -z."""
    square = [(-0.5, -0.5), (-0.5, 0.5), (0.5, 0.5), (0.5, -0.5)]
    turn = [2 * math.pi * i / LAMP_CORNERS for i in range(LAMP_CORNERS)]
    # As large as the disk it stands for.
    radius = 0.5 * math.sqrt(2 * math.pi / (LAMP_CORNERS * math.sin(2 * math.pi / LAMP_CORNERS)))
    disk = [(radius * math.sin(a), radius * math.cos(a)) for a in turn]
    for name, rim in (("square", square), ("disk", disk)):
        lines = ["v %.9g %.9g 0" % corner for corner in rim]
        if name == "disk":
            lines += ["v 0 0 0"] + ["f %d %d %d" % (LAMP_CORNERS + 1, i + 1, (i + 1) % LAMP_CORNERS + 1)
                                    for i in range(LAMP_CORNERS)]
        else:
            lines.append("f 1 2 3 4")
        (folder / ("lamp-%s.obj" % name)).write_text("\n".join(lines) + "\n")


def world(text, scene, folder, baker, group):
    """The sky: one colour, one picture as it is, or any tree of nodes, baked over all directions."""
    out = world_output(scene.world)
    sun_disc(text, out, group)
    with text.block("sky_light"):
        if group:
            text.say("group", quoted(group))
        if out is None:
            color = scene.world.color if scene.world and not scene.world.use_nodes else (0, 0, 0)
            text.triple("color", color)
            return
        if out.inputs["Volume"].is_linked:
            losses.note("%s: the volume of the world is left out" % scene.world.name)
        value = background(out.inputs["Surface"], (), scene.world.name)
        points = nodes.Points(directions=np.float32([[1, 0, 0], [0, 0.6, 0.8], [0, 0.6, -0.8]]), what=scene.world.name)
        found = nodes.as_color(value.at(points))
        if not points.varies:
            text.triple("color", found[0])
            return
        direct = as_map(out, folder)
        if direct is None:
            bake(value, points.size, folder, scene.world.name, baker)
            direct = ((1, 1, 1), NORTH, ZENITH)
        color, north, zenith = direct
        text.triple("color", color)
        text.say("image", quoted("world.hdr"))
        text.triple("north", north)
        text.triple("zenith", zenith)


def world_output(told):
    if told is None or not told.use_nodes or told.node_tree is None:
        return None
    return next((n for n in told.node_tree.nodes if n.type == "OUTPUT_WORLD" and n.is_active_output), None)


def sun_disc(text, out, group):
    """The sun of a Sky Texture, as a light: a picture is too coarse for it, and cameras do not see it."""
    found, inner = nodes.source(out.inputs["Surface"], ()) if out else (None, ())
    if found is None or found.node.type != "BACKGROUND":
        return
    told = shaders.Inputs(found.node, inner)
    strength = values.number(told("Strength"))
    texture, _ = nodes.source(told.socket("Color"), inner)
    node = texture.node if texture is not None else None
    if node is None or node.type != "TEX_SKY" or strength is None or not getattr(node, "sun_disc", False) \
            or node.sky_type in ("PREETHAM", "HOSEK_WILKIE"):
        return
    (elevation, air, dust, ozone, altitude), turn = sky.settings_of(node)
    if elevation <= 0:
        return
    light = sky.sun_irradiance(elevation, sky.Air(air, dust, ozone), altitude) * node.sun_intensity * float(strength)
    with text.block("parallel_light"):
        way = (-math.sin(turn) * math.cos(elevation), -math.cos(turn) * math.cos(elevation), -math.sin(elevation))
        say_light(text, light / math.pi, group, direction=way, blur=math.degrees(node.sun_size) / 2)


def background(socket, stack, what):
    """The radiance of a world's surface."""
    black = values.constant((0.0, 0.0, 0.0))
    found, inner = nodes.source(socket, stack)
    if found is None or not found.is_output:
        return black
    node = shaders.Inputs(found.node, inner)
    if found.node.type in ("BACKGROUND", "EMISSION"):
        return values.product(node("Color"), node("Strength"))
    if found.node.type == "MIX_SHADER":
        share = values.linked(found.node.inputs[0], inner)
        one, other = (background(s, inner, what) for s in list(found.node.inputs)[1:3])
        return values.sum_of([values.product(one, values.rest(share)), values.product(other, share)])
    if found.node.type == "ADD_SHADER":
        return values.sum_of([background(s, inner, what) for s in list(found.node.inputs)[:2]])
    losses.note("%s: %s is left out" % (what, found.node.bl_label))
    return black


def as_map(out, folder):
    """Writes the one picture of a world, if it is no more, and tells its factor, north and zenith.

    Blender's texels stand for their middles, those of a scene for their corners: a turn by half a texel moves the
    columns, and rows between those of the picture stand for the others, so that all that lies between is the same.
    """
    found, inner = nodes.source(out.inputs["Surface"], ())
    if found is None or found.node.type != "BACKGROUND":
        return None
    strength = values.number(values.linked(found.node.inputs["Strength"], inner))
    picture, _ = nodes.source(found.node.inputs["Color"], inner)
    if strength is None or picture is None or picture.node.type != "TEX_ENVIRONMENT":
        return None
    node = picture.node
    if node.image is None or node.projection != "EQUIRECTANGULAR" or node.interpolation == "Closest":
        return None
    turn = mathutils.Matrix.Identity(3)
    way, _ = nodes.source(node.inputs[0], inner)
    if way is not None and way.node.type == "MAPPING":
        vector = way.node.inputs["Vector"]
        plain = [s for s in way.node.inputs if s != vector and s.is_linked] == []
        beyond, _ = nodes.source(vector, inner)
        unmoved = way.node.vector_type in ("POINT", "VECTOR") and all(
            tuple(way.node.inputs[n].default_value) == v for n, v in (("Location", (0, 0, 0)), ("Scale", (1, 1, 1)))
            if n in way.node.inputs and not (n == "Location" and way.node.vector_type == "VECTOR"))
        if not plain or not unmoved or (beyond is not None and beyond.name != "Generated"):
            return None
        turn = mathutils.Euler(way.node.inputs["Rotation"].default_value).to_matrix().transposed()
    elif way is not None and way.name != "Generated":
        return None
    pixels = pictures.pixels_of(node.image)
    if pixels is None:
        return None
    middle = pixels[..., :3]
    between = np.concatenate([middle[:1], (middle[:-1] + middle[1:]) / 2])
    doubled = np.stack([between, middle], axis=1).reshape(-1, *middle.shape[1:])
    pictures.write_hdr(folder / "world.hdr", doubled)
    turn = turn @ mathutils.Matrix.Rotation(-math.pi / middle.shape[1], 3, "Z")
    return (float(strength),) * 3, turn @ NORTH, turn @ ZENITH


def bake(value, size, folder, what, baker):
    """The radiance of all directions at corners of texels."""
    width = int(np.clip(size, 256, 2 * baker.largest)) if size else 1024
    height, rows, loaded = width // 2, [], {}
    turn = math.pi * (1 - 2 * np.arange(width) / width)
    step = max(1, (1 << 19) // width)
    for first in range(0, height, step):
        rise = math.pi * (np.arange(first, min(first + step, height)) / height - 0.5)
        a, b = np.meshgrid(turn, rise)
        directions = np.stack([np.cos(b) * np.cos(a), np.cos(b) * np.sin(a), np.sin(b)], axis=-1)
        points = nodes.Points(directions=directions.reshape(-1, 3).astype(np.float32), what=what)
        points.pictures = loaded
        rows.append(nodes.as_color(value.at(points)).reshape(len(rise), width, 3))
    pictures.write_hdr(folder / "world.hdr", np.concatenate(rows))
