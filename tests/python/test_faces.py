"""Face sessions on networks whose answers are known, in frames of every kind."""
import unittest

import numpy as np
from networks import bright_cells, conv_words

import zyncore
from zyncore import Format, Image
from zyncore.netfile import Writer


def project(yaw, pitch, roll, place, focal, width, height):
    """The model's points in a frame, by the angles as they are documented."""
    p, w, r = np.radians([-pitch, -yaw, roll])
    rx = np.array([[1, 0, 0], [0, np.cos(p), -np.sin(p)], [0, np.sin(p), np.cos(p)]])
    ry = np.array([[np.cos(w), 0, np.sin(w)], [0, 1, 0], [-np.sin(w), 0, np.cos(w)]])
    rz = np.array([[np.cos(r), -np.sin(r), 0], [np.sin(r), np.cos(r), 0], [0, 0, 1]])
    points = zyncore.face_model() @ (rz @ ry @ rx).T + place
    return focal * points[:, :2] / points[:, 2:] + [width / 2, height / 2], rz @ ry @ rx


def fixed_landmarks(marks):
    """A network that finds the same landmarks in every crop of 16 x 16."""
    net = Writer()
    image = net.input("image", (16, 16, 3), channel_order="bgr")
    words = np.r_[np.zeros(marks.size * 16 * 16 * 3), marks.ravel()]
    dense = net.node("CONV_ACT", "points", [image, net.constant("w", words)],
                     conv_words(3, marks.size, (16, 16), 0))
    net.output("points", dense, meaning="landmarks")
    net.metadata("face.points", "68")
    net.metadata("face.crop", "1.5")
    return net.tobytes()


MARKS = project(0, 0, 0, (0, -35, 600), 2, 1, 1)[0]


class FacesTest(unittest.TestCase):
    def test_faces_of_every_frame_format(self):
        pixels = np.zeros((48, 64, 3), np.uint8)
        pixels[16:32, 16:32] = 235
        image = Image.from_array(pixels)
        grey = pixels[..., 0].copy()
        yuyv = np.stack([grey, np.full_like(grey, 128)], axis=2)
        nv12 = Image(64, 48, Format.NV12)
        nv12.planes[0][...], nv12.planes[1][...] = grey, 128
        wide = np.zeros((48, 100, 3), np.uint8)
        wide[:, 20:84] = pixels
        frames = [(pixels, None), (pixels, Format.RGB), (grey, None), (yuyv, None), (image, None),
                  (image.convert(Format.I420), None), (nv12, None), (wide[:, 20:84], None),
                  (pixels[:, ::-1][:, ::-1], None)]
        session = zyncore.Faces(bright_cells(), fixed_landmarks(MARKS), max_faces=3)
        for i, (frame, format) in enumerate(frames):
            face, = session(frame, i / 30, format=format)
            self.assertEqual((face.id, face.age, face.state), (0, i, zyncore.FaceState.DETECTED))
            np.testing.assert_allclose(face.box, [16, 16, 32, 32], atol=1e-3)
            np.testing.assert_allclose(face.landmarks, 12 + 24 * MARKS, atol=1e-3)
            self.assertEqual(face.smoothed.shape, (68, 2))
            np.testing.assert_allclose(face.points[0], face.smoothed[36:42].mean(0), atol=1e-3)
            self.assertTrue(face.pose.error < 1 and abs(face.pose.roll) < 1)
        self.assertGreater(session.times["total"], 0)
        session.reset()
        self.assertEqual(session(pixels, 1.0)[0].id, 1)

    def test_sources_settings_and_refusals(self):
        net = zyncore.Net(bright_cells())
        session = zyncore.Faces(net, max_age=0)
        self.assertEqual(session(np.full((48, 64, 3), 255, np.uint8), 0)[0].landmarks.shape, (0, 2))
        self.assertIsNone(session(np.full((48, 64), 255, np.uint8), 1)[0].pose)
        for wrong in ({"max_faces": 0}, {"smooth_beta": -1}):
            with self.assertRaises(zyncore.Error) as caught:
                zyncore.Faces(net, **wrong)
            self.assertIn(next(iter(wrong)), caught.exception.detail)
        with self.assertRaises(TypeError):
            zyncore.Faces(net, max_fases=1)
        with self.assertRaises(zyncore.Error):
            zyncore.Faces("/no/such/file")
        for picture in (np.zeros((4, 4, 4), np.uint8), np.zeros((4, 4), float), np.zeros(4, "u1")):
            with self.assertRaises(ValueError):
                session(picture, 2)
        with self.assertRaises(zyncore.Error):
            session(np.zeros((3, 5, 2), np.uint8), 2)

    def test_pose_and_alignment(self):
        points, rotation = project(30, -12, 8, (50, -20, 700), 640, 640, 480)
        pose = zyncore.solve_pose(points, 640, 480)
        np.testing.assert_allclose([pose.yaw, pose.pitch, pose.roll], [30, -12, 8], atol=0.01)
        np.testing.assert_allclose(pose.rotation, rotation, atol=1e-3)
        np.testing.assert_allclose(pose.translation, [50, -20, 700], rtol=1e-3)
        self.assertIsNone(zyncore.solve_pose(np.ones((68, 2)), 640, 480))
        picture = np.tile(np.arange(200, dtype=np.uint8), (160, 1))
        standard = np.array([[38.2946, 51.6963], [73.5318, 51.5014], [56.0252, 71.7366],
                             [41.5493, 92.3655], [70.7299, 92.2041]])
        crop = zyncore.align(picture, standard + [40, 20]).array
        self.assertEqual(crop.shape, (112, 112, 3))
        np.testing.assert_array_equal(crop[50, :, 1], np.arange(40, 152))


if __name__ == "__main__":
    unittest.main()
