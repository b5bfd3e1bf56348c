"""Checks of what the fields of records are set to, and the records that make them."""

from __future__ import annotations

import difflib
from typing import TYPE_CHECKING, Any, Callable, Iterable, List, Mapping, Tuple

import numpy as np

from . import _zp, arrays
from .shaders import Shader

if TYPE_CHECKING:
    from .scene import Scene


def nearest(word: str, words: Iterable[str]) -> str:
    near = difflib.get_close_matches(word, list(words), 1)
    return f"; did you mean '{near[0]}'?" if near else ""


class Record:
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
            raise AttributeError(f"zp: {type(self).__name__} has no '{name}'" + nearest(name, self._checks))
        object.__setattr__(self, name, self._checks[name](value, f"{type(self).__name__}: {name}"))


def maybe(check: Callable[[Any, str], Any]) -> Callable[[Any, str], Any]:
    return lambda value, what: None if value is None else check(value, what)


def pair(value: Any, what: str) -> Tuple[int, int]:
    width, height = (arrays.whole(number, what, 1, 65535) for number in sequence(value, what, 2))
    return width, height


def sequence(value: Any, what: str, size: int) -> Any:
    if not isinstance(value, (tuple, list, np.ndarray)) or len(value) != size:
        raise ValueError(f"zp: {what} must be {size} numbers, not {value!r}")
    return value


def region(value: Any, what: str) -> Tuple[int, int, int, int]:
    left, top, right, bottom = (arrays.whole(number, what) for number in sequence(value, what, 4))
    if left >= right or top >= bottom:
        raise ValueError(f"zp: {what} must be left, top, right, bottom, of one pixel at least, not {value!r}")
    return left, top, right, bottom


def angle(value: Any, what: str) -> float:
    result = arrays.number(value, what, 0, 180)
    if result in (0, 180):
        raise ValueError(f"zp: {what} must be between 0 and 180 degrees, not {result:g}")
    return result


def layers(value: Any, what: str) -> List[str]:
    words = [value] if isinstance(value, str) else list(value)
    known = _zp._layer_words()
    for word in words:
        if word not in known:
            raise KeyError(
                f"zp: {what}: there is no layer {word!r}" + (nearest(str(word), known) or " among " + ", ".join(known))
            )
    return words


def shader(value: Any, what: str) -> Shader:
    if not isinstance(value, Shader):
        raise TypeError(f"zp: {what} must be a zp.Shader, not {value!r}")
    return value


def shaders(value: Any, what: str) -> List[Shader]:
    return [shader(one, what) for one in value]


def count(value: Any, what: str) -> int:
    return arrays.whole(value, what)


def positive(value: Any, what: str) -> float:
    return arrays.number(value, what, 0)


def text(value: Any, what: str) -> str:
    if not isinstance(value, str):
        raise TypeError(f"zp: {what} must be a str, not {value!r}")
    return value
