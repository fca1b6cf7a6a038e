#!/usr/bin/env python3
"""Finds the faces in a folder of BMP pictures, on all cores of one machine or of many.

    detect_folder.py DETECTOR.zyn FOLDER -o FACES.jsonl [--workers N | --scheduler ADDRESS]

One JSON line per picture, in the order in which they are done:
    {"picture": "a.bmp", "faces": [[x1, y1, x2, y2, score], ...]}
    {"picture": "b.bmp", "error": "..."}

Dask's scheduler (Debian's python3-distributed) hands chunks of pictures to workers, each a
process of one core that loads the network once. This process alone writes, a chunk when it is
done: chunks of a worker that dies are computed again elsewhere, and every picture has one line.
docs/scale.md tells more.
"""

from __future__ import annotations

import argparse
import json
import os
import sys
import time
from collections.abc import Iterator
from pathlib import Path
from typing import IO

from distributed import Client, KilledWorker, LocalCluster, WorkerPlugin, as_completed, get_worker

import zyncore


class LoadDetector(WorkerPlugin):
    """Loads the network into every worker, also into those that join or start again later."""

    def __init__(self, file: bytes) -> None:
        self.file = file

    def setup(self, worker) -> None:
        worker.detector = zyncore.Detector(self.file)
        print(f"worker {os.getpid()} has loaded the network", file=sys.stderr, flush=True)


def detect(folder: Path, names: list[str], score: float) -> list[dict]:
    """On a worker: a line per picture."""
    detector = get_worker().detector
    lines = []
    for name in names:
        try:
            faces = detector(zyncore.read_bmp(folder / name), score=score)
            lines.append({"picture": name, "faces": faces.round(4).astype(float).tolist()})
        except Exception as problem:  # whatever it is, the other pictures go on
            lines.append({"picture": name, "error": str(problem)})
    return lines


class Progress:
    """A line that is renewed on a terminal, else one every ten seconds."""

    def __init__(self, total: int) -> None:
        self.total, self.done, self.failed, self.faces = total, 0, 0, 0
        self.start = self.shown = time.monotonic()

    def add(self, line: dict) -> None:
        self.done += 1
        self.faces += len(line.get("faces", ()))
        if "error" in line:
            self.failed += 1
            print(f"{line['picture']}: {line['error']}", file=sys.stderr)

    def show(self, last: bool = False) -> None:
        now, terminal = time.monotonic(), sys.stderr.isatty()
        if not last and now - self.shown < (0.2 if terminal else 10):
            return
        self.shown, taken = now, max(now - self.start, 1e-9)
        print(f"{self.done} of {self.total} pictures, {self.failed} failed, {self.faces} faces, "
              f"{taken:.1f} s, {self.done / taken:.1f} a second", file=sys.stderr, flush=True,
              end="\r" if terminal and not last else "\n")


def compute(client: Client, folder: Path, chunks: Iterator[list[str]], score: float,
            in_flight: int, suspects: list[str]) -> Iterator[list[dict]]:
    """The lines of one chunk after the other, in_flight of them at work at a time. The pictures
    of chunks whose workers died again and again go to suspects."""
    at_work: dict[str, list[str]] = {}
    futures = as_completed()

    def submit() -> None:
        for names in chunks:
            future = client.submit(detect, folder, names, score, pure=False)
            at_work[future.key] = names
            futures.add(future)
            if len(at_work) >= in_flight:
                return

    submit()
    for future in futures:
        names = at_work.pop(future.key)
        try:
            yield future.result()
        except KilledWorker:
            suspects += names
        submit()


def run(client: Client, folder: Path, names: list[str], options: argparse.Namespace,
        out: IO[str]) -> None:
    progress = Progress(len(names))

    def through(chunks: list[list[str]], in_flight: int) -> list[str]:
        suspects: list[str] = []
        for lines in compute(client, folder, iter(chunks), options.score, in_flight, suspects):
            write(lines, out, progress)
        return suspects

    workers = max(1, len(client.scheduler_info()["workers"]))
    suspects = through([names[i:i + options.chunk] for i in range(0, len(names), options.chunk)],
                       4 * workers)
    # A worker that dies may take innocent pictures with it: one at a time, the culprit shows.
    if suspects:
        print(f"{len(suspects)} pictures again, their workers died", file=sys.stderr)
    culprits = through([[name] for name in suspects], 1)
    write([{"picture": name, "error": "its workers died"} for name in culprits], out, progress)
    progress.show(last=True)


def write(lines: list[dict], out: IO[str], progress: Progress) -> None:
    out.writelines(json.dumps(line) + "\n" for line in lines)
    out.flush()
    for line in lines:
        progress.add(line)
    progress.show()


def pictures_done(path: Path) -> set[str]:
    """The pictures that an interrupted run has written; a line cut short is taken away."""
    data = path.read_bytes()
    whole = data.rfind(b"\n") + 1
    os.truncate(path, whole)
    return {json.loads(line)["picture"] for line in data[:whole].splitlines()}


def parse() -> argparse.Namespace:
    line = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    line.add_argument("detector", type=Path, help="network file with the metadata of a detector")
    line.add_argument("folder", type=Path, help="its *.bmp are read, by the workers")
    line.add_argument("-o", "--out", type=Path, required=True, help="file of JSON lines")
    line.add_argument("--resume", action="store_true", help="go on with an interrupted run")
    line.add_argument("--workers", type=int, default=os.cpu_count(), help="processes (all cores)")
    line.add_argument("--scheduler", help="address of a running scheduler, in place of --workers")
    line.add_argument("--score", type=float, default=0.7, help="least score of a face (0.7)")
    line.add_argument("--chunk", type=int, default=8, help="pictures a task (8)")
    options = line.parse_args()
    if options.workers < 1 or options.chunk < 1:
        line.error("--workers and --chunk are at least 1")
    return options


def main() -> int:
    options = parse()
    try:
        network = options.detector.read_bytes()
        zyncore.Detector(network)
        folder = options.folder.resolve()
        names = sorted(e.name for e in os.scandir(folder) if e.name.lower().endswith(".bmp"))
        if options.resume and options.out.exists():
            done = pictures_done(options.out)
            names = [name for name in names if name not in done]
        out = open(options.out, "a" if options.resume else "x", encoding="utf-8")
    except FileExistsError:
        sys.exit(f"{options.out} is there already: --resume goes on with it")
    except (OSError, ValueError, zyncore.Error) as problem:
        sys.exit(f"detect_folder: {problem}")
    cluster = options.scheduler or LocalCluster(
        n_workers=options.workers, threads_per_worker=1, processes=True, dashboard_address=None)
    with out, Client(cluster) as client:
        client.register_worker_plugin(LoadDetector(network), name="detector")
        run(client, folder, names, options, out)
    if not options.scheduler:
        cluster.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
