#!/usr/bin/env python3
"""Errors of two programs at equal numbers of passes: what sample points and weights are worth.

    bench/errors.py OLD NEW SCENE... [--passes 4,8,16,64] [--seeds 16] [--reference 512] [--resolution 48x48]
        [--threads 1]

Prints a Markdown table: NEW's error by OLD's for each number of passes, and by how many per cent either way chance may
move that (one standard error). All renders are of format 2, whatever the scene says. Standard library only.

The error of a picture is the root of the mean squared relative difference, (value - reference)^2 / (reference^2 +
(mean / 10)^2), over pixels and channels, where the mean is the reference's; that of a program is its mean over the seeds.
Each program has a reference of its own, for what is right may have changed between the two: the mean of two renders of
other seeds, whose noise, by the difference of the two, is taken off. The last column tells how far the means of the
two references are apart.
"""

import argparse
import array
import math
import subprocess
import tempfile
from pathlib import Path


def read_pfm(path):
    with open(path, "rb") as file:
        file.readline()
        file.readline()
        file.readline()
        return array.array("f", file.read())


def render(program, scene, passes, seed, options):
    with tempfile.TemporaryDirectory() as folder:
        output = Path(folder) / "picture.pfm"
        subprocess.run([program, "render", "--format", "2", scene, "--seed", str(seed), "--sample", str(passes),
                        "--resolution", options.resolution, "--threads", str(options.threads), "--quiet",
                        "--output", output], check=True, stdout=subprocess.DEVNULL)
        return read_pfm(output)


def square(a, b, weights):
    return sum((x - y) ** 2 * w for x, y, w in zip(a, b, weights)) / len(weights)


class Errors:
    """Of one program and scene."""

    def __init__(self, program, scene, options):
        self.program, self.scene, self.options = program, scene, options
        first, second = (render(program, scene, options.reference, 1000 + i, options) for i in range(2))
        self.reference = [(x + y) / 2 for x, y in zip(first, second)]
        self.mean = sum(self.reference) / len(self.reference)
        self.weights = [1 / (y * y + self.mean**2 / 100) for y in self.reference]
        self.noise = square(first, second, self.weights) / 4

    def at(self, passes):
        """The mean over the seeds, and its standard error."""
        seeds = range(1, self.options.seeds + 1)
        pictures = (render(self.program, self.scene, passes, seed, self.options) for seed in seeds)
        errors = [math.sqrt(max(square(p, self.reference, self.weights) - self.noise, 0)) for p in pictures]
        mean = sum(errors) / len(errors)
        return mean, math.sqrt(sum((e - mean) ** 2 for e in errors) / max(len(errors) - 1, 1) / len(errors))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("old")
    parser.add_argument("new")
    parser.add_argument("scenes", nargs="+", metavar="SCENE")
    parser.add_argument("--passes", default="4,8,16,64")
    parser.add_argument("--seeds", type=int, default=16)
    parser.add_argument("--reference", type=int, default=512, help="passes of each of its two renders")
    parser.add_argument("--resolution", default="48x48")
    parser.add_argument("--threads", type=int, default=1)
    options = parser.parse_args()
    passes = [int(n) for n in options.passes.split(",")]
    print("| Scene |", " | ".join(str(n) for n in passes), "| means |")
    print("|---" * (len(passes) + 2) + "|", flush=True)
    for scene in options.scenes:
        old, new = (Errors(program, scene, options) for program in (options.old, options.new))
        cells = []
        for n in passes:
            (was, chance), (now, other) = old.at(n), new.at(n)
            cells.append("%.3f ± %.1f" % (now / was, 100 * math.hypot(chance / was, other / now)))
        print("| %s |" % scene, " | ".join(cells), "| %.4f |" % (new.mean / old.mean), flush=True)


if __name__ == "__main__":
    main()
