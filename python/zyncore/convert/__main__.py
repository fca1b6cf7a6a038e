"""The command zyn-convert."""

from __future__ import annotations

import argparse
import math
import sys

from . import ConvertError, ConvertFailure, Picture, convert, report


def _shape(text: str) -> tuple[str | None, list[int]]:
    name, _, numbers = text.rpartition("=")
    try:
        shape = [int(n) for n in numbers.replace("x", ",").split(",")]
    except ValueError:
        shape = []
    if not shape or min(shape) < 1 or max(shape) > 2**31 - 1:
        raise argparse.ArgumentTypeError(f"'{text}' is no shape like 1,3,240,320 or "
                                         "image=1,3,240,320")
    return name or None, shape


def _pair(text: str) -> tuple[str, str]:
    key, equals, value = text.partition("=")
    if not key or not equals:
        raise argparse.ArgumentTypeError(f"'{text}' is not of the form KEY=VALUE")
    return key, value


def _three(text: str) -> tuple[float, ...]:
    try:
        numbers = [float(n) for n in text.split(",")]
    except ValueError:
        numbers = []
    if len(numbers) not in (1, 3) or not all(map(math.isfinite, numbers)):
        raise argparse.ArgumentTypeError(f"'{text}' is neither one number nor three")
    return tuple(numbers * 3 if len(numbers) == 1 else numbers)


def _arguments(argv: list[str] | None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="zyn-convert", description="Converts an ONNX network (opset 9 to 17) to a .zyn file.",
        epilog="Exit code 0 and a summary, or 1, all that cannot be converted, and no file.")
    parser.add_argument("network", metavar="NET.onnx")
    parser.add_argument("-o", dest="target", metavar="NET.zyn", required=True)
    parser.add_argument("--input-shape", type=_shape, action="append", default=[],
                        metavar="[NAME=]1,3,H,W", help="for inputs without a fixed shape")
    parser.add_argument("--output", nargs="+", action="extend", metavar="NAME",
                        help="cut the graph at these values")
    parser.add_argument("--no-fold", action="store_true",
                        help="keep a node for every operator, to compare them")
    parser.add_argument("--check", action="store_true",
                        help="compare all values with an evaluation of the ONNX file")
    parser.add_argument("--seed", type=int, default=1, help="of the input for --check (1)")
    picture = parser.add_argument_group(
        "preprocessing of a picture, stored in the file: value = (byte - mean) * scale")
    picture.add_argument("--mean", type=_three, metavar="M[,M,M]", help="in the planes' order")
    picture.add_argument("--scale", type=_three, metavar="S[,S,S]")
    picture.add_argument("--swap-channels", action="store_true",
                         help="the planes are blue, green, red; else red, green, blue")
    picture.add_argument("--resize", choices=["stretch", "border", "crop"],
                         help="how a picture gets the input's size")
    picture.add_argument("--picture-input", metavar="NAME", help="if several inputs could be it")
    parser.add_argument("--meaning", type=_pair, action="append", default=[],
                        metavar="OUTPUT=WHAT",
                        help="scores, probabilities, offsets, boxes, landmarks or features")
    parser.add_argument("--metadata", type=_pair, action="append", default=[],
                        metavar="KEY=VALUE")
    return parser.parse_args(argv)


def _picture(args: argparse.Namespace) -> dict[str | None, Picture]:
    if args.mean is None and args.scale is None and not args.swap_channels and not args.resize:
        return {}
    return {args.picture_input: Picture("bgr" if args.swap_channels else "rgb",
                                        args.resize or "none", args.mean or (0.0,) * 3,
                                        args.scale or (1.0,) * 3)}


def main(argv: list[str] | None = None) -> int:
    args = _arguments(argv)
    try:
        print(convert(args.network, args.target, input_shapes=dict(args.input_shape),
                      outputs=args.output, pictures=_picture(args), meanings=dict(args.meaning),
                      metadata=dict(args.metadata), folding=not args.no_fold))
    except ConvertFailure as failure:
        print(f"zyn-convert: {args.network}: {report.failure(failure)}", file=sys.stderr)
        return 1
    except ConvertError as error:
        print(f"zyn-convert: {args.network}: {error}", file=sys.stderr)
        return 1
    if not args.check:
        return 0
    return _check(args)


def _check(args: argparse.Namespace) -> int:
    try:
        from zyncore.compare import compare  # needs the library
        result = compare(args.network, args.target, seed=args.seed)
    except Exception as error:  # what an evaluation of any file may meet
        print(f"zyn-convert: {args.target} is written, and cannot be compared: {error}",
              file=sys.stderr)
        return 1
    print("\n".join(result.lines()))
    return 0 if result.ok else 1


if __name__ == "__main__":
    sys.exit(main())
