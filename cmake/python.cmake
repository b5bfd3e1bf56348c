# The module `zp` for Python.
