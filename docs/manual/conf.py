"""How the manual looks. docs/manual/build.py runs Sphinx with it."""

import os

from pygments.lexer import RegexLexer
from pygments.token import Comment, Keyword, Name, Number, String, Text


class SceneText(RegexLexer):
    """The text of scenes: a line is a comment, or a keyword and its values."""

    name, aliases, filenames = "zp", ["zp"], ["*.zp"]
    _section = r"(shader|render|object|camera|(point|parallel|sky|geometry)_light)\b"
    tokens = {
        "root": [
            (r"#.*\n?", Comment),
            (r"[ \t]*(end|" + _section[1:-3] + r")\b", Keyword, "line"),
            (r"[ \t]*[^\s#]+", Name.Attribute, "line"),
            (r"\s+", Text),
        ],
        "line": [
            (r"\n", Text, "#pop"),
            (r'"[^"\n]*"?', String),
            (r"[-+]?\.?\d[\d.eE+-]*", Number),
            (r"[^\S\n]+|[^\s\"]+", Text),
        ],
    }


def setup(app):
    app.add_lexer("zp", SceneText)


project = "zephlore"
version = release = os.environ["ZP_VERSION"]
html_title = f"zephlore {release}"
copyright = "the zephlore developers"
html_show_copyright = False
html_show_sphinx = False
extensions = ["myst_parser"]
myst_heading_anchors = 4
myst_enable_extensions = ["colon_fence"]
html_theme = "furo"
html_static_path = ["manual"]
html_css_files = ["manual.css"]
html_copy_source = False
highlight_language = "none"
pygments_style = "friendly"
pygments_dark_style = "monokai"
exclude_patterns = ["manual"]
html_theme_options = {
    "light_css_variables": {"color-brand-primary": "#8a4b12", "color-brand-content": "#8a4b12"},
    "dark_css_variables": {"color-brand-primary": "#e0a060", "color-brand-content": "#e0a060"},
}
