"""Lights, the sky, and what emits."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, Callable, List, Mapping, Tuple

from . import _zp, arrays, checks
from .shaders import Shader, Texture

if TYPE_CHECKING:
    from .scene import Scene


class Light(checks.Record):
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
                self._call(
                    "photon" if word == "photons" else word, index, *(value if isinstance(value, tuple) else (value,))
                )


_SHARED: Mapping[str, Callable[[Any, str], Any]] = {
    "color": arrays.color,
    "blur": checks.positive,
    "offset": lambda value, what: arrays.number(value, what, -1, 0.999),
    "sample": checks.count,
    "photons": checks.count,
    "only": checks.shaders,
}


class PointLight(Light):
    """Light from a place: a white surface that faces it at a distance of 1 shines with `color`."""

    _kind = "point"
    position: Any
    direction: Any  #: axis of the spot
    inner_angle: float  #: degrees off the axis: full light up to here
    outer_angle: float  #: none from here
    blur: float  #: radius of a sphere of light, for soft shadows
    _checks = {
        **_SHARED,
        "position": arrays.vector,
        "direction": arrays.direction,
        "inner_angle": lambda value, what: arrays.number(value, what, 0, 180),
        "outer_angle": lambda value, what: arrays.number(value, what, 0, 181),
    }


class ParallelLight(Light):
    """Light from infinitely far away: a white surface that faces it shines with `color`."""

    _kind = "parallel"
    direction: Any  #: the way that the light travels
    blur: float  #: half angle of the cone of directions, degrees, for soft shadows; the sun's is about 0.27
    _checks = {**_SHARED, "direction": arrays.direction}


def _sky_image(value: Any, what: str) -> Any:
    return value if value is None or isinstance(value, Texture) or value == "analytic" else Texture(value)


class Sky(Light):
    """What lies around the scene: there is one, grey 0.75 unless Scene.sky says otherwise."""

    _kind = "sky"
    image: Any  #: a Texture, latitude-longitude; "analytic"; or None
    backdrop: Any  #: what the camera sees in its place
    _checks = {
        "color": arrays.color,
        "image": _sky_image,
        "backdrop": _sky_image,
        "north": checks.maybe(arrays.direction),
        "zenith": checks.maybe(arrays.direction),
        "sample": checks.maybe(checks.count),
        "photons": checks.maybe(checks.count),
        "only": checks.shaders,
    }


class Emitters(Light):
    _kind = "geometry"
    _checks = {"sample": checks.maybe(checks.count), "photons": checks.maybe(checks.count), "only": checks.shaders}
