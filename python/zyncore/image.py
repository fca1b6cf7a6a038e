"""Images (docs/images.md): to and from numpy, BMP files, colour, size, parts."""

from __future__ import annotations

import ctypes
import os
from ctypes import POINTER, c_int32, pointer
from enum import IntEnum
from typing import NamedTuple

import numpy as np

from . import _arrays, _native
from ._records import Matrix


class Format(IntEnum):
    """How the pixels of an image lie; docs/images.md describes every one."""
    BGR = 0
    RGB = 1
    GRAY = 2
    BGRA = 3
    RGBA = 4
    I420 = 5
    PLANAR = 6
    PACKED2 = 7
    SIGNED3 = 8
    PACKED3_A = 9
    PACKED3_B = 10
    PACKED3_C = 11
    NV12 = 12
    NV21 = 13
    BGR48 = 14


_PLANES = {Format.I420, Format.PLANAR, Format.NV12, Format.NV21}
_ELEMENTS = {Format.SIGNED3: "i1", Format.BGR48: "<u2"}
_CONVERSIONS = {
    (Format.BGR, Format.GRAY): 0, (Format.BGR, Format.RGB): 2, (Format.RGB, Format.BGR): 3,
    (Format.BGRA, Format.RGBA): 2, (Format.RGBA, Format.BGRA): 3, (Format.BGR, Format.I420): 8,
    (Format.I420, Format.BGR): 9, (Format.BGR, Format.SIGNED3): 13,
    (Format.SIGNED3, Format.BGR): 14, (Format.BGR, Format.PLANAR): 21,
    (Format.PLANAR, Format.BGR): 22}


class Image:
    """An image of width * height pixels, black at creation.

    `array` and `planes` are views of its memory, which stays as long as one of them does.
    """

    def __init__(self, width: int, height: int, format: Format = Format.BGR) -> None:
        self._adopt(_native.zyn_create_image(width, height, format))
        for plane in self.planes:
            plane.fill(0)

    def _adopt(self, record: POINTER(Matrix)) -> None:
        self._owned = _native.Owned(record, _native.zyn_release_matrix)
        self._record, self._array = record, None

    @classmethod
    def _of(cls, record: POINTER(Matrix)) -> Image:
        image = cls.__new__(cls)
        image._adopt(record)
        return image

    @classmethod
    def from_array(cls, array: np.ndarray, format: Format | None = None, *, copy: bool = False
                   ) -> Image:
        """An image of a packed format on an array of shape (height, width, channels) or,
        with one channel, (height, width).

        Without a format one channel is GRAY, three are BGR, four BGRA. The array's memory is
        used as it is where its elements lie in C order, unless copy is wished.
        """
        if format is None:
            format = {2: Format.GRAY, 3: {1: Format.GRAY, 4: Format.BGRA}.get(
                array.shape[-1], Format.BGR)}.get(array.ndim, Format.BGR)
        model = cls(1, 1, format)
        if format in _PLANES or array.dtype != model.array.dtype:
            raise ValueError(f"format {Format(format).name} has no pixels of {array.dtype}")
        channels = model._record.contents.channels
        if array.shape[2:] not in ([(), (1,)] if channels == 1 else [(channels,)]) or \
                array.size == 0:
            raise ValueError(f"format {Format(format).name} has {channels} channels, the array "
                             f"the shape {array.shape}")
        height, width = array.shape[:2]
        array = np.array(array, order="C", copy=True) if copy else np.ascontiguousarray(array)
        m = model._record.contents
        record = Matrix(
            kind=m.kind, type=m.type, data=array.ctypes.data, rows=height, cols=width, pages=1,
            row_bytes=width * channels * array.itemsize, flag=m.flag, format=format,
            element_size=m.element_size, channels=channels)
        image = cls.__new__(cls)
        image._owned, image._record, image._array = None, pointer(record), array
        return image

    @property
    def width(self) -> int:
        return self._record.contents.cols

    @property
    def height(self) -> int:
        return self._record.contents.rows

    @property
    def format(self) -> Format:
        return Format(self._record.contents.format)

    @property
    def array(self) -> np.ndarray:
        """The pixels of a packed format, (height, width, channels), of one channel (height,
        width); PLANAR (3, height, width)."""
        if self._array is not None:
            return self._array
        m = self._record.contents
        if self.format == Format.PLANAR:
            return self._view(m.data, (3, m.rows, m.cols), None)
        if self.format in _PLANES:
            raise ValueError(f"format {self.format.name} has planes of different sizes: planes")
        pixel = (m.channels,) if m.channels > 1 else ()
        return self._view(m.data, (m.rows, m.cols, *pixel), m.row_bytes)

    @property
    def planes(self) -> tuple[np.ndarray, ...]:
        """Every plane: luma and two chroma planes of I420, luma (height, width) and chroma
        (height // 2, stride // 2, 2) of NV12 and NV21, three planes of PLANAR, else the array.
        """
        m, kind = self._record.contents, self.format
        if kind == Format.I420:
            half = m.rows // 2, m.cols // 2
            return (self._view(m.data, (m.rows, m.cols), m.row_bytes),
                    self._view(m.plane1, half, m.plane1_bytes),
                    self._view(m.plane2, half, m.plane2_bytes))
        if kind in (Format.NV12, Format.NV21):
            chroma = m.data + m.rows * m.row_bytes
            return (self._view(m.data, (m.rows, m.cols), m.row_bytes),
                    self._view(chroma, (m.rows // 2, m.row_bytes // 2, 2), m.row_bytes))
        return tuple(self.array) if kind == Format.PLANAR else (self.array,)

    def _view(self, data: int, shape: tuple[int, ...], row_bytes: int | None) -> np.ndarray:
        element = np.dtype(_ELEMENTS.get(self.format, "u1"))
        strides = None
        if row_bytes is not None:
            pixel = shape[2] if len(shape) == 3 else 1
            strides = (row_bytes, pixel * element.itemsize, element.itemsize)[:len(shape)]
        return _arrays.view(data, shape, element, self._owned, strides)

    def write(self, path: str | os.PathLike[str]) -> None:
        """Writes a file whose name ends in ".bmp": formats BGR, RGB, GRAY, I420."""
        # Writing RGB would exchange the channels of this image.
        image = self.convert(Format.BGR) if self.format == Format.RGB else self
        _native.zyn_image_write_to_file_with_level(_native.encode_path(path), image._record)

    def convert(self, format: Format) -> Image:
        """The image in another format, by way of BGR where there is no direct one."""
        if format == self.format:
            return self.copy()
        code = _CONVERSIONS.get((self.format, format))
        if code is None:
            if Format.BGR in (self.format, format):
                raise ValueError(f"no conversion from {self.format.name} to "
                                 f"{Format(format).name}")
            return self.convert(Format.BGR).convert(format)
        result = Image(self.width, self.height, format)
        _native.zyn_image_color_space_convert(result._record, self._record, code)
        return result

    def copy(self) -> Image:
        result = Image(self.width, self.height, self.format)
        for to, plane in zip(result.planes, self.planes):
            to[...] = plane
        return result

    def resize(self, width: int, height: int, *, bilinear: bool = True) -> Image:
        """Scaled to another size; BGR, RGB, GRAY, I420, SIGNED3, PACKED3_C."""
        result = Image(width, height, self.format)
        _native.zyn_image_resizer(result._record, self._record, int(bilinear))
        return result

    def crop(self, x: int, y: int, width: int, height: int) -> Image:
        """A part; pixels outside of the image repeat its nearest edge pixel."""
        result = Image(width, height, self.format)
        _native.zyn_image_cropped_patch(result._record, self._record, (c_int32 * 2)(x, y),
                                        (c_int32 * 2)(width, height))
        return result

    def border(self, ratio: float) -> Bordered:
        """Padded with black to height / width = ratio; BGR, RGB, I420, sides up to 4096."""
        margins = [c_int32() for _ in range(4)]
        record = _native.zyn_create_border_image(*map(ctypes.byref, margins), self._record, ratio)
        return Bordered(Image._of(record), *(m.value for m in margins))

    def __repr__(self) -> str:
        return f"<zyncore.Image {self.width} x {self.height} {self.format.name}>"


class Bordered(NamedTuple):
    """A padded image and its margins in pixels."""
    image: Image
    top: int
    bottom: int
    left: int
    right: int


def read_bmp(path: str | os.PathLike[str], format: Format | None = Format.BGR) -> Image:
    """Reads a BMP file as BGR or GRAY; None: GRAY for grey files, BGR for others."""
    if format not in (None, Format.BGR, Format.GRAY):
        raise ValueError("BMP files are read as BGR or GRAY")
    mode = 0 if format is None else 1 if format == Format.GRAY else 2
    try:
        return Image._of(_native.zyn_create_image_from_file(_native.encode_path(path), mode))
    except _native.Error as error:  # what is no BMP file is refused in silence
        said = error.detail or "it is not a BMP file, or damaged"
        raise _native.Error("read_bmp", error.code, error.report, f"'{path}': {said}") from None
