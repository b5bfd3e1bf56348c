"""Five scenes of Blender, by the add-on and by Cycles: whether they show the same.

    ZEPHLORE_PROGRAM=build/release/zephlore blender -b --factory-startup -P bench/blender_scenes.py -- \
        FOLDER [--samples N] [--width N] [--scene NAME ...]

Writes FOLDER/NAME-zephlore.exr and FOLDER/NAME-cycles.exr, a sheet of all pairs (zephlore left), FOLDER/sheet.png, and
prints a Markdown table: the overlap of both alphas (sum of the smaller by sum of the larger of each pixel), and the means
of the pictures.
"""

import argparse
import math
import random
import sys
from pathlib import Path

import bpy
import numpy as np
from mathutils import Euler, Vector

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "blender"))
import zephlore
from zephlore import exr, pictures


def material(name, kind, **told):
    made = bpy.data.materials.new(name)
    made.use_nodes = True
    tree = made.node_tree
    tree.nodes.clear()
    out, shader = tree.nodes.new("ShaderNodeOutputMaterial"), tree.nodes.new(kind)
    for key, value in told.items():
        shader.inputs[key.replace("_", " ")].default_value = value + (1,) if isinstance(value, tuple) else value
    tree.links.new(shader.outputs[0], out.inputs[0])
    return made


def put(obj, place=(0, 0, 0), turn=(0, 0, 0), scale=1, made=None):
    scene = bpy.context.scene
    if obj.name not in scene.collection.objects:
        scene.collection.objects.link(obj)
    obj.location, obj.rotation_euler = place, turn
    obj.scale = (scale,) * 3 if isinstance(scale, (int, float)) else scale
    if made is not None:
        obj.data.materials.append(made)
    return obj


def model(kind, **told):
    getattr(bpy.ops.mesh, "primitive_%s_add" % kind)(**told)
    return bpy.context.object


def smooth(obj):
    for polygon in obj.data.polygons:
        polygon.use_smooth = True
    return obj


def lamp(kind, place, target=(0, 0, 0), **told):
    light = bpy.data.lights.new(kind, kind)
    for key, value in told.items():
        setattr(light, key, value)
    obj = put(bpy.data.objects.new(kind, light), place)
    obj.rotation_euler = (Vector(target) - Vector(place)).to_track_quat("-Z", "Y").to_euler()
    obj.visible_camera = False
    return obj


def camera(place, target, lens=35):
    eye = put(bpy.data.objects.new("eye", bpy.data.cameras.new("eye")), place)
    eye.data.lens = lens
    eye.rotation_euler = (Vector(target) - Vector(place)).to_track_quat("-Z", "Y").to_euler()
    bpy.context.scene.camera = eye
    return eye


def world(color, strength=1.0):
    made = bpy.data.worlds.new("world")
    made.use_nodes = True
    made.node_tree.nodes["Background"].inputs[0].default_value = color + (1,)
    made.node_tree.nodes["Background"].inputs[1].default_value = strength
    bpy.context.scene.world = made
    return made.node_tree


def things(colors):
    """A floor, a box, a ball and a head."""
    materials = [material("paint%d" % i, "ShaderNodeBsdfDiffuse", Color=c) for i, c in enumerate(colors)]
    put(model("plane", size=8), made=materials[0])
    put(model("cube", size=1), (-1.4, 0.4, 0.5), (0, 0, 0.5), made=materials[1])
    put(smooth(model("uv_sphere", segments=48, ring_count=24, radius=0.6)), (1.5, -0.2, 0.6), made=materials[2])
    head = put(smooth(model("monkey")), (0, 0.2, 0.75), (-0.5, 0, 0.3), 0.8, materials[3])
    head.modifiers.new("round", "SUBSURF").render_levels = 1


COLORS = [(0.6, 0.58, 0.55), (0.7, 0.2, 0.15), (0.2, 0.5, 0.7), (0.75, 0.6, 0.2)]


def lamps():
    """Every kind of lamp, and a mesh that shines."""
    things(COLORS)
    put(model("ico_sphere", radius=0.25, subdivisions=3), (-0.6, -1.4, 0.4),
        made=material("glow", "ShaderNodeEmission", Color=(1, 0.7, 0.4), Strength=8.0))
    lamp("AREA", (2.5, -2, 3), energy=80, shape="RECTANGLE", size=1.5, size_y=0.5)
    lamp("AREA", (-2.5, 2, 2.5), energy=40, shape="DISK", size=1)
    lamp("POINT", (-2, -2, 2), energy=60, shadow_soft_size=0.1)
    lamp("SPOT", (0, 3, 3.5), (0, 0.3, 0.4), energy=300, spot_size=math.radians(50), spot_blend=0.3,
         shadow_soft_size=0.05)
    lamp("SUN", (0, 0, 5), (1, 1, 3.5), energy=0.4, angle=math.radians(5))
    world((0.02, 0.02, 0.03))
    camera((0, -6, 2.4), (0, 0, 0.6))


def hdr():
    """A map with a sun, turned."""
    things(COLORS)
    width, height = 512, 256
    u, v = np.meshgrid((np.arange(width) + 0.5) / width, (np.arange(height) + 0.5) / height)
    rise, turn = np.pi * (v - 0.5), 2 * np.pi * u
    toward = np.cos(rise) * np.cos(turn - 2) * math.cos(0.7) + np.sin(rise) * math.sin(0.7)
    sky = np.where((rise >= 0)[..., None], np.stack([0.25 + 0.2 * v, 0.4 + 0.3 * v, 0.8 + 0 * v], -1), 0.09)
    pixels = np.ones((height, width, 4), np.float32)
    pixels[..., :3] = sky + (400 * np.exp((toward - 1) * 1500))[..., None] * np.array([1, 0.95, 0.85])
    image = bpy.data.images.new("sky", width, height, float_buffer=True)
    image.pixels.foreach_set(pixels.ravel())
    tree = world((1, 1, 1))
    nodes = [tree.nodes.new("ShaderNode" + kind) for kind in ("TexEnvironment", "Mapping", "TexCoord")]
    nodes[0].image = image
    nodes[1].inputs["Rotation"].default_value = (0.1, 0, 0.6)
    tree.links.new(nodes[2].outputs["Generated"], nodes[1].inputs[0])
    tree.links.new(nodes[1].outputs[0], nodes[0].inputs[0])
    tree.links.new(nodes[0].outputs[0], tree.nodes["Background"].inputs[0])
    camera((0, -6, 2.4), (0, 0, 0.6))


def glass_and_metal():
    """Glass, mirrors and rough metal on a checkered floor."""
    floor = material("tiles", "ShaderNodeBsdfPrincipled", Roughness=0.4)
    tree = floor.node_tree
    tiles, coordinates = tree.nodes.new("ShaderNodeTexChecker"), tree.nodes.new("ShaderNodeTexCoord")
    tiles.inputs["Color1"].default_value, tiles.inputs["Color2"].default_value = (0.7, 0.7, 0.7, 1), (0.1, 0.15, 0.2, 1)
    tiles.inputs["Scale"].default_value = 16
    tree.links.new(coordinates.outputs["UV"], tiles.inputs[0])
    shader = next(n for n in tree.nodes if n.type == "BSDF_PRINCIPLED")
    tree.links.new(tiles.outputs[0], shader.inputs["Base Color"])
    put(model("plane", size=8), made=floor)
    balls = [material("glass", "ShaderNodeBsdfGlass", Color=(0.95, 0.97, 1.0), Roughness=0.0, IOR=1.5),
             material("gold", "ShaderNodeBsdfPrincipled", Base_Color=(0.9, 0.6, 0.2), Metallic=1.0, Roughness=0.3),
             material("chrome", "ShaderNodeBsdfGlossy", Color=(0.8, 0.8, 0.8), Roughness=0.0),
             material("frosted", "ShaderNodeBsdfPrincipled", Base_Color=(0.6, 0.9, 0.7), Transmission=1.0, Roughness=0.3),
             material("lacquer", "ShaderNodeBsdfPrincipled", Base_Color=(0.6, 0.05, 0.05), Roughness=0.2, Clearcoat=1.0)]
    for i, made in enumerate(balls):
        ball = model("uv_sphere", segments=64, ring_count=32, radius=0.55)
        put(smooth(ball), (1.25 * (i - 2), 0.4 * (i % 2), 0.56), made=made)
    lamp("AREA", (2, -3, 4), energy=250, size=2)
    world((0.5, 0.6, 0.7), 0.6)
    camera((0, -6, 2.2), (0, 0, 0.5))


def hair():
    """A ball of particle hair with children, and a plain one."""
    world((0.6, 0.65, 0.7), 0.7)
    lamp("AREA", (2, -3, 4), energy=150, size=1)
    put(model("plane", size=8), made=material("ground", "ShaderNodeBsdfDiffuse", Color=(0.5, 0.5, 0.5)))
    for x, kind, told in ((-1, "ShaderNodeBsdfHairPrincipled", {"Color": (0.35, 0.16, 0.05)}),
                          (1, "ShaderNodeBsdfDiffuse", {"Color": (0.3, 0.5, 0.2)})):
        ball = put(model("ico_sphere", radius=0.5, subdivisions=4), (x, 0, 0.9),
                   made=material("skin", "ShaderNodeBsdfDiffuse", Color=(0.3, 0.2, 0.15)))
        ball.data.materials.append(material("strands", kind, **told))
        ball.modifiers.new("hair", "PARTICLE_SYSTEM")
        settings = ball.particle_systems[0].settings
        settings.type, settings.count, settings.hair_length = "HAIR", 1500, 0.4
        settings.child_type, settings.rendered_child_count = "INTERPOLATED", 5
        settings.render_step, settings.hair_step = 3, 4
        settings.roughness_2, settings.material = 0.05, 2
        settings.root_radius, settings.tip_radius, settings.radius_scale = 1.0, 0.3, 0.012
    camera((0, -5, 1.6), (0, 0, 0.8), 45)


def instances():
    """A collection placed many times, stretched and mirrored; what moves, turns and bends while the shutter is open."""
    scene = bpy.context.scene
    world((0.7, 0.75, 0.8))
    lamp("SUN", (0, 0, 5), (1, 2, 2), energy=2, angle=0.05)
    put(model("plane", size=12), made=material("ground", "ShaderNodeBsdfDiffuse", Color=COLORS[0]))
    group = bpy.data.collections.new("tree")
    for obj, color, place in ((model("cone", radius1=0.3, depth=1), COLORS[2], (0, 0, 0.9)),
                              (model("cylinder", radius=0.08, depth=0.5), COLORS[1], (0, 0, 0.25))):
        put(obj, place, made=material("part", "ShaderNodeBsdfDiffuse", Color=color))
        group.objects.link(obj)
        scene.collection.objects.unlink(obj)
    numbers = random.Random(3)
    for i in range(40):
        empty = bpy.data.objects.new("place", None)
        empty.instance_type, empty.instance_collection = "COLLECTION", group
        size = numbers.uniform(0.5, 1.3)
        put(empty, (numbers.uniform(-4, 4), numbers.uniform(-1, 5), 0), (0, 0, numbers.uniform(0, 6)),
            (size * numbers.choice((-1, 1)), size, size * numbers.uniform(0.6, 1.4)))
    box = put(model("cube", size=0.6), (-1, -1.8, 0.8), made=material("box", "ShaderNodeBsdfDiffuse", Color=COLORS[1]))
    bar = put(model("cube", size=1), (1.2, -1.6, 0.8), scale=(0.2, 0.2, 1.2),
              made=material("bar", "ShaderNodeBsdfDiffuse", Color=COLORS[3]))
    bar.shape_key_add()
    bent = bar.shape_key_add()
    for point in bent.data:
        point.co.x += 2 * max(point.co.z, 0)
    for frame, x, turn, bend in ((1, -1.2, 0, 0), (3, -0.6, 1.0, 1)):
        box.location.x, box.rotation_euler, bent.value = x, Euler((0, turn, 0)), bend
        box.keyframe_insert("location", frame=frame)
        box.keyframe_insert("rotation_euler", frame=frame)
        bent.keyframe_insert("value", frame=frame)
    for action in bpy.data.actions:
        for curve in action.fcurves:
            for key in curve.keyframe_points:
                key.interpolation = "LINEAR"
    scene.frame_set(2)
    scene.render.use_motion_blur, scene.render.motion_blur_shutter = True, 1.0
    eye = camera((0, -6, 2), (0, 0, 0.6))
    eye.data.dof.use_dof, eye.data.dof.focus_distance, eye.data.dof.aperture_fstop = True, 4.8, 0.8
    eye.data.shift_x = 0.05


SCENES = {"lamps": lamps, "hdr": hdr, "glass_and_metal": glass_and_metal, "hair": hair, "instances": instances}


def set_up(options):
    scene = bpy.context.scene
    render, cycles = scene.render, scene.cycles
    render.resolution_x, render.resolution_y, render.resolution_percentage = options.width, options.width * 9 // 16, 100
    render.film_transparent = True
    render.image_settings.file_format, render.image_settings.color_depth = "OPEN_EXR", "32"
    cycles.samples, cycles.use_denoising, cycles.use_adaptive_sampling = options.samples, False, False
    cycles.max_bounces, cycles.diffuse_bounces, cycles.glossy_bounces = 16, 4, 4
    cycles.sample_clamp_indirect, cycles.light_sampling_threshold, cycles.blur_glossy = 0, 0, 0
    cycles.pixel_filter_type, cycles.filter_width = "BOX", 1
    scene.zephlore.samples, scene.zephlore.bounces, scene.zephlore.ray_depth = options.samples, 4, 16


def picture(path):
    channels, _ = exr.read(path)
    find = lambda c: next(v for k, v in channels.items() if k.split(".")[-1] == c)
    return np.stack([find(c) for c in "RGBA"], axis=-1)


def for_screen(pixels):
    light = np.clip(pixels[..., :3] + (1 - pixels[..., 3:]) * 0.18, 0, 1)
    return np.where(light <= 0.0031308, 12.92 * light, 1.055 * np.power(light, 1 / 2.4) - 0.055)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("folder", type=Path)
    parser.add_argument("--samples", type=int, default=128)
    parser.add_argument("--width", type=int, default=480)
    parser.add_argument("--scene", choices=list(SCENES), action="append")
    options = parser.parse_args(sys.argv[sys.argv.index("--") + 1:])
    options.folder.mkdir(parents=True, exist_ok=True)
    rows, table = [], ["| Scene | Overlap | Mean, zephlore | Cycles | Ratio |", "|---|---|---|---|---|"]
    for name in options.scene or SCENES:
        bpy.ops.wm.read_factory_settings(use_empty=True)
        zephlore.register()
        SCENES[name]()
        set_up(options)
        pair = []
        for engine in ("ZEPHLORE", "CYCLES"):
            bpy.context.scene.render.engine = engine
            path = options.folder / ("%s-%s.exr" % (name, engine.lower()))
            bpy.context.scene.render.filepath = str(path)
            bpy.ops.render.render(write_still=True)
            pair.append(picture(path))
        ours, theirs = pair
        overlap = np.minimum(ours[..., 3], theirs[..., 3]).sum() / np.maximum(ours[..., 3], theirs[..., 3]).sum()
        means = [float(p[..., :3].mean()) for p in pair]
        table.append("| %s | %.4f | %.4f | %.4f | %.4f |" % (name, overlap, *means, means[0] / means[1]))
        rows.append(np.hstack([for_screen(p) for p in pair]))
        zephlore.unregister()
    pictures.write_png(options.folder / "sheet.png", np.vstack(rows)[::-1], 8)
    print("\n".join(table))


if __name__ == "__main__":
    main()
