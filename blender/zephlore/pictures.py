"""Picture files for the scene: what Blender holds as pixels, and what textures were baked to."""

import os
import struct
import tempfile
import zlib
from pathlib import Path

import bpy
import numpy as np

from . import losses


def to_linear(c):
    """sRGB to linear light, of an array from 0 to 1."""
    return np.where(c <= 0.04045, c / 12.92, ((np.maximum(c, 0) + 0.055) / 1.055) ** 2.4).astype(np.float32)


def write_hdr(path, colors):
    """A Radiance picture of colours (rows from the bottom, columns, 3), rounded to eight bits and an exponent."""
    largest = np.maximum(colors.max(axis=2), 0)
    mantissa, exponent = np.frexp(largest)
    exponent = np.where(mantissa * 256 >= 255.5, exponent + 1, exponent)
    scaled = np.ldexp(np.maximum(colors, 0), (8 - exponent)[..., None])
    pixels = np.empty(colors.shape[:2] + (4,), np.uint8)
    pixels[..., :3] = np.clip(np.rint(scaled), 0, 255)
    pixels[..., 3] = np.clip(exponent + 128, 0, 255)
    pixels[largest < 1e-32] = 0
    with open(path, "wb") as file:
        file.write(b"#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y %d +X %d\n" % colors.shape[:2])
        file.write(pixels[::-1].tobytes())


def write_png(path, numbers, bits):
    """A PNG of numbers from 0 to 1 (rows from the bottom, columns, and 3 channels or none)."""
    full = (1 << bits) - 1
    whole = np.rint(np.clip(numbers, 0, 1) * full).astype(np.uint8 if bits == 8 else ">u2")[::-1]
    height, width = whole.shape[:2]
    rows = np.ascontiguousarray(whole).view(np.uint8).reshape(height, -1)
    data = zlib.compress(np.hstack([np.zeros((height, 1), np.uint8), rows]).tobytes(), 1)

    def chunk(kind, content):
        return struct.pack(">I", len(content)) + kind + content + struct.pack(">I", zlib.crc32(kind + content))

    header = struct.pack(">2I5B", width, height, bits, 2 if numbers.ndim == 3 else 0, 0, 0, 0)
    with open(path, "wb") as file:
        file.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", data) + chunk(b"IEND", b""))


def pixels_of(image):
    """Linear colours and alpha of an image, rows from the bottom: (height, width, 4). None without pixels."""
    width, height = image.size
    if not width or not height or image.channels not in (1, 3, 4):
        return None
    flat = np.empty(width * height * image.channels, np.float32)
    try:
        image.pixels.foreach_get(flat)
    except (RuntimeError, TypeError):
        return None
    flat = flat.reshape(height, width, image.channels)
    pixels = np.ones((height, width, 4), np.float32)
    pixels[..., :max(image.channels, 3)] = flat  # a lone channel is grey
    if not image.is_float and is_srgb(image):
        pixels[..., :3] = to_linear(pixels[..., :3])
    if image.file_format == "HDR" and image.source == "FILE" and not image.is_dirty:
        # Blender's own reader takes each byte for the middle of its step, Cycles' for its beginning.
        largest = pixels[..., :3].max(axis=2)
        half = np.ldexp(0.5, np.frexp(largest)[1] - 8) * (largest > 0)
        pixels[..., :3] -= half[..., None].astype(np.float32)
    return pixels


def is_srgb(image):
    name = image.colorspace_settings.name
    if name in ("sRGB", "Filmic sRGB"):
        return True
    if name not in ("Non-Color", "Raw", "Linear") and not name.startswith("Linear"):
        losses.note("image %s: its colour space %s is read as sRGB" % (image.name, name))
        return True
    return False


class Cache:
    """Picture files of Blender's images, kept while Blender runs: they are made anew only when an image changes."""

    def __init__(self):
        self.folder = None
        self.files = {}

    def path(self, name):
        if self.folder is None:
            self.folder = tempfile.TemporaryDirectory(prefix="zephlore-pictures-", dir=bpy.app.tempdir or None)
        return Path(self.folder.name) / name

    def file(self, image, part):
        """The file of an image's "color" or "alpha"; None without pixels."""
        source = bpy.path.abspath(image.filepath, library=image.library) if image.filepath else ""
        stamp = os.stat(source).st_mtime_ns if os.path.isfile(source) else 0
        key = (image.name_full, part)
        state = (stamp, tuple(image.size), image.colorspace_settings.name, image.source, image.alpha_mode)
        known = self.files.get(key)
        still = not image.is_dirty and image.source in ("FILE", "TILED")
        if known and known[0] == state and still:
            return known[1]
        pixels = pixels_of(image)
        if pixels is None:
            return None
        exact = not image.is_float and (part == "alpha" or not is_srgb(image))
        number = known[1].stem if known else str(len(self.files))
        path = self.path(number + (".png" if exact or part == "alpha" else ".hdr"))
        if part == "alpha":
            write_png(path, pixels[..., 3], 8 if exact else 16)
        elif exact:
            write_png(path, pixels[..., :3], 8)
        else:
            write_hdr(path, pixels[..., :3])
        self.files[key] = (state, path)
        return path

    def drop(self):
        if self.folder is not None:
            self.folder.cleanup()
        self.__init__()


cache = Cache()
