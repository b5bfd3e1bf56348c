"""A scene of Blender as a scene folder: text, models, strands and pictures."""

import numpy as np

from . import cameras, lights, losses, shaders, shapes
from .text import SceneText, quoted, word
from .values import Baker

MESHES = {"MESH", "CURVE", "SURFACE", "FONT", "META"}
LEFT_OUT = {"VOLUME": "a volume", "GPENCIL": "grease pencil", "GREASEPENCIL": "grease pencil"}


class Shape:
    """A model in a file, and what the object section says of it."""

    def __init__(self, name, keyword, file, shader=None):
        self.name = name
        self.keyword = keyword
        self.file = file
        self.shader = shader
        self.end = None  # the file of the shutter's end
        self.kept = None  # what its end is compared with


class Place:
    """A shape in the scene, where it is as the shutter opens and closes."""

    def __init__(self, shape, matrix):
        self.shape = shape
        self.matrix = matrix
        self.end = None


class Exporter:
    """Writes the folder of a scene. `depsgraph` is evaluated for rendering; `set_frame(frame, part)` moves it."""

    def __init__(self, depsgraph, folder, settings, set_frame=None, camera=None):
        self.depsgraph = depsgraph
        self.scene = depsgraph.scene
        self.folder = folder
        self.settings = settings
        self.set_frame = set_frame
        self.camera = camera or self.scene.camera
        self.shader_text = SceneText()
        self.light_text = SceneText()
        self.geometry_text = SceneText()
        for name in ("model", "image"):
            (folder / name).mkdir(parents=True, exist_ok=True)
        self.baker = Baker(folder / "image", settings.bake_size)
        self.shaders = shaders.Shaders(self.shader_text, self.baker)
        self.shapes = {}
        self.places = {}  # by what tells an instance at another time
        self.names = set()
        self.closing = False

    def run(self):
        """Writes everything, and tells the frame of the camera. ValueError with a reason if there is no camera."""
        losses.begin()
        if self.camera is None:
            raise ValueError("the scene has no camera")
        shutter = self.shutter()
        self.moves = shutter is not None
        if shutter:
            self.set_frame(*shutter[0])
        eye = self.camera.evaluated_get(self.depsgraph)
        frame = cameras.Frame(eye.data, self.scene)
        cameras.note_losses(eye.data, frame)
        region = frame.region(self.scene)
        poses = [cameras.pose(eye, frame)]
        lights.write_lamps(self.folder / "model")
        self.visit()
        lights.world(self.light_text, self.scene, self.folder / "image", self.baker, self.group(self.scene.world))
        if shutter:
            self.set_frame(*shutter[1])
            self.closing = True
            self.visit()
            for shape in self.shapes.values():  # what is no longer there
                if shape is not None and shape.keyword == "mesh" and shape.kept is not None:
                    shape.kept.write_mesh(self.folder / shape.file)
            eye = self.camera.evaluated_get(self.depsgraph)
            poses.append(cameras.pose(eye, cameras.Frame(eye.data, self.scene)))
            self.set_frame(*shutter[2])
        camera_text = SceneText()
        cameras.write(camera_text, poses, frame, region, self.settings.samples)
        self.write_geometry()
        self.write_render()
        camera_text.save(self.folder / "camera" / "camera.zp")
        self.shader_text.save(self.folder / "shader" / "materials.zp")
        self.light_text.save(self.folder / "light" / "lights.zp")
        self.geometry_text.save(self.folder / "geometry" / "scene.zp")
        (self.folder / "losses.txt").write_text("".join(t + "\n" for t in losses.told() or ["nothing was lost"]),
                                                encoding="utf-8")
        return frame, region

    def shutter(self):
        """Frames, with parts, at which the shutter opens and closes, and that of the scene; None without blur."""
        render = self.scene.render
        if not render.use_motion_blur or self.set_frame is None:
            return None
        position = getattr(render, "motion_blur_position", None) or \
            getattr(getattr(self.scene, "cycles", None), "motion_blur_position", "CENTER")
        now = self.scene.frame_current + self.scene.frame_subframe
        before = {"START": 0, "CENTER": 0.5, "END": 1}[position] * render.motion_blur_shutter
        times = (now - before, now - before + render.motion_blur_shutter, now)
        return [(int(t // 1), t % 1) for t in times]

    # Objects

    def visit(self):
        """All that there is at the depsgraph's instant."""
        for instance in self.depsgraph.object_instances:
            obj = instance.object
            told = (obj.name_full, instance.parent.name_full if instance.is_instance and instance.parent else "",
                    tuple(instance.persistent_id) if instance.is_instance else (), getattr(obj.data, "name", ""))
            matrix = instance.matrix_world.copy()
            if instance.show_particles and obj.type == "MESH":
                self.visit_strands(obj, matrix, told)
            if not instance.show_self:
                continue
            if obj.type in MESHES:
                self.visit_mesh(obj, matrix, told)
            elif obj.type == "CURVES":
                self.visit_curves(obj, matrix, told)
            elif obj.type == "POINTCLOUD":
                self.visit_points(obj, matrix, told)
            elif obj.type == "LIGHT":
                self.visit_light(obj, matrix, told)
            elif obj.type in LEFT_OUT and not self.closing:
                losses.note("%s: %s is left out" % (obj.name, LEFT_OUT[obj.type]))

    def place(self, told, shape, matrix):
        if not self.closing:
            self.places[told] = Place(shape, matrix)
        elif told in self.places:
            self.places[told].end = matrix

    def flags(self, obj):
        """What a shader says of the visibility of an object."""
        ways = ("camera", "diffuse", "glossy", "transmission", "shadow")
        seen = [getattr(obj, "visible_" + way, True) for way in ways]
        told = ["group-" + self.group(obj)] if self.group(obj) else []
        if getattr(obj, "is_shadow_catcher", False):
            told.append("catcher")
        if getattr(obj, "is_holdout", False):
            losses.note("%s: shows, although it is held out" % obj.name)
        if not any(seen):
            told.append("invisible")
        elif not seen[0]:
            told.append("unseen")
        if any(seen) and not all(seen[1:]):
            losses.note("%s: rays other than the camera's see all of it" % obj.name)
        return tuple(told)

    def group(self, owner):
        """The light group of an object or a world, where the view layer has it."""
        name = getattr(owner, "lightgroup", "")
        return word(name) if name in getattr(self.depsgraph.view_layer, "lightgroups", ()) else ""

    def free_name(self, name):
        """A word that no other object of the scene has."""
        told, number = word(name), 1
        while told in self.names:
            number += 1
            told = "%s_%d" % (word(name), number)
        self.names.add(told)
        return told

    def key(self, obj, *more):
        slots = tuple(s.material.name_full if s.material else "" for s in obj.material_slots)
        data = obj.data.as_pointer() if obj.type == "MESH" and obj.data else obj.original.as_pointer()
        return (obj.type, data, slots, self.flags(obj), *more)

    def visit_mesh(self, obj, matrix, told):
        if self.closing:
            shape = self.places[told].shape if told in self.places else None
            if shape is not None and shape.kept is not None:
                self.close_mesh(shape, obj)
            self.place(told, shape, matrix)
            return
        key = self.key(obj)
        if key not in self.shapes:
            self.shapes[key] = self.write_mesh(obj)
        if self.shapes[key] is not None:
            self.place(told, self.shapes[key], matrix)

    def write_mesh(self, obj):
        mesh = obj.to_mesh()
        if mesh is None or not len(mesh.polygons):
            obj.to_mesh_clear()
            return None
        materials = [slot.material for slot in obj.material_slots] or list(mesh.materials) or [None]
        flags = self.flags(obj)
        length = shapes.Mesh(mesh, [""], [""]).texture_length() if any(map(has_bump, materials)) else 1.0
        length *= max(sum(obj.matrix_world.to_scale()) / 3, 1e-9)
        names = [self.shaders.name_of(m, flags, uv_length=length) for m in materials]
        model = shapes.Mesh(mesh, names, [self.shaders.uv_name(m) for m in materials])
        obj.to_mesh_clear()
        shape = Shape(self.free_name(obj.name), "mesh", "model/%d.mesh" % len(self.shapes))
        if self.moves:
            shape.kept = model
        else:
            model.write_mesh(self.folder / shape.file)
        return shape

    def close_mesh(self, shape, obj):
        mesh = obj.to_mesh()
        moved = shape.kept.moved(mesh) if mesh is not None else None
        if mesh is not None and len(mesh.vertices) != len(shape.kept.positions):
            losses.note("%s: its vertices change while the shutter is open, it stands still" % obj.name)
        obj.to_mesh_clear()
        if moved is None:
            shape.kept.write_mesh(self.folder / shape.file)
        else:  # only OBJ files have ends
            shape.keyword, start = "obj", shape.file.replace(".mesh", "")
            shape.file, shape.end = start + ".obj", start + "-end.obj"
            shape.kept.write_obj(self.folder / shape.file)
            moved.write_obj(self.folder / shape.end)
        shape.kept = None

    def visit_strands(self, obj, matrix, told):
        for index, system in enumerate(obj.particle_systems):
            settings = system.settings
            if settings.type != "HAIR" or settings.render_type != "PATH":
                continue
            real = obj.original.evaluated_get(self.depsgraph)
            slots = real.material_slots
            material = slots[min(settings.material, len(slots)) - 1].material if len(slots) else None
            make = lambda: shapes.particle_strands(system, real, real.matrix_world.inverted_safe())
            self.strands((*told, index), self.key(obj, index), obj, matrix, material, make)

    def visit_curves(self, obj, matrix, told):
        material = obj.material_slots[0].material if len(obj.material_slots) else None
        self.strands(told, self.key(obj), obj, matrix, material, lambda: shapes.curve_strands(obj.data))

    def visit_points(self, obj, matrix, told):
        key = self.key(obj, obj.data.as_pointer())
        if not self.closing and key not in self.shapes:
            material = obj.material_slots[0].material if len(obj.material_slots) else None
            shape = Shape(self.free_name(obj.name), "particle_texture", "image/points-%d.tif" % len(self.shapes),
                          self.shaders.name_of(material, self.flags(obj)))
            shapes.write_points(self.folder / shape.file, *shapes.points_of(obj.data))
            self.shapes[key] = shape
        self.place(told, self.shapes.get(key), matrix)

    def strands(self, told, key, obj, matrix, material, make):
        """Strands of points (strands, steps, 3) with radii for each step, or flat with counts."""
        if self.closing:
            shape = self.places[told].shape if told in self.places else None
            if shape is not None and shape.kept is not None:
                self.close_strands(shape, make, obj)
            self.place(told, shape, matrix)
            return
        if key not in self.shapes:
            points, radii, counts = flat_strands(make())
            if not len(points):
                self.shapes[key] = None
                return
            name = self.shaders.name_of(material, self.flags(obj), hair=True)
            shape = Shape(self.free_name(obj.name + "-hair"), "hair", "model/%d.hair" % len(self.shapes), name)
            shapes.write_hair(self.folder / shape.file, points, radii, counts)
            shape.kept = points if self.moves else None
            self.shapes[key] = shape
        if self.shapes[key] is not None:
            self.place(told, self.shapes[key], matrix)

    def close_strands(self, shape, make, obj):
        points, radii, counts = flat_strands(make())
        if points.shape != shape.kept.shape:
            losses.note("%s: its strands change while the shutter is open, they stand still" % obj.name)
        elif (points != shape.kept).any():
            shape.end = shape.file.replace(".hair", "-end.hair")
            shapes.write_hair(self.folder / shape.end, points, radii, counts)
        shape.kept = None

    # Lamps

    def visit_light(self, obj, matrix, told):
        light = obj.data
        if light.type == "AREA":
            self.told = told
            if self.closing:
                if told in self.places:
                    size_y = light.size_y if light.shape in ("RECTANGLE", "ELLIPSE") else light.size
                    scale = type(matrix).Diagonal((light.size, size_y, 1, 1))
                    self.places[told].end = matrix @ scale
            else:
                lights.area(self, light, matrix, getattr(obj, "visible_camera", True), self.group(obj))
        elif not self.closing:
            write = {"POINT": lights.point, "SUN": lights.sun, "SPOT": lights.spot}[light.type]
            write(self.light_text, light, matrix, self.group(obj))

    def place_lamp(self, kind, matrix, light, color, visible, group):
        """A lamp of its own: an instance's shader would not hide it from the camera."""
        name = self.free_name("lamp-" + light.name)
        shaders.shader_of_light(self.shader_text, name, color, visible, group)
        shape = Shape(name, "obj", "model/lamp-%s.obj" % kind, name)
        self.shapes["lamp", name] = shape
        self.place(self.told, shape, matrix)

    # Files

    def write_geometry(self):
        text = self.geometry_text
        for shape in self.shapes.values():
            if shape is None:
                continue
            with text.block("object"):
                text.say("name", shape.name)
                if shape.shader:
                    text.say("shader", quoted(shape.shader))
                text.say(shape.keyword, quoted(shape.file))
                if shape.end:
                    text.say(shape.keyword + "_end", quoted(shape.end))
        with text.block("object"):
            text.say("name", self.free_name("scene"))
            for place in self.places.values():
                with text.block("instance"):
                    text.say("object", place.shape.name)
                    text.matrix("matrix", place.matrix)
                    if place.end is not None and place.end != place.matrix:
                        text.matrix("matrix_end", place.end)

    def write_render(self):
        text = SceneText()
        with text.block("render"):
            text.say("format", 2)
            if self.settings.clamp > 0:
                text.triple("clamp", (self.settings.clamp,) * 3)
            if self.settings.clamp_indirect > 0:
                text.triple("clamp_indirect", (self.settings.clamp_indirect,) * 3)
            with text.block("final_gather"):
                least = self.settings.hair_bounces if self.shaders.has_fibers else 1
                text.say("bounce", max(self.settings.bounces, least))
                text.say("ray_depth", max(self.settings.ray_depth, least))
        text.save(self.folder / "render" / "render.zp")


def has_bump(material):
    nodes = material.node_tree.nodes if material and material.node_tree else ()
    return any(node.type in ("BUMP", "DISPLACEMENT") for node in nodes)


def flat_strands(made):
    """Points (n, 3), radii (n,) and counts of strands, however they were made."""
    if len(made) == 3:
        return made
    points, radii = made
    strands, steps = points.shape[:2]
    return points.reshape(-1, 3), np.tile(radii, strands), np.full(strands, steps)
