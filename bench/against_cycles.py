#!/usr/bin/env python3
"""Whole frames against Cycles: time to equal error on the same three scenes.

    bench/against_cycles.py [--program FILE] [--blender FILE] [--size N] [--passes N] [--reference N] [--threads N]
                            [--folder FOLDER]

Needs Blender 3.4 or later; standard library only. Writes a box with a sampled lamp, a field under a plain sky, and the
same field under an HDR map with a small sun as scenes of format 2 and as scenes of Cycles (CPU, no denoising, no
adaptive sampling, pixels as boxes, as many bounces), renders both in turn, and prints a Markdown table.

Error is the root of the mean squared relative difference, (value - reference)^2 / (reference + 0.01 of the picture's
mean)^2, over pixels and channels. Each renderer is held against a long render of its own with other seeds, so that no
difference between the two counts as noise; the column of means tells whether they show the same. Time is processor time
of all threads, of a render of four times as many samples less that of one: scenes are read and built in neither. The
last column is the time that zephlore takes to the error of Cycles, as a share of Cycles' own; error falls with the root
of the samples.
"""

import argparse
import array
import math
import random
import resource
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BOUNCES = 4

# Run by Blender: the arguments behind "--" are the scene's folder, name, size, samples, seed, threads and output.
IN_BLENDER = r'''
import array, bpy, json, math, mathutils, sys, time
folder, name, size, samples, seed, threads, output = sys.argv[sys.argv.index("--") + 1:]
told = json.load(open(folder + "/cycles.json"))
bpy.ops.wm.read_factory_settings(use_empty=True)
scene = bpy.context.scene
for part in told["parts"]:
    vertices = [tuple(v) for v in told["vertices"]]
    mesh = bpy.data.meshes.new(part["material"])
    mesh.from_pydata(vertices, [], [tuple(f) for f in part["faces"]])
    material = bpy.data.materials.new(part["material"])
    material.use_nodes = True
    nodes, links = material.node_tree.nodes, material.node_tree.links
    nodes.clear()
    out = nodes.new("ShaderNodeOutputMaterial")
    shader = nodes.new("ShaderNodeEmission" if "emission" in part else "ShaderNodeBsdfDiffuse")
    shader.inputs[0].default_value = tuple(part.get("emission", part.get("color"))) + (1,)
    links.new(shader.outputs[0], out.inputs[0])
    mesh.materials.append(material)
    scene.collection.objects.link(bpy.data.objects.new(part["material"], mesh))
world = bpy.data.worlds.new("world")
scene.world = world
world.use_nodes = True
nodes, links = world.node_tree.nodes, world.node_tree.links
background = nodes["Background"]
if "map" in told:
    image = nodes.new("ShaderNodeTexEnvironment")
    image.image = bpy.data.images.load(folder + "/cycles_" + told["map"])
    links.new(image.outputs[0], background.inputs[0])
else:
    background.inputs[0].default_value = tuple(told["sky"]) + (1,)
camera = bpy.data.cameras.new("camera")
camera.sensor_fit = "HORIZONTAL"
camera.angle = math.radians(told["fieldOfView"])
eye = bpy.data.objects.new("camera", camera)
eye.location = told["position"]
way = mathutils.Vector(told["target"]) - mathutils.Vector(told["position"])
eye.rotation_euler = way.to_track_quat("-Z", "Y").to_euler()
scene.collection.objects.link(eye)
scene.camera = eye
scene.render.engine = "CYCLES"
scene.render.resolution_x = scene.render.resolution_y = int(size)
scene.render.resolution_percentage = 100
scene.render.threads_mode, scene.render.threads = "FIXED", int(threads)
scene.render.image_settings.file_format = "OPEN_EXR"
scene.render.image_settings.color_depth = "32"
scene.render.filepath = output + ".exr"
cycles = scene.cycles
cycles.device, cycles.samples, cycles.seed = "CPU", int(samples), int(seed)
cycles.use_adaptive_sampling = cycles.use_denoising = False
cycles.pixel_filter_type = "BOX"
cycles.filter_width = 1
cycles.max_bounces = cycles.diffuse_bounces = told["bounces"]
cycles.sample_clamp_direct = cycles.sample_clamp_indirect = 0
cycles.light_sampling_threshold = 0
cycles.caustics_reflective = cycles.caustics_refractive = True
start = time.process_time()
bpy.ops.render.render(write_still=True)
seconds = time.process_time() - start
picture = bpy.data.images.load(output + ".exr")
pixels = array.array("f", picture.pixels[:])
array.array("f", (pixels[i] for i in range(len(pixels)) if i % 4 != 3)).tofile(open(output + ".raw", "wb"))
open(output + ".time", "w").write(str(seconds))
'''


def quad(vertices, corners):
    first = len(vertices)
    vertices += corners
    return [first, first + 1, first + 2, first + 3]


def box():
    """A closed room of 2 x 2 x 2 with a lamp of 1 x 1 below its ceiling."""
    vertices = []
    walls = [quad(vertices, c) for c in (
        [(-1, -1, 0), (1, -1, 0), (1, 1, 0), (-1, 1, 0)], [(-1, 1, 2), (1, 1, 2), (1, -1, 2), (-1, -1, 2)],
        [(-1, -1, 0), (-1, -1, 2), (1, -1, 2), (1, -1, 0)], [(1, 1, 0), (1, 1, 2), (-1, 1, 2), (-1, 1, 0)],
        [(-1, 1, 0), (-1, 1, 2), (-1, -1, 2), (-1, -1, 0)], [(1, -1, 0), (1, -1, 2), (1, 1, 2), (1, 1, 0)])]
    lamp = quad(vertices, [(-0.5, -0.5, 1.999), (-0.5, 0.5, 1.999), (0.5, 0.5, 1.999), (0.5, -0.5, 1.999)])
    return {"vertices": vertices, "sky": (0, 0, 0), "position": (0, -0.95, 1), "target": (0, 0, 0.8), "fieldOfView": 80,
            "parts": [{"material": "wall", "color": (0.7, 0.7, 0.7), "faces": walls},
                      {"material": "lamp", "emission": (5, 5, 5), "faces": [lamp]}]}


def field():
    """Balls on hilly ground."""
    numbers = random.Random(1)
    vertices, ground, balls = [], [], []
    side = 100
    for j in range(side + 1):
        for i in range(side + 1):
            x, y = -5 + 0.1 * i, -5 + 0.1 * j
            vertices.append((x, y, 0.05 * math.sin(7 * x + 0.5) * math.cos(5 * y) + 0.03 * math.sin(3 * x * y)))
    for j in range(side):
        for i in range(side):
            a = j * (side + 1) + i
            ground += [[a, a + 1, a + side + 2], [a, a + side + 2, a + side + 1]]
    rows, columns = 14, 24
    for _ in range(30):
        x, y, radius = numbers.uniform(-4, 4), numbers.uniform(-4, 4), numbers.uniform(0.15, 0.5)
        first = len(vertices)
        for r in range(rows + 1):
            for c in range(columns):
                a, b = math.pi * r / rows, 2 * math.pi * c / columns
                vertices.append((x + radius * math.sin(a) * math.cos(b), y + radius * math.sin(a) * math.sin(b),
                                 radius + radius * math.cos(a)))
        for r in range(rows):
            for c in range(columns):
                a, b = first + r * columns + c, first + r * columns + (c + 1) % columns
                balls += [f for f in ([a, a + columns, b + columns], [a, b + columns, b])
                          if not (r == 0 and f[2] == b) and not (r == rows - 1 and f[1] == a + columns)]
    return {"vertices": vertices, "sky": (1, 1, 1), "position": (0, -6, 2), "target": (0, 0, 0), "fieldOfView": 50,
            "parts": [{"material": "ground", "color": (0.5, 0.45, 0.4), "faces": ground},
                      {"material": "ball", "color": (0.7, 0.2, 0.2), "faces": balls}]}


def field_under_map():
    return dict(field(), map="sky.hdr")


SCENES = {"box with a lamp": box, "field, plain sky": field, "field, HDR map": field_under_map}


def write_map(path, middle, width=512, height=256):
    """A bright blue sky with a small sun, over dark ground, as a Radiance picture.

    `middle` tells where in its cell a texel stands: zephlore takes the lower left corner, Cycles the middle.
    """
    pixels = bytearray()
    for row in reversed(range(height)):
        rise = math.pi * ((row + middle) / height - 0.5)
        for column in range(width):
            turn = 2 * math.pi * (column + middle) / width
            toward = math.cos(rise) * math.cos(turn - 2) * math.cos(0.7) + math.sin(rise) * math.sin(0.7)
            sun, up = 400 * math.exp((toward - 1) * 3000), max(0, math.sin(rise))
            sky, ground = (0.25 + 0.2 * up, 0.4 + 0.3 * up, 0.8), (0.1, 0.1, 0.08)
            share = min(max(0.5 + 10 * rise, 0), 1)  # a sharp horizon would stand half a texel higher for one of the two
            color = [g + share * (c - g) + sun * tint for c, g, tint in zip(sky, ground, (1, 0.95, 0.85))]
            fraction, exponent = math.frexp(max(color))
            pixels += bytes([min(255, round(c * fraction * 256 / max(color))) for c in color] + [exponent + 128])
    path.write_bytes(b"#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y %d +X %d\n" % (height, width) + pixels)


def write_scene(told, folder):
    import json
    folder.mkdir()
    (folder / "cycles.json").write_text(json.dumps(dict(told, bounces=BOUNCES)))
    if "map" in told:
        write_map(folder / told["map"], 0)
        write_map(folder / ("cycles_" + told["map"]), 0.5)
    triple = lambda values: " ".join(str(v) for v in values)
    files = {
        "render": "format 2\nfinal_gather\nbounce %d\nray_depth %d\nend" % (BOUNCES, BOUNCES + 4),
        "light": ("sky_light\ncolor 1 1 1\nimage \"%s\"\nend" % told["map"] if "map" in told else
                  "sky_light\ncolor %s\nend" % triple(told["sky"])),
        "camera": "resolution 8 8\npose\nposition %s\ntarget %s\nup_vector 0 0 1\nfield_of_view %g\nend" % (
            triple(told["position"]), triple(told["target"]), told["fieldOfView"]),
    }
    for name, text in files.items():
        (folder / name).mkdir()
        section = text if name == "light" else f"{name}\n{text}\nend"
        (folder / name / "all.zp").write_text(section + "\n")
    shaders = ""
    for part in told["parts"]:
        lamp = "emission" in part
        shaders += "shader\nname \"%s\"\nsurface_shader\nsideness \"%s\"\n%s%s\ncolor %s\nend\nend\nend\n" % (
            part["material"], "face" if lamp else "both", "virtual_light\n" if lamp else "",
            "emissive" if lamp else "lambertian", triple(part["emission" if lamp else "color"]))
    (folder / "shader").mkdir()
    (folder / "shader" / "all.zp").write_text(shaders)
    (folder / "geometry").mkdir()
    (folder / "geometry" / "all.zp").write_text("object\nname root\nobj \"all.obj\"\nend\n")
    with open(folder / "all.obj", "w") as file:
        file.writelines("v %.9g %.9g %.9g\n" % tuple(v) for v in told["vertices"])
        for part in told["parts"]:
            file.write("usemtl %s\n" % part["material"])
            file.writelines("f " + " ".join(str(i + 1) for i in face) + "\n" for face in part["faces"])


class Ours:
    name = "zephlore"

    def __init__(self, options):
        self.options = options

    def render(self, folder, samples, seed, output):
        start = resource.getrusage(resource.RUSAGE_CHILDREN)
        subprocess.run([self.options.program, "render", folder, "--resolution", f"{self.options.size}x{self.options.size}",
                        "--sample", str(samples), "--seed", str(seed), "--threads", str(self.options.threads),
                        "--quiet", "--save-every", "0", "--output", f"{output}.pfm"], check=True)
        end = resource.getrusage(resource.RUSAGE_CHILDREN)
        with open(f"{output}.pfm", "rb") as file:
            for _ in range(3):
                file.readline()
            pixels = array.array("f", file.read())
        return pixels, end.ru_utime - start.ru_utime + end.ru_stime - start.ru_stime


class Cycles:
    name = "Cycles"

    def __init__(self, options):
        self.options = options

    def render(self, folder, samples, seed, output):
        script = Path(folder) / "cycles.py"
        script.write_text(IN_BLENDER)
        subprocess.run([self.options.blender, "-b", "--factory-startup", "--python-exit-code", "1", "-P", script, "--",
                        str(folder), "scene", str(self.options.size), str(samples), str(seed),
                        str(self.options.threads), str(output)], check=True, stdout=subprocess.DEVNULL)
        pixels = array.array("f", Path(f"{output}.raw").read_bytes())
        return pixels, float(Path(f"{output}.time").read_text())


def error(picture, reference):
    mean = sum(reference) / len(reference)
    squares = sum(((a - b) / (b + 0.01 * mean)) ** 2 for a, b in zip(picture, reference))
    return math.sqrt(squares / len(reference))


def measure(renderer, scene, options, folder):
    """Mean, error and seconds of --passes samples."""
    output = folder / f"{renderer.name}"
    reference, _ = renderer.render(scene, options.reference, 77, output)
    few, short = renderer.render(scene, options.passes, 1, output)
    _, long = renderer.render(scene, 4 * options.passes, 2, output)
    return sum(reference) / len(reference), error(few, reference), (long - short) / 3


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", default=str(ROOT / "build/release/zephlore"))
    parser.add_argument("--blender", default="blender")
    parser.add_argument("--size", type=int, default=320)
    parser.add_argument("--passes", type=int, default=64)
    parser.add_argument("--reference", type=int, default=4096)
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("--scene", choices=list(SCENES), action="append", help="one of the three; may be given again")
    options = parser.parse_args()
    print(f"{options.size} x {options.size} pixels, {options.passes} samples, {options.threads} threads")
    print("| Scene | Means | Error, zephlore | Cycles | M samples a second, zephlore | Cycles | Time to equal error |")
    print("|---|---|---|---|---|---|---|", flush=True)
    with tempfile.TemporaryDirectory() as name:
        for number, scene in enumerate(options.scene or SCENES):
            folder = Path(name) / str(number)
            write_scene(SCENES[scene](), folder)
            (mean, noise, seconds), (other_mean, other_noise, other_seconds) = (
                measure(renderer(options), folder, options, Path(name)) for renderer in (Ours, Cycles))
            samples = options.passes * options.size**2 / 1e6
            print(f"| {scene} | {mean:.4f}, {other_mean:.4f} | {noise:.4f} | {other_noise:.4f} | {samples / seconds:.2f} | "
                  f"{samples / other_seconds:.2f} | {noise**2 * seconds / (other_noise**2 * other_seconds):.2f} |",
                  flush=True)


if __name__ == "__main__":
    sys.exit(main())
