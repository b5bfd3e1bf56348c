"""Scenes as objects. They describe; a render hands the description to the renderer and takes the picture."""

from __future__ import annotations

import contextlib
import os
import shutil
import tempfile
import threading
import time
import warnings
import weakref
from typing import Any, Callable, Dict, Iterable, Iterator, List, Mapping, Optional, Sequence, Tuple, Union

from numpy.typing import ArrayLike, NDArray

from . import _zp, arrays, checks
from .arrays import Color, Floats
from .cameras import Camera
from .lights import Emitters, Light, ParallelLight, PointLight, Sky
from .objects import Instance, Object
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


_RENDERER: Mapping[str, Callable[[Any, str], Any]] = {
    "bounce": lambda value, what: arrays.whole(value, what, 1),
    "ray_depth": lambda value, what: arrays.whole(value, what, 1, 255),
    "photon_depth": lambda value, what: arrays.whole(value, what, 1, 255),
    "sample": checks.count,
    "clamp": arrays.color,
    "error": arrays.color,
    "distance": checks.positive,
    "resolution": checks.positive,
    "radius": checks.positive,
}


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
        self._lights: List[Light] = []
        self._sky: Optional[Sky] = None
        self._emitters: Optional[Emitters] = None
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
            if shader is not None and checks.shader(shader, "shader")._scene is not self:
                raise ValueError(f"zp: the shader '{shader.name}' belongs to another scene")

    def _new_name(self, name: Any, table: Mapping[str, Any], kind: str) -> str:
        self._require_open()
        if not checks.text(name, f"the name of {kind}"):
            raise ValueError(f"zp: {kind} needs a name")
        if name in table:
            raise ValueError(f"zp: there is {kind} '{name}' already")
        if any(letter in name for letter in '"\n\r\0'):
            raise ValueError(f"zp: the name of {kind} must do without quotes and line ends, not {name!r}")
        return str(name)

    def shader(
        self,
        name: str,
        *,
        visibility: str = "all",
        smooth_angle: Optional[float] = None,
        lambertian: Optional[Value] = None,
        transmissive: Optional[Value] = None,
        glossy: Optional[Value] = None,
        specular: Optional[Value] = None,
        emissive: Optional[Value] = None,
        diffusion: Optional[Value] = None,
        roughness: Optional[Value] = None,
        ior: Optional[Value] = None,
        weight: Optional[Value] = None,
        anisotropy: Optional[Value] = None,
        angle: Optional[Value] = None,
        thickness: Optional[Value] = None,
        shadow_transparency: Optional[Value] = None,
        normal: Optional[Texture] = None,
        material: str = "conductor",
        side: str = "both",
        virtual_light: Optional[bool] = None,
    ) -> Shader:
        """Adds a shader; arguments of Shader.layer make its first layer.

        visibility: "all", "not_camera_primary", "not_light_primary" or "invisible". smooth_angle: faces that meet
        at less, in degrees, get smooth normals. In a scene of a folder it takes the place of one of that name.
        """
        given = {
            word: value
            for word, value in locals().items()
            if word not in ("self", "name", "visibility", "smooth_angle")
        }
        shader = Shader(self, self._new_name(name, self._shaders, "a shader"), visibility, smooth_angle)
        plain = {"material": "conductor", "side": "both"}
        if any(
            value != plain.get(word) if isinstance(value, str) else value is not None for word, value in given.items()
        ):
            shader.layer(**given)
        self._shaders[name] = shader
        return shader

    def find_shader(self, name: str) -> Shader:
        """A shader of this scene, or of the folder's or a text's; whether it is there, the next render tells."""
        self._require_open()
        return self._shaders.get(name) or Shader(self, checks.text(name, "name"), "all", None, known=True)

    def object(
        self,
        name: str,
        model: Union[None, str, os.PathLike[str], Sequence[str]] = None,
        *,
        shader: Optional[Shader] = None,
    ) -> Object:
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
            self._objects[name] = Object(self, checks.text(name, "name"), (), None, known=True)
        return self._objects[name]

    @property
    def root(self) -> Object:
        """What the picture shows: its meshes, and instances of other objects."""
        self._require_open()
        return self._root

    def instance(
        self,
        target: Object,
        matrix: Optional[ArrayLike] = None,
        *,
        shader: Optional[Shader] = None,
        matrix_end: Optional[ArrayLike] = None,
    ) -> Instance:
        """Places an object in the scene: Object.instance of the root."""
        return self.root.instance(target, matrix, shader=shader, matrix_end=matrix_end)

    def camera(
        self,
        *,
        position: ArrayLike,
        target: ArrayLike,
        up: ArrayLike = (0, 0, 1),
        fov: float = 45,
        resolution: Tuple[int, int] = (960, 540),
        aovs: Iterable[str] = (),
        passes: int = 64,
        bokeh: float = 0,
        exposure: Color = 1,
        projection: str = "perspective",
        region: Optional[Tuple[int, int, int, int]] = None,
        end: Optional[Mapping[str, Any]] = None,
        name: str = "",
    ) -> Camera:
        """Adds a camera. The first one renders unless render() says otherwise.

        fov: full horizontal angle, degrees. aovs: words of layers, as of `zephlore render --aov`; another is a
        KeyError. end: what of position, target, up, fov and bokeh is otherwise when the shutter closes. region:
        left, top, right, bottom. projection: "perspective" or "spherical".
        """
        fields = {word: value for word, value in locals().items() if word != "self"}
        self._require_open()
        self._cameras.append(Camera(self, **fields))
        return self._cameras[-1]

    def point_light(
        self,
        position: ArrayLike,
        color: Color = 1,
        *,
        direction: Optional[ArrayLike] = None,
        inner_angle: Optional[float] = None,
        outer_angle: Optional[float] = None,
        blur: float = 0,
        offset: float = 0.1,
        sample: int = 1,
        photons: int = 0,
        only: Iterable[Shader] = (),
    ) -> PointLight:
        """Adds a light at a place. It shines to all sides, or, with a direction, is a spot around it that fades from
        inner_angle (0) to outer_angle (180), degrees off the axis. blur: its radius, for soft shadows."""
        self._require_open()
        sides = (180.0, 181.0) if direction is None else (0.0, 180.0)
        light = PointLight(
            self,
            position=position,
            color=color,
            direction=(0, 1, 0) if direction is None else direction,
            inner_angle=sides[0] if inner_angle is None else inner_angle,
            outer_angle=sides[1] if outer_angle is None else outer_angle,
            blur=blur,
            offset=offset,
            sample=sample,
            photons=photons,
            only=only,
        )
        self._lights.append(light)
        return light

    def parallel_light(
        self,
        direction: ArrayLike,
        color: Color = 1,
        *,
        blur: float = 0,
        offset: float = 0.1,
        sample: int = 1,
        photons: int = 0,
        only: Iterable[Shader] = (),
    ) -> ParallelLight:
        """Adds light from far away. direction: the way that it travels. blur: half angle, degrees."""
        self._require_open()
        light = ParallelLight(
            self, direction=direction, color=color, blur=blur, offset=offset, sample=sample, photons=photons, only=only
        )
        self._lights.append(light)
        return light

    def sky(
        self,
        color: Color = 1,
        *,
        image: Union[None, str, os.PathLike[str], Texture, NDArray[Any]] = None,
        backdrop: Union[None, str, os.PathLike[str], Texture, NDArray[Any]] = None,
        north: Optional[ArrayLike] = None,
        zenith: Optional[ArrayLike] = None,
        sample: Optional[int] = None,
        photons: Optional[int] = None,
        only: Iterable[Shader] = (),
    ) -> Sky:
        """Says what lies around the scene, in place of what was said before. color 0: nothing.

        image: a latitude-longitude picture, as a file or an array, or "analytic". backdrop: another one, for the
        camera alone. north, zenith: how they stand. sample: shadow rays towards bright parts.
        """
        self._require_open()
        self._sky = Sky(
            self,
            color=color,
            image=image,
            backdrop=backdrop,
            north=north,
            zenith=zenith,
            sample=sample,
            photons=photons,
            only=only,
        )
        return self._sky

    def emitters(
        self, *, sample: Optional[int] = None, photons: Optional[int] = None, only: Iterable[Shader] = ()
    ) -> None:
        """How surfaces that emit are sampled, all together: the geometry light of the scene format."""
        self._require_open()
        self._emitters = Emitters(self, sample=sample, photons=photons, only=only)

    def renderer(self, **values: Any) -> None:
        """Sets bounce, ray_depth, photon_depth, sample, clamp, error, and for final gathering distance, resolution
        and radius, as the scene format has them."""
        self._require_open()
        for word, value in values.items():
            if word not in _RENDERER:
                raise TypeError(f"zp: renderer has no '{word}'" + checks.nearest(word, _RENDERER))
            self._renderer[word] = _RENDERER[word](value, word)

    def text(self, text: str) -> None:
        """Adds scene text: any sections, for what the other functions have no words for, such as media.

        SceneError tells a mistake in it by its line. Its shaders and objects go by find_shader and find_object.
        """
        self._require_open()
        with self._session(None, False):
            wrong = _zp._read_text(checks.text(text, "text"), True)
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
            raise SceneError(
                f"there is no {kind} '{name}' in the scene" + checks.nearest(name, names), f"{kind}-missing"
            )
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

    def _all_lights(self) -> List[Light]:
        return self._lights + [light for light in (self._sky, self._emitters) if light is not None]

    def _fill_objects(self, shaders: Mapping[Shader, int]) -> None:
        roots = _zp._roots()
        is_bare = not (self._objects or self._root._meshes or self._root._instances)
        if is_bare and roots:  # of a folder, as it is
            return
        numbers = {self._root: roots[-1] if roots else -1}
        for each in self._objects.values():
            numbers[each] = (
                self._look_up(each._name, _zp._object_names(), "object") if each._known else each._make(shaders)
            )
        if not roots:
            numbers[self._root] = _zp.add_object()
            _zp.set_object_name(numbers[self._root], "scene")
        for each, number in numbers.items():
            each._fill(number, shaders)
            for instance in each._instances:
                place = _zp.add_instance(number)
                _zp.set_instance(
                    number,
                    place,
                    numbers[instance.target],
                    instance.matrix,
                    -1 if instance.shader is None else shaders[instance.shader],
                )
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
                raise (
                    SceneError("there is no camera in the scene", "camera-missing")
                    if not names
                    else IndexError(f"zp: there is no camera {number} of {len(names)}")
                )
        return number, self._cameras[number - len(before)].aovs if number >= len(before) else []

    def render(
        self,
        passes: Optional[int] = None,
        seed: Optional[int] = None,
        callback: Optional[Callback] = None,
        *,
        camera: Union[None, Camera, str, int] = None,
        resolution: Optional[Tuple[int, int]] = None,
        region: Optional[Tuple[int, int, int, int]] = None,
        aovs: Iterable[str] = (),
        denoise: bool = False,
        transparent_sky: bool = False,
        threads: Optional[int] = None,
        strict: bool = True,
        verbose: bool = False,
    ) -> Picture:
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
        wish.resolution = None if resolution is None else checks.pair(resolution, "resolution")
        wish.region = None if region is None else checks.region(region, "region")
        wish.transparent_sky = bool(transparent_sky)
        words = checks.layers(aovs, "aovs")
        before = _zp._set_threads(arrays.whole(threads, "threads", 1, 255)) if threads is not None else 0
        try:
            with self._session(seed, verbose, self._folder):
                return self._render(wish, words, seed, callback, camera, denoise, strict)
        finally:
            if before:
                _zp._set_threads(before)

    def _render(
        self,
        wish: _zp._FrameWish,
        words: List[str],
        seed: Optional[int],
        callback: Optional[Callback],
        camera: Union[None, Camera, str, int],
        denoise: bool,
        strict: bool,
    ) -> Picture:
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
