"""Blender's scenes rendered by zephlore: `docs/blender.md` tells what becomes of what."""

bl_info = {
    "name": "zephlore",
    "description": "Renders with zephlore",
    "author": "zephlore",
    "version": (1, 0, 0),
    "blender": (3, 4, 0),
    "location": "Render properties > Render Engine",
    "category": "Render",
}

import bpy

from . import engine, pictures, ui


def register():
    ui.register()
    bpy.utils.register_class(engine.ZephloreEngine)


def unregister():
    bpy.utils.unregister_class(engine.ZephloreEngine)
    ui.unregister()
    pictures.cache.drop()
