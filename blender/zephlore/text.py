"""Scene text: sections, blocks and lines of the scene format."""

import contextlib
import re


def word(name):
    """A name that may stand without quotes, and in an OBJ file."""
    return re.sub(r"[^\w.+-]", "_", name) or "_"


def quoted(name):
    return '"%s"' % re.sub(r'["\r\n]', "_", str(name))


class SceneText:
    """Lines of one file of a scene."""

    def __init__(self):
        self.lines = []
        self.depth = 0

    def say(self, keyword, *values):
        told = ["%.9g" % v if isinstance(v, float) else str(v) for v in values]
        self.lines.append("    " * self.depth + " ".join([keyword, *told]))

    @contextlib.contextmanager
    def block(self, keyword):
        self.say(keyword)
        self.depth += 1
        yield self
        self.depth -= 1
        self.say("end")

    def triple(self, keyword, values):
        self.say(keyword, *(float(v) for v in values))

    def matrix(self, keyword, matrix):
        self.say(keyword, *(float(v) for row in matrix for v in row))

    def save(self, path):
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("\n".join(self.lines) + "\n", encoding="utf-8")
