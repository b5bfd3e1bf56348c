"""Reads the OpenEXR files that zephlore writes: one part of scan lines, not compressed or by zlib."""

import struct
import zlib

import numpy as np

TYPES = {0: np.dtype("<u4"), 1: np.dtype("<f2"), 2: np.dtype("<f4")}
LINES_OF_BLOCK = {0: 1, 2: 1, 3: 16}  # no compression, a line, 16 lines


def _text(data, at):
    end = data.index(b"\0", at)
    return data[at:end].decode("utf-8"), end + 1


def _header(data):
    if data[:4] != b"\x76\x2f\x31\x01" or data[5] & 0x1A:
        raise ValueError("no OpenEXR file of one part of scan lines")
    attributes, at = {}, 8
    while data[at]:
        name, at = _text(data, at)
        kind, at = _text(data, at)
        size = struct.unpack_from("<i", data, at)[0]
        attributes[name] = data[at + 4:at + 4 + size]
        at += 4 + size
    return attributes, at + 1


def _channels(value):
    channels, at = [], 0
    while value[at]:
        name, at = _text(value, at)
        channels.append((name, TYPES[struct.unpack_from("<i", value, at)[0]]))
        at += 16
    return channels


def _unzip(block, size):
    """The inverse of OpenEXR's predictor and of its interleaving. A block that did not get smaller is kept as it is."""
    if len(block) == size:
        return np.frombuffer(block, np.uint8)
    steps = np.frombuffer(zlib.decompress(block), np.uint8).astype(np.int64)
    steps[1:] -= 128
    halves = np.cumsum(steps).astype(np.uint8)
    result = np.empty(size, np.uint8)
    middle = (size + 1) // 2
    result[0::2] = halves[:middle]
    result[1::2] = halves[middle:]
    return result


def read(path):
    """The channels of a file by name, as float arrays of rows from the top, and its attributes as bytes.

    ValueError, or struct.error, for a file of another kind or a damaged one.
    """
    with open(path, "rb") as file:
        data = file.read()
    attributes, at = _header(data)
    channels = _channels(attributes["channels"])
    compression = attributes["compression"][0]
    if compression not in LINES_OF_BLOCK:
        raise ValueError("a compression that is not read")
    left, top, right, bottom = struct.unpack("<4i", attributes["dataWindow"])
    width, height = right - left + 1, bottom - top + 1
    lines = LINES_OF_BLOCK[compression]
    count = (height + lines - 1) // lines
    line_size = width * sum(kind.itemsize for _, kind in channels)
    pictures = {name: np.zeros((height, width), np.float32) for name, _ in channels}
    for offset in struct.unpack_from("<%dQ" % count, data, at):
        y, size = struct.unpack_from("<2i", data, offset)
        rows = min(lines, bottom - y + 1)
        block = data[offset + 8:offset + 8 + size]
        block = _unzip(block, rows * line_size) if compression else np.frombuffer(block, np.uint8)
        block, start = block.reshape(rows, line_size), 0
        for name, kind in channels:
            end = start + width * kind.itemsize
            pictures[name][y - top:y - top + rows] = np.ascontiguousarray(block[:, start:end]).view(kind)
            start = end
    return pictures, attributes
