"""Models: meshes to OBJ files, strands to hair files."""

import struct

import numpy as np

CHUNK = 1 << 16  # lines made at once


def numbers(collection, attribute, kind, width=1):
    """An attribute of all elements of one of Blender's collections."""
    found = np.empty(len(collection) * width, kind)
    collection.foreach_get(attribute, found)
    return found.reshape(-1, width) if width > 1 else found


def rows(file, line, table):
    """Writes a line of text for each row of numbers."""
    for first in range(0, len(table), CHUNK):
        part = table[first:first + CHUNK]
        file.write((line * len(part)) % tuple(part.ravel().tolist()))


class Mesh:
    """The faces of an evaluated mesh, ready to be written, once or with the vertices of another instant."""

    def __init__(self, mesh, shader_names, uv_names):
        self.shader_names = shader_names
        self.counts = (len(mesh.vertices), len(mesh.loops), len(mesh.polygons))
        self.positions = numbers(mesh.vertices, "co", np.float32, 3)
        corners = numbers(mesh.loops, "vertex_index", np.int32)
        smooth = numbers(mesh.polygons, "use_smooth", np.bool_) if self.counts[2] else np.zeros(0, bool)
        self.normals, of_corner = self.corner_normals(mesh, corners) if smooth.any() else (None, None)
        self.uvs, uv_of_corner = self.texture_coordinates(mesh, uv_names)
        columns = [corners]
        if self.uvs is not None:
            columns.append(uv_of_corner)
        self.faces = []  # shader, corners, whether with normals, table of 1-based numbers
        starts = numbers(mesh.polygons, "loop_start", np.int32)
        totals = numbers(mesh.polygons, "loop_total", np.int32)
        materials = np.clip(numbers(mesh.polygons, "material_index", np.int32), 0, len(shader_names) - 1)
        triangles, owners = self.split(mesh, totals)
        for material in np.unique(materials):
            for is_smooth in (False, True):
                chosen = (materials == material) & (smooth == is_smooth)
                for size in (3, 4):
                    first = starts[chosen & (totals == size)]
                    self.add(material, is_smooth, first[:, None] + np.arange(size), columns, of_corner)
                if len(triangles):
                    self.add(material, is_smooth, triangles[chosen[owners]], columns, of_corner)

    def split(self, mesh, totals):
        """Corners of the triangles of faces with five corners and more, and those faces."""
        if not len(totals) or totals.max() <= 4:
            return np.zeros((0, 3), np.int32), np.zeros(0, np.int32)
        mesh.calc_loop_triangles()
        owners = numbers(mesh.loop_triangles, "polygon_index", np.int32)
        triangles = numbers(mesh.loop_triangles, "loops", np.int32, 3)
        large = totals[owners] > 4
        return triangles[large], owners[large]

    def corner_normals(self, mesh, corners):
        """Normals and which of them each corner has; one a vertex where its corners agree."""
        if hasattr(mesh, "calc_normals_split"):  # before 4.1
            mesh.calc_normals_split()
            found = numbers(mesh.loops, "normal", np.float32, 3)
        else:
            found = numbers(mesh.corner_normals, "vector", np.float32, 3)
        shared = np.zeros_like(self.positions)
        shared[corners] = found
        if np.abs(shared[corners] - found).max(initial=0) < 1e-4:
            return shared, corners
        return found, np.arange(len(corners), dtype=np.int32)

    def texture_coordinates(self, mesh, uv_names):
        """Texture coordinates without repeats, and which of them each corner has."""
        if not mesh.uv_layers:
            return None, None
        usual = next((layer for layer in mesh.uv_layers if layer.active_render), mesh.uv_layers[0])
        found = numbers(usual.data, "uv", np.float32, 2)
        owners = None
        for index, name in enumerate(uv_names):
            layer = mesh.uv_layers.get(name) if name else None
            if layer is None or layer == usual:
                continue
            if owners is None:
                material = numbers(mesh.polygons, "material_index", np.int32)
                owners = np.repeat(material, numbers(mesh.polygons, "loop_total", np.int32))
            chosen = owners == index
            found[chosen] = numbers(layer.data, "uv", np.float32, 2)[chosen]
        pairs, which = np.unique(np.ascontiguousarray(found).view(np.uint64).ravel(), return_inverse=True)
        return pairs.view(np.float32).reshape(-1, 2), which.astype(np.int32)

    def add(self, material, smooth, loops, columns, normal_of_corner):
        if len(loops):
            told = [column[loops] for column in columns]
            if smooth:
                told.append(normal_of_corner[loops])
            self.faces.append((material, loops.shape[1], smooth, np.stack(told, axis=-1) + 1))

    def moved(self, mesh):
        """The same faces with positions and normals of another instant; None if nothing moved or counts differ."""
        if (len(mesh.vertices), len(mesh.loops), len(mesh.polygons)) != self.counts:
            return None
        positions = numbers(mesh.vertices, "co", np.float32, 3)
        if np.array_equal(positions, self.positions):
            return None
        other = object.__new__(Mesh)
        other.__dict__.update(self.__dict__, positions=positions)
        if self.normals is not None:
            corners = numbers(mesh.loops, "vertex_index", np.int32)
            found, which = other.corner_normals(mesh, corners)
            if len(self.normals) == len(corners) and len(found) != len(corners):
                found = found[which]
            elif len(self.normals) != len(corners) and len(found) == len(corners):
                shared = np.zeros_like(positions)
                shared[corners] = found
                found = shared
            other.normals = found
        return other

    def write_obj(self, path):
        with open(path, "w", encoding="ascii", newline="\n") as file:
            rows(file, "v %.9g %.9g %.9g\n", self.positions)
            if self.uvs is not None:
                rows(file, "vt %.9g %.9g\n", self.uvs)
            if self.normals is not None:
                rows(file, "vn %.6g %.6g %.6g\n", self.normals)
            last = None
            for material, size, smooth, table in self.faces:
                if material != last:
                    file.write("usemtl %s\n" % self.shader_names[material])
                    last = material
                corner = {(0, 0): " %d", (1, 0): " %d/%d", (0, 1): " %d//%d", (1, 1): " %d/%d/%d"}
                rows(file, "f" + corner[self.uvs is not None, smooth] * size + "\n", table)

    def write_mesh(self, path):
        """A mesh file: vertices are corners of one place, texture coordinates and normal."""
        tables = [table.reshape(-1, table.shape[2]) for _, _, _, table in self.faces]
        place = np.concatenate([t[:, 0] for t in tables]) - 1
        uv = np.concatenate([t[:, 1] for t in tables]) - 1 if self.uvs is not None else None
        normal = np.concatenate([t[:, -1] if smooth else np.zeros(len(t), np.int32)
                                 for t, (_, _, smooth, _) in zip(tables, self.faces)])  # from 1, 0 for none
        which, first = place.astype(np.int64), None
        shared = self.normals is None or len(self.normals) == len(self.positions)
        one_kind = shared and len({smooth for _, _, smooth, _ in self.faces}) == 1  # the place tells the normal
        for more in (uv, normal):
            if more is not None and not (first is not None and one_kind):
                _, first, which = np.unique(which * (int(more.max(initial=0)) + 1) + more, return_index=True,
                                            return_inverse=True)
        triangles, quads = self.faces_by_size(which)
        names = b"".join(n.encode() + b"\0" for n in self.shader_names)
        kinds = int(uv is not None) + 2 * bool(normal.any())
        with open(path, "wb") as file:
            file.write(b"ZPM1" + struct.pack("<7I", len(first), len(triangles), len(quads), len(self.shader_names),
                                             len(names), kinds, 0) + names)
            file.write(self.positions[place[first]].astype("<f4").tobytes())
            if uv is not None:
                file.write(self.uvs[uv[first]].astype("<f4").tobytes())
            file.write(triangles.astype("<u4").tobytes() + quads.astype("<u4").tobytes())
            if normal.any():
                found = np.vstack([np.zeros((1, 3)), self.normals])[normal[first]]
                file.write(np.rint(np.clip(found, -1, 1) * 127).astype(np.int8).tobytes())

    def faces_by_size(self, which):
        """Triangles and flat faces of four corners, with their shaders from 1; `which` are the vertices of corners."""
        triangles, quads, at = [], [], 0
        for material, size, _, table in self.faces:
            told = which[at:at + len(table) * size].reshape(-1, size)
            at += len(table) * size
            shader = np.full((len(told), 1), material + 1)
            if size == 3:
                triangles.append(np.hstack([told, shader]))
                continue
            p = self.positions[table[:, :, 0] - 1].astype(np.float64)
            turns = np.cross(np.roll(p, -1, 1) - p, np.roll(p, -2, 1) - np.roll(p, -1, 1))
            length = np.linalg.norm(turns, axis=2)
            mean = turns.sum(axis=1)
            mean /= np.maximum(np.linalg.norm(mean, axis=1, keepdims=True), 1e-30)
            flat = (np.einsum("ijk,ik->ij", turns, mean) > length * (1 - 1e-9)).all(axis=1) & (length > 0).all(axis=1)
            quads.append(np.hstack([told, shader])[flat])
            # Split where the split lies inside: not across a corner that points inwards.
            inward = np.einsum("ijk,ik->ij", turns, mean) < 0
            turned = np.where((inward[:, 1] | inward[:, 3])[:, None], np.roll(told, -1, 1), told)[~flat]
            for corners in ((0, 1, 2), (0, 2, 3)):
                triangles.append(np.hstack([turned[:, corners], shader[~flat]]))
        join = lambda parts, width: np.concatenate(parts) if parts else np.zeros((0, width), np.int64)
        return join(triangles, 4), join(quads, 5)

    def texture_length(self):
        """How long a unit of texture coordinates is on the mesh, in the mean over its area."""
        if self.uvs is None:
            return 1.0
        area = covered = 0.0
        for _, _, _, table in self.faces:
            p, t = self.positions[table[:, :, 0] - 1], self.uvs[table[:, :, 1] - 1]
            area += np.linalg.norm(np.cross(p[:, 1] - p[:, 0], p[:, 2] - p[:, 0]), axis=1).sum()
            a, b = t[:, 1] - t[:, 0], t[:, 2] - t[:, 0]
            covered += np.abs(a[:, 0] * b[:, 1] - a[:, 1] * b[:, 0]).sum()
        return float(np.sqrt(area / covered)) if covered > 0 and area > 0 else 1.0


def write_hair(path, points, radii, counts):
    """Strands of `counts` points each, with a radius at every point."""
    header = b"HAIR" + struct.pack("<4I", len(counts), len(points), 1 | 2 | 4, 0) + struct.pack("<5f", 0, 0, 1, 1, 1)
    with open(path, "wb") as file:
        file.write(header + b"\0" * (128 - len(header)))
        file.write((np.asarray(counts) - 1).astype("<u2").tobytes())
        file.write(np.asarray(points, "<f4").tobytes())
        file.write((2 * np.asarray(radii)).astype("<f4").tobytes())


def particle_strands(system, obj, to_object):
    """Points (strands, steps, 3) in the object's space and radii (steps,) of a particle system of hair."""
    settings = system.settings
    steps = (1 << settings.render_step) + 1
    if settings.kink == "SPIRAL":
        steps += settings.kink_extra_steps
    parents, children = len(system.particles), len(system.child_particles)
    first = parents if settings.child_type != "NONE" and children else 0
    place = system.co_hair
    flat = [x for i in range(first, parents + children) for step in range(steps)
            for x in place(obj, particle_no=i, step=step)]
    points = np.array(flat, np.float32).reshape(-1, steps, 3)
    points = points @ np.array(to_object, np.float32)[:3, :3].T + np.array(to_object, np.float32)[:3, 3]
    ends = np.linalg.norm(np.diff(points, axis=1), axis=2).sum(axis=1) > 0
    left = 1 - np.linspace(0, 1, steps)
    shape = settings.shape
    left = left ** (1 + shape) if shape < 0 else left ** (1 / max(1 - shape, 1e-4))
    root, tip = (settings.radius_scale * r / 2 for r in (settings.root_radius, settings.tip_radius))
    radii = left * (root - tip) + tip
    if settings.use_close_tip:
        radii[-1] = 0
    return points[ends], radii


def curve_strands(curves):
    """Points, radii and the number of points of each strand of a Curves object."""
    position = curves.attributes["position"].data
    points = numbers(position, "vector", np.float32, 3)
    radius = curves.attributes.get("radius")
    radii = numbers(radius.data, "value", np.float32) if radius else np.full(len(points), 0.005, np.float32)
    counts = numbers(curves.curves, "points_length", np.int32)
    firsts = numbers(curves.curves, "first_point_index", np.int32)
    keep = np.concatenate([np.arange(f, f + n) for f, n in zip(firsts, counts) if n > 1] or [np.zeros(0, int)])
    return points[keep.astype(int)], radii[keep.astype(int)], counts[counts > 1]


def points_of(cloud):
    """Places and radii of a point cloud."""
    radius = cloud.attributes.get("radius")
    points = numbers(cloud.attributes["position"].data, "vector", np.float32, 3)
    return points, numbers(radius.data, "value", np.float32) if radius else np.full(len(points), 0.01, np.float32)


def write_points(path, points, radii, width=512):
    """A TIFF of four floats a pixel, rows from the top: places and radii of particles. The rest has no size."""
    table = np.column_stack([points, radii]).astype("<f4")
    rest = -len(table) % width
    table = np.concatenate([table, np.zeros((rest, 4), "<f4")])
    offset = 8 + 2 + 11 * 12 + 4
    four = struct.pack("<4H", *(32,) * 4), struct.pack("<4H", *(3,) * 4)  # bits, and that they are floats
    short, long = 3, 4
    tags = [(256, long, 1, width), (257, long, 1, len(table) // width), (258, short, 4, offset), (259, short, 1, 1),
            (262, short, 1, 2), (273, long, 1, offset + 16), (277, short, 1, 4),
            (278, long, 1, len(table) // width), (279, long, 1, table.nbytes), (338, short, 1, 0),
            (339, short, 4, offset + 8)]
    with open(path, "wb") as file:
        file.write(b"II*\0" + struct.pack("<IH", 8, len(tags)))
        file.write(b"".join(struct.pack("<2HII", *tag) for tag in tags) + struct.pack("<I", 0))
        file.write(b"".join(four) + table.tobytes())
