"""The library behind the package: where it is, what its functions take, how they fail.

Functions are attributes of this module, `_native.zyn_net_run(net)`; the library is loaded at
the first one. It is looked for in this order: the file that the environment variable
ZYN_LIBRARY names; beside the package, in the folders of an installation or of the source tree
around it; in the interpreter's own prefix; where the system's loader looks.
"""

from __future__ import annotations

import ctypes
import os
import sys
import threading
from ctypes import POINTER, c_char_p, c_double, c_float, c_int32, c_int64, c_uint32, c_void_p
from pathlib import Path
from typing import Any, Callable

from ._records import (CheckReport, Code, FaceFrame, FaceOptions, FacePose, FaceRecord,
                       FaceTimes, GraphParam, MatchInfo, Matrix, NetDescription,
                       NetMemoryUse, NetOptions, NodeDesc, OneEuroParam, SortParam, Tensor,
                       TrackInfo)

MAJOR, MINOR = 1, 1  # the library that the prototypes below describe, or a later minor version


class Error(Exception):
    """A call of the library that failed.

    code: what it answered, None for calls that answer with a pointer.
    report: what the library would have printed, "" for silent failures.
    detail: one line that names what was expected and what was found, or "".
    """

    __module__ = "zyncore"

    def __init__(self, function: str, code: Code | None, report: str, detail: str) -> None:
        name = f"code {code.value} ({code.name})" if code else "failed"
        super().__init__(f"{function}: {detail or name}")
        self.function, self.code, self.report, self.detail = function, code, report, detail

    def __reduce__(self) -> tuple:
        return Error, (self.function, self.code, self.report, self.detail)


# How a result tells failure. "explained": a code, of which the detail always speaks;
# "code": a code, of which it speaks where something was printed; "made": a pointer, explained,
# "new": a pointer, not always explained.
_CODES = {"explained", "code"}
_EXPLAINED = {"explained", "made"}

_text, _ptr, _own = c_char_p, c_void_p, POINTER(c_void_p)  # _own: address of a pointer
_tensor, _image = POINTER(Tensor), POINTER(Matrix)
_PROTOTYPES: dict[str, tuple] = {
    # name: (result or how it tells failure, what a pointer points at or None, arguments...)
    "zyn_version": (c_uint32, None),
    "zyn_free": (None, None, _ptr),
    "zyn_get_current_memory_size_occupation": (ctypes.c_uint64, None),
    "zyn_release_tensor": ("code", None, POINTER(_tensor)),
    "zyn_release_matrix": ("code", None, POINTER(_image)),
    # Networks
    "zyn_net_load": ("made", None, _text, POINTER(NetOptions)),
    "zyn_net_load_memory": ("made", None, _text, c_int64, POINTER(NetOptions)),
    "zyn_net_release": ("explained", None, _own),
    "zyn_net_input": ("made", Tensor, _ptr, _text),
    "zyn_net_run": ("explained", None, _ptr),
    "zyn_net_output": ("made", Tensor, _ptr, _text),
    "zyn_net_describe": ("made", NetDescription, _ptr),
    "zyn_net_memory": ("explained", None, _ptr, POINTER(NetMemoryUse)),
    "zyn_net_graph": ("made", None, _ptr),
    # Graphs
    "zyn_create_computation_graph_handle": ("new", None, POINTER(GraphParam)),
    "zyn_release_computation_graph_handle": ("code", None, _own),
    "zyn_cg_set_conv_method": ("code", None, _ptr, c_uint32),
    "zyn_cg_set_node_name": ("code", None, _ptr, c_int32, _text),
    "zyn_cg_set_ptr_q_list": ("code", None, _ptr, _ptr),
    "zyn_cg_get_q_from_list": (c_uint32, None, _ptr, c_int32),
    "zyn_malloc": ("new", None, c_int64),
    "zyn_add_one_edge_into_computation_graph": ("code", None, _ptr, c_int32, c_int32),
    "zyn_computation_graph_topo_sort": ("code", None, _ptr),
    "zyn_bind_operator_onto_computation_graph": ("explained", None, _ptr, c_int32,
                                                 POINTER(NodeDesc), _ptr),
    "zyn_cg_check": ("code", None, _ptr, POINTER(POINTER(CheckReport))),
    "zyn_release_cg_report": (None, None, POINTER(POINTER(CheckReport))),
    "zyn_prepare_inference_computation": ("explained", None, _ptr),
    "zyn_computation_graph_inference": ("explained", None, _ptr),
    "zyn_get_computation_node_inference_data": (_tensor, None, _ptr, c_int32),
    "zyn_set_tensor_header": ("code", None, _tensor, c_int32, POINTER(c_int32), c_uint32),
    "zyn_set_tensor_data": ("code", None, _tensor, _ptr, c_int64),
    # Images
    "zyn_create_image": ("new", Matrix, c_int32, c_int32, c_uint32),
    "zyn_create_image_from_file": ("new", Matrix, _text, c_int32),
    "zyn_image_write_to_file_with_level": ("code", None, _text, _image),
    "zyn_image_color_space_convert": ("code", None, _image, _image, c_uint32),
    "zyn_image_resizer": ("code", None, _image, _image, c_int32),
    "zyn_image_cropped_patch": ("code", None, _image, _image, POINTER(c_int32), POINTER(c_int32)),
    "zyn_create_border_image": ("new", Matrix, POINTER(c_int32), POINTER(c_int32),
                                POINTER(c_int32), POINTER(c_int32), _image, c_float),
    # Detectors
    **{f"zyn_transform_image_data_for_{net}_detector{order}{bits}": (None, None, _tensor, _image)
       for net in ("ssd", "pfld") for order in ("", "_rgb24") for bits in ("", "_fp16")},
    "zyn_generate_priors": ("new", Tensor, c_uint32, c_uint32, c_uint32),
    "zyn_convert_locations_to_boxes": (None, None, _ptr, _ptr, _ptr, c_int32, c_float, c_float),
    "zyn_center_form_to_corner_form": (None, None, _ptr, c_int32),
    "zyn_ssd_nms": (c_int32, None, _ptr, _ptr, c_int32, c_float),
    # Tracking, smoothing, pose
    "zyn_create_sort_handle": ("new", None, POINTER(SortParam)),
    "zyn_release_sort_handle": ("code", None, _own),
    "zyn_create_sort_predict": ("new", TrackInfo, _ptr),
    "zyn_associate_detections_to_trackers": ("new", MatchInfo, _ptr, c_int32, _ptr, c_int32,
                                             c_float),
    "zyn_create_sort_match_info": ("new", MatchInfo, c_int32, c_int32),
    "zyn_release_sort_match_info": (None, None, POINTER(POINTER(MatchInfo))),
    "zyn_sort_update_detection": ("code", None, _ptr, _ptr, _ptr, c_int32, POINTER(MatchInfo),
                                  _ptr),
    "zyn_sort_get_track_info": ("new", TrackInfo, _ptr),
    "zyn_release_track_info": (None, None, POINTER(POINTER(TrackInfo))),
    "zyn_one_euro_filter_v2": (c_float, None, c_float, c_float, c_float, POINTER(OneEuroParam),
                               POINTER(c_float)),
    # Faces
    "zyn_face_create": ("made", None, POINTER(FaceOptions)),
    "zyn_face_release": ("explained", None, _own),
    "zyn_face_process": ("explained", None, _ptr, POINTER(FaceFrame), c_double,
                         POINTER(POINTER(FaceRecord)), POINTER(c_int32)),
    "zyn_face_reset": ("explained", None, _ptr),
    "zyn_face_get_times": ("explained", None, _ptr, POINTER(FaceTimes)),
    "zyn_face_model": (POINTER(c_float), None),
    "zyn_face_solve_pose": ("explained", None, _ptr, c_int32, c_int32, c_float, POINTER(FacePose)),
    "zyn_face_align": ("explained", None, _image, POINTER(FaceFrame), _ptr, c_int32),
    "zyn_solve_ap3p": ("code", None, _ptr, _ptr, _ptr, _ptr, _ptr, _ptr, POINTER(c_int32)),
}


def _candidates() -> list[str]:
    """Names and paths of the library, the most wanted first."""
    if named := os.environ.get("ZYN_LIBRARY"):
        return [named]
    if sys.platform == "win32":
        names, folders = ["zyncore.dll"], [".", "bin"]
    else:
        names, folders = [f"libzyncore.so.{MAJOR}"], [".", "lib", "lib64", "build/release"]
    package = Path(__file__).resolve().parent
    around = [package, *list(package.parents)[:4], Path(sys.prefix)]
    files = [place / folder / name for place in around for folder in folders for name in names]
    return [str(file) for file in files if file.is_file()] + names


def _open() -> ctypes.CDLL:
    tried = []
    for name in _candidates():
        try:
            library = ctypes.CDLL(name)
            library.zyn_version.restype = c_uint32
            version = library.zyn_version()
        except (OSError, AttributeError) as problem:
            tried.append(str(problem))
            continue
        found = version // 10000, version // 100 % 100
        if found[0] == MAJOR and found[1] >= MINOR:
            return library
        tried.append(f"{name} is version {found[0]}.{found[1]}, {MAJOR}.{MINOR} is needed")
    raise ImportError("no zyncore library (set ZYN_LIBRARY to its file): " + "; ".join(tried))


class _Printed(threading.local):
    """What the library printed in the present call of this thread."""

    def __init__(self) -> None:
        self.texts: list[bytes] = []


_printed = _Printed()
_lock = threading.Lock()
_library: ctypes.CDLL | None = None


@ctypes.CFUNCTYPE(None, c_char_p, c_void_p)
def _hear(text: bytes, _context: int | None) -> None:
    _printed.texts.append(text)


def _load() -> ctypes.CDLL:
    global _library
    with _lock:
        if _library is None:
            library = _open()
            library.zyn_error_detail.restype = c_char_p
            library.zyn_set_report_handler(_hear, None)
            _library = library
        return _library


def _checked(name: str, kind: str, call: Callable, detail: Callable) -> Callable:
    """The function with its failures as exceptions; printed texts are caught."""
    is_code, is_explained, printed = kind in _CODES, kind in _EXPLAINED, _printed

    def checked(*arguments: Any) -> Any:
        printed.texts.clear()
        result = call(*arguments)
        if bool(result) is not is_code:
            return result
        report = b"".join(printed.texts).decode("utf-8", "replace")
        said = detail().decode("utf-8", "replace") if is_explained or report else ""
        raise Error(name, Code(result) if is_code else None, report, said)

    return checked


def __getattr__(name: str) -> Callable:
    """A function of the library; it is kept as an attribute of the module."""
    if name not in _PROTOTYPES:
        raise AttributeError(f"module '{__name__}' has no attribute '{name}'")
    library = _load()
    result, target, *arguments = _PROTOTYPES[name]
    function = getattr(library, name)
    function.argtypes = arguments
    if isinstance(result, str):
        function.restype = (c_int32 if result in _CODES else POINTER(target) if target
                            else c_void_p)
        function = _checked(name, result, function, library.zyn_error_detail)
    else:
        function.restype = result
    globals()[name] = function
    return function


class Owned:
    """Something of the library's that is released with the last reference to it."""

    def __init__(self, pointer: Any, release: Callable) -> None:
        # A plain address becomes a pointer, so that its own address can be passed.
        self.pointer = c_void_p(pointer) if isinstance(pointer, int) else pointer
        self._release, self._address = release, ctypes.byref(self.pointer)

    def __del__(self) -> None:
        if self.pointer:
            self._release(self._address)


def encode(text: str, what: str = "a name") -> bytes:
    """UTF-8 without NUL."""
    data = text.encode("utf-8")
    if b"\0" in data:
        raise ValueError(f"{what} holds a NUL: {text!r}")
    return data


def encode_path(path: str | os.PathLike[str]) -> bytes:
    """A file name as the library takes it."""
    data = os.fsencode(path)
    if b"\0" in data:
        raise ValueError(f"a file name holds a NUL: {path!r}")
    return data
