"""How what a caller hands over becomes arrays and numbers that the renderer can trust.

What is wrong raises before anything is kept: TypeError for what is no number, ValueError for shapes, numbers that
are not finite and values out of range, IndexError for vertices that are not there.
"""

from __future__ import annotations

from typing import Any, Tuple, Union

import numpy as np
from numpy.typing import ArrayLike, NDArray

Vector = Tuple[float, float, float]
Color = Union[float, Tuple[float, float, float], ArrayLike]
Floats = NDArray[np.float32]
Integers = NDArray[np.int32]


def _array(value: Any, what: str, shape: str) -> NDArray[Any]:
    try:
        array = np.asarray(value)
    except ValueError:  # rows of unequal length
        array = np.empty(0, object)
    if array.dtype.kind == "O":
        raise ValueError(f"zp: {what} must be an array of the shape {shape}")
    return array


def floats(value: Any, what: str, *shape: int) -> Floats:
    """A copy in single precision; -1 in `shape` stands for any number."""
    text = "[" + ", ".join("n" if size < 0 else str(size) for size in shape) + "]"
    array = _array(value, what, text)
    if array.dtype.kind not in "iuf" and array.size > 0:
        raise TypeError(f"zp: {what} must hold numbers, not {array.dtype}")
    if array.size == 0 and shape[0] < 0:
        return np.zeros([max(size, 0) for size in shape], np.float32)
    if array.ndim != len(shape) or any(size not in (-1, have) for size, have in zip(shape, array.shape)):
        raise ValueError(f"zp: {what} must have the shape {text}, not {list(array.shape)}")
    with np.errstate(over="ignore"):
        numbers = np.array(array, np.float32, order="C")
    if not np.isfinite(numbers).all():
        place = [int(i) for i in np.argwhere(~np.isfinite(numbers))[0]]
        raise ValueError(f"zp: {what} must be finite, but holds {numbers[tuple(place)]} at {place}")
    numbers.setflags(write=False)
    return numbers


def number(value: Any, what: str, least: float = -np.inf, most: float = np.inf) -> float:
    result = float(floats(value, what))
    if not least <= result <= most:
        raise ValueError(f"zp: {what} must be from {least:g} to {most:g}, not {result:g}")
    return result


def whole(value: Any, what: str, least: int = 0, most: int = 2**31 - 1) -> int:
    if isinstance(value, bool) or not isinstance(value, (int, np.integer)):
        raise TypeError(f"zp: {what} must be an integer, not {value!r}")
    if not least <= value <= most:
        raise ValueError(f"zp: {what} must be from {least} to {most}, not {value}")
    return int(value)


def vector(value: Any, what: str) -> Vector:
    x, y, z = floats(value, what, 3).tolist()
    return x, y, z


def direction(value: Any, what: str) -> Vector:
    result = vector(value, what)
    if not any(result):
        raise ValueError(f"zp: {what} must have a length")
    return result


def color(value: Any, what: str) -> Vector:
    """Linear RGB; a number counts for all three."""
    array = _array(value, what, "[3]")
    return vector(np.full(3, array) if array.ndim == 0 and array.dtype.kind in "iuf" else array, what)


def matrix(value: Any, what: str) -> Floats:
    """[4, 4], for columns: the translation is the last column."""
    result = floats(value, what, 4, 4)
    if not np.array_equal(result[3], [0, 0, 0, 1]):
        raise ValueError(f"zp: {what} must end with the row 0 0 0 1, not {result[3].tolist()}")
    if np.linalg.det(result[:3, :3].astype(float)) == 0:
        raise ValueError(f"zp: {what} must have an inverse")
    return result


def integers(value: Any, what: str, shape: str, dimensions: int) -> Integers:
    """A copy of 32 bits."""
    array = _array(value, what, shape)
    if array.size == 0:
        array = np.zeros((0,) * dimensions, np.int32)
    if array.dtype.kind not in "iu":
        raise TypeError(f"zp: {what} must hold integers, not {array.dtype}")
    if array.ndim != dimensions:
        raise ValueError(f"zp: {what} must have the shape {shape}, not {list(array.shape)}")
    outside = (array < 0) | (array > 2**31 - 1)
    if outside.any():
        raise IndexError(f"zp: {what} must be from 0 to {2**31 - 1}, not {array[outside][0]}")
    return np.array(array, np.int32, order="C")


def faces(value: Any, vertices: int, what: str) -> Integers:
    """[n, 3] or [n, 4], of vertices that are there."""
    result = integers(value, what, "[n, 3] or [n, 4]", 2)
    if len(result) == 0:
        return result.reshape(0, 3)
    if result.shape[1] not in (3, 4):
        raise ValueError(f"zp: {what} must have the shape [n, 3] or [n, 4], not {list(result.shape)}")
    if result.max() >= vertices:
        face = int(np.argmax((result >= vertices).any(axis=1)))
        raise IndexError(f"zp: {what}: face {face} names vertex {result[face].max()} of {vertices}")
    return result


def member(kind: Any, word: Any, what: str) -> Any:
    """The member of an enumeration whose name is the word, in small letters."""
    words = [each.name.lower() for each in kind]
    if not isinstance(word, str) or word not in words:
        raise ValueError(f"zp: {what} must be one of {', '.join(words)}, not {word!r}")
    return kind[word.upper()]
