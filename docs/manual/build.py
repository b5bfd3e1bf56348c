"""Builds the manual: the pages of docs/, a page for each scene of the gallery, and a search, as HTML without a network.

    build.py OUTPUT VERSION

Pages are written for any viewer of a repository. Here they are put into a folder of their own first, where links that
leave docs/ lead to copies. A link that leads nowhere ends it with an error.
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import zipfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
DOCS = ROOT / "docs"
LINK = re.compile(r"(\]\()(\.\./[^)#\s]+)(#[^)\s]*)?(\))")
SHOWN = (".zp", ".py", ".fur")  # of a scene's folder, as text


def place_link(stage: Path, page: Path, match: re.Match) -> str:
    """A link of a page to what lies outside of docs/."""
    target = (DOCS / page.parent / match[2]).resolve()
    up = "../" * len(page.parent.parts)
    if target.is_relative_to(DOCS):
        return match[0]
    inside = target.relative_to(ROOT)
    if not target.exists():
        sys.exit(f"docs/{page}: there is no '{inside}'")
    if inside.parts[0] == "scenes" and target.is_dir():
        return f"{match[1]}{up}scenes/{'-'.join(inside.parts[1:])}.md{match[4]}"
    if inside == Path("examples/README.md"):
        return f"{match[1]}{up}examples.md{match[3] or ''}{match[4]}"
    if target.is_dir():
        sys.exit(f"docs/{page}: the manual has no folder '{inside}'")
    copy = stage / "files" / inside
    copy.parent.mkdir(parents=True, exist_ok=True)
    shutil.copy(target, copy)
    return f"{match[1]}{up}files/{inside}{match[4]}"


def write_scene(stage: Path, scene: Path) -> None:
    """A page with the text of a scene's files, and the whole as an archive."""
    name = "-".join(scene.relative_to(ROOT / "scenes").parts)
    archive = stage / "scenes" / f"{name}.zip"
    archive.parent.mkdir(exist_ok=True)
    page = [f"# {name}", "", f"[The whole scene]({name}.zip). `zephlore render {name}` renders its folder.", ""]
    with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED) as whole:
        for file in sorted(path for path in scene.rglob("*") if path.is_file() and "__pycache__" not in path.parts):
            whole.write(file, Path(name) / file.relative_to(scene))
            if file.suffix in SHOWN:
                kind = {".py": "python"}.get(file.suffix, "zp")
                page += [f"## {file.relative_to(scene)}", "", f"````{kind}", file.read_text().rstrip(), "````", ""]
    (stage / "scenes" / f"{name}.md").write_text("\n".join(["---", "orphan: true", "nosearch: true", "---", *page]))


def stage_pages(stage: Path) -> None:
    pages = {path.relative_to(DOCS): path for path in [*DOCS.glob("*.md"), *(DOCS / "tutorials").glob("*.md")]}
    pages[Path("index.md")] = DOCS / "manual/index.md"
    pages[Path("examples.md")] = ROOT / "examples/README.md"
    index = pages[Path("index.md")].read_text()
    listed = set(re.findall(r"^(?:[^\n<]*<)?([\w/-]+)>?$", index, re.MULTILINE))
    for name, path in pages.items():
        text = path.read_text()
        if name == Path("examples.md"):
            text = text.replace("](../docs/", "](").replace("](first_picture", "](../examples/first_picture")
        if name == Path("index.md"):
            more = sorted(
                str(page.with_suffix("")) for page in pages if str(page.with_suffix("")) not in listed | {"index"}
            )
            text = re.sub(
                r"^blender\n", "" if Path("blender.md") not in pages else "blender\n", text, flags=re.MULTILINE
            )
            text = text.replace("\narchitecture\n", "\n" + "\n".join(["architecture", *more]) + "\n")
        text = LINK.sub(lambda match, name=name: place_link(stage, name, match), text)
        (stage / name).parent.mkdir(parents=True, exist_ok=True)
        (stage / name).write_text(text)
    for picture in [*DOCS.glob("*.png"), *DOCS.glob("*.svg"), *DOCS.glob("tutorials/*.png")]:
        shutil.copy(picture, stage / picture.relative_to(DOCS))
    shutil.copytree(DOCS / "manual", stage / "manual")


def build(output: Path, version: str) -> int:
    with tempfile.TemporaryDirectory(prefix="zephlore-manual-") as folder:
        stage = Path(folder)
        stage_pages(stage)
        for render in sorted((ROOT / "scenes").rglob("camera")):
            write_scene(stage, render.parent)
        (stage / "interface.md").write_text(
            '# The functions\n\nThe functions of `libzp.so`, <a href="interface/modules.html">as `zp.h` explains them</a>. '
            "The [host guide](host-guide.md) tells how a program is made of them.\n"
        )
        shutil.copy(DOCS / "manual/conf.py", stage)
        shutil.rmtree(output, ignore_errors=True)
        return subprocess.run(
            [
                sys.executable,
                "-m",
                "sphinx",
                "-W",
                "--keep-going",
                "-q",
                "-b",
                "html",
                "-d",
                str(stage / ".doctrees"),
                str(stage),
                str(output),
            ],
            env={**os.environ, "ZP_VERSION": version},
            check=False,
        ).returncode


if __name__ == "__main__":
    sys.exit(build(Path(sys.argv[1]).resolve(), sys.argv[2]))
