"""Does what the tutorials tell, in their order and in one folder: writes their files, runs their commands.

    run.py PROGRAM            small, as a test; PYTHONPATH names the folder of the module zp
    run.py PROGRAM FOLDER     in full, into that folder, which then has the pictures of the pages

A file is a fenced block below a line that begins with its name in backquotes; commands are blocks of the kind "sh",
each line of which has to end with status 0. Below "`name`:" of the kind "text" nothing is run.
"""

import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

ORDER = ("first-picture", "materials", "light", "hair", "compositing", "farm")
BLOCK = re.compile(r"(?:^`([^`\n]+)`[^\n]*(?:\n[^\n]+)*\n\n)?^```(\w+)\n(.*?)^```$", re.MULTILINE | re.DOTALL)

# The program, with its renders and parts made small.
SMALL = """#!/bin/sh
verb=$1; shift
case "$verb $*" in
  render*--resume*) exec {program} "$verb" "$@" ;;
  farm*) exec {program} "$verb" "$@" --resolution 32x18 ;;
  render*--sample*) exec {program} "$verb" "$@" --resolution 32x18 --quiet ;;
  render*) exec {program} "$verb" "$@" --resolution 32x18 --quiet --sample 4 ;;
esac
exec {program} "$verb" "$@"
"""
# Slurm's, for a farm that is this process.
SBATCH = """#!/bin/sh
for word; do case $word in --chdir=*) folder=${word#--chdir=};; esac; done
cd "$folder" || exit 1
case $word in
  */part.sh) echo 12; for i in 0 1 2 3; do SLURM_ARRAY_TASK_ID=$i sh "$word" > part-$i.log 2>&1; done; true ;;
  *) echo 13; sh "$word" > merge.log 2>&1 ;;
esac
"""


def write_tool(folder: Path, name: str, text: str) -> None:
    folder.mkdir(exist_ok=True)
    (folder / name).write_text(text)
    (folder / name).chmod(0o755)


def follow(page: Path, folder: Path, path: str) -> int:
    """The number of commands; raises SystemExit with the one that fails."""
    count = 0
    for name, kind, text in BLOCK.findall(page.read_text()):
        if kind == "sh":
            for command in text.splitlines():
                count += 1
                done = subprocess.run(
                    ["sh", "-c", command],
                    cwd=folder,
                    env={**os.environ, "PATH": path},
                    text=True,
                    stdout=subprocess.PIPE,
                    stderr=subprocess.STDOUT,
                    check=False,
                )
                if done.returncode != 0 or "Traceback" in done.stdout:
                    sys.exit(f"{page.name}: '{command}' ends with {done.returncode}:\n{done.stdout}")
        elif name:
            (folder / name).parent.mkdir(parents=True, exist_ok=True)
            (folder / name).write_text(text)
    return count


def main() -> None:
    program = Path(sys.argv[1]).resolve()
    with tempfile.TemporaryDirectory(prefix="zephlore-tutorials-") as scratch:
        tools, work = Path(scratch) / "tools", Path(scratch) / "work"
        is_small = len(sys.argv) < 3
        if not is_small:
            work = Path(sys.argv[2]).resolve()
        work.mkdir(exist_ok=True)
        write_tool(
            tools, "zephlore", SMALL.format(program=program) if is_small else f'#!/bin/sh\nexec {program} "$@"\n'
        )
        write_tool(tools, "python3", f'#!/bin/sh\nexec {sys.executable} "$@"\n')
        write_tool(tools, "sbatch", SBATCH)
        write_tool(tools, "squeue", "#!/bin/sh\n")
        for name in ORDER:
            count = follow(Path(__file__).with_name(f"{name}.md"), work, f"{tools}:{os.environ['PATH']}")
            print(f"{name}: {count} commands")


if __name__ == "__main__":
    main()
