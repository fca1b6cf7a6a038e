"""zyncore: small convolutional networks on one CPU core, and what a face application needs
around them. The C library does the work; docs/python.md is the introduction.
"""

from ._native import Error
from ._records import ChannelOrder, Code, Meaning, Operator, ResizeRule
from .detect import (Detector, Placement, decode, fill, grid_priors, pfld_input, ssd_input,
                     ssd_priors, suppress)
from .faces import (YUYV, Face, Faces, FaceState, Pose, align, face_model, frame_of,
                    solve_pose)
from .graph import Finding, Graph
from .image import Bordered, Format, Image, read_bmp
from .net import Memory, Net, Node, Port
from .pose import Poses, solve_ap3p
from .tracking import OneEuro, Tracker, Tracks

__version__ = "1.1.0"

__all__ = [
    "Bordered", "ChannelOrder", "Code", "Detector", "Error", "Face", "FaceState", "Faces",
    "Finding", "Format", "Graph", "Image", "Meaning", "Memory", "Net", "Node", "OneEuro",
    "Operator", "Placement", "Port", "Pose", "Poses", "ResizeRule", "Tracker", "Tracks", "YUYV",
    "align", "decode", "face_model", "fill", "frame_of", "grid_priors", "library_version",
    "pfld_input", "read_bmp", "solve_ap3p", "solve_pose", "ssd_input", "ssd_priors", "suppress",
]


def library_version() -> str:
    """The version of the library that is loaded."""
    from . import _native
    number = _native.zyn_version()
    return f"{number // 10000}.{number // 100 % 100}.{number % 100}"
