"""Exports every network from torch, converts it, and compares what both compute; graphs as
other exporters write them are compared with their evaluation node by node.

    run.py [NAME...] [--folder F] [--seed N] [--random N] [--runner 'cmake/wine .../zyn-run.exe']

Behind them N random graphs; those that are wrong are named by their seeds. With a runner the
files also run in a program of their own, by the automatic choice.

The error of a method is the largest absolute difference to the expected output, as a part of
the output's largest absolute value. Exit code 0: all converted, every error within 1e-4.
"""

import argparse
import contextlib
import io
import os
import shlex
import subprocess
import sys
import tempfile
import traceback
import warnings

import numpy as np
import onnx
import torch

import chance
import foreign
import further
import networks
import zyncore
from zyncore.convert.__main__ import main as convert
from zyncore.evaluate import evaluate

TOLERANCE = 1e-4
METHODS = ("automatic", 0, 1, 2)


def from_torch(make, shape, opset, seed, path):
    """Writes the ONNX file; the input and torch's outputs by name."""
    module = networks.seeded(make, shape, seed)
    x = torch.randn(shape)
    with torch.no_grad(), warnings.catch_warnings():
        warnings.simplefilter("ignore")
        outputs = module(x)
        outputs = outputs if isinstance(outputs, tuple) else (outputs,)
        names = [f"out{i}" for i in range(len(outputs))]
        torch.onnx.export(module, x, path, opset_version=opset, input_names=["image"],
                          output_names=names)
    return x.numpy(), {n: y.numpy() for n, y in zip(names, outputs)}


def from_elsewhere(fill, shape, opset, seed, path):
    """The same for a graph that is built node by node."""
    builder = foreign.Builder(shape, opset, seed)
    fill(builder, "image")
    return evaluated(builder, path)


def from_chance(_, shape, opset, seed, path):
    return evaluated(chance.graph(seed), path)


def evaluated(builder, path):
    model = builder.model()
    onnx.save(model, path)
    x = builder.random.standard_normal([n if isinstance(n, int) else 1 for n in builder.shape])
    values = evaluate(model, {"image": x})
    return x.astype(np.float32), {name: values[name] for name in builder.outputs}


def error_of(expected, found):
    """The largest over all outputs; infinite for another shape or an output that is missing."""
    worst = 0.0
    for name, y in expected.items():
        if name not in found or found[name].shape != y.shape:
            return np.inf
        worst = max(worst, float(np.abs(found[name] - y).max() / np.abs(y).max()))
    return worst if worst == worst else np.inf


def run_outside(options, file, x, names):
    """The outputs that the runner writes."""
    array = file[:-4] + ".npy"
    folder = file[:-4] + ".out"
    np.save(array, x)
    subprocess.run([*shlex.split(options.runner), file, array, "--out", folder], check=True,
                   stdout=subprocess.DEVNULL)
    return {name: np.load(os.path.join(folder, name + ".npy")) for name in names}


def try_network(case, options):
    """A line of the table, and whether all is well."""
    export, (name, make, shape, opset) = case
    file = os.path.join(options.folder, name + ".zyn")
    seed = int(name.split()[1]) if export is from_chance else options.seed
    x, expected = export(make, shape, opset, seed, file[:-4] + ".onnx")
    with contextlib.redirect_stdout(io.StringIO()):  # the summary
        if convert([file[:-4] + ".onnx", "-o", file]) != 0:
            return f"{name:20} not converted", False
    errors = []
    for method in METHODS:
        net = zyncore.Net(file, method=method)
        errors.append(error_of(expected, net.run(x)))
    if options.runner:
        errors.append(error_of(expected, run_outside(options, file, x, expected)))
    text = "".join(f"{error:11.1e}" for error in errors)
    line = f"{name:20}{len(net.nodes):6}{net.multiply_adds / 1e6:10.2f}{text}"
    return line, max(errors) <= TOLERANCE


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("names", nargs="*")
    parser.add_argument("--folder", help="where the files stay")
    parser.add_argument("--runner", help="zyn-run, or a command that starts it")
    parser.add_argument("--seed", type=int, default=7, help="of the weights (7)")
    parser.add_argument("--random", type=int, default=0, help="how many random graphs (0)")
    options = parser.parse_args()
    temporary = None if options.folder else tempfile.TemporaryDirectory()
    options.folder = options.folder or temporary.name
    os.makedirs(options.folder, exist_ok=True)
    cases = [(from_torch, case) for case in networks.CASES + further.CASES]
    cases += [(from_elsewhere, case) for case in foreign.CASES]
    cases = [c for c in cases if not options.names or c[1][0] in options.names]
    cases += [(from_chance, (f"random {seed}", None, None, None))
              for seed in range(0 if options.names else options.random)]
    lines, wrong = [], []
    for case in cases:
        try:
            line, right = try_network(case, options)
        except Exception:
            traceback.print_exc()
            line, right = f"{case[1][0]:20} failed", False
        if case[0] is not from_chance or not right:
            lines.append(line + ("" if right else "  <--"))
        wrong += [] if right else [case[1][0]]
    print(f"\n{'network':20}{'nodes':>6}{'M mult-add':>10}" +
          "".join(f"{str(method):>11}" for method in METHODS) +
          ("     runner" if options.runner else ""))
    print("\n".join(lines))
    print(f"{len(cases) - len(wrong)} of {len(cases)} within {TOLERANCE:g}" +
          (f"; wrong: {', '.join(wrong)}" if wrong else ""))
    return 1 if wrong or not cases else 0


if __name__ == "__main__":
    sys.exit(main())
