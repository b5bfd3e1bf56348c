"""Shapes for the generators of the shipped scenes. Standard library only; z is up."""

import math
import struct
import zlib


def sub(a, b):
    return tuple(x - y for x, y in zip(a, b))


def cross(a, b):
    return (a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0])


def unit(a):
    length = math.sqrt(sum(x * x for x in a)) or 1.0
    return tuple(x / length for x in a)


def text(value, digits):
    """The shortest decimal of at most so many digits."""
    short = f"{value:.{digits}f}".rstrip("0").rstrip(".")
    return "0" if short == "-0" else short


class Model:
    """Vertices, texture coordinates and normals, each written once, and faces that name them."""

    def __init__(self):
        self.positions, self.uvs, self.normals, self.lines = {}, {}, {}, []

    def index(self, table, value, digits):
        return table.setdefault(tuple(text(x, digits) for x in value), len(table) + 1)

    def shader(self, name):
        self.lines.append(f"usemtl {name}")

    def face(self, points, normals=None, uvs=None):
        """Corners counter-clockwise as seen from the front."""
        corners = [str(self.index(self.positions, p, 4)) for p in points]
        if uvs:
            corners = [f"{c}/{self.index(self.uvs, t, 4)}" for c, t in zip(corners, uvs)]
        if normals:
            gap = "/" if uvs else "//"
            corners = [f"{c}{gap}{self.index(self.normals, n, 3)}" for c, n in zip(corners, normals)]
        self.lines.append("f " + " ".join(corners))

    def box(self, low, high, skip=""):
        """Sides are named -x +x -y +y -z +z; those in `skip` are left out."""
        (x0, y0, z0), (x1, y1, z1) = low, high
        sides = {
            "-x": [(x0, y1, z0), (x0, y0, z0), (x0, y0, z1), (x0, y1, z1)],
            "+x": [(x1, y0, z0), (x1, y1, z0), (x1, y1, z1), (x1, y0, z1)],
            "-y": [(x0, y0, z0), (x1, y0, z0), (x1, y0, z1), (x0, y0, z1)],
            "+y": [(x1, y1, z0), (x0, y1, z0), (x0, y1, z1), (x1, y1, z1)],
            "-z": [(x0, y1, z0), (x1, y1, z0), (x1, y0, z0), (x0, y0, z0)],
            "+z": [(x0, y0, z1), (x1, y0, z1), (x1, y1, z1), (x0, y1, z1)],
        }
        for name, points in sides.items():
            if name not in skip.split():
                self.face(points)

    def grid(self, points, normals):
        """Rows of points; (row direction) x (column direction) looks to the front."""
        for r in range(len(points) - 1):
            for c in range(len(points[r]) - 1):
                at = [(r, c), (r + 1, c), (r + 1, c + 1), (r, c + 1)]
                self.face([points[i][j] for i, j in at], [normals[i][j] for i, j in at])

    def lathe(self, profile, segments):
        """Turns smooth runs of (radius, height), from bottom to top, around the z axis."""
        for run in profile:
            slopes = []
            for i in range(len(run)):
                a, b = run[max(i - 1, 0)], run[min(i + 1, len(run) - 1)]
                slopes.append(unit((b[1] - a[1], a[0] - b[0])))
            points, normals = [], []
            for k in range(segments + 1):
                angle = 2 * math.pi * (k % segments) / segments
                c, s = math.cos(angle), math.sin(angle)
                points.append([(r * c, r * s, z) for r, z in run])
                normals.append([(n * c, n * s, m) for n, m in slopes])
            self.grid(points, normals)

    def write(self, path):
        rows = [f"v {' '.join(p)}" for p in self.positions]
        rows += [f"vt {' '.join(t)}" for t in self.uvs]
        rows += [f"vn {' '.join(n)}" for n in self.normals]
        path.parent.mkdir(exist_ok=True)
        path.write_text("\n".join(rows + self.lines) + "\n", encoding="ascii")


def arc(center, radius, first, last, steps):
    """Points of a circle in the (radius, height) plane; angles in degrees."""
    angles = [math.radians(first + (last - first) * i / steps) for i in range(steps + 1)]
    return [(center[0] + radius * math.cos(a), center[1] + radius * math.sin(a)) for a in angles]


def write_png(path, width, height, pixel, curve=True):
    """`pixel(x, y)` gives red, green, blue in 0 to 1; row 0 is the top. With `curve` they are linear colours and
    written by the sRGB curve."""
    def byte(v):
        v = min(max(v, 0.0), 1.0)
        if not curve:
            return round(255 * v)
        return round(255 * (12.92 * v if v <= 0.0031308 else 1.055 * v ** (1 / 2.4) - 0.055))

    rows = b"".join(b"\0" + bytes(byte(v) for x in range(width) for v in pixel(x, y)) for y in range(height))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    path.parent.mkdir(exist_ok=True)
    path.write_bytes(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
                     + chunk(b"IDAT", zlib.compress(rows, 9)) + chunk(b"IEND", b""))


def smooth(points, steps):
    """A Catmull-Rom curve through points of any dimension."""
    padded = [points[0], *points, points[-1]]
    curve = []
    for i in range(len(points) - 1):
        a, b, c, d = padded[i:i + 4]
        for k in range(steps):
            t = k / steps
            curve.append(tuple(0.5 * (2 * q + (r - p) * t + (2 * p - 5 * q + 4 * r - s) * t**2
                                      + (3 * q - p - 3 * r + s) * t**3) for p, q, r, s in zip(a, b, c, d)))
    return curve + [points[-1]]
