"""Everything around networks: graphs by hand, images, detectors, tracking, pose."""
import contextlib
import gc
import io
import os
import tempfile
import unittest
from pathlib import Path

import numpy as np
from networks import TwoLayers, bright_cells, conv_words, convolve

import zyncore
from zyncore import Format, Image
from zyncore.netfile import Writer

RNG = np.random.default_rng(3)


def noise(*shape):
    return RNG.integers(0, 256, shape, np.uint8)


class GraphTest(unittest.TestCase):
    def test_lists_words_and_inputs(self):
        image = np.arange(24, dtype=np.float32).reshape(2, 3, 4)
        weights, bias = np.ones((3, 2, 3, 3), np.float32), np.arange(3, dtype=np.float32)
        for method in (0, 1, 2):
            graph = zyncore.Graph(method=method)
            source = graph.input(image.copy(), "image")
            constant = graph.constant(np.concatenate([weights.ravel(), bias]))
            conv = graph.node("CONV_ACT", [source, constant], conv_words(2, 3), name="conv")
            join = graph.node("CONCAT", [conv, source, source], [2])
            pick = graph.node("CHANNEL_GATHER", [join], [3, 6, 2, 0])
            half = graph.node("FUNCTION", [pick], [10, 0.5, -1.0])
            self.assertEqual(graph.check(), [])
            graph.prepare()
            graph.run({source: image + 1})
            wanted = convolve(image + 1, weights, bias)
            joined = np.concatenate([wanted, image + 1, image + 1])
            np.testing.assert_array_equal(graph.output(half), joined[[6, 2, 0]] / 2 - 1)
            np.testing.assert_array_equal(graph.output(conv), wanted)

    def test_all_mistakes_are_listed_and_prepare_refuses(self):
        graph = zyncore.Graph()
        source = graph.input(np.zeros((2, 5, 5), np.float32))
        conv = graph.node("CONV", [source, graph.constant([1.0])], conv_words(3, 1), name="head")
        graph.node(99, [conv])
        findings = graph.check()
        self.assertEqual([(f.error, f.node) for f in findings], [(True, 2), (True, 2), (True, 3)])
        self.assertIn("'head'", findings[0].text)
        with self.assertRaises(zyncore.Error) as caught:
            graph.prepare()
        self.assertIn("Error occurred", caught.exception.report)
        with self.assertRaises(ValueError):
            graph.input(np.zeros((2, 5, 5))[:, ::2])


class ImageTest(unittest.TestCase):
    def test_arrays_and_formats(self):
        pixels = noise(9, 14, 3)
        image = Image.from_array(pixels)
        self.assertTrue(np.shares_memory(image.array, pixels))
        self.assertFalse(np.shares_memory(Image.from_array(pixels[:, 2:]).array, pixels))
        self.assertFalse(np.shares_memory(Image.from_array(pixels, copy=True).array, pixels))
        grey = (pixels @ np.array([1868, 9617, 4899]) + 8192) >> 14
        np.testing.assert_array_equal(image.convert(Format.GRAY).array, grey)
        rgb = Image.from_array(pixels[..., ::-1], Format.RGB)
        np.testing.assert_array_equal(rgb.convert(Format.GRAY).array, grey)
        np.testing.assert_array_equal(rgb.convert(Format.PLANAR).array, pixels.transpose(2, 0, 1))
        flat = Image.from_array(np.full((8, 10, 3), 77, np.uint8)).convert(Format.I420)
        self.assertEqual([np.ptp(plane) for plane in flat.planes], [0, 0, 0])
        np.testing.assert_array_equal(flat.planes[1], np.full((4, 5), 128))
        for wrong in (noise(3, 3, 2), noise(3), pixels.astype("i2"), pixels[:0]):
            with self.assertRaises(ValueError):
                Image.from_array(wrong)
        with self.assertRaises(ValueError):
            Image(4, 4, Format.BGR48).convert(Format.BGR)
        view = Image(6, 5).array
        gc.collect()
        self.assertEqual(view.sum(), 0)  # its memory is still there

    def test_sizes(self):
        pixels = noise(30, 40, 3)
        image = Image.from_array(pixels)
        edge = np.pad(pixels, ((2, 0), (0, 3), (0, 0)), mode="edge")[0:10, 35:43]
        np.testing.assert_array_equal(image.crop(35, -2, 8, 10).array, edge)
        bordered = image.border(1.0)
        self.assertEqual(bordered[1:], (5, 5, 0, 0))
        np.testing.assert_array_equal(bordered.image.array[5:-5], pixels)
        halved = pixels.reshape(15, 2, 20, 2, 3).astype(int).sum((1, 3))
        self.assertLessEqual(np.abs(image.resize(20, 15).array * 4.0 - halved).max(), 4)


class DetectTest(unittest.TestCase):
    def test_inputs(self):
        pixels = noise(7, 9, 3)
        for image in (Image.from_array(pixels), Image.from_array(pixels[..., ::-1], Format.RGB)):
            planes = pixels.transpose(2, 0, 1)
            pfld = zyncore.pfld_input(image)
            np.testing.assert_allclose(pfld, planes / 255, atol=1e-6)
            integers = zyncore.ssd_input(image, np.empty((1, 3, 7, 9), np.int16))
            np.testing.assert_array_equal(integers[0], planes[::-1].astype(int) - 127)
        with self.assertRaises(ValueError):
            zyncore.ssd_input(image, np.empty((3, 7, 9), np.float64))

    def test_faces_come_out_where_they_are(self):
        # Cells of 16 pixels of an input of 64 x 48; pictures of 128 x 48 and their turned size.
        cases = {  # rule: size of the picture, its bright rectangle, the cell's box
            "stretch": ((128, 96), (32, 32, 64, 64), (32, 32, 64, 64)),
            "border": ((128, 48), (32, 8, 64, 40), (32, 8, 64, 40)),
            "crop": ((128, 48), (48, 16, 64, 32), (48, 16, 64, 32)),
        }
        for rule, ((width, height), (x1, y1, x2, y2), box) in cases.items():
            for order in (Format.BGR, Format.RGB, Format.GRAY):
                with self.subTest(rule=rule, order=order):
                    channels = () if order == Format.GRAY else (3,)
                    pixels = np.full((height, width, *channels), 100, np.uint8)
                    pixels[y1:y2, x1:x2] = 250
                    detector = zyncore.Detector(zyncore.Net(bright_cells(rule)))
                    found = detector(Image.from_array(pixels, order))
                    self.assertEqual(len(found), 1)
                    np.testing.assert_allclose(found[0, :4], box, atol=0.01)
                    score = 1 / (1 + np.exp(-(250 - 128) / 16))
                    self.assertAlmostEqual(float(found[0, 4]), score, places=3)

    def test_channel_order_mean_and_scale(self):
        net, pixels = zyncore.Net(bright_cells()), noise(48, 64, 3)
        zyncore.fill(net, Image.from_array(pixels))
        wanted = (pixels.transpose(2, 0, 1)[::-1] - 128.0) / 16
        np.testing.assert_array_equal(net.input()[0], wanted)
        with self.assertRaisesRegex(ValueError, "not a picture"):
            zyncore.fill(zyncore.Net(TwoLayers().file), Image(14, 9))
        with self.assertRaisesRegex(ValueError, "no detector"):
            zyncore.Detector(TwoLayers().file)

    def test_decoding_follows_the_formula(self):
        offsets, priors = RNG.normal(size=(7, 4)), RNG.uniform(0.1, 1, (7, 4))
        centre = 0.1 * offsets[:, :2] * priors[:, 2:] + priors[:, :2]
        size = np.exp(0.2 * offsets[:, 2:]) * priors[:, 2:]
        wanted = np.hstack([centre - size / 2, centre + size / 2])
        np.testing.assert_allclose(zyncore.decode(offsets, priors), wanted, rtol=1e-5, atol=1e-6)
        self.assertEqual(zyncore.suppress([]).shape, (0, 5))


class PageTest(unittest.TestCase):
    def test_the_example_of_the_page_runs(self):
        page = (Path(__file__).parents[2] / "docs/python.md").read_text()
        example = page.split("```python\n")[1].split("```")[0]
        net = Writer()
        image = net.input("image", (320, 240, 3))
        net.output("features", net.node("FUNCTION", "copy", [image], [10, 1.0, 0.0]))
        pixels = np.full((48, 64, 3), 100, np.uint8)
        pixels[16:32, 32:48] = 250
        here = os.getcwd()
        with tempfile.TemporaryDirectory() as folder:
            os.chdir(folder)
            self.addCleanup(os.chdir, here)
            net.write("features.zyn")
            Path("detector.zyn").write_bytes(bright_cells())
            Image.from_array(pixels).write("photo.bmp")
            said = io.StringIO()
            with contextlib.redirect_stdout(said):
                exec(example, {})
            os.chdir(here)
        self.assertEqual(said.getvalue().splitlines()[1:], ["32 16 48 32 1.00"])


class TrackingTest(unittest.TestCase):
    def test_tracks_of_a_sequence(self):
        tracker, a, b = zyncore.Tracker(max_age=1, min_hits=2), (0, 0, 40, 40), (300, 0, 350, 50)
        frames = [([a, b], [0, 1]), ([a, b], [0, 1]), ([a], [0]), ([a], [0]), ([], []),
                  ([a, b], [0, 2])]
        for frame, (boxes, ids) in enumerate(frames):
            self.assertEqual(list(tracker.update(boxes)), ids, frame)
            self.assertEqual(sorted(tracker.tracks.ids), sorted(ids))
        np.testing.assert_allclose(tracker.tracks.boxes, [a, b], atol=0.1)
        with self.assertRaises(ValueError):
            tracker.update([[0, 0, np.nan, 1]])

    def test_one_euro_follows_its_formula(self):
        smooth, te, state = zyncore.OneEuro(0.05, min_cutoff=1.5, beta=0.3), 0.05, None

        def alpha(cutoff):
            return 1 / (1 + 1 / (2 * np.pi * cutoff * te))
        for x in RNG.normal(size=(9, 2, 3)):
            last, slope = state or (x, x * 0)
            slope = slope + alpha(1.0) * ((x - last) / te - slope)
            a = alpha(1.5 + 0.3 * np.abs(slope))
            state = a * x + (1 - a) * last, slope
            np.testing.assert_allclose(smooth(x), state[0], rtol=1e-4, atol=1e-5)

    def test_pose(self):
        camera = np.array([[500, 0, 320], [0, 500, 240], [0, 0, 1.0]])
        rotation, _ = np.linalg.qr([[1, .2, 0], [-.1, 1, .3], [0, .1, 1]])
        rotation *= np.linalg.det(rotation)
        world, translation = np.array([[0, 0, 0], [1, 0, 0], [0, 1, .3]]), (.1, .2, 5)
        points = (world @ rotation.T + translation) @ camera.T
        poses = zyncore.solve_ap3p(world, points[:, :2] / points[:, 2:], camera)
        nearest = np.abs(poses.rotations - rotation).max((1, 2)).argmin()
        np.testing.assert_allclose(poses.rotations[nearest], rotation, atol=1e-4)
        np.testing.assert_allclose(poses.translations[nearest], translation, atol=1e-3)


if __name__ == "__main__":
    unittest.main()
