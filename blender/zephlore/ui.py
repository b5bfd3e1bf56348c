"""Settings, preferences and panels."""

from pathlib import Path

import bpy
from bpy.props import (BoolProperty, FloatProperty, IntProperty, PointerProperty, StringProperty)
from bpy_extras.io_utils import ExportHelper

from . import losses
from .export import Exporter

ENGINE = "ZEPHLORE"


class ZephlorePreferences(bpy.types.AddonPreferences):
    bl_idname = __package__

    program: StringProperty(name="Program", subtype="FILE_PATH", default="zephlore",
                            description="Path of zephlore, or its name where the shell finds it")

    def draw(self, context):
        self.layout.prop(self, "program")


class ZephloreSettings(bpy.types.PropertyGroup):
    samples: IntProperty(name="Samples", default=128, min=1, max=65535, description="Passes: samples of each pixel")
    bounces: IntProperty(name="Bounces", default=4, min=1, max=255, description="Diffuse and glossy bounces of a path")
    ray_depth: IntProperty(name="Ray Depth", default=16, min=1, max=255,
                           description="Rays of a path, mirrors and glass included")
    hair_bounces: IntProperty(name="Hair Bounces", default=12, min=1, max=255,
                              description="Bounces where there are fibres, through which light goes on and on")
    clamp: FloatProperty(name="Clamp", default=0, min=0, description="Upper limit of one sample; 0 is none")
    clamp_indirect: FloatProperty(name="Clamp Indirect", default=0, min=0,
                                  description="Upper limit of light behind the first diffuse bounce; 0 is none")
    noise: FloatProperty(name="Noise Limit", default=0, min=0, max=1, precision=3,
                         description="Relative error at which the frame ends; 0 takes all samples")
    time: FloatProperty(name="Time Limit", default=0, min=0, unit="TIME_ABSOLUTE",
                        description="Seconds after which the frame ends; 0 takes all samples")
    seed: IntProperty(name="Seed", default=0, min=0, description="The same seed gives the same picture")
    seed_of_frame: BoolProperty(name="Seed of Frame", default=True, description="Other noise in each frame")
    denoise: BoolProperty(name="Denoise", default=False, description="Take the noise out of the finished picture")
    refresh: FloatProperty(name="Refresh", default=5, min=0, unit="TIME_ABSOLUTE",
                           description="Seconds between pictures that are shown on the way; 0 shows the last alone")
    bake_size: IntProperty(name="Largest Texture", default=2048, min=64, max=8192,
                           description="Pixels across of textures that are baked of nodes")
    keep_folder: StringProperty(name="Keep Scene In", subtype="DIR_PATH",
                                description="A folder to leave the scene in; empty for a temporary one")


class ZephloreLayer(bpy.types.PropertyGroup):
    motion: BoolProperty(name="Motion", description="Pixels that each place goes while the shutter is open")
    samples: BoolProperty(name="Samples", description="How many samples each pixel has")
    albedo: BoolProperty(name="Albedo", description="Colours for denoisers")
    lambertian: BoolProperty(name="Lambertian", description="Light by diffuse reflection")
    transmissive: BoolProperty(name="Transmissive", description="Light by diffuse transmission")
    glossy: BoolProperty(name="Glossy", description="Light by blurred mirrors and glass")
    specular: BoolProperty(name="Specular", description="Light by sharp mirrors and glass")
    emissive: BoolProperty(name="Emissive", description="Light that surfaces send by themselves")
    lambertian_color: BoolProperty(name="Lambertian Color")
    glossy_color: BoolProperty(name="Glossy Color")
    specular_color: BoolProperty(name="Specular Color")


class Section:
    """What our panels share."""
    bl_space_type = "PROPERTIES"
    bl_region_type = "WINDOW"
    COMPAT_ENGINES = {ENGINE}

    @classmethod
    def poll(cls, context):
        return context.engine == ENGINE

    def column(self):
        self.layout.use_property_split = True
        self.layout.use_property_decorate = False
        return self.layout.column()


class ZEPHLORE_PT_sampling(Section, bpy.types.Panel):
    bl_label = "Sampling"
    bl_context = "render"

    def draw(self, context):
        column, told = self.column(), context.scene.zephlore
        for name in ("samples", "noise", "time", "denoise", "seed", "seed_of_frame"):
            column.prop(told, name)


class ZEPHLORE_PT_paths(Section, bpy.types.Panel):
    bl_label = "Light Paths"
    bl_context = "render"

    def draw(self, context):
        column, told = self.column(), context.scene.zephlore
        for name in ("bounces", "ray_depth", "hair_bounces", "clamp", "clamp_indirect"):
            column.prop(told, name)


class ZEPHLORE_PT_film(Section, bpy.types.Panel):
    bl_label = "Film and Motion"
    bl_context = "render"

    def draw(self, context):
        column, render = self.column(), context.scene.render
        column.prop(render, "film_transparent", text="Transparent")
        column.prop(render, "use_motion_blur")
        column.prop(render, "motion_blur_shutter", text="Shutter")
        if hasattr(render, "motion_blur_position"):
            column.prop(render, "motion_blur_position")
        elif hasattr(context.scene, "cycles"):
            column.prop(context.scene.cycles, "motion_blur_position")


class ZEPHLORE_PT_program(Section, bpy.types.Panel):
    bl_label = "Program"
    bl_context = "render"

    def draw(self, context):
        column, told = self.column(), context.scene.zephlore
        column.prop(context.scene.render, "threads_mode")
        if context.scene.render.threads_mode == "FIXED":
            column.prop(context.scene.render, "threads")
        for name in ("refresh", "bake_size", "keep_folder"):
            column.prop(told, name)


class ZEPHLORE_PT_losses(Section, bpy.types.Panel):
    bl_label = "What Is Lost"
    bl_context = "render"

    def draw(self, context):
        column = self.layout.column(align=True)
        for text in losses.told() or ["Nothing, in the last render."]:
            column.label(text=text)


class ZEPHLORE_PT_passes(Section, bpy.types.Panel):
    bl_label = "Passes"
    bl_context = "view_layer"

    def draw(self, context):
        column, layer = self.column(), context.view_layer
        for name in ("use_pass_z", "use_pass_normal", "use_pass_position", "use_pass_uv"):
            column.prop(layer, name)
        for name in ZephloreLayer.__annotations__:
            column.prop(layer.zephlore, name)


class ZEPHLORE_PT_light_groups(Section, bpy.types.Panel):
    bl_label = "Light Groups"
    bl_context = "view_layer"

    def draw(self, context):
        layer, row = context.view_layer, self.layout.row()
        row.template_list("UI_UL_list", "zephlore_groups", layer, "lightgroups", layer, "active_lightgroup_index",
                          rows=2)
        buttons = row.column(align=True)
        buttons.operator("scene.view_layer_add_lightgroup", icon="ADD", text="")
        buttons.operator("scene.view_layer_remove_lightgroup", icon="REMOVE", text="")


class ZEPHLORE_PT_object(Section, bpy.types.Panel):
    bl_label = "Rendering"
    bl_context = "object"

    def draw(self, context):
        column, obj = self.column(), context.object
        column.prop(obj, "visible_camera", text="Seen by Cameras")
        if obj.type not in {"LIGHT", "CAMERA", "EMPTY"}:
            column.prop(obj, "is_shadow_catcher")
        if hasattr(obj, "lightgroup"):
            column.prop_search(obj, "lightgroup", context.view_layer, "lightgroups", text="Light Group")


class ZEPHLORE_PT_world(Section, bpy.types.Panel):
    bl_label = "Rendering"
    bl_context = "world"

    @classmethod
    def poll(cls, context):
        return context.engine == ENGINE and hasattr(context.world, "lightgroup")

    def draw(self, context):
        self.column().prop_search(context.world, "lightgroup", context.view_layer, "lightgroups", text="Light Group")


class ZEPHLORE_OT_export(bpy.types.Operator, ExportHelper):
    """Writes the scene as a folder of text, models and pictures that zephlore renders"""
    bl_idname = "zephlore.export"
    bl_label = "Export zephlore Scene"
    filename_ext = ""

    def execute(self, context):
        folder, frame = Path(self.filepath), context.scene.frame_current
        set_frame = lambda f, part: context.scene.frame_set(f, subframe=part)
        try:
            Exporter(context.evaluated_depsgraph_get(), folder, context.scene.zephlore, set_frame).run()
        except (ValueError, OSError) as reason:
            self.report({"ERROR"}, str(reason))
            return {"CANCELLED"}
        finally:
            if context.scene.frame_current != frame:
                context.scene.frame_set(frame)
        for text in losses.told():
            self.report({"WARNING"}, text)
        return {"FINISHED"}


def export_menu(self, context):
    self.layout.operator(ZEPHLORE_OT_export.bl_idname, text="zephlore Scene (folder)")


CLASSES = (ZephlorePreferences, ZephloreSettings, ZephloreLayer, ZEPHLORE_PT_sampling, ZEPHLORE_PT_paths,
           ZEPHLORE_PT_film, ZEPHLORE_PT_program, ZEPHLORE_PT_losses, ZEPHLORE_PT_passes,
           ZEPHLORE_PT_light_groups, ZEPHLORE_PT_object, ZEPHLORE_PT_world, ZEPHLORE_OT_export)

# Blender's own panels for what we take from its data.
NODE_PANELS = ("EEVEE_MATERIAL_PT_context_material", "EEVEE_MATERIAL_PT_surface", "EEVEE_MATERIAL_PT_volume",
               "EEVEE_WORLD_PT_surface", "EEVEE_WORLD_PT_volume", "DATA_PT_EEVEE_light")
NOT_OURS = {"RENDER_PT_freestyle", "VIEWLAYER_PT_freestyle", "RENDER_PT_gpencil", "RENDER_PT_simplify"}


def borrowed():
    for panel in bpy.types.Panel.__subclasses__():
        engines = getattr(panel, "COMPAT_ENGINES", None)
        if engines is not None and panel.__name__ not in NOT_OURS and (
                "BLENDER_RENDER" in engines or panel.__name__ in NODE_PANELS):
            yield engines


def register():
    for each in CLASSES:
        bpy.utils.register_class(each)
    bpy.types.Scene.zephlore = PointerProperty(type=ZephloreSettings)
    bpy.types.ViewLayer.zephlore = PointerProperty(type=ZephloreLayer)
    bpy.types.TOPBAR_MT_file_export.append(export_menu)
    for engines in borrowed():
        engines.add(ENGINE)


def unregister():
    for engines in borrowed():
        engines.discard(ENGINE)
    bpy.types.TOPBAR_MT_file_export.remove(export_menu)
    del bpy.types.ViewLayer.zephlore
    del bpy.types.Scene.zephlore
    for each in reversed(CLASSES):
        bpy.utils.unregister_class(each)
