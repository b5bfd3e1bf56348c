"""The renderer zephlore.

zp.Scene describes a scene by objects and NumPy arrays, and renders it to a zp.Picture. Below it lie the functions of
the library in snake_case, one to one. There an add function returns the index of what it made, and setters take that
index. Colours are linear RGB, lengths scene units, angles degrees. help(zp.Scene), help(zp.add_positions) and their
like tell the rest.
"""

from ._zp import *
from ._zp import __version__ as __version__
from .cameras import Camera as Camera
from .lights import ParallelLight as ParallelLight
from .lights import PointLight as PointLight
from .lights import Sky as Sky
from .objects import Instance as Instance
from .objects import Object as Object
from .picture import Picture as Picture
from .scene import Scene as Scene
from .scene import SceneError as SceneError
from .scene import SceneWarning as SceneWarning
from .shaders import NormalMap as NormalMap
from .shaders import Shader as Shader
from .shaders import Texture as Texture
