"""Graphs by hand (docs/networks.md): nodes with parameter records, checked, prepared, run."""

from __future__ import annotations

import ctypes
from ctypes import POINTER, byref, c_int32, c_uint32, c_void_p
from typing import Callable, NamedTuple, Sequence

import numpy as np
from numpy.typing import ArrayLike

from . import _arrays, _native, netfile
from ._records import CheckReport, GraphParam, NodeDesc, Operator


class Finding(NamedTuple):
    """What the check of a graph says."""
    error: bool  # else a warning
    kind: int    # ZYN_CHECK_*
    node: int    # id, -1: the graph as a whole
    text: str


class Graph:
    """A graph whose nodes are added in an order of execution; each call returns a node's id.

    Data nodes use the memory of their arrays, which are kept: an input is filled by writing
    into the array that was given, or by `run({id: values})`. After the last node: `check()` for
    all problems at once, `prepare()`, then `run()` as often as needed.
    """

    def __init__(self, *, method: int = 2, fixed_point: bool = False) -> None:
        self.method, self.fixed_point = method, fixed_point
        self._nodes: list[tuple[int, str, bytes, tuple[int, ...]]] = []
        self._arrays: dict[int, np.ndarray] = {}
        self._q: dict[int, int] = {}
        self._methods: dict[int, int] = {}
        self._owned: _native.Owned | None = None
        self._errors: list[_native.Error] = []

    def input(self, array: np.ndarray, name: str = "") -> int:
        """An input on an array in C order: float32, in fixed point int16; pictures
        (channels, height, width)."""
        return self._data(Operator.INPUT, array, name)

    def constant(self, values: ArrayLike, name: str = "") -> int:
        """Weights: float32 of any shape that the reading operator wants."""
        return self._data(Operator.CONSTANT, np.ascontiguousarray(values, np.float32), name)

    def node(self, operator: int | str, inputs: Sequence[int],
             param: Sequence[int | float] = (), *, name: str = "", q: int = 0,
             method: int | None = None) -> int:
        """An operator that reads the nodes of inputs, with the words of its record.

        param: the fields in their order, integers and floats told apart by their types, as in
        a network file (docs/network-file.md): lists come behind their number of entries, and
        CONCAT has its axis alone. q: fraction bits of its output in fixed point. method: of
        this convolution.
        """
        kind = Operator[operator] if isinstance(operator, str) else operator
        if missing := [i for i in inputs if not 0 <= i < len(self._nodes)]:
            raise ValueError(f"'{name}' reads node {missing[0]}, which has not been added")
        self._add(kind, name, netfile.words(param).tobytes(), tuple(inputs))
        node = len(self._nodes) - 1
        self._q[node] = q
        if method is not None:
            self._methods[node] = method
        return node

    def q(self, node: int, bits: int) -> None:
        """Fraction bits of a node, for inputs of fixed-point graphs."""
        self._q[node] = bits

    def check(self) -> list[Finding]:
        """Everything that is wrong or doubtful, the worst first; nothing is prepared."""
        report = POINTER(CheckReport)()
        _native.zyn_cg_check(self._build(), byref(report))
        try:
            r = report.contents
            return [Finding(f.severity == 2, f.kind, f.node, f.text.decode("utf-8", "replace"))
                    for f in r.findings[:r.errors + r.warnings]]
        finally:
            _native.zyn_release_cg_report(byref(report))

    def prepare(self) -> None:
        """Packs weights and makes outputs; raises `zyncore.Error`. Again after a change of
        weights."""
        graph = self._build()
        if self._errors:
            raise self._errors[0]
        _native.zyn_prepare_inference_computation(graph)

    def run(self, inputs: dict[int, ArrayLike] | None = None) -> None:
        """Computes every node, from the inputs' arrays after writing values into them."""
        if self._owned is None:
            raise ValueError("the graph has not been prepared")
        for node, values in (inputs or {}).items():
            np.copyto(self._arrays[node], values, casting="same_kind")
        _native.zyn_computation_graph_inference(self._owned.pointer)

    def output(self, node: int, *, raw: bool = False) -> np.ndarray:
        """A copy of a node's output, planar, extents slowest first; fixed point as float32,
        or raw as int16."""
        if node in self._arrays:
            array = self._arrays[node].copy()
        else:
            tensor = self._owned and _native.zyn_get_computation_node_inference_data(
                self._owned.pointer, node)
            if not tensor:
                raise ValueError(f"node {node} has no output: prepare and run the graph")
            array = _arrays.planar_copy(tensor.contents, 0)
        if array.dtype != np.int16 or raw:
            return array
        return np.ldexp(array.astype(np.float32), -self._q.get(node, 0))

    def _add(self, kind: int, name: str, record: bytes, inputs: tuple[int, ...]) -> None:
        if self._owned is not None:
            raise ValueError("the graph has been built: no node can be added")
        self._nodes.append((int(kind), name, record, inputs))

    def _data(self, kind: int, array: np.ndarray, name: str) -> int:
        _arrays.tensor_on(array)  # refuses what no tensor can stand on
        self._add(kind, name, b"", ())
        self._arrays[len(self._nodes) - 1] = array
        return len(self._nodes) - 1

    def _build(self) -> c_void_p:
        """Edges, order, bindings; once. What fails is kept for `prepare`."""
        if self._owned is None:
            param = GraphParam(max_nodes=max(1, len(self._nodes)), thread_count=1,
                               fixed_point=int(self.fixed_point))
            self._owned = _native.Owned(_native.zyn_create_computation_graph_handle(param),
                                        _native.zyn_release_computation_graph_handle)
            self._connect(self._owned.pointer)
            # The records of the data nodes live as long as the graph.
            self._owned.tensors = [self._bind(node) for node in range(len(self._nodes))]
        return self._owned.pointer

    def _connect(self, graph: c_void_p) -> None:
        for node, (_, name, _, inputs) in enumerate(self._nodes):
            for source in inputs:
                _native.zyn_add_one_edge_into_computation_graph(graph, source, node)
            if name:
                _native.zyn_cg_set_node_name(graph, node, _native.encode(name))
        self._attempt(_native.zyn_computation_graph_topo_sort, graph)
        if self.fixed_point:
            count = len(self._nodes)
            block = _native.zyn_malloc(4 * count)
            (c_uint32 * count).from_address(block)[:] = [
                self._q.get(i, 0) & 0xFFFFFFFF for i in range(count)]
            _native.zyn_cg_set_ptr_q_list(graph, block)

    def _bind(self, node: int) -> object:
        """Binds a node; returns its tensor's record."""
        graph = self._owned.pointer
        kind, _, words, inputs = self._nodes[node]
        tensor = _arrays.tensor_on(self._arrays[node]) if node in self._arrays else None
        desc = NodeDesc(type=kind, data=ctypes.addressof(tensor) if tensor else None)
        _native.zyn_cg_set_conv_method(graph, self._methods.get(node, self.method))
        self._attempt(_native.zyn_bind_operator_onto_computation_graph, graph, node, desc,
                      _record(kind, words, inputs))
        return tensor

    def _attempt(self, call: Callable, *arguments: object) -> None:
        try:
            call(*arguments)
        except _native.Error as error:
            self._errors.append(error)


class _Join(ctypes.Structure):
    _fields_ = [("axis", c_int32), ("count", c_int32), ("entries", POINTER(c_int32))]


class _Gather(ctypes.Structure):
    _fields_ = [("count", c_int32), ("entries", POINTER(c_int32))]


_RECORD_BYTES = 64  # at least; what the words leave out is 0


def _record(kind: int, words: bytes, inputs: tuple[int, ...]) -> object:
    """A record as binding takes it."""
    numbers = np.frombuffer(words, "<i4")
    if kind == Operator.CONCAT and len(numbers) == 1:
        return byref(_Join(int(numbers[0]), len(inputs), (c_int32 * len(inputs))(*inputs)))
    if kind == Operator.CHANNEL_GATHER and len(numbers) and numbers[0] > 0:
        if len(numbers) != numbers[0] + 1:
            raise ValueError(f"{numbers[0]} channels are said, {len(numbers) - 1} are listed")
        channels = (c_int32 * (len(numbers) - 1))(*numbers[1:].tolist())
        return byref(_Gather(len(channels), channels))
    return words + bytes(max(0, _RECORD_BYTES - len(words)))
