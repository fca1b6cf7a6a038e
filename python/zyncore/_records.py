"""The library's records and enumerations, as ctypes and IntEnum."""

from __future__ import annotations

from ctypes import (POINTER, Structure, c_char, c_char_p, c_double, c_float, c_int32, c_int64, c_uint32,
                    c_uint64, c_void_p)
from enum import IntEnum

from . import netfile

Operator = IntEnum("Operator", netfile.OPERATORS)
ChannelOrder = IntEnum("ChannelOrder", {k.upper(): v for k, v in netfile.CHANNEL_ORDERS.items()})
ResizeRule = IntEnum("ResizeRule", {k.upper(): v for k, v in netfile.RESIZE_RULES.items()})
Meaning = IntEnum("Meaning", {k.upper(): v for k, v in netfile.MEANINGS.items()})


class Code(IntEnum):
    """What a call answers."""
    OK = 0
    PARA = 1
    MEMORY = 2
    NOT_SUPPORT = 4
    OPEN_FILE = 8
    UNINITIALIZED = 16
    UNKNOWN = 32
    END_OF_FILE = 64
    WAITING = 128
    DATA_LENGTH = 256
    ALREADY_EXISTS = 257
    NOT_FOUND = 258
    LOCK = 259


FPI16, F32 = 3, 6  # element types of tensors
BLOCKED = 3        # channel order of tensors; others than this and 2 are planar
INTERLEAVED = 2


def _record(name: str, *fields: tuple) -> type[Structure]:
    return type(name, (Structure,), {"_fields_": list(fields)})


Tensor = _record(
    "Tensor", ("kind", c_uint32), ("type", c_uint32), ("data", c_void_p), ("dims", c_int32 * 5),
    ("strides", c_uint32 * 4), ("dim_count", c_int32), ("owns_data", c_uint32),
    ("element_size", c_uint32), ("byte_size", c_int64), ("count", c_int64), ("layout", c_uint32),
    ("reserved", c_void_p))
Matrix = _record(
    "Matrix", ("kind", c_uint32), ("type", c_uint32), ("data", c_void_p), ("plane1", c_void_p),
    ("plane2", c_void_p), ("rows", c_int32), ("cols", c_int32), ("pages", c_int32),
    ("row_bytes", c_int64), ("plane1_bytes", c_int64), ("plane2_bytes", c_int64),
    ("owns_data", c_uint32), ("flag", c_uint32), ("element_size", c_uint32),
    ("channels", c_int32), ("format", c_uint32))

GraphParam = _record("GraphParam", ("max_nodes", c_int32), ("thread_count", c_uint32),
                     ("reserved", c_uint32 * 2), ("fixed_point", c_uint32))
NodeDesc = _record("NodeDesc", ("type", c_int32), ("data", c_void_p), ("word_a", c_uint32),
                   ("extra", c_void_p), ("word_b", c_uint32))
CheckFinding = _record("CheckFinding", ("severity", c_int32), ("kind", c_int32), ("node", c_int32),
                       ("text", c_char * 236))
CheckReport = _record("CheckReport", ("errors", c_int32), ("warnings", c_int32),
                      ("findings", POINTER(CheckFinding)))

NetOptions = _record("NetOptions", ("method", c_int32), ("fixed_point", c_int32),
                     ("keep_all", c_int32), ("exact", c_int32), ("memory_limit", c_int64))
NetPort = _record(
    "NetPort", ("name", c_char_p), ("node", c_int32), ("dim_count", c_int32),
    ("dims", c_int32 * 5), ("leading", c_int32), ("channel_order", c_int32), ("resize", c_int32),
    ("mean", c_float * 3), ("scale", c_float * 3), ("meaning", c_int32), ("q", c_int32))
NetNode = _record(
    "NetNode", ("name", c_char_p), ("type", c_int32), ("operation", c_char_p),
    ("dim_count", c_int32), ("dims", c_int32 * 5), ("method", c_int32), ("parameters", c_int64),
    ("multiply_adds", c_int64))
NetDescription = _record(
    "NetDescription", ("input_count", c_int32), ("output_count", c_int32), ("node_count", c_int32),
    ("metadata_count", c_int32), ("inputs", POINTER(NetPort)), ("outputs", POINTER(NetPort)),
    ("nodes", POINTER(NetNode)), ("metadata_keys", POINTER(c_char_p)),
    ("metadata_values", POINTER(c_char_p)), ("parameters", c_int64), ("multiply_adds", c_int64))
NetMemoryUse = _record("NetMemoryUse", ("weights", c_int64), ("activations", c_int64),
                       ("scratch", c_int64), ("total", c_int64))

SortParam = _record("SortParam", ("max_age", c_int32), ("min_hits", c_int32),
                    ("iou_threshold", c_float), ("payload_size", c_float))
MatchInfo = _record("MatchInfo", ("matched_count", c_int32), ("unmatched_count", c_int32),
                    ("matched", POINTER(c_int32)), ("unmatched", POINTER(c_int32)))
TrackInfo = _record("TrackInfo", ("boxes", POINTER(c_float)), ("ids", POINTER(c_uint32)),
                    ("time_since_update", POINTER(c_int32)), ("count", c_int32),
                    ("payload", c_void_p))
OneEuroParam = _record("OneEuroParam", ("te", c_float), ("derivative_cutoff", c_float),
                       ("min_cutoff", c_float), ("beta", c_float))

FaceFrame = _record("FaceFrame", ("format", c_uint32), ("width", c_int32), ("height", c_int32),
                    ("planes", c_void_p * 3), ("strides", c_int32 * 3))
FaceOptions = _record(
    "FaceOptions", ("detector", c_char_p), ("detector_data", c_void_p), ("detector_bytes", c_int64),
    ("detector_net", c_void_p), ("landmarks", c_char_p), ("landmarks_data", c_void_p),
    ("landmarks_bytes", c_int64), ("landmarks_net", c_void_p), ("method", c_int32),
    ("fixed_point", c_int32), ("detect_every", c_int32), ("max_faces", c_int32),
    ("score_threshold", c_float), ("keep_threshold", c_float), ("overlap_threshold", c_float),
    ("resize", c_int32), ("max_age", c_int32), ("min_hits", c_int32), ("track_overlap", c_float),
    ("smooth_cutoff", c_float), ("smooth_beta", c_float), ("smooth_derivative", c_float),
    ("focal_length", c_float), ("remember", c_int32),
    ("second_look", c_float), ("reserved", c_int32))
# ZYN_FACE_DEFAULTS
FaceOptions.DEFAULTS = {
    "detect_every": 1, "max_faces": 32, "score_threshold": 0.7, "keep_threshold": 0.5,
    "overlap_threshold": 0.3, "resize": 0, "max_age": 10, "min_hits": 1, "track_overlap": 0.5,
    "smooth_cutoff": 0.4, "smooth_beta": 8, "smooth_derivative": 0.5, "focal_length": 0,
    "remember": 100, "second_look": 0.5}
FacePose = _record("FacePose", ("valid", c_int32), ("rotation", c_float * 9),
                   ("translation", c_float * 3), ("yaw", c_float), ("pitch", c_float),
                   ("roll", c_float), ("error", c_float))
FaceRecord = _record(
    "FaceRecord", ("id", c_int32), ("state", c_int32), ("age", c_int32), ("unseen", c_int32),
    ("score", c_float), ("box", c_float * 4), ("landmark_count", c_int32),
    ("landmarks", POINTER(c_float)), ("smoothed", POINTER(c_float)), ("points", c_float * 10),
    ("pose", FacePose))
FaceTimes = _record("FaceTimes", *((name, c_double) for name in (
    "detector_input", "detector", "boxes", "tracking", "landmark_input", "landmarks", "pose",
    "total")))
