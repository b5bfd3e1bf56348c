"""The add-on within Blender: lamps, pictures and shapes against Cycles, passes, errors, and a render that is stopped.

    ZEPHLORE_PROGRAM=build/release/zephlore blender -b --factory-startup --python-exit-code 1 -P tests/blender_addon.py
"""

import os
import sys
import tempfile
import time
from pathlib import Path

import bpy
import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "bench"))
from blender_scenes import camera, hair, instances, lamp, material, model, picture, put, set_up, world, zephlore
from zephlore.engine import Run, program


class Options:
    width, samples = 32, 16


def fresh():
    zephlore.unregister()
    bpy.ops.wm.read_factory_settings(use_empty=True)
    zephlore.register()
    set_up(Options)


def render(engine, folder):
    scene = bpy.context.scene
    scene.render.engine, scene.render.filepath = engine, str(folder / (engine + ".exr"))
    bpy.ops.render.render(write_still=True)
    return picture(scene.render.filepath)


def both(folder):
    return render("ZEPHLORE", folder), render("CYCLES", folder)


def near(told, expected, share, what):
    assert abs(told - expected) <= share * abs(expected), "%s: %g instead of %g" % (what, told, expected)


def lamps(folder):
    """A floor below each kind of lamp."""
    for kind, told in (("POINT", {"energy": 100.0, "shadow_soft_size": 0.1}), ("SUN", {"energy": 3.0, "angle": 0.2}),
                       ("SPOT", {"energy": 100.0, "spot_size": 1.2, "spot_blend": 0.4, "shadow_soft_size": 0.0}),
                       ("AREA", {"energy": 100.0, "size": 1.0, "shape": "SQUARE"}),
                       ("AREA", {"energy": 100.0, "size": 1.0, "size_y": 0.3, "shape": "ELLIPSE"})):
        fresh()
        put(model("plane", size=9), made=material("floor", "ShaderNodeBsdfDiffuse", Color=(0.8, 0.5, 0.2)))
        lamp(kind, (0.3, 0.2, 2), (0, 0, 0), color=(1, 0.8, 0.6), **told)
        camera((0, -0.1, 5), (0, 0, 0))
        ours, theirs = both(folder)
        for channel in range(3):
            near(ours[..., channel].mean(), theirs[..., channel].mean(), 0.02, "%s %s" % (kind, told))


def textures(folder):
    """A picture that is turned and repeated, as it is and through a ramp; holes by its alpha."""
    for ramp in (False, True):
        fresh()
        image = bpy.data.images.new("grid", 16, 8, alpha=True)
        x, y = np.meshgrid(np.arange(16) / 15, np.arange(8) / 7)
        image.pixels.foreach_set(np.stack([x, y, 0.3 + 0 * x, x > 0.3], axis=-1).astype(np.float32).ravel())
        made = material("glow", "ShaderNodeEmission", Strength=1.0)
        nodes, links = made.node_tree.nodes, made.node_tree.links
        texture, place, uv, hole, mix, colors = (nodes.new("ShaderNode" + n) for n in (
            "TexImage", "Mapping", "TexCoord", "BsdfTransparent", "MixShader", "ValToRGB"))
        texture.image = image
        place.inputs["Rotation"].default_value, place.inputs["Scale"].default_value = (0, 0, 0.4), (1.5, 2, 1)
        glow = next(n for n in nodes if n.type == "EMISSION")
        for start, end in ((uv.outputs["UV"], place.inputs[0]), (place.outputs[0], texture.inputs[0]),
                           (texture.outputs[0], colors.inputs[0]), (texture.outputs[1], mix.inputs[0]),
                           ((colors if ramp else texture).outputs[0], glow.inputs[0]), (hole.outputs[0], mix.inputs[1]),
                           (glow.outputs[0], mix.inputs[2]), (mix.outputs[0], nodes["Material Output"].inputs[0])):
            links.new(start, end)
        put(model("plane", size=4), made=made)
        camera((0, 0, 4.5), (0, 0, 0))
        ours, theirs = both(folder)
        assert np.abs(ours - theirs).mean() < 0.02, np.abs(ours - theirs).mean()


def shapes(folder):
    """Instances that move, a lens with depth of field and shift; then strands. Passes tell of the same frame."""
    for scene, limit in ((instances, 0.97), (hair, 0.95)):
        fresh()
        scene()
        for system in (p for o in bpy.data.objects for p in o.particle_systems):
            system.settings.count, system.settings.rendered_child_count = 200, 2
        layer = bpy.context.view_layer
        layer.use_pass_normal = layer.zephlore.lambertian = True
        ours, theirs = both(folder)
        a, b = ours[..., 3], theirs[..., 3]
        overlap = np.minimum(a, b).sum() / np.maximum(a, b).sum()
        assert overlap > limit, overlap
    fresh()
    world((1.0, 1.0, 1.0))
    put(model("plane", size=20), made=material("floor", "ShaderNodeBsdfDiffuse", Color=(0.5, 0.5, 0.5)))
    camera((0, 0, 3), (0, 0, 0))
    layer = bpy.context.view_layer
    layer.use_pass_z = layer.use_pass_normal = layer.zephlore.lambertian = True
    bpy.context.scene.render.image_settings.file_format = "OPEN_EXR_MULTILAYER"
    bpy.context.scene.render.engine, bpy.context.scene.render.filepath = "ZEPHLORE", str(folder / "layers.exr")
    bpy.ops.render.render(write_still=True)
    found = {k.split(".", 1)[1]: v for k, v in zephlore.exr.read(folder / "layers.exr")[0].items()}
    near(found["Depth.Z"].mean(), 3, 1e-4, "depth")
    near(found["Normal.Z"].mean(), 1, 1e-4, "normal")
    near(found["Lambertian.R"].mean(), 0.5, 0.01, "diffuse light")
    assert np.allclose(found["Lambertian.G"], found["Combined.G"], rtol=1e-3)


def failures(folder):
    """Reasons reach the user; a render that is stopped ends at once and leaves its picture."""
    fresh()
    camera((0, 0, 3), (0, 0, 0))
    right = os.environ["ZEPHLORE_PROGRAM"]
    for wrong, words in (("/nowhere/zephlore", "there is no program"), ("/bin/false", "status 1")):
        os.environ["ZEPHLORE_PROGRAM"] = wrong
        try:
            render("ZEPHLORE", folder)
            assert False, "no error of " + wrong
        except RuntimeError as reason:
            assert words in str(reason), reason
    os.environ["ZEPHLORE_PROGRAM"] = right
    bpy.context.scene.zephlore.keep_folder = str(folder / "kept")
    render("ZEPHLORE", folder)
    run = Run([program(), "render", str(folder / "kept"), "--sample", "65535", "--progress=json", "--quiet",
               "--output", str(folder / "stopped.exr")])
    while run.hear(0.1) and not (run.progress.get("phase") == "passes" and run.progress["done"]):
        pass
    run.stop()
    assert run.process.returncode == 1 and (folder / "stopped.exr").exists()


zephlore.register()
with tempfile.TemporaryDirectory() as name:
    for test in (lamps, textures, shapes, failures):
        start = time.monotonic()
        test(Path(name))
        print("%s: %.1f s" % (test.__name__, time.monotonic() - start))
