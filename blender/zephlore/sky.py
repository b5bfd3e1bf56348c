"""The clear sky of Blender's Sky Texture: light scattered once by air and dust, and absorbed by ozone.

Nishita et al., "Display of the Earth Taking into Account Atmospheric Scattering", 1993. Radiances in Blender's units:
W / (m2 sr), weighted by the CIE 1931 matching functions and turned to linear sRGB. Lengths are metres.
"""

import functools
import math

import numpy as np

GROUND, TOP = 6360e3, 6420e3  # radii
NM = np.arange(380, 781, 20.0)
STEPS, STEPS_TO_SUN = 32, 16
WIDTH, HEIGHT = 64, 96  # of the table: turns from the sun to its opposite, heights above the horizon
DARK = 0.4  # this far below the horizon, as a sine, nothing shines

AIR = 1.24e-5 * (550 / NM) ** 4  # scattering on the ground, per metre
DUST = 2e-5
DUST_ABSORBS = 1.11  # what dust takes by what it scatters
OZONE = np.interp(NM, [420, 450, 500, 550, 575, 600, 625, 650, 700, 750, 780],
                  np.array([0, 0.08, 0.6, 1.6, 2.3, 2.5, 1.95, 1.25, 0.43, 0.18, 0.1]) * 1e-6)
SUN_KELVIN, SUN_SOLID_ANGLE = 5778, 6.8e-5


def lobe(mean, low, high):
    return np.exp(-0.5 * ((NM - mean) / np.where(NM < mean, low, high)) ** 2)


# Wyman et al., "Simple Analytic Approximations to the CIE XYZ Color Matching Functions", 2013.
MATCHING = np.stack([1.056 * lobe(599.8, 37.9, 31) + 0.362 * lobe(442, 16, 26.7) - 0.065 * lobe(501.1, 20.4, 26.2),
                     0.821 * lobe(568.8, 46.9, 40.5) + 0.286 * lobe(530.9, 16.3, 31.1),
                     1.217 * lobe(437, 11.8, 36) + 0.681 * lobe(459, 26, 13.8)])
TO_RGB = np.array([[3.2405, -1.5371, -0.4985], [-0.9693, 1.8760, 0.0416], [0.0556, -0.2040, 1.0572]])
# Planck's law, above the air: W / (m2 nm).
SUN = SUN_SOLID_ANGLE * 1.1910e20 / NM**5 / np.expm1(1.4388e7 / (NM * SUN_KELVIN))


def to_rgb(spectra):
    return np.maximum(spectra @ MATCHING.T @ TO_RGB.T * (NM[1] - NM[0]), 0)


class Air:
    """How thick air, dust and ozone are, as factors of a clear day."""

    def __init__(self, air, dust, ozone):
        self.factors = np.array([air, dust, ozone], np.float64)

    def density(self, place):
        """Of air, dust and ozone at places (..., 3) around the middle of the earth, of 1 each."""
        height = np.linalg.norm(place, axis=-1) - GROUND
        ozone = np.clip(np.where(height < 25e3, height / 15e3 - 2 / 3, 8 / 3 - height / 15e3), 0, None)
        return np.stack([np.exp(-height / 8e3), np.exp(-height / 1.2e3), ozone], axis=-1) * self.factors

    def thickness(self, amounts):
        """The optical depth of amounts (..., 3), per wavelength."""
        return amounts[..., :1] * AIR + amounts[..., 1:2] * (DUST * DUST_ABSORBS) + amounts[..., 2:] * OZONE

    def amounts_to_sun(self, place, sun):
        """What lies between places and the sun: sums of densities by metres."""
        way = to_top(place, sun)
        t = (np.arange(STEPS_TO_SUN) + 0.5) / STEPS_TO_SUN
        points = place[..., None, :] + (way[..., None] * t)[..., None] * sun
        return self.density(points).sum(axis=-2) * (way / STEPS_TO_SUN)[..., None]


def to_top(place, direction):
    along = (place * direction).sum(axis=-1)
    return -along + np.sqrt(np.maximum(along**2 - (place**2).sum(axis=-1) + TOP**2, 0))


def radiance(directions, sun, air, altitude):
    """Of unit directions (n, 3) above the horizon."""
    eye = np.array([0, 0, GROUND + max(altitude, 1.0)])
    way = to_top(np.broadcast_to(eye, directions.shape), directions)
    step = way / STEPS
    cosine = directions @ sun
    g = 0.76
    of_air = 3 / (16 * math.pi) * (1 + cosine**2)
    of_dust = 3 / (8 * math.pi) * (1 - g * g) / (2 + g * g) * (1 + cosine**2) / (1 + g * g - 2 * g * cosine) ** 1.5
    behind = np.zeros((len(directions), 3))
    total = np.zeros((len(directions), len(NM)))
    for i in range(STEPS):
        place = eye + directions * (step * (i + 0.5))[:, None]
        here = air.density(place) * step[:, None]
        left = np.exp(-air.thickness(behind + here + air.amounts_to_sun(place, sun)))
        # The earth's shadow.
        along = place @ sun
        lit = (along > 0) | ((place**2).sum(axis=-1) - along**2 > GROUND**2)
        scattered = (here[:, 0] * of_air)[:, None] * AIR + (here[:, 1] * of_dust)[:, None] * DUST
        total += lit[:, None] * scattered * left
        behind += here
    return to_rgb(total * SUN)


def sun_direction(elevation):
    return np.array([0, math.cos(elevation), math.sin(elevation)])


def sun_irradiance(elevation, air, altitude):
    """Of the sun alone on a surface that faces it."""
    eye = np.array([0, 0, GROUND + max(altitude, 1.0)])
    return to_rgb((SUN * np.exp(-air.thickness(air.amounts_to_sun(eye, sun_direction(elevation)))))[None])[0]


class Table:
    """A sky read by direction, of the settings of a Sky Texture node."""

    def __init__(self, elevation, air, altitude):
        rise = (np.arange(HEIGHT) / (HEIGHT - 1)) ** 2 * math.pi / 2  # rows are denser at the horizon
        turn = np.arange(WIDTH) / (WIDTH - 1) * math.pi
        a, b = np.meshgrid(turn, rise)
        directions = np.stack([np.sin(a) * np.cos(b), np.cos(a) * np.cos(b), np.sin(b)], axis=-1).reshape(-1, 3)
        self.colors = radiance(directions, sun_direction(elevation), air, altitude).reshape(HEIGHT, WIDTH, 3)

    def read(self, directions, rotation):
        """`rotation` turns the sun from +y towards +x."""
        d = directions / np.maximum(np.linalg.norm(directions, axis=1, keepdims=True), 1e-20)
        turn = np.abs(np.mod(np.arctan2(d[:, 0], d[:, 1]) - rotation + math.pi, 2 * math.pi) - math.pi)
        x = turn / math.pi * (WIDTH - 1)
        y = np.sqrt(np.maximum(np.arcsin(np.clip(d[:, 2], -1, 1)), 0) / (math.pi / 2)) * (HEIGHT - 1)
        left, low = np.minimum(x.astype(int), WIDTH - 2), np.minimum(y.astype(int), HEIGHT - 2)
        fx, fy = (x - left)[:, None], (y - low)[:, None]
        mix = lambda j: (1 - fx) * self.colors[j, left] + fx * self.colors[j, left + 1]
        fade = np.clip(1 + np.minimum(d[:, 2], 0) / DARK, 0, 1) ** 3
        return ((1 - fy) * mix(low) + fy * mix(low + 1)) * fade[:, None]


@functools.lru_cache(maxsize=2)
def table(elevation, air, dust, ozone, altitude):
    return Table(elevation, Air(air, dust, ozone), altitude)


def settings_of(node):
    """Elevation, air, dust, ozone and altitude of a Sky Texture node, and the turn of its sun."""
    if node.sky_type in ("PREETHAM", "HOSEK_WILKIE"):
        x, y, z = node.sun_direction
        length = math.sqrt(x * x + y * y + z * z) or 1.0
        return (math.asin(z / length), 1.0, node.turbidity / 2.2, 1.0, 1.0), math.atan2(x, y)
    dust = getattr(node, "dust_density", None)
    dust = getattr(node, "aerosol_density", 1.0) if dust is None else dust
    told = (node.sun_elevation, node.air_density, dust, node.ozone_density, node.altitude)
    return tuple(float(t) for t in told), float(node.sun_rotation)
