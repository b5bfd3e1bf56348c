"""Evaluates Blender's node trees with numpy: constants, texture coordinates' grids, and all directions of a world.

Colours and vectors are arrays (n, 3), numbers are (n,). What a grid cannot know, such as the place in the world, is a
loss and takes a middle value.
"""

import math

import numpy as np

from . import losses, sky
from .pictures import pixels_of

LUMINANCE = np.array([0.2126, 0.7152, 0.0722], np.float32)


class Points:
    """Where a tree is evaluated: texture coordinates, or directions of a world."""

    def __init__(self, uv=None, directions=None, what=""):
        self.uv = uv
        self.directions = directions
        self.count = len(uv) if uv is not None else len(directions) if directions is not None else 1
        self.what = what
        self.varies = False  # a picture or a coordinate was asked
        self.size = 0  # of the largest picture, times its repeats
        self.uv_names = set()
        self.pictures = {}
        self.done = {}

    def miss(self, what):
        losses.note("%s: %s" % (self.what, what))


def spread(value, count):
    return np.broadcast_to(np.asarray(value, np.float32), (count,) + np.shape(value)).copy()


def as_number(value, kind):
    if value.ndim == 1:
        return value
    return value @ LUMINANCE if kind == "RGBA" else value.mean(axis=1)


def as_color(value):
    return np.repeat(value[:, None], 3, axis=1) if value.ndim == 1 else value


def source(socket, stack):
    """The output that an input takes its value from, and the groups around it; None if it is not linked."""
    while True:
        link = next((k for k in socket.links if k.is_valid and not k.is_muted), None)
        if link is None:
            return None, stack
        node, socket = link.from_node, link.from_socket
        if node.type == "REROUTE":
            socket = node.inputs[0]
        elif node.mute and node.inputs:
            inner = [k.from_socket for k in getattr(node, "internal_links", []) if k.to_socket == socket]
            if not inner:
                return socket, stack
            socket = inner[0]
        elif node.type == "GROUP_INPUT" and stack:
            socket = next((s for s in stack[-1].inputs if s.identifier == socket.identifier), None)
            stack = stack[:-1]
            if socket is None:
                return None, stack
        elif node.type == "GROUP" and node.node_tree:
            output = next((n for n in node.node_tree.nodes if n.type == "GROUP_OUTPUT" and n.is_active_output), None)
            inner = output and next((s for s in output.inputs if s.identifier == socket.identifier), None)
            if inner is None:
                return None, stack
            stack, socket = stack + (node,), inner
        else:
            return socket, stack
        if not socket.is_linked:
            return socket, stack


def plain(socket, count):
    """The value that stands in a socket."""
    value = getattr(socket, "default_value", 0.0)
    if isinstance(value, str):
        return spread(0.0, count)
    if hasattr(value, "__len__"):
        return spread(tuple(value)[:3], count)
    return spread(float(value), count)


def evaluate(socket, stack, at):
    """The value of an input at points, in the kind of the input: a number or three."""
    found, inner = source(socket, stack)
    if found is None:
        value, kind = plain(socket, at.count), socket.type
    elif not found.is_output:
        value, kind = plain(found, at.count), found.type
    else:
        key = (found.as_pointer(), inner)
        if key not in at.done:
            at.done[key] = output(found, inner, at)
        value, kind = at.done[key], found.type
    return as_number(value, kind) if socket.type in ("VALUE", "INT", "BOOLEAN") else as_color(value)


def by_name(node, *names):
    """The first enabled input of one of these names: those of several versions."""
    for name in names:
        for socket in node.inputs:
            if socket.name == name and getattr(socket, "enabled", True):
                return socket
    return None


def output(socket, stack, at):
    node = socket.node
    handler = HANDLERS.get(node.type)
    if handler is not None:
        value = handler(node, socket, lambda s: evaluate(s, stack, at), at)
        if value is not None:
            return value.astype(np.float32)
    at.miss("%s (%s) has no counterpart, a middle value takes its place" % (node.bl_label, socket.name))
    return spread(0.5 if socket.type != "RGBA" else (0.5, 0.5, 0.5), at.count)


# Coordinates and pictures


def coordinates(node, socket, value, at):
    name = socket.name
    if at.directions is not None and name in ("Generated", "Normal", "Position", "Incoming"):
        at.varies = True
        return -at.directions if name == "Incoming" else at.directions
    if at.uv is not None and (name == "UV" or node.type == "UVMAP"):
        at.varies = True
        at.uv_names.add(getattr(node, "uv_map", ""))
        return np.column_stack([at.uv, np.zeros(at.count, np.float32)])
    return None


def mapping(node, socket, value, at):
    vector = value(by_name(node, "Vector"))
    get = lambda name, default: value(by_name(node, name))[:1] if by_name(node, name) else np.array([default])
    place, turn, scale = get("Location", (0, 0, 0)), get("Rotation", (0, 0, 0))[0], get("Scale", (1, 1, 1))
    matrix = euler(turn)
    if node.vector_type == "TEXTURE":
        return ((vector - place) @ matrix) / np.where(scale == 0, 1, scale)
    vector = (vector * scale) @ matrix.T
    if node.vector_type == "POINT":
        return vector + place
    if node.vector_type == "NORMAL":
        vector = (value(by_name(node, "Vector")) / np.where(scale == 0, 1, scale)) @ matrix.T
        return vector / np.maximum(np.linalg.norm(vector, axis=1, keepdims=True), 1e-20)
    return vector


def euler(angles):
    (sx, sy, sz), (cx, cy, cz) = np.sin(angles), np.cos(angles)
    x = np.array([[1, 0, 0], [0, cx, -sx], [0, sx, cx]])
    y = np.array([[cy, 0, sy], [0, 1, 0], [-sy, 0, cy]])
    z = np.array([[cz, -sz, 0], [sz, cz, 0], [0, 0, 1]])
    return (z @ y @ x).astype(np.float32)


def read_picture(image, x, y, at, interpolation, clamp_y=False):
    """Colours and alpha at places in pixels, whose middles are at halves."""
    if image.name_full not in at.pictures:
        at.pictures[image.name_full] = pixels_of(image)
    pixels = at.pictures[image.name_full]
    if pixels is None:
        at.miss("image %s has no pixels" % image.name)
        return np.tile(np.float32([1, 0, 1, 1]), (at.count, 1))
    height, width = pixels.shape[:2]
    row = (lambda j: np.clip(j, 0, height - 1)) if clamp_y else (lambda j: j % height)
    if interpolation == "Closest":
        return pixels[row(np.floor(y).astype(int)), np.floor(x).astype(int) % width]
    left, low = np.floor(x - 0.5).astype(int), np.floor(y - 0.5).astype(int)
    fx, fy = (x - 0.5 - left)[:, None], (y - 0.5 - low)[:, None]
    mix = lambda j: (1 - fx) * pixels[row(j), left % width] + fx * pixels[row(j), (left + 1) % width]
    return (1 - fy) * mix(low) + fy * mix(low + 1)


def image_texture(node, socket, value, at):
    at.varies = True
    image = node.image
    if image is None:
        return spread((0, 0, 0) if socket.name == "Color" else 1.0, at.count)
    if at.uv is None:
        return None
    if node.projection != "FLAT":
        at.miss("image %s: projected as if by texture coordinates" % image.name)
    linked = node.inputs[0].is_linked
    uv = value(node.inputs[0])[:, :2] if linked else at.uv
    if not linked:
        at.uv_names.add("")
    repeats = 1
    if at.count > 1:
        repeats = max(1, int(round(float(np.max(uv.max(axis=0) - uv.min(axis=0))))))
    at.size = max(at.size, max(image.size) * repeats)
    result = read_picture(image, uv[:, 0] * image.size[0], uv[:, 1] * image.size[1], at, node.interpolation)
    return result[:, 3] if socket.name == "Alpha" else result[:, :3]


def environment_texture(node, socket, value, at):
    at.varies = True
    if node.image is None or at.directions is None:
        return None
    d = value(node.inputs[0]) if node.inputs[0].is_linked else at.directions
    d = d / np.maximum(np.linalg.norm(d, axis=1, keepdims=True), 1e-20)
    width, height = node.image.size
    at.size = max(at.size, width)
    if node.projection == "MIRROR_BALL":
        length = 2 * np.sqrt(np.maximum(0.5 * (1 - d[:, 1]), 1e-12))
        u, v = 0.5 * (d[:, 0] / length + 1), 0.5 * (d[:, 2] / length + 1)
    else:
        u = 0.5 - np.arctan2(d[:, 1], d[:, 0]) / (2 * math.pi)
        v = 0.5 + np.arctan2(d[:, 2], np.hypot(d[:, 0], d[:, 1])) / math.pi
    return read_picture(node.image, u * width, v * height, at, node.interpolation, True)[:, :3]


def sky_texture(node, socket, value, at):
    if at.directions is None:
        return None
    at.varies = True
    at.size = max(at.size, 1024)
    if node.sky_type not in ("NISHITA", "SINGLE_SCATTERING"):
        at.miss("the sky %s is one of light scattered once" % node.sky_type.replace("_", " ").title())
    told, turn = sky.settings_of(node)
    directions = value(node.inputs[0]) if len(node.inputs) and node.inputs[0].is_linked else at.directions
    return sky.table(*told).read(directions, turn)


def checker(node, socket, value, at):
    place = vector_of(node, value, at)
    if place is None:
        return None
    at.size = max(at.size, 1024)
    cells = np.floor(place * value(by_name(node, "Scale"))[:, None] * 0.999999 + 1e-6).astype(int).sum(axis=1)
    even = cells % 2 == 0
    if socket.name == "Fac":
        return even.astype(np.float32)
    return np.where(even[:, None], value(by_name(node, "Color1")), value(by_name(node, "Color2")))


def vector_of(node, value, at):
    socket = by_name(node, "Vector")
    if socket is not None and socket.is_linked:
        return value(socket)
    if at.directions is not None:
        at.varies = True
        return at.directions
    return None  # generated coordinates


def gradient(node, socket, value, at):
    place = vector_of(node, value, at)
    if place is None:
        return None
    at.size = max(at.size, 512)
    x, y = place[:, 0], place[:, 1]
    kind = node.gradient_type
    ball = np.maximum(0.999999 - np.linalg.norm(place, axis=1), 0)
    t = {"LINEAR": lambda: x, "QUADRATIC": lambda: np.maximum(x, 0) ** 2, "DIAGONAL": lambda: (x + y) / 2,
         "EASING": lambda: (lambda r: 3 * r * r - 2 * r ** 3)(np.clip(x, 0, 1)),
         "RADIAL": lambda: np.arctan2(y, x) / (2 * math.pi) + 0.5,
         "SPHERICAL": lambda: ball, "QUADRATIC_SPHERE": lambda: ball ** 2}[kind]()
    t = np.clip(t, 0, 1)
    return t if socket.name == "Fac" else as_color(t)


# Colours and numbers


def mix_colors(kind, a, b, t):
    safe = np.where(b == 0, 1, b)
    gray = lambda c: (c @ LUMINANCE)[:, None]
    table = {
        "MIX": lambda: b, "ADD": lambda: a + b, "MULTIPLY": lambda: a * b, "SUBTRACT": lambda: a - b,
        "SCREEN": lambda: 1 - (1 - a) * (1 - b), "DIVIDE": lambda: np.where(b == 0, a, a / safe),
        "DIFFERENCE": lambda: np.abs(a - b), "EXCLUSION": lambda: np.maximum(a + b - 2 * a * b, 0),
        "DARKEN": lambda: np.minimum(a, b), "LIGHTEN": lambda: np.maximum(a, b),
        "OVERLAY": lambda: np.where(a < 0.5, 2 * a * b, 1 - 2 * (1 - a) * (1 - b)),
        "SOFT_LIGHT": lambda: (1 - a) * b * a + a * (1 - (1 - b) * (1 - a)),
        "LINEAR_LIGHT": lambda: a + 2 * b - 1,
        "DODGE": lambda: np.where(b >= 1, 1, np.minimum(a / np.maximum(1 - b, 1e-6), 1)),
        "BURN": lambda: np.where(b <= 0, 0, np.clip(1 - (1 - a) / np.maximum(b, 1e-6), 0, 1)),
        "VALUE": lambda: a * gray(b) / np.maximum(gray(a), 1e-6),
    }
    if kind not in table:
        return None
    return a + t[:, None] * (table[kind]() - a)


def mix_rgb(node, socket, value, at):
    t = value(node.inputs[0])
    result = mix_colors(node.blend_type, value(node.inputs[1]), value(node.inputs[2]), np.clip(t, 0, 1))
    return np.clip(result, 0, 1) if result is not None and node.use_clamp else result


def mix(node, socket, value, at):
    """The node for numbers, vectors and colours of Blender 3.4 and later."""
    t = value(next(s for s in node.inputs if s.enabled and s.name == "Factor"))
    t = as_number(t, "VECTOR")
    t = np.clip(t, 0, 1) if node.clamp_factor else t
    a, b = (value(next(s for s in node.inputs if s.enabled and s.name == name)) for name in "AB")
    if node.data_type == "RGBA":
        result = mix_colors(node.blend_type, a, b, t)
        return np.clip(result, 0, 1) if result is not None and node.clamp_result else result
    return a + (t if a.ndim == 1 else t[:, None]) * (b - a)


def math_node(node, socket, value, at):
    a, b, c = (value(s) for s in list(node.inputs)[:3])
    whole = lambda x: np.where(x == 0, 1, x)
    table = {
        "ADD": lambda: a + b, "SUBTRACT": lambda: a - b, "MULTIPLY": lambda: a * b, "MULTIPLY_ADD": lambda: a * b + c,
        "DIVIDE": lambda: np.where(b == 0, 0, a / whole(b)), "POWER": lambda: np.nan_to_num(np.power(a, b)),
        "LOGARITHM": lambda: np.nan_to_num(np.log(np.maximum(a, 1e-20)) / np.log(np.maximum(b, 1e-20))),
        "SQRT": lambda: np.sqrt(np.maximum(a, 0)), "INVERSE_SQRT": lambda: 1 / np.sqrt(np.maximum(a, 1e-20)),
        "ABSOLUTE": lambda: np.abs(a), "EXPONENT": lambda: np.exp(a), "MINIMUM": lambda: np.minimum(a, b),
        "MAXIMUM": lambda: np.maximum(a, b), "LESS_THAN": lambda: a < b, "GREATER_THAN": lambda: a > b,
        "SIGN": lambda: np.sign(a), "COMPARE": lambda: np.abs(a - b) <= np.maximum(c, 1e-5),
        "ROUND": lambda: np.floor(a + 0.5), "FLOOR": lambda: np.floor(a), "CEIL": lambda: np.ceil(a),
        "TRUNC": lambda: np.trunc(a), "FRACT": lambda: a - np.floor(a), "MODULO": lambda: np.fmod(a, whole(b)),
        "WRAP": lambda: c + np.mod(a - c, whole(b - c)), "SNAP": lambda: np.floor(a / whole(b)) * b,
        "PINGPONG": lambda: np.abs(np.mod(a - b, whole(2 * b)) - b), "SINE": lambda: np.sin(a),
        "COSINE": lambda: np.cos(a), "TANGENT": lambda: np.tan(a), "ARCSINE": lambda: np.arcsin(np.clip(a, -1, 1)),
        "ARCCOSINE": lambda: np.arccos(np.clip(a, -1, 1)), "ARCTANGENT": lambda: np.arctan(a),
        "ARCTAN2": lambda: np.arctan2(a, b), "RADIANS": lambda: np.radians(a), "DEGREES": lambda: np.degrees(a),
    }
    if node.operation not in table:
        return None
    result = np.asarray(table[node.operation](), np.float32)
    return np.clip(result, 0, 1) if node.use_clamp else result


def vector_math(node, socket, value, at):
    a, b = value(node.inputs[0]), value(node.inputs[1])
    length = lambda v: np.linalg.norm(v, axis=1)
    table = {
        "ADD": lambda: a + b, "SUBTRACT": lambda: a - b, "MULTIPLY": lambda: a * b,
        "DIVIDE": lambda: np.where(b == 0, 0, a / np.where(b == 0, 1, b)), "CROSS_PRODUCT": lambda: np.cross(a, b),
        "DOT_PRODUCT": lambda: (a * b).sum(axis=1), "LENGTH": lambda: length(a), "DISTANCE": lambda: length(a - b),
        "NORMALIZE": lambda: a / np.maximum(length(a), 1e-20)[:, None], "ABSOLUTE": lambda: np.abs(a),
        "SCALE": lambda: a * value(by_name(node, "Scale"))[:, None], "FLOOR": lambda: np.floor(a),
        "FRACTION": lambda: a - np.floor(a), "MINIMUM": lambda: np.minimum(a, b), "MAXIMUM": lambda: np.maximum(a, b),
        "MULTIPLY_ADD": lambda: a * b + value(node.inputs[2]), "SINE": lambda: np.sin(a), "COSINE": lambda: np.cos(a),
    }
    return table[node.operation]() if node.operation in table else None


def color_ramp(node, socket, value, at):
    steps = 1024
    table = np.float32([node.color_ramp.evaluate(i / steps)[:] for i in range(steps + 1)])
    t = np.clip(value(node.inputs[0]), 0, 1) * steps
    low = np.minimum(t.astype(int), steps - 1)
    if node.color_ramp.interpolation == "CONSTANT":
        result = table[np.minimum(np.floor(t + 1e-4).astype(int), steps)]
    else:
        f = (t - low)[:, None]
        result = (1 - f) * table[low] + f * table[low + 1]
    return result[:, 3] if socket.name == "Alpha" else result[:, :3]


def curves(node, socket, value, at):
    share, color = value(node.inputs[0]), value(node.inputs[1])
    mapping_ = node.mapping
    mapping_.initialize()
    places = np.linspace(0, 1, 257)
    result = color
    for each in (mapping_.curves[3:4], mapping_.curves[:3]):
        tables = [[mapping_.evaluate(curve, float(x)) for x in places] for curve in each]
        result = np.column_stack([np.interp(result[:, i], places, tables[i % len(tables)]) for i in range(3)])
    return color + share[:, None] * (result - color)


def hue_saturation(node, socket, value, at):
    hue, saturation, bright = (value(by_name(node, name)) for name in ("Hue", "Saturation", "Value"))
    share, color = value(by_name(node, "Fac", "Factor")), value(by_name(node, "Color"))
    high, low = color.max(axis=1), color.min(axis=1)
    span = np.where(high == low, 1, high - low)
    r, g, b = color.T
    h = np.where(high == r, (g - b) / span, np.where(high == g, 2 + (b - r) / span, 4 + (r - g) / span)) / 6
    h = np.where(high == low, 0, h)
    s = np.where(high > 0, (high - low) / np.where(high > 0, high, 1), 0)
    h, s, v = np.mod(h + hue + 0.5, 1), np.clip(s * saturation, 0, 1), high * bright
    wheel = np.clip(np.abs(np.mod(h[:, None] * 6 + np.array([0, 4, 2]), 6) - 3) - 1, 0, 1)
    result = v[:, None] * (1 - s[:, None] * (1 - wheel))
    return np.maximum(color + share[:, None] * (result - color), 0)


def map_range(node, socket, value, at):
    if node.data_type != "FLOAT":
        return None
    x, a, b, c, d = (value(by_name(node, n)) for n in ("Value", "From Min", "From Max", "To Min", "To Max"))
    t = np.where(a == b, 0, (x - a) / np.where(a == b, 1, b - a))
    if node.interpolation_type in ("SMOOTHSTEP", "SMOOTHERSTEP"):
        t = np.clip(t, 0, 1)
        t = t * t * (3 - 2 * t) if node.interpolation_type == "SMOOTHSTEP" else t ** 3 * (t * (t * 6 - 15) + 10)
    elif node.clamp:
        t = np.clip(t, 0, 1)
    return c + t * (d - c)


def blackbody(node, socket, value, at):
    """By Planck's law; of luminance 1."""
    kelvin = np.clip(value(node.inputs[0]), 800, 25000)[:, None]
    xyz = sky.NM ** -5 / np.expm1(1.4388e7 / (sky.NM * kelvin)) @ sky.MATCHING.T
    return np.maximum((xyz / xyz[:, 1:2]) @ sky.TO_RGB.T, 0)


def bright_contrast(node, socket, value, at):
    color, bright, contrast = (value(by_name(node, n)) for n in ("Color", "Bright", "Contrast"))
    return np.maximum(color * (1 + contrast)[:, None] + (bright - contrast / 2)[:, None], 0)


def separate(node, socket, value, at):
    if getattr(node, "mode", "RGB") != "RGB":
        return None
    index = {"R": 0, "G": 1, "B": 2, "Red": 0, "Green": 1, "Blue": 2, "X": 0, "Y": 1, "Z": 2}[socket.name]
    return value(node.inputs[0])[:, index]


def combine(node, socket, value, at):
    if getattr(node, "mode", "RGB") != "RGB":
        return None
    return np.column_stack([value(s) for s in list(node.inputs)[:3]])


def light_path(node, socket, value, at):
    """What most rays see: those of the first hit."""
    at.miss("Light Path (%s) is taken as of rays from the camera" % socket.name)
    return spread(1.0 if socket.name == "Is Camera Ray" else 0.0, at.count)


def fresnel(node, socket, value, at):
    """Its mean over a half sphere of directions, by Schlick's form: F0 + (1 - F0) / 21."""
    at.miss("%s as a number is its mean over all directions" % node.bl_label)
    if node.type == "LAYER_WEIGHT":
        blend = value(by_name(node, "Blend"))
        if socket.name == "Facing":
            return np.clip(blend, 0, 1) * 2 / 3
        ior = 1 / np.maximum(1 - blend, 1e-5)
    else:
        ior = np.maximum(value(by_name(node, "IOR")), 1e-5)
    f0 = ((ior - 1) / (ior + 1)) ** 2
    return f0 + (1 - f0) / 21


def vertex_colors(node, socket, value, at):
    at.miss("colours of vertices (%s) are white" % (getattr(node, "layer_name", "") or node.bl_label))
    return spread(1.0 if socket.type == "VALUE" else (1, 1, 1), at.count)


def object_info(node, socket, value, at):
    return None if socket.name != "Random" else spread(0.5, at.count)


HANDLERS = {
    "TEX_COORD": coordinates, "UVMAP": coordinates, "NEW_GEOMETRY": coordinates, "MAPPING": mapping,
    "TEX_IMAGE": image_texture, "TEX_ENVIRONMENT": environment_texture, "TEX_SKY": sky_texture, "TEX_CHECKER": checker,
    "TEX_GRADIENT": gradient, "MIX_RGB": mix_rgb, "MIX": mix, "MATH": math_node, "VECT_MATH": vector_math,
    "VALTORGB": color_ramp, "CURVE_RGB": curves, "HUE_SAT": hue_saturation, "MAP_RANGE": map_range,
    "BLACKBODY": blackbody, "BRIGHTCONTRAST": bright_contrast, "SEPRGB": separate, "SEPARATE_COLOR": separate,
    "SEPXYZ": separate, "COMBRGB": combine, "COMBINE_COLOR": combine, "COMBXYZ": combine, "LIGHT_PATH": light_path,
    "FRESNEL": fresnel, "LAYER_WEIGHT": fresnel, "VERTEX_COLOR": vertex_colors, "ATTRIBUTE": vertex_colors,
    "OBJECT_INFO": object_info,
    "RGB": lambda node, socket, value, at: plain(node.outputs[0], at.count),
    "VALUE": lambda node, socket, value, at: plain(node.outputs[0], at.count),
    "GAMMA": lambda node, socket, value, at: np.maximum(value(node.inputs[0]), 0) ** value(node.inputs[1])[:, None],
    "INVERT": lambda node, socket, value, at: (lambda c, t: c + t[:, None] * (1 - 2 * c))(
        value(node.inputs[1]), value(node.inputs[0])),
    "RGBTOBW": lambda node, socket, value, at: value(node.inputs[0]) @ LUMINANCE,
    "CLAMP": lambda node, socket, value, at: np.clip(*(value(s) for s in list(node.inputs)[:3])),
}
