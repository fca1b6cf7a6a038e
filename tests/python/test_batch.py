"""The batch example on a local cluster of two workers, one of which is killed."""
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

import numpy as np
from networks import bright_cells

import zyncore

PROGRAM = Path(__file__).resolve().parents[2] / "examples/batch/detect_folder.py"
PICTURES = 400

try:
    import distributed  # noqa: F401
except ImportError:
    distributed = None


@unittest.skipUnless(distributed, "python3-distributed is not installed")
class BatchTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.work = Path(scratch.name)
        self.folder = self.work / "pictures"
        self.folder.mkdir()
        (self.work / "cells.zyn").write_bytes(bright_cells())
        for cell in range(12):  # picture i has its face in cell i % 12
            pixels = np.full((480, 640, 3), 90, np.uint8)
            y, x = divmod(cell, 4)
            pixels[160 * y:160 * y + 160, 160 * x:160 * x + 160] = 250
            zyncore.Image.from_array(pixels).write(self.work / f"{cell}.bmp")
        for i in range(PICTURES):
            os.link(self.work / f"{i % 12}.bmp", self.folder / f"{i:04}.bmp")
        whole = (self.work / "0.bmp").read_bytes()
        (self.folder / "cut.bmp").write_bytes(whole[:5000])
        (self.folder / "text.BMP").write_text("this is no picture")

    def start(self, *options, **environment):
        return subprocess.Popen(
            [sys.executable, "-B", PROGRAM, self.work / "cells.zyn", self.folder, "-o",
             self.work / "out.jsonl", "--workers", "2", *options], stderr=subprocess.PIPE,
            text=True, env=os.environ | environment, bufsize=1)

    def workers_of(self, program):
        """The ids of both workers; what is said meanwhile is passed over."""
        workers = []
        while len(workers) < 2:
            said = program.stderr.readline()
            self.assertTrue(said, "the program has ended")
            workers += map(int, re.findall(r"worker (\d+) has loaded", said))
        return workers

    def check_lines(self):
        text = (self.work / "out.jsonl").read_text()
        lines = [json.loads(line) for line in text.splitlines()]
        names = sorted(line["picture"] for line in lines)
        self.assertEqual(names, [f"{i:04}.bmp" for i in range(PICTURES)] + ["cut.bmp", "text.BMP"])
        for line in lines:
            with self.subTest(line=line):
                if line["picture"][0] in "ct":
                    self.assertIn("BMP", line["error"])
                    continue
                y, x = divmod(int(line["picture"][:4]) % 12, 4)
                box = np.array([x, y, x + 1, y + 1]) * 160
                np.testing.assert_allclose([face[:4] for face in line["faces"]], [box], atol=0.1)

    def test_a_killed_worker_loses_nothing_and_doubles_nothing(self):
        # First its chunks go to the other worker; then they count as suspects at once.
        for failures in ("3", "0"):
            with self.subTest(allowed_failures=failures):
                program = self.start(DASK_DISTRIBUTED__SCHEDULER__ALLOWED_FAILURES=failures)
                workers = self.workers_of(program)
                out = self.work / "out.jsonl"
                while out.stat().st_size == 0:
                    time.sleep(0.002)
                os.kill(workers[0], signal.SIGKILL)
                self.assertLess(len(out.read_text().splitlines()), PICTURES / 2)
                said = program.communicate(timeout=120)[1]
                self.assertEqual(program.returncode, 0, said)
                self.assertIn(f"{PICTURES + 2} of {PICTURES + 2} pictures, 2 failed", said)
                self.assertEqual("pictures again" in said, failures == "0")
                self.check_lines()
                out.unlink()

    def test_an_interrupted_run_goes_on(self):
        line = json.dumps({"picture": "0003.bmp", "faces": [[480, 0, 640, 160, 1]]})
        (self.work / "out.jsonl").write_text(f'{line}\n{{"picture": "0004.b')
        program = self.start()
        self.assertIn("--resume goes on", program.communicate()[1])
        program = self.start("--resume")
        said = program.communicate(timeout=120)[1]
        self.assertIn(f"{PICTURES + 1} of {PICTURES + 1} pictures", said)
        # The network is loaded once by each of two processes.
        self.assertEqual(len(set(re.findall(r"worker \d+ has loaded", said))), 2)
        self.assertEqual(said.count("has loaded"), 2)
        self.check_lines()


if __name__ == "__main__":
    unittest.main()
