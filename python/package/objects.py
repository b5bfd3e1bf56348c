"""Objects: meshes, strands and particles of arrays, models of files, and instances."""

from __future__ import annotations

from pathlib import Path
from typing import TYPE_CHECKING, Any, Dict, List, Mapping, NamedTuple, Optional, Sequence, Tuple, Union

import numpy as np
from numpy.typing import ArrayLike

from . import _zp, arrays, checks
from .arrays import Floats, Integers
from .shaders import Shader

if TYPE_CHECKING:
    from .scene import Scene


class _Mesh(NamedTuple):
    shader: Optional[Shader]
    positions: Floats
    faces: Tuple[Integers, Integers]  # triangles and rectangles
    normals: Optional[Floats] = None
    tangents: Optional[Floats] = None
    uvs: Optional[Floats] = None
    radii: Optional[Floats] = None
    cylinders: Optional[Integers] = None
    particles: Optional[Integers] = None
    data: Mapping[str, Floats] = {}


_NO_FACES = (np.zeros((0, 3), np.int32), np.zeros((0, 4), np.int32))


def _split(faces: Integers, positions: Floats) -> Tuple[Integers, Integers]:
    """Triangles, and the faces that are rectangles; others of four corners become two triangles."""
    if faces.shape[1] == 3:
        return faces, _NO_FACES[1]
    a, b, c, d = (positions[faces[:, i]].astype(float) for i in range(4))
    size = np.linalg.norm(c - a, axis=1)
    closes = np.linalg.norm(a + c - b - d, axis=1) <= 1e-4 * size
    square = np.abs(np.sum((b - a) * (d - a), axis=1)) <= 1e-4 * size**2
    is_rectangle = closes & square
    others = faces[~is_rectangle]
    return np.concatenate([others[:, [0, 1, 2]], others[:, [0, 2, 3]]]), faces[is_rectangle]


class Object:
    """What can be placed: meshes, hair, particles, models, and instances of other objects."""

    def __init__(
        self, scene: Scene, name: str, models: Sequence[str], shader: Optional[Shader], known: bool = False
    ) -> None:
        self._scene, self._name, self._known = scene, name, known
        self._models, self._shader = models, shader
        self._meshes: List[_Mesh] = []
        self._instances: List[Instance] = []

    def __repr__(self) -> str:
        return f"<zp.Object '{self._name}'>"

    @property
    def name(self) -> str:
        return self._name

    def _vertices(
        self,
        positions: ArrayLike,
        shader: Optional[Shader],
        data: Optional[Mapping[str, ArrayLike]],
        motion: Optional[ArrayLike],
    ) -> Tuple[Floats, Dict[str, Floats]]:
        self._scene._require_open()
        self._scene._require_own(shader)
        points = arrays.floats(positions, f"{self._name}: positions", -1, 3)
        sets: Dict[str, Any] = dict(data or {})
        if motion is not None:
            sets["motion"] = motion
        for word, values in sets.items():
            width = np.ndim(values)
            shape = (len(points),) if width == 1 else (len(points), 3 if word == "motion" else np.shape(values)[-1])
            sets[word] = arrays.floats(values, f"{self._name}: {word}", *shape)
            if width > 1 and shape[1] not in (2, 3):
                raise ValueError(f"zp: {self._name}: {word} must have the shape [n], [n, 2] or [n, 3]")
        return points, sets

    def add_mesh(
        self,
        positions: ArrayLike,
        faces: ArrayLike,
        *,
        shader: Optional[Shader] = None,
        normals: Optional[ArrayLike] = None,
        uvs: Optional[ArrayLike] = None,
        tangents: Optional[ArrayLike] = None,
        motion: Optional[ArrayLike] = None,
        data: Optional[Mapping[str, ArrayLike]] = None,
    ) -> Object:
        """Adds a mesh, and returns the object.

        positions: [n, 3], scene units. faces: [m, 3] or [m, 4] vertices, counter-clockwise seen from outside.
        normals, tangents [n, 3] and uvs [n, 2]: one a vertex. motion [n, 3]: the way of each vertex while the
        shutter is open. data: named arrays [n], [n, 2] or [n, 3]. The shader is "undefined", grey, without one.
        """
        points, sets = self._vertices(positions, shader, data, motion)
        optional: Dict[str, Any] = {
            word: None if value is None else arrays.floats(value, f"{self._name}: {word}", len(points), size)
            for word, value, size in (("normals", normals, 3), ("tangents", tangents, 3), ("uvs", uvs, 2))
        }
        corners = arrays.faces(faces, len(points), f"{self._name}: faces")
        self._meshes.append(_Mesh(shader, points, _split(corners, points), data=sets, **optional))
        return self

    def add_hair(
        self,
        points: Union[ArrayLike, Sequence[ArrayLike]],
        radii: ArrayLike,
        *,
        counts: Optional[ArrayLike] = None,
        shader: Optional[Shader] = None,
        uvs: Optional[ArrayLike] = None,
        motion: Optional[ArrayLike] = None,
    ) -> Object:
        """Adds strands, and returns the object.

        points: a list of strands, each [k, 3] from the root on; or [n, 3] of all strands one after the other, with
        counts: [m], the points of each. radii: a number, or [n]; scene units.
        """
        if counts is None:
            each: Any = points
            strands = [arrays.floats(strand, f"{self._name}: strand {i}", -1, 3) for i, strand in enumerate(each)]
            counts = np.array([len(strand) for strand in strands], int)
            points = np.concatenate(strands) if strands else np.zeros((0, 3))
        vertices, sets = self._vertices(points, shader, None, motion)  # type: ignore[arg-type]
        sizes = arrays.integers(counts, f"{self._name}: counts", "[m]", 1)
        if int(sizes.sum(dtype=np.int64)) != len(vertices):
            raise ValueError(f"zp: {self._name}: counts add up to {sizes.sum()} points, not to {len(vertices)}")
        if (sizes < 2).any():
            raise ValueError(f"zp: {self._name}: strand {int(np.argmax(sizes < 2))} has fewer than two points")
        first = np.ones(len(vertices), bool)
        first[np.cumsum(sizes) - 1] = False  # no segment begins at the last point
        self._meshes.append(
            _Mesh(
                shader,
                vertices,
                _NO_FACES,
                radii=self._radii(radii, len(vertices)),
                data=sets,
                uvs=None if uvs is None else arrays.floats(uvs, "uvs", len(vertices), 2),
                cylinders=np.flatnonzero(first).astype(np.int32),
            )
        )
        return self

    def add_particles(
        self,
        positions: ArrayLike,
        radii: ArrayLike,
        *,
        shader: Optional[Shader] = None,
        motion: Optional[ArrayLike] = None,
        data: Optional[Mapping[str, ArrayLike]] = None,
    ) -> Object:
        """Adds spheres, and returns the object. positions: [n, 3]. radii: a number, or [n]; scene units."""
        points, sets = self._vertices(positions, shader, data, motion)
        self._meshes.append(
            _Mesh(
                shader,
                points,
                _NO_FACES,
                radii=self._radii(radii, len(points)),
                data=sets,
                particles=np.arange(len(points), dtype=np.int32),
            )
        )
        return self

    def _radii(self, radii: ArrayLike, count: int) -> Floats:
        given = np.full(count, radii) if np.ndim(radii) == 0 else radii
        result = arrays.floats(given, f"{self._name}: radii", count) if count else np.zeros(0, np.float32)
        if (result <= 0).any():
            raise ValueError(f"zp: {self._name}: radii must be above 0")
        return result

    def instance(
        self,
        target: Object,
        matrix: Optional[ArrayLike] = None,
        *,
        shader: Optional[Shader] = None,
        matrix_end: Optional[ArrayLike] = None,
    ) -> Instance:
        """Places another object in this one.

        matrix: [4, 4], target to object, for columns: the translation is its last column. matrix_end: where it is
        when the shutter closes, in format 2. shader: in place of all that it shows.
        """
        if not isinstance(target, Object):
            raise TypeError(f"zp: {self._name}: an instance places a zp.Object, not {target!r}")
        if target._scene is not self._scene:
            raise ValueError(f"zp: '{target._name}' belongs to another scene")
        if target._holds(self):
            raise ValueError(f"zp: '{self._name}' cannot stand inside of itself")
        instance = Instance(self._scene, target, np.eye(4) if matrix is None else matrix, matrix_end, shader)
        self._instances.append(instance)
        return instance

    def _holds(self, other: Object) -> bool:
        return self is other or any(instance.target._holds(other) for instance in self._instances)

    def remove(self, instance: Instance) -> None:
        """Takes an instance away. ValueError if it is not there."""
        self._scene._require_open()
        self._instances.remove(instance)

    def _make(self, indices: Mapping[Shader, int]) -> int:
        if not self._models:
            index = _zp.add_object()
        else:
            lines = [f'    {Path(path).suffix[1:].lower()} "{path}"' for path in self._models]
            shader = [f'    shader "{self._shader._name}"'] if self._shader else []
            _zp._read_text("\n".join(["object", *lines, *shader, "end"]) + "\n", False)
            index = len(_zp._object_names()) - 1
        _zp.set_object_name(index, self._name)
        return index

    def _fill(self, index: int, shaders: Mapping[Shader, int]) -> None:
        for mesh in self._meshes:
            part = _zp.add_part(index)
            shader = mesh.shader or self._shader
            _zp.set_shader_id(index, part, 0 if shader is None else shaders[shader])
            _zp.add_positions(index, part, mesh.positions)
            for values, add in (
                (mesh.normals, _zp.add_normals),
                (mesh.tangents, _zp.add_tangents),
                (mesh.uvs, _zp.add_uvs),
                (mesh.radii, _zp.add_radii),
            ):
                if values is not None:
                    add(index, part, values)
            for name, values in mesh.data.items():
                _zp.add_vertex_data(index, part, name, values)
            for numbers, put in (
                (mesh.faces[0], _zp.add_triangles),
                (mesh.faces[1], _zp.add_tetragons),
                (mesh.cylinders, _zp.add_cylinders),
                (mesh.particles, _zp.add_particles),
            ):
                if numbers is not None and len(numbers) > 0:
                    put(index, part, numbers)


class Instance(checks.Record):
    """An object at a place. Set `matrix` to move it; the next render shows it there."""

    target: Object
    matrix: Any  #: [4, 4], float32, read-only
    matrix_end: Any  #: the same when the shutter closes, or None
    shader: Optional[Shader]
    _checks = {
        "matrix": arrays.matrix,
        "matrix_end": checks.maybe(arrays.matrix),
        "shader": checks.maybe(checks.shader),
    }

    def __init__(
        self, scene: Scene, target: Object, matrix: ArrayLike, matrix_end: Optional[ArrayLike], shader: Optional[Shader]
    ) -> None:
        object.__setattr__(self, "target", target)
        self._set(scene, matrix=matrix, matrix_end=matrix_end, shader=shader)
        scene._require_own(shader)
