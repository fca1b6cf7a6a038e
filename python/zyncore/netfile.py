"""Reading and writing network files (docs/network-file.md) with numpy alone.

A Writer collects nodes in an order of execution; every call that adds a node returns its
id. Shapes are given fastest extent first, as in the library: a picture of 320 x 240 pixels
in three planes is (320, 240, 3), which as a numpy array has the shape (3, 240, 320).
read() gives the content of a file, whose nodes can be changed and written again.
"""

from __future__ import annotations

import hashlib
import struct
from dataclasses import dataclass
from typing import Sequence

import numpy as np

MAGIC = b"ZYNNET\r\n"
BYTE_ORDER = 0x01020304
VERSION = 1
NONE = 0xFFFFFFFF

TEXTS, NODES, WORDS, CONSTANTS, DATA, INPUTS, OUTPUTS, Q, METHODS, METADATA = range(1, 11)
RECORD_BYTES = {TEXTS: 1, NODES: 32, WORDS: 4, CONSTANTS: 40, DATA: 4, INPUTS: 72,
                OUTPUTS: 24, Q: 4, METHODS: 4, METADATA: 16}

# Operator types, by the names of the library's header without ZYN_OP_.
OPERATORS = {
    "INPUT": 0, "DATA": 1, "CONSTANT": 2, "CONV": 3, "CONV_DEPTHWISE": 4,
    "CONV_POINTWISE": 5, "CONV_GROUPED": 7, "CONV_TRANSPOSED": 8, "FUNCTION": 9,
    "BATCH_NORM": 10, "BATCH_NORM_FAST": 11, "CONV_ACT": 12, "CONV_BN": 13, "SIGMOID": 15,
    "RELU": 16, "RELU6": 20, "HARD_SWISH": 21, "MAX_POOL": 22, "AVERAGE_POOL": 23,
    "MISH": 24, "LINEAR": 25, "ADD": 27, "MULTIPLY": 28, "RESAMPLE": 30, "AFFINE": 31,
    "RESHAPE": 32, "CONCAT": 33, "CHANNEL_SLICE": 34, "CHANNEL_GATHER": 35,
}

CHANNEL_ORDERS = {"none": 0, "bgr": 1, "rgb": 2, "grey": 3}
RESIZE_RULES = {"none": 0, "stretch": 1, "border": 2, "crop": 3}
MEANINGS = {"none": 0, "scores": 1, "probabilities": 2, "offsets": 3, "boxes": 4,
            "landmarks": 5, "features": 6}


def words(values: Sequence[int | float]) -> np.ndarray:
    """Parameter words: integers as they are, floats as their bits."""
    packed = b"".join(struct.pack("<f", v) if isinstance(v, float) else struct.pack("<i", v)
                      for v in values)
    return np.frombuffer(packed, "<u4")


class Writer:
    """A network file in the making."""

    def __init__(self) -> None:
        self._texts = bytearray()
        self._nodes: list[bytes] = []
        self._words: list[np.ndarray] = []
        self._word_count = 0
        self._constants: list[bytes] = []
        self._data: list[np.ndarray] = []
        self._float_count = 0
        self._inputs: list[bytes] = []
        self._outputs: list[bytes] = []
        self._q: dict[int, int] = {}
        self._methods: dict[int, int] = {}
        self._metadata: list[bytes] = []

    def _text(self, text: str) -> bytes:
        data = text.encode("utf-8")
        at = len(self._texts)
        self._texts += data
        return struct.pack("<II", at, len(data))

    def _run(self, run: np.ndarray) -> bytes:
        at = self._word_count
        self._words.append(run.astype("<u4"))
        self._word_count += run.size
        return struct.pack("<II", at, run.size)

    def _node(self, kind: int, name: str, param: np.ndarray, inputs: Sequence[int],
              data: int) -> int:
        for node in inputs:
            if not 0 <= node < len(self._nodes):
                raise ValueError(f"'{name}' reads node {node}, which has not been added")
        self._nodes.append(struct.pack("<I", kind) + self._text(name) + self._run(param) +
                           self._run(np.array(inputs, "<u4")) + struct.pack("<I", data))
        return len(self._nodes) - 1

    def input(self, name: str, extents: Sequence[int], *, channel_order: str = "none",
              resize: str = "none", mean: Sequence[float] = (0, 0, 0),
              scale: Sequence[float] = (1, 1, 1), leading: int = 1) -> int:
        """A named input of the given extents, fastest first."""
        self._inputs.append(
            self._text(name) + struct.pack("<I5i", len(extents), *_five(extents)) +
            struct.pack("<II", CHANNEL_ORDERS[channel_order], RESIZE_RULES[resize]) +
            struct.pack("<3f3f", *mean, *scale) + struct.pack("<II", leading, 0))
        return self._node(OPERATORS["INPUT"], name, words([]), [], len(self._inputs) - 1)

    def constant(self, name: str, values: np.ndarray, extents: Sequence[int] | None = None) -> int:
        """Floats; extents (fastest first) default to one run of all values."""
        flat = np.ascontiguousarray(values, "<f4").reshape(-1)
        dims = [flat.size] if extents is None else list(extents)
        self._constants.append(struct.pack("<Q", 4 * self._float_count) +
                               struct.pack("<I5i", len(dims), *_five(dims)) +
                               struct.pack("<II", 6, 0))
        padded = np.zeros(-(-flat.size // 16) * 16, "<f4")
        padded[:flat.size] = flat
        self._data.append(padded)
        self._float_count += padded.size
        return self._node(OPERATORS["CONSTANT"], name, words([]), [], len(self._constants) - 1)

    def node(self, operator: str | int, name: str, inputs: Sequence[int],
             param: Sequence[int | float] = ()) -> int:
        """An operator with the words of its record, reading nodes added before."""
        kind = OPERATORS[operator] if isinstance(operator, str) else operator
        return self._node(kind, name, words(param), inputs, NONE)

    def output(self, name: str, node: int, *, meaning: str = "none", leading: int = 1) -> None:
        self._outputs.append(self._text(name) +
                             struct.pack("<IIII", node, MEANINGS[meaning], leading, 0))

    def q(self, node: int, bits: int) -> None:
        """Fraction bits of a node's output; nodes without have 0."""
        self._q[node] = bits

    def method(self, node: int, method: int) -> None:
        """How a convolution computes: 0 to 6."""
        self._methods[node] = method

    def metadata(self, key: str, value: str) -> None:
        self._metadata.append(self._text(key) + self._text(value))

    def tobytes(self) -> bytes:
        count = len(self._nodes)
        sections = [
            (TEXTS, bytes(self._texts)),
            (NODES, b"".join(self._nodes)),
            (WORDS, b"".join(run.tobytes() for run in self._words)),
            (CONSTANTS, b"".join(self._constants)),
            (DATA, b"".join(part.tobytes() for part in self._data)),
            (INPUTS, b"".join(self._inputs)),
            (OUTPUTS, b"".join(self._outputs)),
            (METADATA, b"".join(self._metadata)),
        ]
        if self._q:
            bits = [self._q.get(i, 0) for i in range(count)]
            sections.append((Q, struct.pack(f"<{count}i", *bits)))
        if self._methods:
            chosen = [self._methods.get(i, NONE) for i in range(count)]
            sections.append((METHODS, struct.pack(f"<{count}I", *chosen)))
        table, body = [], bytearray()
        at = 32 + 24 * len(sections)
        for section, data in sections:
            step = 64 if section == DATA else 8
            body += bytes(-(at + len(body)) % step)
            table.append(struct.pack("<IIQQ", section, len(data) // RECORD_BYTES[section],
                                     at + len(body), len(data)))
            body += data
        body += bytes(-(at + len(body)) % 8)
        size = at + len(body) + 16
        file = (MAGIC + struct.pack("<IIQII", BYTE_ORDER, VERSION, size, len(sections), 0) +
                b"".join(table) + bytes(body))
        return file + hashlib.md5(file).digest()

    def write(self, path: str) -> None:
        with open(path, "wb") as file:
            file.write(self.tobytes())


def _five(extents: Sequence[int]) -> list[int]:
    if not 1 <= len(extents) <= 5:
        raise ValueError(f"1 to 5 extents are needed, found {len(extents)}")
    return list(extents) + [0] * (5 - len(extents))


@dataclass
class Node:
    """A node of a file that was read."""
    type: int                    # one of OPERATORS' numbers
    name: str
    words: np.ndarray            # the parameter record, uint32 (view it as float32 for floats)
    inputs: list[int]            # nodes that it reads
    values: np.ndarray | None    # constants: their floats, slowest axis first; may be changed


class Content:
    """A file that was read, to be looked at, changed and written again."""

    def __init__(self, data: bytes) -> None:
        if data[:8] != MAGIC or len(data) < 48 or hashlib.md5(data[:-16]).digest() != data[-16:]:
            raise ValueError("not a network file, or a damaged one")
        if struct.unpack_from("<II", data, 8) != (BYTE_ORDER, VERSION):
            raise ValueError("a network file of another version")
        self._sections: dict[int, bytes] = {}
        for row in range(struct.unpack_from("<I", data, 24)[0]):
            section, _, at, size = struct.unpack_from("<IIQQ", data, 32 + 24 * row)
            self._sections[section] = data[at:at + size]
        self._words = np.frombuffer(self._sections[WORDS], "<u4")
        self.nodes: list[Node] = [self._node(*r) for r in self._records(NODES, "<8I")]

    def _records(self, section: int, form: str) -> list[tuple]:
        return list(struct.iter_unpack(form, self._sections.get(section, b"")))

    def _text(self, at: int, size: int) -> str:
        return self._sections[TEXTS][at:at + size].decode("utf-8")

    def _node(self, kind: int, name_at: int, name_size: int, word: int, word_count: int,
              first: int, input_count: int, data: int) -> Node:
        values = self._values(data) if kind == OPERATORS["CONSTANT"] else None
        return Node(kind, self._text(name_at, name_size),
                    self._words[word:word + word_count].copy(),
                    [int(i) for i in self._words[first:first + input_count]], values)

    def _values(self, index: int) -> np.ndarray:
        at, count, *dims = struct.unpack_from("<QI5i", self._sections[CONSTANTS], 40 * index)
        shape = dims[:count][::-1]
        flat = np.frombuffer(self._sections[DATA], "<f4", int(np.prod(shape)), at)
        return flat.reshape(shape).copy()

    def tobytes(self) -> bytes:
        """The file with the nodes as they are now."""
        out = Writer()
        inputs = iter(self._records(INPUTS, "<3I5i2I6f2I"))
        for node in self.nodes:
            if node.type == OPERATORS["INPUT"]:
                at, size, count, *rest = next(inputs)
                out.input(self._text(at, size), rest[:count], channel_order=_name(
                    CHANNEL_ORDERS, rest[5]), resize=_name(RESIZE_RULES, rest[6]),
                    mean=rest[7:10], scale=rest[10:13], leading=rest[13])
            elif node.values is not None:
                out.constant(node.name, node.values, node.values.shape[::-1])
            else:
                out._node(node.type, node.name, node.words, node.inputs, NONE)
        for at, size, node, meaning, leading, _ in self._records(OUTPUTS, "<6I"):
            out.output(self._text(at, size), node, meaning=_name(MEANINGS, meaning),
                       leading=leading)
        out._q = {i: q for i, (q,) in enumerate(self._records(Q, "<i"))}
        out._methods = {i: m for i, (m,) in enumerate(self._records(METHODS, "<I"))}
        for key_at, key_size, at, size in self._records(METADATA, "<4I"):
            out.metadata(self._text(key_at, key_size), self._text(at, size))
        return out.tobytes()

    def write(self, path: str) -> None:
        with open(path, "wb") as file:
            file.write(self.tobytes())


def read(path: str) -> Content:
    """Reads a file. ValueError: it is not one."""
    with open(path, "rb") as file:
        return Content(file.read())


def _name(names: dict[str, int], number: int) -> str:
    return next(name for name, value in names.items() if value == number)
