"""python3 -m zyncore.compare NET.onnx NET.zyn [INPUT.npy]"""

from __future__ import annotations

import argparse
import sys

import numpy as np


def main(arguments: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(
        prog="zyn-compare", description="Compares a network file with the ONNX model that it was "
        "made of, node by node. Exit code 0: within the tolerance, 1: not, 2: unusable files.")
    parser.add_argument("onnx", help="the model")
    parser.add_argument("zyn", help="the network file")
    parser.add_argument("input", nargs="?", help="an array (.npy), or arrays by input name (.npz); "
                        "random values where it is left out")
    parser.add_argument("--seed", type=int, default=0, help="of the random values (0)")
    parser.add_argument("--tolerance", type=float, default=1e-4, metavar="T",
                        help="largest difference, as a part of a tensor's largest value (1e-4)")
    parser.add_argument("--method", default="automatic",
                        choices=["automatic", "timed", "0", "1", "2"],
                        help="how convolutions compute")
    options = parser.parse_args(arguments)
    try:
        from . import compare
        inputs = None
        if options.input:
            loaded = np.load(options.input, allow_pickle=False)
            inputs = loaded if isinstance(loaded, np.ndarray) else dict(loaded)
        method = int(options.method) if options.method.isdigit() else options.method
        report = compare(options.onnx, options.zyn, inputs, options.seed, options.tolerance, method)
    except Exception as error:  # whatever a damaged file provokes in a library
        print(f"zyn-compare: {str(error) or type(error).__name__}", file=sys.stderr)
        return 2
    print("\n".join(report.lines()))
    return 0 if report.ok else 1


if __name__ == "__main__":
    sys.exit(main())
