"""Shaders, their layers and the pictures on them."""

from __future__ import annotations

import os
from typing import TYPE_CHECKING, Any, Dict, List, Optional, Union

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _zp, arrays
from .arrays import Color, Floats

if TYPE_CHECKING:
    from .scene import Scene

_COLORS = ("lambertian", "transmissive", "glossy", "specular", "emissive", "diffusion")
_NUMBERS = ("roughness", "ior", "weight", "anisotropy", "angle", "thickness", "shadow_transparency")
_BYTES = (".png", ".jpg", ".jpeg", ".bmp", ".tga", ".targa", ".gif", ".tif", ".tiff", ".psd", ".webp")


class Texture:
    """A picture that multiplies a colour: a file, or an array [height, width, 3] of linear numbers.

    gamma: exponent of each component. By default 2.2 for colours from files of 8 bits (and arrays of uint8), else
    1. color_matrix: [4, 4], of red, green, blue and 1. uv_matrix: [3, 3], of u, v and 1. Both take format 2.
    """

    def __init__(
        self,
        image: Union[str, "os.PathLike[str]", NDArray[Any]],
        color: Color = 1,
        *,
        gamma: Optional[float] = None,
        color_matrix: Optional[ArrayLike] = None,
        uv_matrix: Optional[ArrayLike] = None,
    ) -> None:
        self.color = arrays.color(color, "Texture: color")
        self.gamma = None if gamma is None else arrays.number(gamma, "Texture: gamma", 0)
        self.color_matrix, self.uv_matrix = (
            None if value is None else arrays.floats(value, f"Texture: {word}", size, size)
            for word, value, size in (("color_matrix", color_matrix, 4), ("uv_matrix", uv_matrix, 3))
        )
        self.path: Optional[str] = None
        self.pixels: Optional[Floats] = None
        self.has_bytes = False
        if isinstance(image, np.ndarray):
            self.has_bytes = image.dtype == np.uint8
            self.pixels = arrays.floats(image, "Texture: image", -1, -1, 3) / np.float32(255 if self.has_bytes else 1)
            if 0 in image.shape:
                raise ValueError("zp: Texture: image must have pixels")
        else:
            self.path = os.fspath(image)
            self.has_bytes = self.path.lower().endswith(_BYTES)

    def _gamma_of(self, element: str) -> float:
        if self.gamma is not None:
            return self.gamma
        return 2.2 if self.has_bytes and element in _COLORS else 1.0


class NormalMap(Texture):
    """A picture of normals in the surface's own space, of numbers from 0 to 1 for -1 to 1."""

    def __init__(
        self, image: Union[str, "os.PathLike[str]", NDArray[Any]], *, uv_matrix: Optional[ArrayLike] = None
    ) -> None:
        twice = [[2, 0, 0, -1], [0, 2, 0, -1], [0, 0, 2, -1], [0, 0, 0, 1]]
        super().__init__(image, gamma=1, color_matrix=twice, uv_matrix=uv_matrix)


Value = Union[Color, Texture, str, "os.PathLike[str]"]  # of an element; a path is a Texture


def _value(value: Value, what: str) -> Any:
    if isinstance(value, (str, os.PathLike)):
        return Texture(value)
    return value if isinstance(value, Texture) else arrays.color(value, what)


class Shader:
    """What a surface looks like: made by Scene.shader or Scene.find_shader."""

    def __init__(
        self, scene: Scene, name: str, visibility: str, smooth_angle: Optional[float], known: bool = False
    ) -> None:
        self._scene, self._name, self._known = scene, name, known
        self._visibility = arrays.member(_zp.Visibility, visibility, "visibility")
        self._smooth_angle = None if smooth_angle is None else arrays.number(smooth_angle, "smooth_angle")
        self._layers: List[Dict[str, Any]] = []
        self._moves: List[Dict[str, Any]] = []

    def __repr__(self) -> str:
        return f"<zp.Shader '{self._name}'>"

    @property
    def name(self) -> str:
        return self._name

    def layer(
        self,
        *,
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
        """Adds a layer, and returns the shader. What is one layer reflects together; layers of a side mix.

        Elements are linear RGB, a number for all three channels, a Texture or the path of one; the words are those
        of the scene format. ior: 1.5 by default where there is a glossy or a specular colour; metals want 20 or so.
        weight: 1 by default. material: "conductor", "dielectric" or "thin_dielectric". side: "face", "back" or "both".
        virtual_light: whether emission is sampled as a light; by default it is, in format 2.
        """
        self._scene._require_open()
        if self._known:
            raise ValueError(f"zp: the layers of '{self._name}' are the folder's; Scene.shader replaces them")
        given = {word: value for word, value in locals().items() if word in _COLORS + _NUMBERS and value is not None}
        if "ior" not in given and ("glossy" in given or "specular" in given):
            given["ior"] = 1.5
        given.setdefault("weight", 1)
        layer = {word: _value(value, f"{self._name}: {word}") for word, value in given.items()}
        if normal is not None:
            if not isinstance(normal, Texture):
                raise TypeError(f"zp: {self._name}: normal must be a NormalMap or a Texture, not {normal!r}")
            layer["normal"] = normal
        layer["material"] = arrays.member(_zp.Material, material, "material")
        layer["side"] = arrays.member(_zp.Sideness, side, "side")
        layer["virtual_light"] = virtual_light
        self._layers.append(layer)
        return self

    def displacement(
        self,
        *,
        height: Optional[float] = None,
        vector: Optional[ArrayLike] = None,
        image: Optional[Texture] = None,
        level: int = 1,
    ) -> Shader:
        """Moves the surface, which is split `level` times along each edge before; returns the shader.

        height: along the normal, scene units, or vector: along tangent, bitangent and normal. With an image times
        its numbers less 0.5. Surfaces need normals and texture coordinates for it.
        """
        self._scene._require_open()
        if (height is None) == (vector is None):
            raise ValueError("zp: displacement takes a height or a vector")
        move = (0, 0, arrays.number(height, "height")) if vector is None else arrays.vector(vector, "vector")
        self._moves.append({"move": move, "image": image, "level": arrays.whole(level, "level", 1, 4096)})
        return self

    def _build(self) -> int:
        shader = _zp._put_shader(self._name)
        _zp.set_shader_visibility(shader, self._visibility)
        if self._smooth_angle is not None:
            _zp.set_shader_smooth_angle(shader, self._smooth_angle)
        for layer in self._layers:
            self._build_layer(shader, layer)
        for move in self._moves:
            index = _zp.add_displacement_shader(shader)
            _zp.set_displacement_vector(shader, index, *move["move"])
            _zp.set_displacement_level(shader, index, move["level"])
            image = move["image"]
            if image is not None:
                _zp.set_displacement_image(
                    shader,
                    index,
                    self._scene._file_of(image),
                    image._gamma_of("height"),
                    image.color_matrix,
                    image.uv_matrix,
                )
        return shader

    def _build_layer(self, shader: int, layer: Dict[str, Any]) -> None:
        index = _zp.add_surface_shader(shader)
        lights = layer["virtual_light"]
        _zp.set_surface_material(shader, index, layer["material"])
        _zp.set_surface_sideness(shader, index, layer["side"])
        _zp.set_surface_virtual_light(
            shader, index, _zp._format() == 2 and "emissive" in layer if lights is None else bool(lights)
        )
        for word in _COLORS + _NUMBERS + ("normal",):
            value = layer.get(word)
            element = _zp.Element[word.upper()]
            if isinstance(value, Texture):
                _zp.set_surface_color(shader, index, element, *value.color)
                _zp.set_surface_image(
                    shader,
                    index,
                    element,
                    self._scene._file_of(value),
                    value._gamma_of(word),
                    value.color_matrix,
                    value.uv_matrix,
                )
            elif value is not None:
                _zp.set_surface_color(shader, index, element, *value)
