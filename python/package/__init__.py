"""The renderer zephlore.

zp.Scene describes a scene by objects and NumPy arrays, and renders it to a zp.Picture. Below it lie the functions of
the library in snake_case, one to one. There an add function returns the index of what it made, and setters take that
index. Colours are linear RGB, lengths scene units, angles degrees. help(zp.Scene), help(zp.add_positions) and their
like tell the rest.
"""

from ._zp import *
from ._zp import __version__ as __version__
from .picture import Picture as Picture
from .scene import Camera as Camera
from .scene import Instance as Instance
from .scene import Object as Object
from .scene import ParallelLight as ParallelLight
from .scene import PointLight as PointLight
from .scene import Scene as Scene
from .scene import SceneError as SceneError
from .scene import SceneWarning as SceneWarning
from .scene import Sky as Sky
from .shaders import NormalMap as NormalMap
from .shaders import Shader as Shader
from .shaders import Texture as Texture
