import gc
import threading
import time
import unittest

import numpy as np
from networks import TwoLayers, slow_network

import zyncore
from zyncore import _native

METHODS = ("automatic", "timed", 0, 1, 2)


class NetTest(unittest.TestCase):
    def setUp(self):
        self.two = TwoLayers()

    def test_every_form_of_input_gives_the_formula_and_every_node_is_planar(self):
        image = self.two.image
        forms = {
            "as it is": image, "without batch": image[0], "double": image.astype(float),
            "turned strides": np.asfortranarray(image), "by name": {"image": image},
            "backwards": image[..., ::-1].copy()[..., ::-1], "integers": (image * 0).astype("i8"),
        }
        zero = zyncore.Net(self.two.file).run(image * 0)["result"]
        for method in METHODS:
            net = zyncore.Net(self.two.file, method=method, keep_all=True)
            for name, form in forms.items():
                with self.subTest(method=method, form=name):
                    result = net.run(form)["result"]
                    self.assertEqual(result.shape, (1, 5, 9, 14))
                    if name == "integers":
                        np.testing.assert_array_equal(result, zero)
                        continue
                    np.testing.assert_array_equal(result[0], self.two.values["out"])
                    # 13 channels: a block of 8, one of 4 and a single one where blocked.
                    np.testing.assert_array_equal(net.node("a")[0], self.two.values["a"])
                    np.testing.assert_array_equal(net.node(0), image)

    def test_fixed_point_is_rounded_in_and_scaled_out(self):
        net = zyncore.Net(self.two.file, fixed_point=True, keep_all=True)
        result = net.run(self.two.image)["result"]
        self.assertEqual(result.dtype, np.float32)
        np.testing.assert_allclose(result[0], self.two.values["out"], atol=0.2)
        np.testing.assert_allclose(net.node("a")[0], self.two.values["a"], atol=0.05)
        raw = net.output(raw=True)
        self.assertEqual(raw.dtype, np.int16)
        np.testing.assert_array_equal(raw / np.float32(256), result)
        net.run(self.two.image * 1e6)  # saturates
        self.assertEqual({-32768, 32767, 0} | set(net.input().ravel()), {-32768, 32767, 0})
        net.run((self.two.image * 256).astype(np.int16))  # taken as they are
        np.testing.assert_array_equal(net.output(), result)

    def test_views_share_memory_and_outlive_the_network(self):
        before = _native.zyn_get_current_memory_size_occupation()
        net = zyncore.Net(self.two.file)
        view = net.input("image")
        view[...] = self.two.image
        first = net.run(copy=False)["result"]
        kept = net.run(view)["result"]  # the input's own memory: nothing to copy
        view[...] = 0
        second = net.run()["result"]
        self.assertTrue(np.shares_memory(first, net.output(copy=False)))
        np.testing.assert_array_equal(first, second)
        np.testing.assert_array_equal(kept[0], self.two.values["out"])
        self.assertFalse(first.flags.writeable)
        net.close()
        part = first[0, 2]
        del net, view, first
        gc.collect()
        np.testing.assert_array_equal(part, second[0, 2])
        self.assertGreater(_native.zyn_get_current_memory_size_occupation(), before)
        del part
        self.assertEqual(_native.zyn_get_current_memory_size_occupation(), before)

    def test_what_the_network_says_about_itself(self):
        net = zyncore.Net(self.two.file, method=2)
        self.assertEqual(net.inputs["image"].shape, (1, 3, 9, 14))
        self.assertEqual(net.metadata, {"origin": "a test"})
        self.assertEqual(net.parameters, 13 * 28 + 5 * 118)
        self.assertEqual(net.multiply_adds, 9 * 14 * 9 * (3 * 13 + 13 * 5))
        self.assertEqual([n.method for n in net.nodes if n.name in ("a", "out")], [2, 2])
        self.assertEqual(zyncore.Operator(net.nodes[2].type).name, net.nodes[2].operation)
        self.assertGreater(net.memory.total, net.memory.weights)

    def test_mistakes_are_named(self):
        net = zyncore.Net(self.two.file)
        for wrong, text in ((np.zeros((3, 14, 9)), r"\(1, 3, 9, 14\).*\(3, 14, 9\)"),
                            ({"picture": 0}, "image"), (np.zeros((1, 3, 9, 14), "c8"), "cast")):
            with self.assertRaisesRegex((ValueError, TypeError), text):
                net.run(wrong)
        for call in (lambda: net.input("x"), lambda: net.output("x")):
            with self.assertRaisesRegex(KeyError, "'x'"):
                call()
        with self.assertRaisesRegex(ValueError, "keep_all"):
            net.node("a")
        with self.assertRaisesRegex(ValueError, "closed"), net:
            net.close()
            net.run(self.two.image)
        with self.assertRaises(ValueError):
            zyncore.Net(self.two.file, method=3)
        # Damage anywhere is found, and an error never tells the story of an earlier one.
        rng = np.random.default_rng(1)
        for at in rng.integers(0, len(self.two.file), 50):
            damaged = bytearray(self.two.file)
            damaged[at] ^= 1 << rng.integers(8)
            with self.assertRaises(zyncore.Error) as caught:
                zyncore.Net(bytes(damaged))
            self.assertTrue(caught.exception.detail)
        with self.assertRaises(zyncore.Error) as caught:
            zyncore.Image(4, 4, zyncore.Format.I420).resize(2, 2).write("x.gif")
        self.assertEqual((caught.exception.code, caught.exception.report[:14]),
                         (zyncore.Code.NOT_SUPPORT, "Error occurred"))
        with self.assertRaises(zyncore.Error) as caught:
            zyncore.Image(8, 8, zyncore.Format.NV12).crop(0, 0, 4, 4)  # a silent failure
        self.assertEqual((caught.exception.report, caught.exception.detail), ("", ""))


class ThreadTest(unittest.TestCase):
    def test_short_runs_go_on_beside_a_long_one(self):
        two, slow, taken = TwoLayers(), zyncore.Net(slow_network(), method=0), []
        net = zyncore.Net(two.file)

        def run():
            start = time.perf_counter()
            slow.run()
            taken.append(time.perf_counter() - start)
        thread = threading.Thread(target=run)
        last, gap = time.perf_counter(), 0.0
        thread.start()
        while not taken:
            result = net.run(two.image)["result"][0]
            now = time.perf_counter()
            gap, last = max(gap, now - last), now
            np.testing.assert_array_equal(result, two.values["out"])
        thread.join()
        self.assertGreater(taken[0], 0.05)
        self.assertLess(gap, taken[0] / 2)

    def test_networks_in_threads_give_what_they_give_alone(self):
        networks = [TwoLayers(seed) for seed in range(4)]
        wrong = []

        def work(two):
            net = zyncore.Net(two.file)
            for _ in range(50):
                if not np.array_equal(net.run(two.image)["result"][0], two.values["out"]):
                    wrong.append(two)
                try:  # every thread hears of its own failures
                    zyncore.Net(b"x" * (100 + networks.index(two)))
                except zyncore.Error as error:
                    if "this is no network file" not in error.detail:
                        wrong.append(error)
        # One network of several threads as well: their runs wait for each other.
        shared = zyncore.Net(networks[0].file)

        def share(two):
            for k in range(50):
                expected = networks[0].values["out"] if k % 2 else None
                result = shared.run(networks[0].image * (k % 2))["result"][0]
                if expected is not None and not np.array_equal(result, expected):
                    wrong.append(k)
        threads = [threading.Thread(target=f, args=[two]) for two in networks for f in (work, share)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(wrong, [])


if __name__ == "__main__":
    unittest.main()
