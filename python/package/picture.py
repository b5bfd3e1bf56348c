"""Pictures that a render has made, or a file holds."""

from __future__ import annotations

import os
import struct
import zlib
from typing import Any, Dict, Iterator, Mapping, Optional, Tuple, Union

import numpy as np
from numpy.typing import NDArray

from . import _zp
from .arrays import Floats, Vector

PathLike = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]

# What cameras call layers that files of pictures call otherwise.
_WORDS = {"normal": "N", "depth": "Z", "position": "P", "beauty": ""}


def _png(pixels: NDArray[np.uint8]) -> bytes:
    height, width, channels = pixels.shape
    lines = np.zeros((height, 1 + width * channels), np.uint8)  # each begins with its filter, none
    lines[:, 1:] = pixels.reshape(height, -1)

    def chunk(kind: bytes, data: bytes) -> bytes:
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    header = struct.pack(">IIBBBBB", width, height, 8, 2 if channels == 3 else 0, 0, 0, 0)
    return (
        b"\x89PNG\r\n\x1a\n"
        + chunk(b"IHDR", header)
        + chunk(b"IDAT", zlib.compress(lines.tobytes(), 6))
        + chunk(b"IEND", b"")
    )


class Picture(Mapping[str, Floats]):
    """A picture of layers, each a float32 array, linear, the top row first.

    picture.beauty is [height, width, 3]; picture["depth"] and its like are [height, width] with one channel, else
    [height, width, channels]. A layer goes by the word that a camera's aovs have for it, or by its name in
    OpenEXR files: "depth" is "Z". The arrays are the picture's own: what is written into them is saved, too.
    Where a camera renders a region, the arrays hold the region.
    """

    passes: int  #: whole passes that it holds
    seed: Optional[int]  #: None: by chance
    seconds: float  #: that its passes took
    exposure: Vector  #: of its camera; acts in files of 8 bits and in notebooks

    def __init__(
        self,
        layers: _zp._LayeredPicture,
        *,
        passes: int = 0,
        seed: Optional[int] = None,
        seconds: float = 0,
        exposure: Vector = (1, 1, 1),
    ) -> None:
        self._layers = layers
        self.passes, self.seed, self.seconds, self.exposure = passes, seed, seconds, exposure

    @classmethod
    def open(cls, path: PathLike) -> Picture:
        """Reads OpenEXR with all its layers, or another picture as one, made linear. Raises OSError."""
        return cls(_zp._read_picture(path))

    @property
    def beauty(self) -> Floats:
        """What the camera sees, [height, width, 3]."""
        return self._layers.numbers("")[..., :3]

    @property
    def alpha(self) -> Floats:
        """The share of each pixel that is covered, [height, width]; KeyError in a picture without."""
        channels = dict(self._layers.layers())[""]
        if "A" not in channels:
            raise KeyError("zp: the picture has no alpha")
        return self._layers.numbers("")[..., channels.index("A")]

    @property
    def region(self) -> Tuple[int, int, int, int]:
        """The pixels that the arrays hold: left, top, right, bottom; the last two excluded."""
        return self._layers.region()

    @property
    def resolution(self) -> Tuple[int, int]:
        """Width and height of the whole picture."""
        return self._layers.resolution()

    @property
    def attributes(self) -> Dict[str, Any]:
        """What its file tells besides: "worldToCamera" and "worldToNDC" of a render, 16 numbers by rows, and others."""
        return self._layers.attributes()

    def _name(self, layer: str) -> str:
        names = [name for name, _ in self._layers.layers()]
        for name in (layer, _WORDS.get(layer, layer)):
            if name in names:
                return name
        raise KeyError(f"zp: there is no layer '{layer}' among " + ", ".join(self))

    def __getitem__(self, layer: str) -> Floats:
        if layer == "beauty":
            return self.beauty
        if layer == "alpha":
            return self.alpha
        numbers = self._layers.numbers(self._name(layer))
        return numbers[..., 0] if numbers.shape[-1] == 1 else numbers

    def __iter__(self) -> Iterator[str]:
        words = {name: word for word, name in _WORDS.items()}
        for name, channels in self._layers.layers():
            yield words.get(name, name)
            if name == "" and "A" in channels:
                yield "alpha"

    def __len__(self) -> int:
        return sum(1 for _ in self)

    def __eq__(self, other: object) -> bool:
        return self is other

    __hash__ = object.__hash__

    def __repr__(self) -> str:
        width, height = self.resolution
        return f"<zp.Picture {width} by {height}, {self.passes} passes: {', '.join(self)}>"

    def save(self, path: PathLike, layer: Optional[str] = None) -> None:
        """Writes all layers as OpenEXR, or the beauty in the format that the name tells; or one layer alone.

        Files of 8 bits hold what a screen shows: light times `exposure`, by the curve of sRGB. Raises OSError.
        """
        name = None if layer is None else self._name(layer)
        if name is None and not os.fsencode(path).lower().endswith(b".exr"):
            name = ""
        self._layers.set_attribute("zephlore:passes", self.passes)
        self._layers.set_attribute("zephlore:seconds", self.seconds)
        if self.seed is not None:
            self._layers.set_attribute("zephlore:seed", str(self.seed))
        reason = self._layers.save(path, name, self.exposure)
        if reason:
            raise OSError(f"zp: cannot write the picture '{os.fsdecode(path)}': {reason}")

    def denoised(self) -> Picture:
        """A copy with the noise taken out of its beauty. Takes the layers that render(denoise=True) adds.

        ValueError tells which are missing.
        """
        missing = self._layers.missing_for_denoise()
        if missing:
            raise ValueError(f"zp: taking noise out needs render(denoise=True); the picture lacks {missing}")
        copy = Picture(
            self._layers.copy(), passes=self.passes, seed=self.seed, seconds=self.seconds, exposure=self.exposure
        )
        copy._layers.denoise()
        return copy

    def view(
        self, layer: str = "beauty", *, stops: float = 0, white_balance: Optional[float] = None, curve: str = "srgb"
    ) -> NDArray[np.uint8]:
        """A layer as a screen shows it: uint8, [height, width, 3], or 1 in place of 3 for one channel.

        stops: exposure, doubling with each. white_balance: kelvin. curve: "srgb" cuts what is brighter than white,
        "filmic" rolls it off.
        """
        if curve not in ("srgb", "filmic"):
            raise ValueError(f"zp: curve must be 'srgb' or 'filmic', not {curve!r}")
        return self._layers.view(self._name(layer), stops, white_balance, curve == "filmic")

    def _repr_png_(self) -> bytes:
        layers = self._layers
        if self.exposure != (1, 1, 1):
            layers = layers.copy()
            layers.numbers("")[..., :3] *= np.array(self.exposure, np.float32)
        return _png(layers.view("", 0, None, False))
