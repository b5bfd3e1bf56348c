"""The render engine: writes the scene, runs zephlore, and shows what it makes."""

import json
import os
import queue
import shutil
import signal
import struct
import subprocess
import tempfile
import threading
import time
from pathlib import Path

import bpy
import numpy as np

from . import exr, losses
from .export import Exporter
from .text import word

PACKAGE = __package__

# Setting of a view layer, word of --aov, name of the pass, how many channels, their names, kind of socket, those of the
# file.
PASSES = [
    ("use_pass_z", "depth", "Depth", 1, "Z", "VALUE", ("Z",)),
    ("use_pass_normal", "normal", "Normal", 3, "XYZ", "VECTOR", ("N.X", "N.Y", "N.Z")),
    ("use_pass_position", "position", "Position", 3, "XYZ", "VECTOR", ("P.X", "P.Y", "P.Z")),
    ("use_pass_uv", "uv", "UV", 3, "UVA", "VECTOR", ("uv.U", "uv.V", None)),
    ("motion", "motion", "Motion", 3, "XYZ", "VECTOR", ("motion.X", "motion.Y", None)),
    ("samples", "samples", "Samples", 1, "X", "VALUE", ("samples.Y",)),
] + [
    (name, name, label, 3, "RGB", "COLOR", tuple(name + "." + c for c in "RGB"))
    for name, label in (("albedo", "Albedo"), ("lambertian", "Lambertian"), ("transmissive", "Transmissive"),
                        ("glossy", "Glossy"), ("specular", "Specular"), ("emissive", "Emissive"),
                        ("lambertian_color", "Lambertian Color"), ("glossy_color", "Glossy Color"),
                        ("specular_color", "Specular Color"))]


def passes_of(layer):
    """Rows of PASSES that a view layer asks for, and those of its light groups."""
    rows = [row for row in PASSES if getattr(layer if row[0].startswith("use_pass") else layer.zephlore, row[0], False)]
    for group in getattr(layer, "lightgroups", ()):
        channels = tuple("light_%s.%s" % (word(group.name), c) for c in "RGB")
        rows.append((None, "lights", "Combined_" + group.name, 3, "RGB", "COLOR", channels))
    return rows


def preferences():
    addon = bpy.context.preferences.addons.get(PACKAGE)
    return addon.preferences if addon else None


def program():
    """The path of zephlore. FileNotFoundError if it is not there."""
    told = preferences().program if preferences() else ""
    told = os.path.expanduser(told or os.environ.get("ZEPHLORE_PROGRAM") or "zephlore")
    found = shutil.which(told)
    if found is None:
        raise FileNotFoundError("there is no program %s: set its path in the preferences of the add-on" % told)
    return found


class Failure(Exception):
    """A render that ends with a reason for the user."""


class Run:
    """One call of the program. Its messages arrive by a thread that reads them."""

    def __init__(self, words):
        self.process = subprocess.Popen(words, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                                        encoding="utf-8", errors="replace")
        self.lines = queue.Queue()
        self.problems = []
        self.progress = {}
        self.ended = False
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self):
        for line in self.process.stderr:
            self.lines.put(line)
        self.lines.put(None)

    def hear(self, wait):
        """Takes in what was said; false once the program has ended."""
        if self.ended:
            return False
        try:
            line = self.lines.get(timeout=wait)
            while True:
                if line is None:
                    self.process.wait()
                    self.ended = True
                    return False
                self.understand(line)
                line = self.lines.get_nowait()
        except queue.Empty:
            return True

    def understand(self, line):
        try:
            told = json.loads(line)
        except ValueError:
            self.problems.append(("error", line.strip()))
            return
        if told.get("type") == "progress":
            self.progress = told
        elif told.get("severity") in ("warning", "error", "fatal"):
            self.problems.append((told["severity"], " ".join(told["text"].split())))

    def stop(self):
        """Ends the program within a second; it writes what it has."""
        self.process.send_signal(signal.SIGINT if os.name == "posix" else signal.SIGTERM)
        try:
            self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


class ZephloreEngine(bpy.types.RenderEngine):
    bl_idname = "ZEPHLORE"
    bl_label = "zephlore"
    bl_use_preview = False
    bl_use_shading_nodes_custom = False
    bl_use_eevee_viewport = True
    bl_use_gpu_context = False
    bl_use_postprocess = True

    def update_render_passes(self, scene=None, renderlayer=None):
        if renderlayer is None:
            return
        self.register_pass(scene, renderlayer, "Combined", 4, "RGBA", "COLOR")
        for _, _, name, count, channels, kind, _ in passes_of(renderlayer):
            self.register_pass(scene, renderlayer, name, count, channels, kind)

    def render(self, depsgraph):
        scene = depsgraph.scene
        kept = bpy.path.abspath(scene.zephlore.keep_folder) if scene.zephlore.keep_folder else ""
        folder = Path(kept or tempfile.mkdtemp(prefix="zephlore-", dir=bpy.app.tempdir or None))
        try:
            self.render_into(depsgraph, folder)
        except (Failure, ValueError, OSError, struct.error) as reason:
            self.error_set(str(reason))
            self.report({"ERROR"}, str(reason))
        finally:
            if not kept:
                shutil.rmtree(folder, ignore_errors=True)

    def render_into(self, depsgraph, folder):
        found = program()
        self.update_stats("", "zephlore: writing the scene")
        camera = getattr(self, "camera_override", None)
        export = Exporter(depsgraph, folder, depsgraph.scene.zephlore, lambda f, part: self.frame_set(f, subframe=part),
                          camera)
        frame, region = export.run()
        for loss in losses.told():
            print("zephlore: " + loss)
        output = folder / "render.exr"
        output.unlink(missing_ok=True)
        layer = depsgraph.view_layer
        run = Run(command(found, depsgraph.scene, layer, folder, output))
        self.follow(run, output, region, layer, depsgraph.scene)

    def follow(self, run, output, region, layer, scene):
        """Shows progress, and the picture whenever it was saved on the way, until the program ends."""
        shown, told = 0, 0
        while run.hear(0.1):
            if self.test_break():
                run.stop()
                break
            self.tell(run.progress)
            told = self.pass_on(run, told)
            saved = output.stat().st_mtime_ns if output.exists() else 0
            if saved != shown:
                shown = saved
                self.show(output, region, layer, scene)
        while run.hear(0.1):
            pass
        self.pass_on(run, told)
        if run.process.returncode != 0 and not self.test_break():
            fatal = [text for severity, text in run.problems if severity == "fatal"] or \
                [text for _, text in run.problems] or ["zephlore ended with status %d" % run.process.returncode]
            raise Failure(fatal[-1])
        if output.exists():
            self.show(output, region, layer, scene)

    def pass_on(self, run, told):
        """Warnings and errors of the program that do not end it."""
        for severity, text in run.problems[told:]:
            if severity != "fatal":
                self.report({"WARNING"}, text)
        return len(run.problems)

    def tell(self, progress):
        if not progress:
            return
        phase, done, total = progress["phase"], progress["done"], progress["total"]
        words = "zephlore: %s %d of %d" % (phase, done, total)
        if phase == "passes":
            self.update_progress(min(1.0, (done + progress["begun"]) / max(total, 1)))
            words += ", %.1f M rays/s" % ((progress["rays_per_second"] or 0) / 1e6)
            if progress["remaining_s"] is not None:
                words += ", %s left" % time.strftime("%H:%M:%S", time.gmtime(progress["remaining_s"]))
        self.update_stats("", words)
        self.update_memory_stats(memory_used=(progress["memory_bytes"] or 0) / 2**20, memory_peak=0)

    def show(self, output, region, layer, scene):
        """The file's layers as passes of the render result."""
        channels, _ = exr.read(output)
        width, height = region[2] - region[0], region[3] - region[1]
        result = self.begin_result(0, 0, width, height, layer=layer.name)
        passes = result.layers[0].passes
        one = np.ones((height, width), np.float32)
        alpha = channels["A"] if scene.render.film_transparent else one
        pictures = {"Combined": [channels["R"], channels["G"], channels["B"], alpha]}
        for _, _, name, _, _, _, names in passes_of(layer):
            pictures[name] = [channels.get(n, 0 * one) if n else 0 * one for n in names]
        if "UV" in pictures:
            pictures["UV"][2] = np.minimum(channels["A"], 1)
        if "Depth" in pictures:
            pictures["Depth"][0] = np.minimum(pictures["Depth"][0], 1e10)  # where others put what is nowhere
        # All passes at once: an array of one alone would have to be a list of lists.
        planes = [pictures.get(p.name, [0 * one] * p.channels) for p in passes]
        passes.foreach_set("rect", np.concatenate([np.stack(each, axis=-1)[::-1].ravel() for each in planes]))
        self.end_result(result)


def command(found, scene, layer, folder, output):
    """The words of the call."""
    told = scene.zephlore
    words = [found, "render", str(folder), "--output", str(output), "--progress=json", "--quiet", "--seed",
             str(told.seed + (scene.frame_current if told.seed_of_frame else 0)), "--save-every",
             "%gs" % told.refresh if told.refresh > 0 else "0"]
    if scene.render.threads_mode == "FIXED":
        words += ["--threads", str(scene.render.threads)]
    aovs = list(dict.fromkeys(row[1] for row in passes_of(layer)))
    if aovs:
        words += ["--aov", ",".join(aovs)]
    if scene.render.film_transparent:
        words.append("--transparent-sky")
    if told.denoise:
        words.append("--denoise")
    if told.noise > 0:
        words += ["--noise", "%g" % told.noise]
    if told.time > 0:
        words += ["--time", "%gs" % told.time]
    return words + ["--float"]
