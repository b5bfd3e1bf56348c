#!/usr/bin/env python3
"""How time and memory grow with the scene: triangles of one OBJ file, and Instances of one small mesh.

    bench/scale.py [--program FILE] [--triangles MILLIONS...] [--instances THOUSANDS...] [--threads N]

Makes each scene in a temporary directory (TMPDIR chooses where; a million triangles take 37 MB), renders it once and
prints a Markdown table for each kind. Standard library only. The steps are told apart by the rows that the program
prints: up to the first row of a tree all is read, and vertices are merged and smoothed; up to the scene's bounds the
trees are made; the passes print rays a second. Times are processor seconds of all threads, which hardly depend on what
else the machine does; memory is the peak of the resident set, less that of the program with an empty scene. An exponent
is that of a power of the number of things: 1 is linear, and n log n is 1.05 at these sizes.
"""

import argparse
import math
import os
import pty
import re
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
TICKS = os.sysconf("SC_CLK_TCK")
BLOCKS = {
    "camera": 'camera\n  name "c"\n  resolution 320 180\n  sample 4\n  pose\n    position 1 0.9 -0.5\n'
    "    target 1 0 0.5\n    up_vector 0 1 0\n    field_of_view 60\n  end\nend\n",
    "light": "sky_light\n  color 1 1 1\nend\n",
    "render": "render\n  format 2\nend\n",
    "shader": 'shader\n  name "stone"\n  surface_shader\n    lambertian\n      color 0.6 0.6 0.5\n    end\n  end\nend\n',
}


def make_scene(folder, geometry):
    for kind, text in {**BLOCKS, "geometry": geometry}.items():
        (folder / kind).mkdir()
        (folder / kind / "a.zp").write_text(text)
    (folder / "model").mkdir()


def write_terrain(path, triangles):
    """A field of 2 by 1 units of waves and ripples, as a grid. Returns the number of triangles."""
    rows = max(int(math.sqrt(triangles / 4)), 1)
    columns = 2 * rows
    across = [0.1 * math.sin(5 * x / rows) + 0.02 * math.sin(41 * x / rows) for x in range(columns + 1)]
    ripple = [math.sin(12.9898 * x) * 43758.5453 % 1 for x in range(columns + 1)]
    with open(path, "w", encoding="ascii") as file:
        for z in range(rows + 1):
            wave = math.cos(7 * z / rows)
            shift = z * 7919 % (columns + 1)
            rough = ripple[shift:] + ripple[:shift]
            file.write("".join(f"v {x / rows:.6f} {across[x] * wave + 0.3 * rough[x] / rows:.6f} {z / rows:.6f}\n"
                               for x in range(columns + 1)))
        for z in range(rows):
            first = z * (columns + 1) + 1
            file.write("".join(f"f {a} {a + columns + 1} {a + columns + 2}\nf {a} {a + columns + 2} {a + 1}\n"
                               for a in range(first, first + columns)))
    return 2 * rows * columns


def triangles_scene(folder, count):
    make_scene(folder, 'object\n  name field\n  shader "stone"\n  obj "model/m.obj"\nend\n')
    return write_terrain(folder / "model" / "m.obj", count)


def instances_scene(folder, count):
    make_scene(folder, "")
    write_terrain(folder / "model" / "m.obj", 128)
    rows = max(int(math.sqrt(count / 2)), 1)
    with open(folder / "geometry" / "a.zp", "w", encoding="ascii") as file:
        file.write('object\n  name leaf\n  shader "stone"\n  obj "model/m.obj"\nend\nobject\n  name field\n')
        for i in range(2 * rows * rows):
            angle, size = 2.4 * i, 0.7 / rows
            c, s = size * math.cos(angle), size * math.sin(angle)
            file.write(f"  instance\n    object leaf\n    matrix {c:.6g} 0 {s:.6g} {i % (2 * rows) / rows:.6g}"
                       f" 0 {size:.6g} 0 {i * 37 % 101 / 101 / rows:.6g} {-s:.6g} 0 {c:.6g} {i // (2 * rows) / rows:.6g}"
                       " 0 0 0 1\n  end\n")
        file.write("end\n")
    return 2 * rows * rows


def processor_seconds(pid):
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def measure(program, scene, threads):
    """Seconds of reading, of building and of a million rays, and the peak memory in bytes."""
    head, tail = pty.openpty()  # a terminal's rows come one by one
    process = subprocess.Popen([program, "render", scene, "--threads", str(threads), "--seed", "1", "--output",
                                scene / "out.pfm"], stdout=tail, stderr=subprocess.STDOUT)
    os.close(tail)
    read, built, text = None, None, ""
    while True:
        try:
            piece = os.read(head, 65536)
        except OSError:  # the terminal's other end is closed
            piece = b""
        if not piece:
            break
        now = processor_seconds(process.pid)
        text += piece.decode(errors="replace")
        if read is None and "tree construction" in text:
            read = now
        if built is None and "scene center" in text:
            built = now
    os.close(head)
    _, status, usage = os.wait4(process.pid, 0)
    passes = re.findall(r"performance\s+([\d.]+) \[ M rays/second \]\s+([\d.]+)", text)
    rays = sum(float(rate) / float(frames) for rate, frames in passes if float(frames) > 0)
    if status != 0 or read is None or built is None or rays == 0:
        sys.exit(f"scale.py: {program} did not render {scene}:\n{text[-2000:]}")
    return read, built - read, (usage.ru_utime + usage.ru_stime - built) / rays, usage.ru_maxrss * 1024


def run(kind, make, sizes, arguments):
    with tempfile.TemporaryDirectory() as folder:
        instances_scene(Path(folder), 2)
        *_, base = measure(arguments.program, Path(folder), arguments.threads)
    print(f"| {kind} | reading, s | exponent | trees, s | exponent | a million rays, s | exponent | bytes each |")
    print("|---|---|---|---|---|---|---|---|", flush=True)
    last = None
    for size in sizes:
        with tempfile.TemporaryDirectory() as folder:
            count = make(Path(folder), size)
            *times, peak = measure(arguments.program, Path(folder), arguments.threads)
        cells = [f"{count:,}"]
        for i, seconds in enumerate(times):
            growth = math.log(seconds / last[1][i]) / math.log(count / last[0]) if last and last[1][i] > 0 else None
            cells += [f"{seconds:.2f}", "" if growth is None else f"{growth:.2f}"]
        print("| " + " | ".join(cells + [f"{(peak - base) / count:.0f}"]) + " |", flush=True)
        last = count, times
    print()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", type=Path, default=ROOT / "build/release/zephlore")
    parser.add_argument("--triangles", type=float, nargs="*", default=[1, 2, 4, 8, 16], metavar="MILLIONS")
    parser.add_argument("--instances", type=float, nargs="*", default=[50, 100, 200, 400, 800], metavar="THOUSANDS")
    parser.add_argument("--threads", type=int, default=2)
    arguments = parser.parse_args()
    if arguments.triangles:
        run("Triangles", triangles_scene, [size * 1e6 for size in arguments.triangles], arguments)
    if arguments.instances:
        run("Instances", instances_scene, [size * 1e3 for size in arguments.instances], arguments)


if __name__ == "__main__":
    main()
