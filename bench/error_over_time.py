#!/usr/bin/env python3
"""Error over time of the two modes on one scene, against a converged path-traced reference.

    bench/error_over_time.py [--program FILE] [--scene FOLDER] [--references FOLDER] [--output FOLDER]

Renders the two halves of the reference unless their files exist, then both modes with growing numbers of passes; prints a Markdown table
and writes error-over-time.svg. All renders are of format 2, whatever the scene says. Standard library only.

A point is one whole run of the program, its photon cast included. Time is the processor time of all its threads, for
that hardly depends on what else the machine does. The error is the root of the mean squared relative difference,
(value - reference)^2 / (reference^2 + 0.01^2), over pixels and channels; values are clipped to 4 first, which touches
highlights and fireflies alone. The reference is the mean of two renders of other seeds; the noise that it still has,
by the difference of the two, is taken off the mean square. The diffuse part leaves out the rectangle with the glass, the mirror and their
caustics. Both modes gather caustic photons alike, so that a bias of these shows in neither; each seed has photons of its
own, whose noise shows in the whole picture.
"""

import argparse
import array
import math
import re
import resource
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
WIDTH, HEIGHT = 128, 72
CLIP, FLOOR = 4.0, 0.01
OBJECTS = (0.1, 0.48, 0.71, 1.0)  # of the picture: left, top, right, bottom
MODES = {
    "final gathering": {},
    "path tracing": {"bounce": 16, "ray_depth": 18, "distance": 0, "resolution": 0},
}
COLORS = {"final gathering": "#c2541b", "path tracing": "#24598f"}
PASSES = [4, 16, 64, 256]
RAYS_PER_PASS = 4


def variant(scene, folder, values):
    """The scene with other values in its final_gather block."""
    for source in scene.iterdir():
        if source.is_dir() and source.name != "render":
            (folder / source.name).symlink_to(source)
    (folder / "render").mkdir()
    for source in (scene / "render").glob("*.zp"):
        text = source.read_text()
        for key, value in values.items():
            text = re.sub(rf"^(\s*{key}) .*$", rf"\1 {value}", text, flags=re.M)
        (folder / "render" / source.name).write_text(text)
    return folder


def read_pfm(path):
    with open(path, "rb") as file:
        assert file.readline().strip() == b"PF"
        width, height = map(int, file.readline().split())
        little = float(file.readline()) < 0
        pixels = array.array("f", file.read())
    if little != (sys.byteorder == "little"):
        pixels.byteswap()
    assert (width, height, len(pixels)) == (WIDTH, HEIGHT, 3 * WIDTH * HEIGHT), path
    return pixels  # the bottom row first


def render(program, scene, values, passes, seed, output):
    """Processor seconds of the run."""
    with tempfile.TemporaryDirectory() as folder:
        place = variant(scene.resolve(), Path(folder), {**values, "sample": RAYS_PER_PASS})
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        subprocess.run([program, "render", place, "--resolution", f"{WIDTH}x{HEIGHT}", "--sample", str(passes),
                        "--seed", str(seed), "--format", "2", "--quiet", "--output", output], check=True)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def square_sums(a, b, reference):
    """Means of the squared relative difference of two pictures: of all, and of the diffuse part."""
    whole = diffuse = 0.0
    count = 0
    left, top, right, bottom = (f * size for f, size in zip(OBJECTS, (WIDTH, HEIGHT) * 2))
    for y in range(HEIGHT):
        row = HEIGHT - 1 - y
        for x in range(WIDTH):
            outside = not (left <= x < right and top <= y < bottom)
            count += 3 * outside
            for i in range(3 * (row * WIDTH + x), 3 * (row * WIDTH + x) + 3):
                truth = reference[i]
                error = (min(a[i], CLIP) - min(b[i], CLIP)) ** 2 / (truth * truth + FLOOR * FLOOR)
                whole += error
                diffuse += error * outside
    return whole / (3 * WIDTH * HEIGHT), diffuse / count


def mean(pixels):
    return sum(min(p, CLIP) for p in pixels) / len(pixels)


def crossing(points, error):
    """The time at which a curve gets down to an error, between its points; none if it does not."""
    for (t0, e0), (t1, e1) in zip(points, points[1:]):
        if e0 >= error >= e1 and e0 > e1:
            share = math.log(e0 / error) / math.log(e0 / e1)
            return t0 * (t1 / t0) ** share
    return None


def plot(curves, path):
    """Both axes logarithmic."""
    left, top, width, height = 64, 24, 540, 300
    times = [t for points in curves.values() for t, _ in points]
    errors = [e for points in curves.values() for _, e in points]
    t0, t1 = min(times) * 0.8, max(times) * 1.25
    e0, e1 = min(errors) * 0.8, max(errors) * 1.25

    def spot(t, e):
        return (left + width * math.log(t / t0) / math.log(t1 / t0),
                top + height * math.log(e1 / e) / math.log(e1 / e0))

    rows = ['<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 640 380" font-family="sans-serif" font-size="12">',
            '<rect width="640" height="380" fill="#fff"/>']
    ticks = [m * 10 ** k for k in range(-3, 5) for m in (1, 2, 5)]
    for t in (v for v in ticks if t0 <= v <= t1):
        x = spot(t, e0)[0]
        rows.append(f'<path d="M{x:.1f} {top}V{top + height}" stroke="#ddd"/>'
                    f'<text x="{x:.1f}" y="{top + height + 16}" text-anchor="middle">{t:g}</text>')
    for e in (v for v in ticks if e0 <= v <= e1):
        y = spot(t0, e)[1]
        rows.append(f'<path d="M{left} {y:.1f}H{left + width}" stroke="#ddd"/>'
                    f'<text x="{left - 6}" y="{y + 4:.1f}" text-anchor="end">{100 * e:g} %</text>')
    for i, (mode, points) in enumerate(curves.items()):
        places = [spot(*p) for p in points]
        rows.append(f'<polyline points="{" ".join(f"{x:.1f},{y:.1f}" for x, y in places)}" fill="none" '
                    f'stroke="{COLORS[mode]}" stroke-width="2"/>')
        rows += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{COLORS[mode]}"/>' for x, y in places]
        rows.append(f'<text x="{left + width - 8}" y="{top + 20 + 18 * i}" text-anchor="end" fill="{COLORS[mode]}">'
                    f'{mode}</text>')
    rows.append(f'<text x="{left + width / 2}" y="{top + height + 36}" text-anchor="middle">processor seconds, photon '
                'cast included</text>')
    rows.append('<text x="8" y="14">relative error of the diffuse part</text></svg>')
    path.write_text("\n".join(rows) + "\n", encoding="ascii")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", type=Path, default=ROOT / "build/release/zephlore")
    parser.add_argument("--scene", type=Path, default=ROOT / "scenes/cistern")
    parser.add_argument("--references", type=Path, default=ROOT / "build")
    parser.add_argument("--reference-passes", type=int, default=1024)
    parser.add_argument("--output", type=Path, default=ROOT / "docs")
    parser.add_argument("--passes", type=int, nargs="+", default=PASSES)
    options = parser.parse_args()
    halves = []
    for seed in (77, 78):
        path = options.references / f"error-reference-{seed}.pfm"
        if not path.exists():
            render(options.program, options.scene, MODES["path tracing"], options.reference_passes, seed, path)
        halves.append(read_pfm(path))
    reference = [0.5 * (min(a, CLIP) + min(b, CLIP)) for a, b in zip(*halves)]
    noise = [0.25 * square for square in square_sums(*halves, reference)]
    print("noise of the reference:", " and ".join(f"{100 * math.sqrt(n):.2f} %" for n in noise), "of the parts below\n")

    curves = {mode: [] for mode in MODES}
    print("| Mode | Passes | Processor s | Error, whole | Error, diffuse part | Mean / reference's |\n|---|---|---|---|---|---|")
    for mode, values in MODES.items():
        for passes in options.passes:
            with tempfile.TemporaryDirectory() as folder:
                output = Path(folder) / "picture.pfm"
                seconds = render(options.program, options.scene, values, passes, 1, output)
                picture = read_pfm(output)
            squares = square_sums(picture, reference, reference)
            whole, diffuse = (math.sqrt(max(s - n, 1e-8)) for s, n in zip(squares, noise))
            curves[mode].append((seconds, diffuse))
            print(f"| {mode} | {passes} | {seconds:.1f} | {100 * whole:.2f} % | {100 * diffuse:.2f} % | "
                  f"{mean(picture) / mean(reference):.4f} |", flush=True)
    print("\n| Error, diffuse part | Final gathering, s | Path tracing, s | Ratio |\n|---|---|---|---|")
    for error in (0.35, 0.2, 0.15, 0.11, 0.08, 0.06, 0.053):
        a, b = (crossing(curves[mode], error) for mode in MODES)
        if a and b:
            print(f"| {100 * error:g} % | {a:.1f} | {b:.1f} | {b / a:.1f} |")
    plot(curves, options.output / "error-over-time.svg")


if __name__ == "__main__":
    main()
