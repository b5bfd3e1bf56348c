"""The renderer zephlore: the functions of its library in snake_case, with NumPy arrays.

There is one scene. An add function returns the index of what it made, and setters take that index; one that
names nothing changes nothing. Colours are linear RGB, lengths scene units, angles degrees. What is wrong with
a scene is printed on standard output. help(zp.add_positions) and its like tell the rest.
"""

from ._zp import *
from ._zp import __version__ as __version__
