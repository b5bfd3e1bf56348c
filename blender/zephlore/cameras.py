"""Cameras: frame, lens shift, depth of field and motion."""

import math

import mathutils

from . import losses

FAR = 200  # how many widths away a camera without perspective stands


class Frame:
    """What a camera sees, in its own space and in pixels.

    A lens shift is a region of a larger picture, whose middle is on the axis.
    """

    def __init__(self, camera, scene):
        scale = scene.render.resolution_percentage / 100
        self.width = max(1, int(scene.render.resolution_x * scale))
        self.height = max(1, int(scene.render.resolution_y * scale))
        self.flat = camera.type == "ORTHO"
        self.full = self.width, self.height
        self.left = self.top = 0
        self.spherical = camera.type == "PANO"
        if self.spherical:
            return
        corners = camera.view_frame(scene=scene)
        depth = 1.0 if self.flat else -corners[0].z
        xs, ys = [c.x / depth for c in corners], [c.y / depth for c in corners]
        pixel = (max(xs) - min(xs)) / self.width
        tall = (max(ys) - min(ys)) / self.height
        if abs(tall / pixel - 1) > 0.01:
            losses.note("%s: pixels are square" % camera.name)
        widest = max(abs(max(xs)), abs(min(xs)))
        highest = max(abs(max(ys)), abs(min(ys)))
        self.full = (max(self.width, round(2 * widest / pixel)), max(self.height, round(2 * highest / tall)))
        self.left = min(max(round(self.full[0] / 2 + min(xs) / pixel), 0), self.full[0] - self.width)
        self.top = min(max(round(self.full[1] / 2 - max(ys) / tall), 0), self.full[1] - self.height)
        self.half = self.full[0] * pixel / 2  # of the width: tangent of the angle, or units

    def region(self, scene):
        """Left, top, right, bottom in the full picture, by the border of the render as well."""
        left, top, right, bottom = 0, 0, self.width, self.height
        if scene.render.use_border:
            left, right = (int(b * self.width + 0.5) for b in (scene.render.border_min_x, scene.render.border_max_x))
            top, bottom = (int((1 - b) * self.height + 0.5)
                           for b in (scene.render.border_max_y, scene.render.border_min_y))
        right, bottom = max(right, left + 1), max(bottom, top + 1)
        return left + self.left, top + self.top, right + self.left, bottom + self.top


def pose(obj, frame):
    """Keywords of a pose: an evaluated object as it stands."""
    camera, matrix = obj.data, obj.matrix_world
    forward, up = -matrix.col[2].xyz.normalized(), matrix.col[1].xyz.normalized()
    position = matrix.translation.copy()
    focus, lens = focus_of(camera, position, forward)
    told = {}
    if frame.flat:
        focus = 2 * frame.half * FAR
        position -= forward * focus
        told["field_of_view"] = math.degrees(2 * math.atan(frame.half / focus))
    elif not frame.spherical:
        told["field_of_view"] = math.degrees(2 * math.atan(frame.half))
        if lens > 0:
            told["bokeh"] = math.degrees(math.atan(lens / focus))
    return dict(told, position=position, target=position + forward * focus, up_vector=up)


def focus_of(camera, position, forward):
    """Distance of what is sharp, and radius of the lens."""
    if not camera.dof.use_dof or camera.type != "PERSP":
        return 1.0, 0.0
    distance = camera.dof.focus_distance
    if camera.dof.focus_object is not None:
        place = camera.dof.focus_object.matrix_world.translation
        distance = abs((mathutils.Vector(place) - position).dot(forward))
    if camera.dof.aperture_blades > 2 or abs(camera.dof.aperture_ratio - 1) > 1e-3:
        losses.note("%s: the aperture is round" % camera.name)
    return max(distance, 1e-4), camera.lens * 1e-3 / (2 * max(camera.dof.aperture_fstop, 1e-6))


def note_losses(camera, frame):
    if frame.flat:
        losses.note("%s: without perspective is drawn from %d widths away" % (camera.name, FAR))
    if frame.spherical:
        old = getattr(getattr(camera, "cycles", None), "panorama_type", "EQUIRECTANGULAR")
        if getattr(camera, "panorama_type", old) != "EQUIRECTANGULAR":
            losses.note("%s: the panorama is equirectangular" % camera.name)


def write(text, poses, frame, region, sample):
    """The camera section, of one pose, or two as the shutter opens and closes."""
    with text.block("camera"):
        text.say("resolution", *frame.full)
        text.say("sample", sample)
        if frame.spherical:
            text.say("projection", '"spherical"')
        if region != (0, 0, *frame.full):
            text.say("region", *region)
        for told in poses:
            with text.block("pose"):
                for keyword, value in told.items():
                    if isinstance(value, float):
                        text.say(keyword, value)
                    else:
                        text.triple(keyword, value)
