"""Values of a material: numbers, pictures as they are, or pictures that are baked of node trees."""

import os
import shutil
from pathlib import Path

import numpy as np

from . import nodes, pictures

CHANNELS = {"R": 0, "G": 1, "B": 2, "Red": 0, "Green": 1, "Blue": 2}


class Value:
    """Something that a material says at each of its points: `at` makes it for Points, (n,) or (n, 3).

    `picture` tells the same as keywords of an element block, where a picture file alone can say it.
    """

    def __init__(self, at, picture=None):
        self.at = at
        self.picture = picture


def constant(value):
    return Value(lambda points: nodes.spread(value, points.count))


def linked(socket, stack):
    """The value of a node's input."""
    return Value(lambda points: nodes.evaluate(socket, stack, points), picture_of(socket, stack))


def _pair(a, b):
    if a.ndim == b.ndim:
        return a, b
    return nodes.as_color(a), nodes.as_color(b)


def _both(a, b, how):
    return Value(lambda points: how(*_pair(a.at(points), b.at(points))))


def product(a, b):
    result = _both(a, b, lambda x, y: x * y)
    for one, other in ((a, b), (b, a)):
        factor = number(one)
        if factor is not None and other.picture:
            told = dict(other.picture)
            told["color"] = tuple(np.asarray(told["color"]) * factor)
            result.picture = told
    return result


def sum_of(values):
    total = values[0]
    for value in values[1:]:
        total = _both(total, value, lambda x, y: x + y)
    return total


def quotient(a, b):
    return _both(a, b, lambda x, y: x / np.maximum(y, 1e-6))


def rest(a):
    """1 - a."""
    result = Value(lambda points: 1 - a.at(points))
    if a.picture and "color_matrix" not in a.picture and tuple(a.picture["color"]) == (1, 1, 1):
        result.picture = dict(a.picture, color_matrix=(-1, 0, 0, 1, 0, -1, 0, 1, 0, 0, -1, 1, 0, 0, 0, 1))
    return result


def squared(a):
    result = Value(lambda points: a.at(points) ** 2)
    if a.picture and a.picture.get("channel_only", "color_matrix" not in a.picture):
        result.picture = dict(a.picture, gamma=2, color=tuple(np.square(a.picture["color"])))
    return result


def number(value):
    """A value that is the same everywhere, three or one; None if it varies."""
    points = nodes.Points(uv=np.float32([[0.3, 0.7], [0.6, 0.2]]))
    miss, points.miss = points.miss, lambda what: None
    found = value.at(points)
    points.miss = miss
    return None if points.varies else found[0]


def is_black(value):
    found = number(value)
    return found is not None and not np.any(found)


def is_one(value):
    found = number(value)
    return found is not None and bool(np.all(found == 1))


def mean(value, what):
    """One number or colour for what takes no picture."""
    side = (np.arange(16, dtype=np.float32) + 0.5) / 16
    points = nodes.Points(uv=np.stack(np.meshgrid(side, side), axis=-1).reshape(-1, 2), what=what)
    found = value.at(points)
    if points.varies:
        points.miss("a picture stands where one number must do: its mean")
    return found.mean(axis=0)


def picture_of(socket, stack):
    """Keywords of an element block for an input that is one image, placed by texture coordinates; else None."""
    found, inner = nodes.source(socket, stack)
    if found is None or not found.is_output:
        return None
    channel = None
    if found.node.type in ("SEPRGB", "SEPARATE_COLOR") and getattr(found.node, "mode", "RGB") == "RGB":
        channel = CHANNELS[found.name]
        found, inner = nodes.source(found.node.inputs[0], inner)
        if found is None:
            return None
    node = found.node
    if node.type != "TEX_IMAGE" or node.image is None or node.projection != "FLAT":
        return None
    if node.extension != "REPEAT" and node.inputs[0].is_linked:
        return None
    place = uv_matrix(node, inner)
    path = pictures.cache.file(node.image, "alpha" if found.name == "Alpha" else "color") if place is not None else None
    if path is None:
        return None
    told = {"color": (1, 1, 1), "image": str(path)}
    width, height = node.image.size
    to_corner = np.array([[1, 0, -0.5 / width], [0, 1, -0.5 / height], [0, 0, 1]])
    if node.interpolation == "Closest":
        told["nearest"], to_corner = True, np.eye(3)
    told["uv_matrix"] = tuple((to_corner @ place).ravel())
    if channel is None and socket.type != "RGBA" and found.name == "Color":
        told["color_matrix"] = tuple(nodes.LUMINANCE) + (0,)
    elif channel is not None:
        told["color_matrix"] = tuple(float(i == channel) for i in range(4))
    if "color_matrix" in told:
        told["channel_only"] = channel is not None
        told["color_matrix"] = tuple(told["color_matrix"]) * 3 + (0, 0, 0, 1)
    return told


def uv_matrix(node, stack):
    """From texture coordinates to those of an image; None if no matrix tells it."""
    found, inner = nodes.source(node.inputs[0], stack)
    if found is None:
        return np.eye(3)
    corners = np.float32([[0, 0], [1, 0], [0, 1]])
    if found.node.type in ("TEX_COORD", "UVMAP"):
        return np.eye(3) if found.name == "UV" else None
    if found.node.type != "MAPPING" or found.node.vector_type == "NORMAL":
        return None
    vector = nodes.by_name(found.node, "Vector")
    way, _ = nodes.source(vector, inner)
    if way is None or way.node.type not in ("TEX_COORD", "UVMAP") or way.name != "UV":
        return None
    if any(s.is_linked for s in found.node.inputs if s != vector):
        return None
    p = nodes.evaluate(node.inputs[0], stack, nodes.Points(uv=corners))[:, :2]
    return np.vstack([np.column_stack([p[1] - p[0], p[2] - p[0], p[0]]), [0, 0, 1]])


class Baker:
    """Turns values into keywords of element blocks; writes pictures of those that no file says into a folder."""

    def __init__(self, folder, largest):
        self.folder = folder
        self.largest = largest
        self.count = 0
        self.uv_names = {}  # of each material, the texture coordinates that it asks for

    def element(self, value, what):
        points = nodes.Points(uv=np.float32([[0.3, 0.7], [0.6, 0.2], [0.1, 0.1]]), what=what)
        found = value.at(points)
        if not points.varies:
            return {"color": tuple(float(v) for v in np.broadcast_to(found[0], 3))}
        self.uv_names.setdefault(what, set()).update(points.uv_names)
        if value.picture:
            return dict(value.picture, image=self.bring(Path(value.picture["image"])))
        return self.save(self.grid(value, points.size, what))

    def bring(self, path):
        """The name of a picture in the scene's folder, which it is put into without another copy where that works."""
        target = self.folder / ("picture-" + path.name)
        if not target.exists():
            try:
                os.link(path, target)
            except OSError:
                shutil.copyfile(path, target)
        return target.name

    def grid(self, value, size, what):
        """The value at corners of texels, rows from the bottom. Rows by rows, lest memory runs out."""
        size = int(np.clip(size, 64, self.largest)) if size else 512
        across = np.arange(size, dtype=np.float32) / size
        rows, step, pixels = [], max(1, (1 << 20) // size), {}
        for first in range(0, size, step):
            u, v = np.meshgrid(across, across[first:first + step])
            points = nodes.Points(uv=np.column_stack([u.ravel(), v.ravel()]), what=what)
            points.pictures = pixels
            rows.append(value.at(points).reshape((len(v), size, -1)))
        return np.concatenate(rows)

    def save(self, numbers):
        self.count += 1
        if numbers.shape[2] == 3:
            path = self.folder / ("%d.hdr" % self.count)
            pictures.write_hdr(path, numbers)
            return {"color": (1, 1, 1), "image": path.name}
        largest = max(1.0, float(numbers.max()))
        path = self.folder / ("%d.png" % self.count)
        pictures.write_png(path, numbers[..., 0] / largest, 16)
        return {"color": (largest,) * 3, "image": path.name}

    def normal(self, directions):
        """Of unit vectors (rows, columns, 3) in the frame of tangent, bitangent and normal."""
        self.count += 1
        path = self.folder / ("%d.png" % self.count)
        pictures.write_png(path, directions * 0.5 + 0.5, 16)
        return {"color": (1, 1, 1), "image": path.name,
                "color_matrix": (2, 0, 0, -1, 0, 2, 0, -1, 0, 0, 2, -1, 0, 0, 0, 1)}


def write_element(text, name, told):
    with text.block(name):
        text.triple("color", told["color"])
        if "image" not in told:
            return
        text.say("image", '"%s"' % told["image"])
        with text.block("sampler"):
            if told.get("nearest"):
                text.say("pixel_sampler", '"nearest"')
            for keyword in ("gamma", "uv_matrix", "color_matrix"):
                if keyword in told:
                    values = told[keyword]
                    text.say(keyword, *(float(v) for v in (values if keyword != "gamma" else [values])))
