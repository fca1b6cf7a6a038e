"""Whether an installation works: python3 -m zyncore.selftest

Needs nothing but the package, the library and numpy. Prints a line per check; the exit code is
the number of those that failed.
"""

from __future__ import annotations

import sys
import tempfile
from pathlib import Path

import numpy as np

import zyncore
from zyncore.netfile import Writer


def check_version() -> str:
    found = zyncore.library_version()
    assert found.split(".")[:2] == zyncore.__version__.split(".")[:2], found
    return f"library {found}, package {zyncore.__version__}"


def check_network() -> str:
    """A convolution of three planes, under every method and in fixed point."""
    rng = np.random.default_rng(1)
    image = rng.integers(-8, 8, (1, 3, 13, 10)).astype(np.float32) / 8
    weights = rng.integers(-8, 8, (5, 3, 3, 3)).astype(np.float32) / 8
    bias = rng.integers(-8, 8, 5).astype(np.float32) / 8
    windows = np.lib.stride_tricks.sliding_window_view(
        np.pad(image[0], ((0, 0), (1, 1), (1, 1))), (3, 3), axis=(1, 2))
    wanted = np.maximum(np.einsum("cyxij,ocij->oyx", windows, weights) + bias[:, None, None], 0)

    net = Writer()
    source = net.input("image", (10, 13, 3))
    constant = net.constant("weights", np.concatenate([weights.ravel(), bias]))
    conv = net.node("CONV_ACT", "conv", [source, constant],
                    [3, 5, 3, 3, 1, 1, 1, 1, 0, 0, 1, 1, 1, 1, 1, 0])
    net.output("features", conv)
    net.q(source, 8)
    net.q(conv, 8)
    for method in ("automatic", "timed", 0, 1, 2):
        loaded = zyncore.Net(net.tobytes(), method=method, exact=method == "timed")
        found = loaded.run(image)["features"]
        assert np.array_equal(found[0], wanted), method
    fixed = zyncore.Net(net.tobytes(), fixed_point=True).run(image)["features"]
    assert np.abs(fixed[0] - wanted).max() < 0.05
    try:
        zyncore.Net(net.tobytes()[:-1])
    except zyncore.Error as error:
        assert "cut short" in error.detail, error.detail
    else:
        raise AssertionError("a file that is cut short was loaded")
    return "all methods, fixed point, a damaged file"


def check_images() -> str:
    pixels = np.random.default_rng(2).integers(0, 256, (20, 31, 3), np.uint8)
    image = zyncore.Image.from_array(pixels)
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder) / "pixels.bmp"
        image.write(path)
        assert np.array_equal(zyncore.read_bmp(path).array, pixels)
    assert np.array_equal(image.convert(zyncore.Format.RGB).array, pixels[..., ::-1])
    assert np.array_equal(image.crop(3, 4, 8, 5).array, pixels[4:9, 3:11])
    planes = (pixels.transpose(2, 0, 1)[::-1] - np.float32(127.5)) / 128
    assert np.array_equal(zyncore.ssd_input(image), planes)
    return "BMP, colour, parts, detector inputs"


def check_priors() -> str:
    priors = zyncore.ssd_priors(320, 240)
    assert priors.shape == (4420, 4)
    grids = zyncore.grid_priors(320, 240, (8, 16, 32, 64),
                                ((10, 16, 24), (32, 48), (64, 96), (128, 192, 256)))
    assert np.abs(priors - grids).max() < 1e-6
    boxes = zyncore.decode(np.zeros_like(priors), priors)
    assert np.allclose((boxes[:, :2] + boxes[:, 2:]) / 2, priors[:, :2], atol=1e-6)
    kept = zyncore.suppress([[0, 0, 2, 2, .8], [0, 0, 2, 2.1, .9], [5, 5, 6, 6, .7]])
    assert np.allclose(kept[:, 4], (.9, .7))
    return "priors, decoding, suppression"


def check_tracker() -> str:
    tracker = zyncore.Tracker()
    for frame in range(8):
        ids = tracker.update([[10 * frame, 50, 10 * frame + 40, 90], [200, 0, 240, 40]])
        assert list(ids) == [0, 1], ids
    smooth = zyncore.OneEuro(1 / 30)
    assert np.ptp([smooth([x])[0] for x in [1, 0] * 20][20:]) < 0.5
    return "two boxes keep their ids, a filter calms a value"


def main() -> int:
    if not __debug__:
        sys.exit("the checks are assertions: run them without -O")
    failures = 0
    for name, check in list(globals().items()):
        if not name.startswith("check_"):
            continue
        try:
            print(f"ok      {name[6:]:8} {check()}")
        except Exception as problem:  # whatever goes wrong is a line
            failures += 1
            print(f"FAILED  {name[6:]:8} {type(problem).__name__}: {problem}")
    return failures


if __name__ == "__main__":
    sys.exit(main())
