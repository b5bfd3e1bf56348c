"""Tests of the module zp, without anything but NumPy. PYTHONPATH names the folder of the package."""

import ast
import contextlib
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import warnings

import numpy as np
import zp

PROJECT = pathlib.Path(__file__).resolve().parent.parent


def exported():
    header = (PROJECT / "src/frame/zp.h").read_text()
    return re.findall(r"^(?:void|int) zp(\w+)\(", header, re.MULTILINE)


def snake(name):
    return re.sub(r"(?<=[a-z])(?=[A-Z])|(?<=[A-Z])(?=[A-Z][a-z]{2})", "_", name).lower()


def read_pfm(path):
    with open(path, "rb") as file:
        assert file.readline() == b"PF\n"
        width, height = map(int, file.readline().split())
        order = "<" if float(file.readline()) < 0 else ">"
        return np.frombuffer(file.read(), order + "f4").reshape(height, width, 3)[::-1]


class Interface(unittest.TestCase):
    def test_every_exported_function(self):
        names = [snake(name) for name in exported()]
        self.assertEqual(len(names), 125)
        for name in names:
            text = getattr(zp, name).__doc__
            self.assertGreater(len(text.split("\n\n", 1)[1].strip()), 8, name)  # behind the signature
        bound = {name for name in dir(zp) if callable(getattr(zp, name)) and name[0].islower()}
        self.assertEqual(bound, set(names))

    def test_stubs_tell_the_truth(self):
        tree = ast.parse((pathlib.Path(zp.__file__).parent / "_zp.pyi").read_text())
        functions = [node for node in tree.body if isinstance(node, ast.FunctionDef) and node.name[0] != "_"]
        self.assertEqual([f.name for f in functions], [snake(name) for name in exported()])
        for stub in functions:
            signature = getattr(zp, stub.name).__doc__.splitlines()[0]
            actual = ast.parse(f"def {re.sub(r'-> .*', '', signature)}: ...").body[0].args
            self.assertEqual([a.arg for a in stub.args.args], [a.arg for a in actual.args], stub.name)
            defaults = [[ast.unparse(value) for value in a.defaults] for a in (stub.args, actual)]
            self.assertEqual(*defaults, stub.name)
        for node in tree.body:
            if isinstance(node, ast.ClassDef) and node.name[0] != "_":
                members = {m.targets[0].id: m.value.value for m in node.body}
                self.assertEqual(members, dict(getattr(zp, node.name).__members__), node.name)

    def test_wrong_arguments(self):
        part = (zp.add_object(), zp.add_part(0))
        zp.add_instance(0), zp.add_surface_shader(zp.add_shader())
        cases = [  # what is raised, what it says, the call
            (ValueError, r"add_positions.*\[n, 3\].*\[4, 2\]", zp.add_positions, *part, np.zeros((4, 2))),
            (ValueError, r"add_radii.*\[n\].*\[2, 1\]", zp.add_radii, *part, np.zeros((2, 1))),
            (ValueError, r"add_normals.*\[n, 3\]", zp.add_normals, *part, [[1, 2, 3], [1, 2]]),
            (ValueError, "add_triangles.*32 bits.*4294967296", zp.add_triangles, *part, [[0, 1, 2**32]]),
            (ValueError, "add_particles.*32 bits", zp.add_particles, *part, np.array([2**63], "uint64")),
            (TypeError, "add_triangles.*integers.*float64", zp.add_triangles, *part, [[0, 1, 0.5]]),
            (TypeError, "add_tangents.*numbers.*complex", zp.add_tangents, *part, [[1j, 0, 0]]),
            (TypeError, "add_positions.*numbers", zp.add_positions, *part, None),
            (ValueError, r"\[n\], \[n, 2\] or \[n, 3\].*\[2, 4\]", zp.add_vertex_data, *part, "a", np.ones((2, 4))),
            (ValueError, r"set_instance.*\[4, 4\].*\[3, 4\]", zp.set_instance, 0, 0, 0, np.zeros((3, 4))),
            (ValueError, r"uv.*\[3, 3\].*\[2\]", zp.set_surface_image, 0, 0, zp.Element.IOR, "a", 1, None, [1, 2]),
            (ValueError, "render_pixels.*width and height", zp.render_pixels, 4, -1, 0),
            (ValueError, "render_pixels.*width and height", zp.render_pixels, 1 << 16, 1 << 16, 0),
            (ValueError, "null", zp.set_shader_name, 0, "a\0b"),
            (TypeError, "zp.Material", zp.set_surface_material, 0, 0, 1),
            (TypeError, "zp.Channel", zp.set_camera_aov_channel, 0, 0, -1),
            (TypeError, "on: bool", zp.set_surface_virtual_light, 0, 0, None),
            (TypeError, "name: str", zp.set_shader_name, 0, None),
            (TypeError, "sample: int", zp.set_camera_sample, 0, 2**31),
            (TypeError, "PathLike", zp.go, 3),
            (FileNotFoundError, "nowhere", zp.go, "nowhere"),
            (NotADirectoryError, "test_zp", zp.go, __file__),
            (IndexError, "add_part: there is no object 7 of 1", zp.add_part, 7),
            (IndexError, "camera -1 of 0", zp.add_camera_aov, -1),
            (IndexError, "set_surface_color.* layer 1 of 1", zp.set_surface_color, 0, 1, zp.Element.IOR, 1, 1, 1),
            (IndexError, "add_uvs.* part 2 of 1", zp.add_uvs, 0, 2, []),
            (IndexError, "set_instance.* instance 5 of 1", zp.set_instance, 0, 5, 0),
            (IndexError, "point light 0 of 0", zp.set_point_light_blur, 0, 1),
            (IndexError, "sky light AOV 0 of 0", zp.set_sky_light_aov_name, 0, "a"),
        ]
        for error, says, function, *arguments in cases:
            with self.subTest(says), self.assertRaisesRegex(error, says):
                function(*arguments)
        zp.add_positions(*part, [])  # nothing, not an error
        zp.finalize()


class Pictures(unittest.TestCase):
    """A black sky, path tracing, a pinhole camera of 24 by 16 pixels that looks straight down from z = 4."""

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        zp.startup()
        self.addCleanup(zp.shutdown)
        self.addCleanup(zp.finalize)
        zp.set_renderer_distance(0)
        zp.set_sky_light_photon(0)
        zp.set_geometry_light_photon(0)
        zp.set_sky_light_color(0, 0, 0)
        self.camera = zp.add_camera()
        zp.set_camera_resolution(self.camera, 24, 16)
        zp.set_camera_sample(self.camera, 2)
        zp.set_camera_position(self.camera, 0, 0, 4)
        zp.set_camera_target(self.camera, 0, 0, 0)
        zp.set_camera_up_vector(self.camera, 0, 1, 0)
        zp.set_camera_fov(self.camera, 30)
        zp.set_camera_aov_name(self.camera, 0, self.file("beauty"))

    def file(self, name):
        return pathlib.Path(self.folder.name) / f"{name}.pfm"

    def add_lit_plane(self, points, triangles):
        """A square in the plane z = 0, placed by an instance, whose albedo is 0.5. A sun shines on it at 60 degrees
        off the normal. The plane's radiance, albedo * color * cosine, comes first."""
        shader, plane, scene, sun = zp.add_shader(), zp.add_object(), zp.add_object(), zp.add_parallel_light()
        zp.set_surface_color(shader, zp.add_surface_shader(shader), zp.Element.LAMBERTIAN, 0.5, 0.5, 0.5)
        part, instance = zp.add_part(plane), zp.add_instance(scene)
        zp.set_shader_id(plane, part, shader)
        zp.add_positions(plane, part, points)
        zp.add_triangles(plane, part, triangles)
        zp.add_vertex_data(plane, part, "height", points[:, 0] * 0 + 7)
        zp.set_instance(scene, instance, plane)
        zp.set_parallel_light_direction(sun, np.sqrt(3), 0, -1)
        zp.set_parallel_light_color(sun, 1, 2, 4)
        zp.set_parallel_light_offset(sun, 0)
        zp.set_parallel_light_sample(sun, 2)  # one a pass
        return np.array([1, 2, 4]) * 0.5 * 0.5, scene, instance, plane

    SQUARE = np.array([[-9, -9, 0], [9, -9, 0], [9, 9, 0], [-9, 9, 0]], dtype=np.float32)
    HALVES = np.array([[0, 1, 2], [0, 2, 3]], dtype=np.int32)

    def test_sky_and_region(self):
        zp.set_sky_light_color(0.25, 0.5, 2)
        zp.set_camera_region(self.camera, 4, 2, 14, 8)
        zp.initialize()
        pixels = zp.render_pixels(10, 6, 0)
        self.assertEqual((pixels.shape, pixels.dtype), ((6, 10, 3), np.float32))
        np.testing.assert_array_equal(pixels, np.broadcast_to(np.float32([0.25, 0.5, 2]), (6, 10, 3)))
        with self.assertRaisesRegex(ValueError, "10 by 6 pixels, not 10 by 8"):
            zp.render_pixels(10, 8, 1)

    def test_arrays_of_any_kind_show_the_same(self):
        points, triangles = self.SQUARE, self.HALVES
        wide = np.zeros((8, 6))
        wide[::2, ::2] = points
        backwards = np.ascontiguousarray(triangles[::-1, ::-1])[::-1, ::-1]
        kinds = [(points, triangles), (points.astype(">f8"), triangles.astype(np.int64)),
                 (wide[::2, ::2], backwards), (np.asfortranarray(points), triangles.astype(np.uint64)),
                 (points.astype(np.int16), triangles.astype(np.uint8))]  # fmt: skip
        for points, triangles in kinds:  # a second scene in the process each time
            with self.subTest(points=points.dtype, triangles=triangles.dtype):
                expected = self.add_lit_plane(points, triangles)[0]
                zp.initialize()
                np.testing.assert_allclose(zp.render_pixels(24, 16, 0), np.tile(expected, (16, 24, 1)), rtol=1e-5)
            self.doCleanups()
            self.setUp()

    def test_files_and_instances(self):
        expected, scene, instance, plane = self.add_lit_plane(self.SQUARE, self.HALVES)
        place = np.eye(4)
        place[:3, 3] = [0.5, 0, 1.5]
        zp.set_instance(scene, instance, plane, place)
        zp.set_instance(scene, instance, plane)  # None keeps the matrix
        images = {"position": zp.Channel.POSITION, "height": zp.Channel.USER_DATA}
        for name, channel in images.items():
            aov = zp.add_camera_aov(self.camera)
            zp.set_camera_aov_channel(self.camera, aov, channel)
            zp.set_camera_aov_user_data(self.camera, aov, "height")
            zp.set_camera_aov_name(self.camera, aov, os.fsencode(self.file(name)))
        zp.initialize()
        zp.render()
        beauty, position, height = (read_pfm(self.file(name)) for name in ("beauty", *images))
        np.testing.assert_allclose(beauty, np.tile(expected, (16, 24, 1)), rtol=1e-5)
        np.testing.assert_allclose(height[..., 0], 7, rtol=1e-5)
        np.testing.assert_allclose(position[..., 2], 1.5, rtol=1e-5)
        half = 2.5 * np.tan(np.radians(15))  # of the picture, at a distance of 2.5
        centers = (np.arange(24) + 0.5) / 12 - 1
        np.testing.assert_allclose(position[..., 0], np.tile(half * centers, (16, 1)), atol=half / 12)
        self.assertTrue((np.diff(position[:, 12, 1]) < 0).all())  # the top row comes first

    def test_particles_cylinders(self):
        """A ball on the left and a fibre on the right, in the colour of the instance that places them."""
        shader, ball, scene = zp.add_shader(), zp.add_object(), zp.add_object()
        zp.set_surface_color(shader, zp.add_surface_shader(shader), zp.Element.EMISSIVE, 1, 2, 3)
        part = zp.add_part(ball)
        zp.add_positions(ball, part, [[-0.5, 0, 0], [0.5, -0.3, 0], [0.5, 0.3, 0]])
        zp.add_radii(ball, part, [0.2, 0.1, 0.1])
        zp.add_particles(ball, part, [0])
        zp.add_cylinders(ball, part, [1])
        zp.set_instance(scene, zp.add_instance(scene), ball, shader=shader)
        zp.initialize()
        seen = zp.render_pixels(24, 16, 0)
        for column, lit in ((6, True), (12, False), (17, True)):
            np.testing.assert_allclose(seen[6:10, column], np.tile([lit, lit * 2, lit * 3], (4, 1)))
        self.assertFalse(seen[:4].any() or seen[-4:].any())

    def test_other_threads_run_but_stay_outside(self):
        zp.set_camera_resolution(self.camera, 1024, 1024)
        zp.initialize()
        refused, done = [], threading.Event()

        def ask():
            while not done.is_set() and not refused:
                try:
                    zp.set_camera_name(self.camera, "asked")
                except RuntimeError as error:
                    refused.append(str(error))

        thread = threading.Thread(target=ask)
        thread.start()
        zp.render_pixels(1024, 1024, 0)  # some 100 ms, each of which would do
        done.set()
        thread.join()
        self.assertIn("another thread", *refused)
        zp.set_camera_name(self.camera, "free again")

    def test_a_signal_ends_a_render(self):
        zp.set_camera_sample(self.camera, 65535)
        zp.initialize()
        started = time.process_time()
        timer = threading.Timer(0.3, os.kill, (os.getpid(), signal.SIGINT))
        timer.start()
        with self.assertRaises(KeyboardInterrupt):
            zp.render()
        timer.join()
        self.assertLess(time.process_time() - started, 5)

    def run_program(self, program):
        return subprocess.run([sys.executable, "-c", program], cwd=self.folder.name, stdout=subprocess.PIPE,
                              check=True, timeout=300, text=True).stdout  # fmt: skip

    def test_scene_folder(self):
        camera = "camera\n resolution 8 4\n pose\n target 0 1 0\n up_vector 0 0 1\n field_of_view 9\n end\nend\n"
        scene = pathlib.Path(self.folder.name, "scene")
        (scene / "camera").mkdir(parents=True)
        (scene / "camera" / "camera.zp").write_text(camera)
        (scene / "geometry").mkdir()
        (scene / "geometry" / "a.zp").write_text('object\n name a\n obj "a.obj"\nend\n')
        (scene / "a.obj").write_text("v 0 -9 0\nv 9 -9 0\nv 0 -9 9\nf 1 2 3\n")
        rows = self.run_program(f"import pathlib, zp; zp.go(pathlib.Path('{scene}'))")
        self.assertNotIn("error :(", rows)
        self.assertIn("0.7500            0.7500            0.7500", rows)  # the mean: the sky's default
        self.assertEqual(len(list(scene.parent.glob("beauty-*.hdr"))), 1)

    def test_example_of_the_documentation(self):
        page = (PROJECT / "docs/python.md").read_text()
        scene, functions = re.findall(r"```python\n(.*?)```", page, re.DOTALL)
        self.assertEqual(self.run_program(scene.replace("640, 360", "64, 36")), "")
        rows = self.run_program(functions.replace("480, 200", "120, 50").replace("(camera, 64)", "(camera, 16)"))
        order = [rows.index(text) for text in ("patiently", "4608 tetragons", "renderer sample", "rendering time")]
        self.assertEqual(order, sorted(order))  # what Python prints stands among the rows of the library
        depth, picture = read_pfm(self.file("spheres-depth"))[..., 0], read_pfm(self.file("spheres"))
        self.assertEqual(depth.shape, (50, 120))
        self.assertAlmostEqual(depth[25, 60], np.hypot(16, 3.5) - 1, delta=0.02)  # the ball in the middle
        np.testing.assert_allclose(picture[:5], np.tile([0.35, 0.45, 0.6], (5, 120, 1)), rtol=1e-6)  # the sky
        self.assertTrue(np.isfinite(picture).all())


class Scenes(unittest.TestCase):
    SQUARE, FACE = [[-1, -1, 0], [1, -1, 0], [1, 1, 0], [-1, 1, 0]], [[0, 1, 2, 3]]

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.scene = zp.Scene()  # straight down on what lies in z = 0, 2 by 2 units across
        self.camera = self.scene.camera(position=(0, 0, 9), target=(0, 0, 0), up=(0, 1, 0), resolution=(24, 24),
                                        fov=2 * np.degrees(np.arctan(1 / 9)))  # fmt: skip

    def test_example_and_files(self):
        scene = zp.Scene(format=2)
        clay = scene.shader("clay", lambertian=(0.6, 0.5, 0.4))
        ball = scene.object("ball").add_mesh(np.array(self.SQUARE), np.array([[0, 1, 2], [0, 2, 3]]), shader=clay)
        scene.instance(ball, matrix=np.eye(4))
        scene.sky(color=(1, 1, 1))
        scene.camera(position=(0, -5, 2), target=(0, 0, 0), fov=40, resolution=(64, 36), aovs=["normal", "depth"])
        seen = []
        picture = scene.render(passes=64, seed=1, callback=lambda done, image: seen.append((done, image)) or done < 3)
        self.assertEqual(([done for done, _ in seen], picture.passes), ([1, 2, 3], 3))
        self.assertEqual((picture.beauty.shape, picture.beauty.dtype), ((36, 64, 3), np.float32))
        self.assertEqual(list(picture), ["beauty", "alpha", "normal", "depth"])
        np.testing.assert_array_equal(seen[-1][1], picture.beauty)
        np.testing.assert_array_equal(scene.render(3, 1, threads=1).beauty, picture.beauty)
        self.assertAlmostEqual(picture["depth"][18, 32], np.hypot(5, 2), delta=0.1)
        np.testing.assert_allclose(picture.beauty[18, 32], [0.6, 0.5, 0.4], rtol=1e-5)  # under a white sky
        with self.assertRaisesRegex(KeyError, "'dept' among beauty, alpha"):
            picture["dept"]
        picture["normal"][0, 0] = 7  # is saved, too
        picture.save(self.folder / "x.exr")
        back = zp.Picture.open(self.folder / "x.exr")
        np.testing.assert_array_equal(back["normal"], picture["normal"])
        np.testing.assert_allclose(back.beauty, picture.beauty, rtol=1e-3)
        picture.save(self.folder / "x.png")
        np.testing.assert_array_equal(zp.Picture.open(self.folder / "x.png").view(), picture.view())
        self.assertTrue(picture._repr_png_().startswith(b"\x89PNG"))
        with self.assertRaisesRegex(OSError, "cannot write.*nowhere"):
            picture.save("/nowhere/x.exr")
        with self.assertRaisesRegex(ValueError, "denoise=True.*half0"):
            picture.denoised()
        small = scene.render(4, 1, resolution=(32, 18), region=(8, 4, 24, 12), denoise=True)
        self.assertEqual((small.beauty.shape, small.resolution, small.region), ((8, 16, 3), (32, 18), (8, 4, 24, 12)))

    def test_folder_as_the_program_renders_it(self):
        folder = PROJECT / "scenes/formats/leaves"
        arguments = [
            "--sample",
            "2",
            "--seed",
            "5",
            "--resolution",
            "48x27",
            "--float",
            "--output",
            "o.exr",
            "--aov",
            "albedo",
        ]
        subprocess.run([os.environ["ZP_PROGRAM"], "render", folder, *arguments, "--quiet"], cwd=self.folder, check=True)
        theirs = zp.Picture.open(self.folder / "o.exr")
        scene = zp.Scene.open(folder)
        ours = scene.render(2, 5, resolution=(48, 27), aovs=["albedo"])
        self.assertEqual(list(ours), list(theirs))
        for name in ("worldToCamera", "worldToNDC", "zephlore:fieldOfView"):
            self.assertEqual(ours.attributes[name], theirs.attributes[name])
        for layer in ours:
            np.testing.assert_array_equal(ours[layer], theirs[layer], layer)
        scene.object("more").add_particles([[0, 0, 0]], 1e3)  # beside, or here around, what the folder has
        self.assertTrue((scene.render(1, 5, resolution=(48, 27)).alpha == 1).all())

    def test_kinds_of_things(self):
        """A quarter of the picture each: a mesh with a picture, a spot of light, strands, and scene text."""
        scene = self.scene
        scene.sky(color=0)
        image = np.zeros((1, 8, 3), np.float32)
        image[0, 4:] = [1, 2, 3]
        shine = scene.shader("shine", emissive=zp.Texture(image), virtual_light=False)
        corner = np.array(self.SQUARE) * [0.5, 0.5, 1]
        part = scene.object("corner").add_mesh(corner, self.FACE, uvs=[[0, 0], [1, 0], [1, 1], [0, 1]], shader=shine)
        place = np.eye(4)
        place[:2, 3] = [-0.5, 0.5]
        moving = scene.instance(part, place)
        white = scene.shader("white", lambertian=1)
        scene.object("wall").add_mesh(corner + [0.5, 0.5, 0], self.FACE, shader=white)
        scene.point_light(
            (0.5, 0.5, 1), 2, direction=(0, 0, -1), inner_angle=20, outer_angle=20, offset=0, only=[white]
        )
        scene.text('shader\n name "red"\n surface_shader\n emissive\n color 4 0 0\n end\n end\nend\n')
        red = scene.find_shader("red")
        scene.object("hair").add_hair([[[-0.9, -0.5, 0], [-0.5, -0.5, 0], [-0.1, -0.5, 0]]] * 2, 0.2, shader=red)
        scene.object("dust").add_particles([[0.5, -0.5, 0]], [0.3], shader=red)
        seen = scene.render(4, 1).beauty
        self.assertEqual((seen[6, 1:3].max(), seen[6, 8].tolist()), (0, [1, 2, 3]))
        self.assertAlmostEqual(seen[6, 18, 0], 2, delta=0.1)
        self.assertEqual(seen[1, 13, 0], 0)  # outside of the spot
        for pixel in ((18, 6), (18, 18)):
            self.assertEqual(seen[pixel].tolist(), [4, 0, 0])
        place[0, 3] = 9
        moving.matrix = place
        self.assertEqual(scene.render(1, 1).beauty[6, 8].max(), 0)
        place[:2, 3] = [0.25, 0]  # three pixels
        moving.matrix, moving.matrix_end = np.eye(4), place
        np.testing.assert_allclose(scene.render(2, 1, aovs="motion")["motion"][12, 12], [3, 0], atol=1e-3)

    def test_what_is_wrong_is_raised(self):
        scene, other = self.scene, zp.Scene()
        thing, points, face = scene.object("thing"), self.SQUARE, self.FACE
        clay = scene.shader("clay")
        foreign = other.shader("clay")
        wood = scene.shader("wood", lambertian="no.png")
        cases = [
            (ValueError, r"thing: positions.*\[n, 3\].*\[4, 2\]", lambda: thing.add_mesh(np.zeros((4, 2)), face)),
            (ValueError, r"finite.*nan at \[0, 1\]", lambda: thing.add_mesh([[0, np.nan, 0]], [])),
            (ValueError, "finite.*inf", lambda: thing.add_mesh([[0, 1e300, 0]], [])),
            (ValueError, "shape", lambda: thing.add_mesh([[1, 2, 3], [1, 2]], face)),
            (ValueError, r"faces.*\[n, 3\] or \[n, 4\]", lambda: thing.add_mesh(points, [[0, 1]])),
            (ValueError, r"normals.*\[4, 3\]", lambda: thing.add_mesh(points, face, normals=points[:3])),
            (ValueError, "fewer than two", lambda: thing.add_hair([points[:1]], 1)),
            (ValueError, "add up to 5", lambda: thing.add_hair(points, 1, counts=[5])),
            (ValueError, "above 0", lambda: thing.add_particles(points, 0)),
            (ValueError, "inverse", lambda: scene.instance(thing, np.diag([1, 1, 0, 1]))),
            (ValueError, "inside of itself", lambda: thing.instance(thing)),
            (ValueError, "another scene", lambda: other.instance(thing)),
            (ValueError, "another scene", lambda: thing.add_mesh(points, face, shader=foreign)),
            (ValueError, "'clay' already", lambda: scene.shader("clay")),
            (ValueError, "conductor, dielectric", lambda: scene.shader("x", material="glass")),
            (ValueError, "same", lambda: setattr(self.camera, "target", (0, 0, 9)) or scene.render(1)),
            (TypeError, "integers.*float", lambda: thing.add_mesh(points, [[0.0, 1, 2]])),
            (TypeError, "numbers.*complex", lambda: thing.add_mesh(np.zeros((4, 3), complex), face)),
            (TypeError, "zp.Shader", lambda: thing.add_mesh(points, face, shader="clay")),
            (IndexError, "face 1 names vertex 4 of 4", lambda: thing.add_mesh(points, [[0, 1, 2], [1, 2, 4]])),
            (IndexError, "not -1", lambda: thing.add_mesh(points, [[0, 1, -1]])),
            (IndexError, "camera 3 of 1", lambda: scene.render(1, camera=3)),
            (KeyError, "did you mean 'depth'", lambda: scene.render(1, aovs=["detph"])),
            (AttributeError, "did you mean 'fov'", lambda: setattr(self.camera, "fow", 40)),
            (FileNotFoundError, "nowhere", lambda: zp.Scene.open("nowhere")),
            (zp.SceneError, "line 3: .*did you mean .render", lambda: scene.text("camera\n end\nrendr\nend\n")),
            (zp.SceneError, "no.png cannot be found", lambda: thing.add_mesh(points, face, shader=wood) and scene.render(1)),
            (zp.SceneError, "no shader 'rust'", lambda: thing.instance(scene.object("b"), shader=scene.find_shader("rust")) and scene.render(1)),
        ]  # fmt: skip
        for error, says, call in cases:
            with self.subTest(says), self.assertRaisesRegex(error, says):
                self.camera.target = (0, 0, 0)
                call()
        thing._instances.clear()
        with self.assertWarnsRegex(zp.SceneWarning, "no.png cannot be found"):
            scene.render(1, strict=False)
        self.assertEqual(clay.name, "clay")
        scene.close()
        for call in (
            lambda: scene.render(1),
            lambda: scene.object("c"),
            lambda: thing.add_mesh(points, face),
            lambda: clay.layer(),
        ):
            self.assertRaisesRegex(RuntimeError, "closed", call)
        zp.add_object()
        self.assertRaisesRegex(RuntimeError, "finalize", other.render)
        zp.finalize()

    def test_what_ends_a_render(self):
        for raised in (ZeroDivisionError, KeyboardInterrupt):

            def interrupt(done, image):
                if done == 2:
                    raise raised  # noqa: B023

            self.assertRaises(raised, self.scene.render, 9, callback=interrupt)  # fmt: skip
            self.assertEqual(self.scene.picture.passes, 2)
        self.assertRaisesRegex(RuntimeError, "under way", self.scene.render, 9, callback=lambda *_: self.scene.render())
        timer = threading.Timer(0.2, os.kill, (os.getpid(), signal.SIGINT))
        timer.start()
        self.assertRaises(KeyboardInterrupt, self.scene.render, 65535)
        timer.join()
        self.assertGreater(self.scene.picture.passes, 0)
        self.assertEqual(self.scene.render(2).passes, 2)  # all is as before

    def test_notebook(self):
        cells = json.loads((PROJECT / "examples/first_picture.ipynb").read_text())["cells"]
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(self.folder)
        names, shown = {}, []
        for cell in cells:
            if cell["cell_type"] != "code":
                continue
            tree = ast.parse("".join(cell["source"]).replace("320, 180", "96, 54"))
            last = tree.body.pop() if isinstance(tree.body[-1], ast.Expr) else None
            with warnings.catch_warnings(), open(os.devnull, "w") as nothing, contextlib.redirect_stdout(nothing):
                warnings.simplefilter("error")
                exec(compile(tree, "cell", "exec"), names)
                if last is not None:
                    shown.append(eval(compile(ast.Expression(last.value), "cell", "eval"), names))
        pictures = [value for value in shown if isinstance(value, zp.Picture)]
        self.assertEqual([picture.beauty.shape for picture in pictures], [(54, 96, 3)] * 3)
        self.assertTrue(1 < pictures[0].passes < 64)
        self.assertEqual(sorted(path.name for path in self.folder.iterdir()), ["vases.exr", "vases.png"])


if __name__ == "__main__":
    unittest.main()
