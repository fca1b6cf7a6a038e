"""The renderer's truth and the training's targets. ZYN_RENDER_LIBRARY and ZYN_RENDER_CLIP name
the renderer's library and program."""
import json
import os
import pathlib
import subprocess
import tempfile
import unittest

import numpy as np

import clips
import data
import measures

COUNT = 12


class Rendered(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.store = data.Store(cls.folder.name, COUNT, seed=3)

    def test_same_seed_same_bytes(self):
        self.store.heads[5], self.store.truth[5] = 0, 0  # interrupted, and gone on with
        data.Store(self.folder.name, COUNT, seed=3)
        again = self.store.renderer.head(3, 5)
        np.testing.assert_array_equal(again[0], self.store.heads[5])
        np.testing.assert_array_equal(again[1], self.store.truth[5])
        self.assertTrue((self.store.renderer.head(4, 5)[0] != again[0]).any())
        for make in (self.store.scene, self.store.crop):
            a, b, other = make(7), make(7), make(8)
            np.testing.assert_array_equal(a[0], b[0])
            np.testing.assert_array_equal(a[1], b[1])
            self.assertTrue((a[0] != other[0]).any())

    def test_truth_is_where_the_head_is(self):
        for rgba, truth in zip(self.store.heads, self.store.truth):
            points, rest = truth[:204].reshape(68, 3), truth[204:]
            if rest[-1] < 0.5:
                continue
            box, turn, place = rest[:4], rest[4:13].reshape(3, 3), rest[13:16]
            focal, middle, yaw = rest[16], rest[17:19], rest[19]
            self.assertTrue((points[:, :2] >= box[:2] - 0.01).all())
            self.assertTrue((points[:, :2] <= box[2:] + 0.01).all())
            # Seen points inside the outline lie on opaque pixels, or within one of them.
            for x, y, seen in points[17:]:
                if seen:
                    near = rgba[int(y) - 1:int(y) + 2, int(x) - 1:int(x) + 2, 3]
                    self.assertGreater(near.max(), 100)
            # The projection of a mean head's nose tip and chin, from rotation and translation.
            np.testing.assert_allclose(turn @ turn.T, np.eye(3), atol=1e-5)
            for index, mean in ((30, (0, 4.2, -11.9)), (8, (0, 11.5, -9.0))):
                seen = turn @ np.array(mean) + place
                expected = seen[:2] / seen[2] * focal + middle
                error = np.linalg.norm(points[index, :2] - expected) * seen[2] / focal
                self.assertLess(error, 3.2, f"point {index}, yaw {yaw}")  # cm: shapes vary

    def test_mirrored_points_keep_their_order(self):
        for seed in range(40):
            _, points, truth = self.store.crop(seed)
            if abs(truth[223]) > 35 or abs(truth[225]) > 20:
                continue
            for left, right in ((0, 16), (17, 26), (36, 45), (39, 42), (31, 35), (48, 54), (60, 64)):
                self.assertLess(points[left, 0], points[right, 0], f"seed {seed}")
            for high, low in ((19, 37), (37, 41), (44, 46), (33, 51), (51, 57), (61, 67), (57, 8)):
                self.assertLess(points[high, 1], points[low, 1] + 0.004, f"seed {seed}")

    def test_targets_decode_to_the_boxes(self):
        try:
            import losses
            import torch
        except ImportError:
            self.skipTest("without torch")
        targets = losses.Targets()
        faces = 0
        for seed in range(8):
            _, boxes = self.store.scene(seed)
            labels, offsets = targets(boxes)
            chosen = labels == 1
            priors, offsets = targets.priors[chosen], offsets[chosen]
            center = 0.1 * offsets[:, :2] * priors[:, 2:] + priors[:, :2]
            half = np.exp(0.2 * offsets[:, 2:]) * priors[:, 2:] / 2
            decoded = np.concatenate([center - half, center + half], 1) * ([320, 240] * 2)
            for box in decoded:
                self.assertLess(np.abs(boxes[:, :4] - box).max(1).min(), 0.01)
            for box in boxes[boxes[:, 4] > 0.5]:
                found = np.abs(decoded - box[:4]).max(1).min() if len(decoded) else 99
                faces += found < 0.01
            # The loss's overlap of boxes told by offsets is that of the boxes.
            other = np.roll(offsets, 1, 0)
            shift = 0.1 * other[:, :2] * priors[:, 2:]
            half = np.exp(0.2 * other[:, 2:]) * priors[:, 2:] / 2
            moved = np.concatenate([priors[:, :2] + shift - half, priors[:, :2] + shift + half], 1)
            common, general = losses.agreement(*map(torch.from_numpy, (other, offsets)))
            np.testing.assert_allclose(common, np.diag(measures.overlaps(
                moved * ([320, 240] * 2), decoded)), atol=1e-4)
            self.assertTrue((general <= common + 1e-6).all() and (general > -1).all())
        self.assertGreater(faces, 8)

    def test_judge_sees_what_sessions_see(self):
        """Crops and boxes as the session cuts and decodes them."""
        try:
            import judge
        except ImportError:
            self.skipTest("without torch")
        picture = np.random.default_rng(1).integers(0, 256, (60, 80, 3)).astype(np.uint8)
        for box in ([20, 10, 44, 50], [-20, 30, 30, 70], [1, 1, 9, 8]):
            square = judge.square_around(box)
            self.assertAlmostEqual(square[2], 1.25 * max(box[2] - box[0], box[3] - box[1]))
            found = judge.crop(picture, square)
            step = square[2] / 112
            for i, j in ((5, 7), (56, 60), (100, 30)):  # pixel (j, i): the mean over its area
                x, y = square[0] + (j + 0.5) * step, square[1] + (i + 0.5) * step
                if not (0 <= x < 80 and 0 <= y < 60):
                    self.assertEqual(found[i, j].max(), 0)
                    continue
                half = max(step, 1) / 2
                xs = np.clip(np.linspace(x - half, x + half, 801), 0, 80)[:-1] + half / 801
                ys = np.clip(np.linspace(y - half, y + half, 801), 0, 60)[:-1] + half / 801
                xs, ys = (v[(v > 0) & (v < n)].astype(int) for v, n in ((xs, 80), (ys, 60)))
                np.testing.assert_allclose(found[i, j], picture[ys][:, xs].mean((0, 1)), atol=3)
            dx, dy, w, h = judge.offsets_from(square, box)
            prior, middle = square[2] / 1.25, np.array(square[:2]) + square[2] / 2
            center = middle + 0.1 * prior * np.array([dx, dy])
            half = prior * np.exp(0.2 * np.array([w, h])) / 2
            np.testing.assert_allclose([*(center - half), *(center + half)], box, atol=1e-6)

    def test_clip(self):
        clips = []
        for name in "ab":
            folder = os.path.join(self.folder.name, name)
            subprocess.run([os.environ["ZYN_RENDER_CLIP"], folder, "5", "2", "3"], check=True)
            clips.append([pathlib.Path(folder, file).read_bytes()
                          for file in ("frame_0000.bmp", "frame_0001.bmp", "truth.json")])
        self.assertEqual(*clips)
        truth = json.loads(clips[0][2])
        self.assertEqual([len(f["faces"]) for f in truth["frames"]], [3, 3])
        for face in truth["frames"][1]["faces"]:
            points = np.array(face["landmarks"]).reshape(68, 2)
            self.assertTrue((points >= np.array(face["box"][:2]) - 0.01).all())
            self.assertTrue((points <= np.array(face["box"][2:]) + 0.01).all())


class Measures(unittest.TestCase):
    def test_precision(self):
        truth = np.array([[0, 0, 10, 10, 1], [20, 0, 30, 10, 0]], float)
        boxes = truth[[0, 0, 1], :4] + [[1, 0, 1, 0], [0, 0, 0, 0], [0, 1, 0, 1]]
        boxes = np.concatenate([boxes, [[50, 50, 60, 60]]])
        found = measures.judge(boxes, np.array([0.9, 0.8, 0.7, 0.6]), truth)
        self.assertEqual(found, [(0.9, 1), (0.8, 0), (0.6, 0)])  # twice one face; one that may be
        self.assertEqual(measures.judge(np.zeros(0), np.zeros(0), truth), [])
        found = [(0.7, 1), (0.9, 1), (0.8, 0), (0.1, 0)]
        area, false, recall = measures.precision(found, 3, 5)
        self.assertAlmostEqual(area, 1 / 3 + 1 / 3 * 2 / 3)
        self.assertAlmostEqual(recall, 2 / 3)
        self.assertTrue(np.isnan(false))
        self.assertAlmostEqual(measures.precision(found, 2, 5)[1], 1 / 5)

    def test_clip(self):
        turned = [[0, -1, 0], [1, 0, 0], [0, 0, 1]]
        shape = np.stack([np.arange(68.0), np.zeros(68)], 1)  # eye corners 9 apart

        def face(number, x, points, **more):
            return {"id": number, "box": [x, 0, x + 40, 40], "visible": 1.0, "state": "detected",
                    "landmarks": points, "landmarks_visible": np.ones(68),
                    "rotation": np.eye(3), "smoothed": points, **more}

        truth, found = [], []
        for i in range(50):  # one rests in the first second, then moves by 3 a frame; two are hidden,
            # the one of them behind the first
            place = shape + max(i - 24, 0) * 3.0
            tremble = (-1) ** i
            seen = place + [0, 1.8 * tremble]
            truth.append({"index": i, "time": i / 25, "faces": [
                face(1, 0, place), face(2, 100, place), face(3, 300, place, visible=0.2),
                face(4, 5, place, visible=0.1)]})
            late = place - (1.5 if i >= 25 else 0) + [0, 0.9 * tremble]
            found.append([face(7 if i < 40 else 8, 5, seen, smoothed=late, rotation=turned),
                          face(9, 300, place)])
        found[3].append(face(10, 200, shape))
        found[4].append(face(10, 200, shape, state="predicted"))
        clip = clips.Clip()
        clip.add(truth, found)
        self.assertEqual((clip.faces, clip.found, clip.false, clip.switches), (100, 50, 1, 1))
        self.assertAlmostEqual(clip.mota(), 1 - 52 / 100)
        np.testing.assert_allclose(clip.landmarks, 0.2)
        np.testing.assert_allclose(clip.angles, 90)
        self.assertAlmostEqual(clip.calmed(), 0.5)
        self.assertAlmostEqual(np.mean(clip.lags[:1]), 0.5, delta=0.1)


if __name__ == "__main__":
    unittest.main()
