"""zyncore: small convolutional networks on one CPU core, and what a face application needs
around them. The C library does the work; docs/python.md is the introduction.
"""

from ._native import Error
from ._records import ChannelOrder, Code, Meaning, Operator, ResizeRule
from .net import Memory, Net, Node, Port

__version__ = "1.1.0"

__all__ = [
    "ChannelOrder", "Code", "Error", "Meaning", "Memory", "Net", "Node", "Operator", "Port",
    "ResizeRule",
]
