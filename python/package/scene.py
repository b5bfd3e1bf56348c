"""Scenes as objects. They describe; a render hands the description to the renderer and takes the picture."""

from __future__ import annotations

import contextlib
import difflib
import os
import shutil
import tempfile
import threading
import time
import warnings
import weakref
from pathlib import Path
from typing import (Any, Callable, Dict, Iterable, Iterator, List, Mapping, NamedTuple, Optional, Sequence, Tuple, Type,
                    Union)  # fmt: skip

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _zp, arrays
from .arrays import Color, Floats, Integers, Vector
from .picture import Picture
from .shaders import Shader, Texture, Value

Callback = Callable[[int, Floats], Optional[bool]]

_busy = threading.Lock()


class SceneError(RuntimeError):
    """What the renderer says about a scene that it cannot render as described; str() is the text of its row."""

    def __init__(self, text: str, code: str = "", file: str = "") -> None:
        super().__init__(text)
        self.code = code  #: a word that never changes
        self.file = file  #: that it is about; empty without one


class SceneWarning(UserWarning):
    """A row of the renderer that does not keep it from rendering."""


def _nearest(word: str, words: Iterable[str]) -> str:
    near = difflib.get_close_matches(word, list(words), 1)
    return f"; did you mean '{near[0]}'?" if near else ""


class _Record:
    """Fields that are checked whenever they are set."""

    _checks: Mapping[str, Callable[[Any, str], Any]] = {}
    _scene: Scene

    def _set(self, scene: Scene, **fields: Any) -> None:
        object.__setattr__(self, "_scene", scene)
        for name, value in fields.items():
            setattr(self, name, value)

    def __setattr__(self, name: str, value: Any) -> None:
        self._scene._require_open()
        if name not in self._checks:
            raise AttributeError(f"zp: {type(self).__name__} has no '{name}'" + _nearest(name, self._checks))
        object.__setattr__(self, name, self._checks[name](value, f"{type(self).__name__}: {name}"))


def _maybe(check: Callable[[Any, str], Any]) -> Callable[[Any, str], Any]:
    return lambda value, what: None if value is None else check(value, what)


def _pair(value: Any, what: str) -> Tuple[int, int]:
    width, height = (arrays.whole(number, what, 1, 65535) for number in _sequence(value, what, 2))
    return width, height


def _sequence(value: Any, what: str, size: int) -> Any:
    if not isinstance(value, (tuple, list, np.ndarray)) or len(value) != size:
        raise ValueError(f"zp: {what} must be {size} numbers, not {value!r}")
    return value


def _region(value: Any, what: str) -> Tuple[int, int, int, int]:
    left, top, right, bottom = (arrays.whole(number, what) for number in _sequence(value, what, 4))
    if left >= right or top >= bottom:
        raise ValueError(f"zp: {what} must be left, top, right, bottom, of one pixel at least, not {value!r}")
    return left, top, right, bottom


def _angle(value: Any, what: str) -> float:
    result = arrays.number(value, what, 0, 180)
    if result in (0, 180):
        raise ValueError(f"zp: {what} must be between 0 and 180 degrees, not {result:g}")
    return result


def _layers(value: Any, what: str) -> List[str]:
    words = [value] if isinstance(value, str) else list(value)
    known = _zp._layer_words()
    for word in words:
        if word not in known:
            raise KeyError(f"zp: {what}: there is no layer {word!r}"
                           + (_nearest(str(word), known) or " among " + ", ".join(known)))  # fmt: skip
    return words


def _shader(value: Any, what: str) -> Shader:
    if not isinstance(value, Shader):
        raise TypeError(f"zp: {what} must be a zp.Shader, not {value!r}")
    return value


def _shaders(value: Any, what: str) -> List[Shader]:
    return [_shader(one, what) for one in value]


def _count(value: Any, what: str) -> int:
    return arrays.whole(value, what)


def _positive(value: Any, what: str) -> float:
    return arrays.number(value, what, 0)


def _exposure(value: Any, what: str) -> Vector:
    return arrays.color(value, what)


def _text(value: Any, what: str) -> str:
    if not isinstance(value, str):
        raise TypeError(f"zp: {what} must be a str, not {value!r}")
    return value


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

    def __init__(self, scene: Scene, name: str, models: Sequence[str], shader: Optional[Shader],
                 known: bool = False) -> None:  # fmt: skip
        self._scene, self._name, self._known = scene, name, known
        self._models, self._shader = models, shader
        self._meshes: List[_Mesh] = []
        self._instances: List[Instance] = []

    def __repr__(self) -> str:
        return f"<zp.Object '{self._name}'>"

    @property
    def name(self) -> str:
        return self._name

    def _vertices(self, positions: ArrayLike, shader: Optional[Shader], data: Optional[Mapping[str, ArrayLike]],
                  motion: Optional[ArrayLike]) -> Tuple[Floats, Dict[str, Floats]]:  # fmt: skip
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

    def add_mesh(self, positions: ArrayLike, faces: ArrayLike, *, shader: Optional[Shader] = None,
                 normals: Optional[ArrayLike] = None, uvs: Optional[ArrayLike] = None,
                 tangents: Optional[ArrayLike] = None, motion: Optional[ArrayLike] = None,
                 data: Optional[Mapping[str, ArrayLike]] = None) -> Object:  # fmt: skip
        """Adds a mesh, and returns the object.

        positions: [n, 3], scene units. faces: [m, 3] or [m, 4] vertices, counter-clockwise seen from outside.
        normals, tangents [n, 3] and uvs [n, 2]: one a vertex. motion [n, 3]: the way of each vertex while the
        shutter is open. data: named arrays [n], [n, 2] or [n, 3]. The shader is "undefined", grey, without one.
        """
        points, sets = self._vertices(positions, shader, data, motion)
        optional: Dict[str, Any] = {word: None if value is None else arrays.floats(value, f"{self._name}: {word}", len(points), size)
                    for word, value, size in (("normals", normals, 3), ("tangents", tangents, 3), ("uvs", uvs, 2))}  # fmt: skip
        corners = arrays.faces(faces, len(points), f"{self._name}: faces")
        self._meshes.append(_Mesh(shader, points, _split(corners, points), data=sets, **optional))
        return self

    def add_hair(self, points: Union[ArrayLike, Sequence[ArrayLike]], radii: ArrayLike, *,
                 counts: Optional[ArrayLike] = None, shader: Optional[Shader] = None, uvs: Optional[ArrayLike] = None,
                 motion: Optional[ArrayLike] = None) -> Object:  # fmt: skip
        """Adds strands, and returns the object.

        points: a list of strands, each [k, 3] from the root on; or [n, 3] of all strands one after the other, with
        counts: [m], the points of each. radii: a number, or [n]; scene units.
        """
        if counts is None:
            strands = [arrays.floats(strand, f"{self._name}: strand {i}", -1, 3) for i, strand in enumerate(points)]  # type: ignore[arg-type]
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
        self._meshes.append(_Mesh(shader, vertices, _NO_FACES, radii=self._radii(radii, len(vertices)), data=sets,
                                  uvs=None if uvs is None else arrays.floats(uvs, "uvs", len(vertices), 2),
                                  cylinders=np.flatnonzero(first).astype(np.int32)))  # fmt: skip
        return self

    def add_particles(self, positions: ArrayLike, radii: ArrayLike, *, shader: Optional[Shader] = None,
                      motion: Optional[ArrayLike] = None, data: Optional[Mapping[str, ArrayLike]] = None) -> Object:  # fmt: skip
        """Adds spheres, and returns the object. positions: [n, 3]. radii: a number, or [n]; scene units."""
        points, sets = self._vertices(positions, shader, data, motion)
        self._meshes.append(_Mesh(shader, points, _NO_FACES, radii=self._radii(radii, len(points)), data=sets,
                                  particles=np.arange(len(points), dtype=np.int32)))  # fmt: skip
        return self

    def _radii(self, radii: ArrayLike, count: int) -> Floats:
        given = np.full(count, radii) if np.ndim(radii) == 0 else radii
        result = arrays.floats(given, f"{self._name}: radii", count) if count else np.zeros(0, np.float32)
        if (result <= 0).any():
            raise ValueError(f"zp: {self._name}: radii must be above 0")
        return result

    def instance(self, target: Object, matrix: Optional[ArrayLike] = None, *, shader: Optional[Shader] = None,
                 matrix_end: Optional[ArrayLike] = None) -> Instance:  # fmt: skip
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
            for values, add in ((mesh.normals, _zp.add_normals), (mesh.tangents, _zp.add_tangents),
                                (mesh.uvs, _zp.add_uvs), (mesh.radii, _zp.add_radii)):  # fmt: skip
                if values is not None:
                    add(index, part, values)
            for name, values in mesh.data.items():
                _zp.add_vertex_data(index, part, name, values)
            for numbers, put in ((mesh.faces[0], _zp.add_triangles), (mesh.faces[1], _zp.add_tetragons),
                                 (mesh.cylinders, _zp.add_cylinders), (mesh.particles, _zp.add_particles)):  # fmt: skip
                if numbers is not None and len(numbers) > 0:
                    put(index, part, numbers)


class Instance(_Record):
    """An object at a place. Set `matrix` to move it; the next render shows it there."""

    target: Object
    matrix: Any  #: [4, 4], float32, read-only
    matrix_end: Any  #: the same when the shutter closes, or None
    shader: Optional[Shader]
    _checks = {"matrix": arrays.matrix, "matrix_end": _maybe(arrays.matrix), "shader": _maybe(_shader)}

    def __init__(self, scene: Scene, target: Object, matrix: ArrayLike, matrix_end: Optional[ArrayLike],
                 shader: Optional[Shader]) -> None:  # fmt: skip
        object.__setattr__(self, "target", target)
        self._set(scene, matrix=matrix, matrix_end=matrix_end, shader=shader)
        scene._require_own(shader)


_POSE = ("position", "target", "up", "fov", "bokeh")


class Camera(_Record):
    """What looks at the scene. Its fields can be set like arguments of Scene.camera."""

    name: str
    position: Any  #: scene units
    target: Any  #: what is in the middle and in focus
    up: Any
    fov: float  #: full horizontal angle, degrees
    bokeh: float  #: half angle of the lens cone, seen from the target, degrees; 0: a pinhole
    resolution: Tuple[int, int]
    region: Optional[Tuple[int, int, int, int]]
    passes: int
    projection: str
    exposure: Any
    aovs: List[str]
    end: Optional[Mapping[str, Any]]
    _checks = {
        "name": _text, "position": arrays.vector, "target": arrays.vector, "up": arrays.direction, "fov": _angle,
        "bokeh": _positive, "resolution": _pair, "region": _maybe(_region), "aovs": _layers, "exposure": _exposure,
        "passes": lambda value, what: arrays.whole(value, what, 1, 65535),
        "projection": lambda value, what: Scene._member(_zp.Projection, value, "projection").name.lower(),
        "end": lambda value, what: Camera._end(value, what),
    }  # fmt: skip

    def __init__(self, scene: Scene, **fields: Any) -> None:
        self._set(scene, **fields)

    @staticmethod
    def _end(value: Any, what: str) -> Optional[Mapping[str, Any]]:
        if value is None:
            return None
        for word in value:
            if word not in _POSE:
                raise KeyError(f"zp: {what}: a pose has no {word!r}" + _nearest(str(word), _POSE))
        return {word: Camera._checks[word](number, f"{what}: {word}") for word, number in value.items()}

    def _build(self) -> int:
        camera = _zp.add_camera()
        open_pose = {word: getattr(self, word) for word in _POSE}
        for time_of_pose, pose in enumerate([open_pose] + ([{**open_pose, **self.end}] if self.end else [])):
            way = np.subtract(pose["target"], pose["position"])
            if not np.cross(way, pose["up"]).any():
                raise ValueError("zp: Camera: up lies along the view" if way.any()
                                 else "zp: Camera: position and target are the same")  # fmt: skip
            _zp.set_camera_time(camera, time_of_pose)
            _zp.set_camera_position(camera, *pose["position"])
            _zp.set_camera_target(camera, *pose["target"])
            _zp.set_camera_up_vector(camera, *pose["up"])
            _zp.set_camera_fov(camera, pose["fov"])
            _zp.set_camera_bokeh(camera, pose["bokeh"])
        _zp.set_camera_name(camera, self.name)
        _zp.set_camera_resolution(camera, *self.resolution)
        if self.region is not None:
            _zp.set_camera_region(camera, *self.region)
        _zp.set_camera_sample(camera, self.passes)
        _zp.set_camera_projection(camera, _zp.Projection[self.projection.upper()])
        _zp.set_camera_exposure(camera, *self.exposure)
        return camera


class _Light(_Record):
    _kind = ""
    color: Any
    only: List[Shader]  #: the shaders that it lights; none: all

    def __init__(self, scene: Scene, **fields: Any) -> None:
        self._set(scene, **fields)
        scene._require_own(*self.only)

    def _call(self, word: str, index: Tuple[int, ...], *values: Any) -> None:
        getattr(_zp, f"set_{self._kind}_light_{word}")(*index, *values)

    def _build(self, shaders: Mapping[Shader, int]) -> None:
        index = (getattr(_zp, f"add_{self._kind}_light")(),) if self._kind in ("point", "parallel") else ()
        for word in self._checks:
            value = getattr(self, word)
            if word == "only":
                for shader in value:
                    self._call("shader_link", index, shaders[shader])
            elif isinstance(value, Texture):
                self._call(word, index, self._scene._file_of(value))
            elif value is not None:
                self._call("photon" if word == "photons" else word, index,
                           *(value if isinstance(value, tuple) else (value,)))  # fmt: skip


_SHARED: Mapping[str, Callable[[Any, str], Any]] = {
    "color": arrays.color, "blur": _positive, "offset": lambda value, what: arrays.number(value, what, -1, 0.999),
    "sample": _count, "photons": _count, "only": _shaders,
}  # fmt: skip


class PointLight(_Light):
    """Light from a place: a white surface that faces it at a distance of 1 shines with `color`."""

    _kind = "point"
    position: Any
    direction: Any  #: axis of the spot
    inner_angle: float  #: degrees off the axis: full light up to here
    outer_angle: float  #: none from here
    blur: float  #: radius of a sphere of light, for soft shadows
    _checks = {**_SHARED, "position": arrays.vector, "direction": arrays.direction,
               "inner_angle": lambda value, what: arrays.number(value, what, 0, 180),
               "outer_angle": lambda value, what: arrays.number(value, what, 0, 181)}  # fmt: skip


class ParallelLight(_Light):
    """Light from infinitely far away: a white surface that faces it shines with `color`."""

    _kind = "parallel"
    direction: Any  #: the way that the light travels
    blur: float  #: half angle of the cone of directions, degrees, for soft shadows; the sun's is about 0.27
    _checks = {**_SHARED, "direction": arrays.direction}


def _sky_image(value: Any, what: str) -> Any:
    return value if value is None or isinstance(value, Texture) or value == "analytic" else Texture(value)


class Sky(_Light):
    """What lies around the scene: there is one, grey 0.75 unless Scene.sky says otherwise."""

    _kind = "sky"
    image: Any  #: a Texture, latitude-longitude; "analytic"; or None
    backdrop: Any  #: what the camera sees in its place
    _checks = {"color": arrays.color, "image": _sky_image, "backdrop": _sky_image, "north": _maybe(arrays.direction),
               "zenith": _maybe(arrays.direction), "sample": _maybe(_count), "photons": _maybe(_count),
               "only": _shaders}  # fmt: skip

    def _call(self, word: str, index: Tuple[int, ...], *values: Any) -> None:
        super()._call(word, index, *values)


class _Emitters(_Light):
    _kind = "geometry"
    _checks = {"sample": _maybe(_count), "photons": _maybe(_count), "only": _shaders}


_RENDERER: Mapping[str, Tuple[str, Callable[[Any, str], Any]]] = {
    "bounce": ("bounce", lambda value, what: arrays.whole(value, what, 1)),
    "ray_depth": ("ray_depth", lambda value, what: arrays.whole(value, what, 1, 255)),
    "photon_depth": ("photon_depth", lambda value, what: arrays.whole(value, what, 1, 255)),
    "sample": ("sample", _count), "clamp": ("clamp", arrays.color), "error": ("error", arrays.color),
    "distance": ("distance", _positive), "resolution": ("resolution", _positive), "radius": ("radius", _positive),
}  # fmt: skip


class Scene:
    """A scene of any number in a process; render() makes pictures of it, again after each change.

    Colours are linear RGB, lengths scene units, angles degrees; what the words mean stands in the scene format.
    """

    def __init__(self, format: Optional[int] = 2) -> None:
        """format: the rules, 1 or 2."""
        if format not in (1, 2, None) or isinstance(format, bool):
            raise ValueError(f"zp: there are the formats 1 and 2, not {format!r}")
        self._format = format
        self._folder: Optional[str] = None
        self._closed = False
        self._shaders: Dict[str, Shader] = {}
        self._objects: Dict[str, Object] = {}
        self._cameras: List[Camera] = []
        self._lights: List[_Light] = []
        self._sky: Optional[Sky] = None
        self._emitters: Optional[_Emitters] = None
        self._renderer: Dict[str, Any] = {}
        self._texts: List[str] = []
        self._files: Dict[Texture, str] = {}
        self._scratch: Optional[str] = None  # a folder for textures that are arrays
        self._no_scratch: Callable[[], object] = lambda: None
        self._root = Object(self, "scene", (), None)
        self.picture: Optional[Picture] = None  #: of the last render, finished or not

    @classmethod
    def open(cls, folder: Union[str, os.PathLike[str]], format: Optional[int] = None) -> Scene:
        """The scene of a folder, as `zephlore render` reads it, to which more can be added.

        It is read by each render. Without `format` its text chooses. FileNotFoundError if there is no such folder.
        """
        path = os.path.abspath(os.fspath(folder))
        if not os.path.isdir(path):
            raise FileNotFoundError(f"zp: there is no scene folder '{os.fspath(folder)}'")
        scene = cls(format)
        scene._folder = path
        return scene

    def __enter__(self) -> Scene:
        return self

    def __exit__(self, *exception: object) -> None:
        self.close()

    def close(self) -> None:
        """Lets go of all arrays. Whatever is then asked of the scene or its parts raises RuntimeError."""
        self._closed = True
        self._root = Object(self, "scene", (), None)
        self._shaders, self._objects, self._lights, self._cameras = {}, {}, [], []
        self._no_scratch()

    def _require_open(self) -> None:
        if self._closed:
            raise RuntimeError("zp: the scene is closed")

    def _require_own(self, *shaders: Optional[Shader]) -> None:
        for shader in shaders:
            if shader is not None and _shader(shader, "shader")._scene is not self:
                raise ValueError(f"zp: the shader '{shader.name}' belongs to another scene")

    @staticmethod
    def _member(kind: Any, word: Any, what: str) -> Any:
        words = [member.name.lower() for member in kind]
        if not isinstance(word, str) or word not in words:
            raise ValueError(f"zp: {what} must be one of {', '.join(words)}, not {word!r}")
        return kind[word.upper()]

    def _new_name(self, name: Any, table: Mapping[str, Any], kind: str) -> str:
        self._require_open()
        if not _text(name, f"the name of {kind}"):
            raise ValueError(f"zp: {kind} needs a name")
        if name in table:
            raise ValueError(f"zp: there is {kind} '{name}' already")
        if any(letter in name for letter in '"\n\r\0'):
            raise ValueError(f"zp: the name of {kind} must do without quotes and line ends, not {name!r}")
        return str(name)

    def shader(self, name: str, *, visibility: str = "all", smooth_angle: Optional[float] = None,
               lambertian: Optional[Value] = None, transmissive: Optional[Value] = None,
               glossy: Optional[Value] = None, specular: Optional[Value] = None, emissive: Optional[Value] = None,
               diffusion: Optional[Value] = None, roughness: Optional[Value] = None, ior: Optional[Value] = None,
               weight: Optional[Value] = None, anisotropy: Optional[Value] = None, angle: Optional[Value] = None,
               thickness: Optional[Value] = None, shadow_transparency: Optional[Value] = None,
               normal: Optional[Texture] = None, material: str = "conductor", side: str = "both",
               virtual_light: Optional[bool] = None) -> Shader:  # fmt: skip
        """Adds a shader; arguments of Shader.layer make its first layer.

        visibility: "all", "not_camera_primary", "not_light_primary" or "invisible". smooth_angle: faces that meet
        at less, in degrees, get smooth normals. In a scene of a folder it takes the place of one of that name.
        """
        given = {word: value for word, value in locals().items()
                 if word not in ("self", "name", "visibility", "smooth_angle")}  # fmt: skip
        shader = Shader(self, self._new_name(name, self._shaders, "a shader"), visibility, smooth_angle)
        plain = {"material": "conductor", "side": "both"}
        if any(value != plain.get(word) if isinstance(value, str) else value is not None for word, value in given.items()):
            shader.layer(**given)
        self._shaders[name] = shader
        return shader

    def find_shader(self, name: str) -> Shader:
        """A shader of this scene, or of the folder's or a text's; whether it is there, the next render tells."""
        self._require_open()
        return self._shaders.get(name) or Shader(self, _text(name, "name"), "all", None, known=True)

    def object(self, name: str, model: Union[None, str, os.PathLike[str], Sequence[str]] = None, *,
               shader: Optional[Shader] = None) -> Object:  # fmt: skip
        """Adds an object. One that no instance places stands where its vertices are.

        model: files of which it is made, .obj, .hair or .fur. shader: of all in it that has none.
        """
        name = self._new_name(name, self._objects, "an object")
        self._require_own(shader)
        paths = [] if model is None else [model] if isinstance(model, (str, os.PathLike)) else list(model)
        models = []
        for path in (os.path.abspath(os.fspath(path)) for path in paths):
            if not os.path.isfile(path):
                raise FileNotFoundError(f"zp: there is no model '{path}'")
            if not path.lower().endswith((".obj", ".hair", ".fur")) or '"' in path or "\n" in path:
                raise ValueError(f"zp: a model is a file .obj, .hair or .fur, not '{path}'")
            models.append(path)
        self._objects[name] = Object(self, name, models, shader)
        return self._objects[name]

    def find_object(self, name: str) -> Object:
        """An object of this scene, or of the folder's or a text's; whether it is there, the next render tells."""
        self._require_open()
        if name not in self._objects:
            self._objects[name] = Object(self, _text(name, "name"), (), None, known=True)
        return self._objects[name]

    @property
    def root(self) -> Object:
        """What the picture shows: its meshes, and instances of other objects."""
        self._require_open()
        return self._root

    def instance(self, target: Object, matrix: Optional[ArrayLike] = None, *, shader: Optional[Shader] = None,
                 matrix_end: Optional[ArrayLike] = None) -> Instance:  # fmt: skip
        """Places an object in the scene: Object.instance of the root."""
        return self.root.instance(target, matrix, shader=shader, matrix_end=matrix_end)

    def camera(self, *, position: ArrayLike, target: ArrayLike, up: ArrayLike = (0, 0, 1), fov: float = 45,
               resolution: Tuple[int, int] = (960, 540), aovs: Iterable[str] = (), passes: int = 64,
               bokeh: float = 0, exposure: Color = 1, projection: str = "perspective",
               region: Optional[Tuple[int, int, int, int]] = None, end: Optional[Mapping[str, Any]] = None,
               name: str = "") -> Camera:  # fmt: skip
        """Adds a camera. The first one renders unless render() says otherwise.

        fov: full horizontal angle, degrees. aovs: words of layers, as of `zephlore render --aov`; another is a
        KeyError. end: what of position, target, up, fov and bokeh is otherwise when the shutter closes. region:
        left, top, right, bottom. projection: "perspective" or "spherical".
        """
        fields = {word: value for word, value in locals().items() if word != "self"}
        self._require_open()
        self._cameras.append(Camera(self, **fields))
        return self._cameras[-1]

    def point_light(self, position: ArrayLike, color: Color = 1, *, direction: Optional[ArrayLike] = None,
                    inner_angle: Optional[float] = None, outer_angle: Optional[float] = None, blur: float = 0,
                    offset: float = 0.1, sample: int = 1, photons: int = 0, only: Iterable[Shader] = ()) -> PointLight:  # fmt: skip
        """Adds a light at a place. It shines to all sides, or, with a direction, is a spot around it that fades from
        inner_angle (0) to outer_angle (180), degrees off the axis. blur: its radius, for soft shadows."""
        self._require_open()
        sides = (180.0, 181.0) if direction is None else (0.0, 180.0)
        light = PointLight(self, position=position, color=color, direction=(0, 1, 0) if direction is None else direction,
                           inner_angle=sides[0] if inner_angle is None else inner_angle,
                           outer_angle=sides[1] if outer_angle is None else outer_angle, blur=blur, offset=offset,
                           sample=sample, photons=photons, only=only)  # fmt: skip
        self._lights.append(light)
        return light

    def parallel_light(self, direction: ArrayLike, color: Color = 1, *, blur: float = 0, offset: float = 0.1,
                       sample: int = 1, photons: int = 0, only: Iterable[Shader] = ()) -> ParallelLight:  # fmt: skip
        """Adds light from far away. direction: the way that it travels. blur: half angle, degrees."""
        self._require_open()
        light = ParallelLight(self, direction=direction, color=color, blur=blur, offset=offset, sample=sample,
                              photons=photons, only=only)  # fmt: skip
        self._lights.append(light)
        return light

    def sky(self, color: Color = 1, *, image: Union[None, str, os.PathLike[str], Texture, NDArray[Any]] = None,
            backdrop: Union[None, str, os.PathLike[str], Texture, NDArray[Any]] = None,
            north: Optional[ArrayLike] = None, zenith: Optional[ArrayLike] = None, sample: Optional[int] = None,
            photons: Optional[int] = None, only: Iterable[Shader] = ()) -> Sky:  # fmt: skip
        """Says what lies around the scene, in place of what was said before. color 0: nothing.

        image: a latitude-longitude picture, as a file or an array, or "analytic". backdrop: another one, for the
        camera alone. north, zenith: how they stand. sample: shadow rays towards bright parts.
        """
        self._require_open()
        self._sky = Sky(self, color=color, image=image, backdrop=backdrop, north=north, zenith=zenith, sample=sample,
                        photons=photons, only=only)  # fmt: skip
        return self._sky

    def emitters(self, *, sample: Optional[int] = None, photons: Optional[int] = None,
                 only: Iterable[Shader] = ()) -> None:  # fmt: skip
        """How surfaces that emit are sampled, all together: the geometry light of the scene format."""
        self._require_open()
        self._emitters = _Emitters(self, sample=sample, photons=photons, only=only)

    def renderer(self, **values: Any) -> None:
        """Sets bounce, ray_depth, photon_depth, sample, clamp, error, and for final gathering distance, resolution
        and radius, as the scene format has them."""
        self._require_open()
        for word, value in values.items():
            if word not in _RENDERER:
                raise TypeError(f"zp: renderer has no '{word}'" + _nearest(word, _RENDERER))
            self._renderer[word] = _RENDERER[word][1](value, word)

    def text(self, text: str) -> None:
        """Adds scene text: any sections, for what the other functions have no words for, such as media.

        SceneError tells a mistake in it by its line. Its shaders and objects go by find_shader and find_object.
        """
        self._require_open()
        with self._session(None, False):
            wrong = _zp._read_text(_text(text, "text"), True)
        if wrong:
            raise SceneError("; ".join(f"line {line}: {what}" for line, what in wrong), "scene-text")
        self._texts.append(text)

    def _file_of(self, texture: Texture) -> str:
        if texture.path is not None:
            return texture.path
        if self._scratch is None:
            self._scratch = tempfile.mkdtemp(prefix="zp-")
            self._no_scratch = weakref.finalize(self, shutil.rmtree, self._scratch, ignore_errors=True)
        if texture not in self._files:
            assert texture.pixels is not None
            height, width, _ = texture.pixels.shape
            self._files[texture] = os.path.join(self._scratch, f"{len(self._files)}.pfm")
            with open(self._files[texture], "wb") as file:
                file.write(b"PF\n%d %d\n-1\n" % (width, height) + texture.pixels[::-1].astype("<f4").tobytes())
        return self._files[texture]

    @contextlib.contextmanager
    def _session(self, seed: Optional[int], verbose: bool, folder: Optional[str] = None) -> Iterator[None]:
        """The renderer, for this scene alone."""
        if not _busy.acquire(blocking=False):
            raise RuntimeError("zp: another render is under way")
        try:
            _zp._begin(self._format, seed, folder, verbose)
            try:
                yield
            finally:
                _zp._end()
        finally:
            _busy.release()

    def _judge(self, strict: bool) -> None:
        troubles = _zp._take_troubles()
        for kind, text, code, file in troubles:
            text = " ".join(text.split())
            if strict and kind in ("error", "fatal"):
                raise SceneError(text, code, file)
            if kind != "note":
                warnings.warn(text, SceneWarning, stacklevel=4)

    def _look_up(self, name: str, names: List[str], kind: str) -> int:
        if name not in names:
            raise SceneError(f"there is no {kind} '{name}' in the scene" + _nearest(name, names), f"{kind}-missing")
        return names.index(name)

    def _fill(self) -> None:
        """Hands all records over."""
        own = [shader for shader in self._shaders.values()]
        numbers: Dict[Shader, int] = {shader: shader._build() for shader in own}
        for text in self._texts:
            _zp._read_text(text, False)
        placed = [instance for each in (self._root, *self._objects.values()) for instance in each._instances]
        used = [instance.shader for instance in placed] + [s for light in self._all_lights() for s in light.only]
        used += [mesh.shader for each in (self._root, *self._objects.values()) for mesh in each._meshes]
        used += [each._shader for each in self._objects.values()]
        for shader in used:
            if shader is not None and shader not in numbers:
                numbers[shader] = self._look_up(shader._name, _zp._shader_names(), "shader")
        for light in self._all_lights():
            light._build(numbers)
        for word, value in self._renderer.items():
            getattr(_zp, f"set_renderer_{word}")(*(value if isinstance(value, tuple) else (value,)))
        self._fill_objects(numbers)

    def _all_lights(self) -> List[_Light]:
        return self._lights + [light for light in (self._sky, self._emitters) if light is not None]

    def _fill_objects(self, shaders: Mapping[Shader, int]) -> None:
        roots = _zp._roots()
        is_bare = not (self._objects or self._root._meshes or self._root._instances)
        if is_bare and roots:  # of a folder, as it is
            return
        numbers = {self._root: roots[-1] if roots else -1}
        for each in self._objects.values():
            numbers[each] = (self._look_up(each._name, _zp._object_names(), "object") if each._known
                             else each._make(shaders))  # fmt: skip
        if not roots:
            numbers[self._root] = _zp.add_object()
            _zp.set_object_name(numbers[self._root], "scene")
        for each, number in numbers.items():
            each._fill(number, shaders)
            for instance in each._instances:
                place = _zp.add_instance(number)
                _zp.set_instance(number, place, numbers[instance.target], instance.matrix,
                                 -1 if instance.shader is None else shaders[instance.shader])  # fmt: skip
                if instance.matrix_end is not None:
                    _zp._set_instance_end(number, place, instance.matrix_end)
        root = numbers[self._root]
        for unplaced in _zp._roots():
            if unplaced != root:
                _zp.set_instance(root, _zp.add_instance(root), unplaced)

    def _choose(self, camera: Union[None, Camera, str, int]) -> Tuple[int, List[str]]:
        """The number of the camera in the tables, and the layers that it asks for."""
        before = _zp._camera_names()
        for each in self._cameras:
            each._build()
        names = _zp._camera_names()
        if camera is None and self._cameras:
            camera = self._cameras[0]
        if isinstance(camera, Camera):
            if camera not in self._cameras:
                raise ValueError("zp: the camera belongs to another scene")
            return len(before) + self._cameras.index(camera), camera.aovs
        if isinstance(camera, str):
            number = self._look_up(camera, names, "camera")
        else:
            number = arrays.whole(camera or 0, "camera")
            if number >= len(names):
                raise (SceneError("there is no camera in the scene", "camera-missing") if not names
                       else IndexError(f"zp: there is no camera {number} of {len(names)}"))  # fmt: skip
        return number, self._cameras[number - len(before)].aovs if number >= len(before) else []

    def render(self, passes: Optional[int] = None, seed: Optional[int] = None, callback: Optional[Callback] = None, *,
               camera: Union[None, Camera, str, int] = None, resolution: Optional[Tuple[int, int]] = None,
               region: Optional[Tuple[int, int, int, int]] = None, aovs: Iterable[str] = (), denoise: bool = False,
               transparent_sky: bool = False, threads: Optional[int] = None, strict: bool = True,
               verbose: bool = False) -> Picture:  # fmt: skip
        """Renders, and returns the picture.

        passes: samples of each pixel, else those of the camera. seed: with one the picture repeats to the bit.
        callback(done, image): called after each pass, done from 1, image [height, width, 3] as it stands; False ends
        the render behind that pass, and the picture holds what there is. What it raises does the same and is raised,
        as is KeyboardInterrupt, at once; self.picture then holds what there is.
        camera: one of the scene, or the name or number of one of the folder. resolution, region, aovs: in place of
        the camera's, aovs beside them. denoise: takes the noise out. transparent_sky: leaves what the camera sees of
        the sky out. threads: all by default. strict: errors of
        the scene, such as a missing texture, raise SceneError before the first pass; else they are warnings.
        verbose: the rows of the renderer go to standard output.
        """
        self._require_open()
        if callback is not None and not callable(callback):
            raise TypeError(f"zp: callback must be a function, not {callback!r}")
        if seed is not None:
            seed = arrays.whole(seed, "seed", 0, 2**64 - 1)
        wish = _zp._FrameWish()
        wish.passes = None if passes is None else arrays.whole(passes, "passes", 1, 65535)
        wish.resolution = None if resolution is None else _pair(resolution, "resolution")
        wish.region = None if region is None else _region(region, "region")
        wish.transparent_sky = bool(transparent_sky)
        words = _layers(aovs, "aovs")
        before = _zp._set_threads(arrays.whole(threads, "threads", 1, 255)) if threads is not None else 0
        try:
            with self._session(seed, verbose, self._folder):
                return self._render(wish, words, seed, callback, camera, denoise, strict)
        finally:
            if before:
                _zp._set_threads(before)

    def _render(self, wish: _zp._FrameWish, words: List[str], seed: Optional[int], callback: Optional[Callback],
                camera: Union[None, Camera, str, int], denoise: bool, strict: bool) -> Picture:  # fmt: skip
        self._judge(strict)
        self._fill()
        wish.camera, own = self._choose(camera)
        if denoise:
            words = words + ["albedo", "normal", "depth", "half0", "half1"]
        words = list(dict.fromkeys(own + words))
        halves = [word for word in words if word in ("half0", "half1", "variance")]
        wish.layers = [word for word in words if word not in halves]
        wish.half_layers = halves
        exposure = _zp._camera_exposure(wish.camera)
        has_pixels = _zp._prepare(wish)
        self._judge(strict)
        if not has_pixels:
            raise ValueError("zp: the region holds no pixels of the picture")
        start = time.monotonic()
        self.picture = None
        layers, done, raised, stopped = _zp._run(callback, wish)
        seconds = time.monotonic() - start
        if layers is not None:
            picture = Picture(layers, passes=done, seed=seed, seconds=seconds, exposure=exposure)
            self.picture = picture.denoised() if denoise and raised is None and not stopped else picture
        self._judge(False)
        if raised is not None:
            raise raised
        if stopped or self.picture is None:
            raise RuntimeError("zp: a signal has ended the render")
        return self.picture
