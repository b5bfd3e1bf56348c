"""Cameras."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, List, Mapping, Optional, Tuple

import numpy as np

from . import _zp, arrays, checks

if TYPE_CHECKING:
    from .scene import Scene

_POSE = ("position", "target", "up", "fov", "bokeh")


class Camera(checks.Record):
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
        "name": checks.text,
        "position": arrays.vector,
        "target": arrays.vector,
        "up": arrays.direction,
        "fov": checks.angle,
        "bokeh": checks.positive,
        "resolution": checks.pair,
        "region": checks.maybe(checks.region),
        "aovs": checks.layers,
        "exposure": arrays.color,
        "passes": lambda value, what: arrays.whole(value, what, 1, 65535),
        "projection": lambda value, what: arrays.member(_zp.Projection, value, "projection").name.lower(),
        "end": lambda value, what: Camera._end(value, what),
    }

    def __init__(self, scene: Scene, **fields: Any) -> None:
        self._set(scene, **fields)

    @staticmethod
    def _end(value: Any, what: str) -> Optional[Mapping[str, Any]]:
        if value is None:
            return None
        for word in value:
            if word not in _POSE:
                raise KeyError(f"zp: {what}: a pose has no {word!r}" + checks.nearest(str(word), _POSE))
        return {word: Camera._checks[word](number, f"{what}: {word}") for word, number in value.items()}

    def _build(self) -> int:
        camera = _zp.add_camera()
        open_pose = {word: getattr(self, word) for word in _POSE}
        for time_of_pose, pose in enumerate([open_pose] + ([{**open_pose, **self.end}] if self.end else [])):
            way = np.subtract(pose["target"], pose["position"])
            if not np.cross(way, pose["up"]).any():
                raise ValueError(
                    "zp: Camera: up lies along the view"
                    if way.any()
                    else "zp: Camera: position and target are the same"
                )
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
