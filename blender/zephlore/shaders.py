"""Materials to shaders: a node tree is taken apart into closures with weights, and these become layers."""

import math

import numpy as np

from . import losses, nodes, values
from .nodes import by_name
from .text import quoted, word

MIRROR_IOR = 1e6  # a conductor of this index reflects its whole colour
SMOOTH = 0.02  # a lobe of less roughness is drawn sharp
BASE = ("diffuse", "translucent", "emission")  # share one layer, whose elements add up


class Closure:
    """One lobe of a material: what it is, how much of it there is, and its values."""

    def __init__(self, kind, color, weight, **told):
        self.kind = kind
        self.color = color
        self.weight = weight
        self.rough = told.get("rough")
        self.ior = told.get("ior", 1.0)
        self.under = told.get("under")  # a coated closure's diffuse colour
        self.emission = told.get("emission")
        self.normal = told.get("normal")  # a socket and its groups
        self.anisotropy = told.get("anisotropy")
        self.angle = told.get("angle")
        self.diffusion = told.get("diffusion")


class Reader:
    """Takes a material's node tree apart."""

    def __init__(self, material, hair=False):
        self.name = material.name
        self.hair = hair
        self.displaces = getattr(material, "displacement_method", None) or \
            getattr(getattr(material, "cycles", None), "displacement_method", "BUMP")
        self.adds = False

    def miss(self, what):
        losses.note("%s: %s" % (self.name, what))

    def number(self, value):
        """A number that no picture may take the place of."""
        return float(np.mean(values.mean(value, self.name)))

    def closures(self, socket, stack, weight):
        found, inner = nodes.source(socket, stack)
        if found is None or not found.is_output:
            return []
        node = found.node
        handler = CLOSURES.get(node.type)
        if handler is None:
            self.miss("%s is left out" % node.bl_label)
            return []
        return handler(self, Inputs(node, inner), weight)


class Inputs:
    """A node's inputs, as values."""

    def __init__(self, node, stack):
        self.node = node
        self.stack = stack

    def socket(self, *names):
        return by_name(self.node, *names)

    def __call__(self, *names, otherwise=0.0):
        socket = self.socket(*names)
        return values.constant(otherwise) if socket is None else values.linked(socket, self.stack)

    def normal(self):
        socket = self.socket("Normal")
        return (socket, self.stack) if socket is not None and socket.is_linked else None


def scaled(weight, value):
    if values.is_one(value):
        return weight
    return value if values.is_one(weight) else values.product(weight, value)


def mixed(reader, node, weight):
    """Mix Shader. By a Fresnel term a glossy lobe over diffuse ones is one layer with that index of refraction."""
    factor, one, other = node.node.inputs[0], node.node.inputs[1], node.node.inputs[2]
    share = values.linked(factor, node.stack)
    coat = coat_of(reader, node, weight, one, other)
    if coat:
        return coat
    found = []
    for socket, part in ((one, values.rest(share)), (other, share)):
        if not values.is_black(part):
            found += reader.closures(socket, node.stack, scaled(weight, part))
    return found


def coat_of(reader, node, weight, one, other):
    found, inner = nodes.source(node.node.inputs[0], node.stack)
    if found is None or not found.is_output:
        return None
    if found.node.type == "FRESNEL":
        ior = values.number(values.linked(by_name(found.node, "IOR"), inner))
    elif found.node.type == "LAYER_WEIGHT" and found.name == "Fresnel":
        blend = values.number(values.linked(by_name(found.node, "Blend"), inner))
        ior = None if blend is None else 1 / max(1 - float(blend), 1e-5)
    else:
        return None
    unit = values.constant(1.0)
    below, above = reader.closures(one, node.stack, unit), reader.closures(other, node.stack, unit)
    if ior is None or any(c.kind != "diffuse" for c in below) or [c.kind for c in above] != ["glossy"] or not below:
        return None
    under = values.sum_of([scaled(c.weight, c.color) for c in below])
    return [Closure("coated", above[0].color, weight, under=under, rough=above[0].rough, ior=float(ior),
                    normal=above[0].normal or below[0].normal)]


def added(reader, node, weight):
    reader.adds = True
    return [c for socket in node.node.inputs[:2] for c in reader.closures(socket, node.stack, weight)]


def plain(kind, *colors, note=None):
    def make(reader, node, weight):
        if note:
            reader.miss("%s %s" % (node.node.bl_label, note))
        return [Closure(kind, node(*colors, otherwise=(1, 1, 1)), weight, normal=node.normal())]
    return make


def emission(reader, node, weight):
    color = values.product(node("Color"), node("Strength", otherwise=1.0))
    return [] if values.is_black(color) else [Closure("emission", color, weight)]


def glossy(reader, node, weight):
    rough = values.squared(node("Roughness"))
    if getattr(node.node, "distribution", "") == "SHARP":
        rough = values.constant(0.0)
    stretch = node("Anisotropy") if node.node.type == "BSDF_ANISOTROPIC" else values.constant(0.0)
    return [Closure("glossy", node("Color", "Base Color"), weight, rough=rough, ior=MIRROR_IOR, normal=node.normal(),
                    anisotropy=None if values.is_black(stretch) else stretch, angle=node("Rotation"))]


def glass(reader, node, weight):
    if node.node.type == "BSDF_REFRACTION":
        reader.miss("Refraction BSDF also reflects, as glass does")
    sharp = getattr(node.node, "distribution", "") == "SHARP"
    rough = values.constant(0.0) if sharp else values.squared(node("Roughness"))
    return [Closure("glass", node("Color"), weight, rough=rough, ior=reader.number(node("IOR", otherwise=1.45)),
                    normal=node.normal())]


def subsurface(reader, node, weight):
    radius = values.product(node("Radius", otherwise=(1, 1, 1)), node("Scale", otherwise=1.0))
    return [Closure("subsurface", node("Color"), weight, normal=node.normal(),
                    diffusion=diffusion_of(reader, node("Color"), radius))]


def diffusion_of(reader, color, radius):
    """Variance along an axis of Burley's profile, 7 d^2, where d is the mean free path by its albedo's factor."""
    albedo, length = values.mean(color, reader.name), values.mean(radius, reader.name)
    d = np.broadcast_to(length, 3) / (1.85 - albedo + 7 * np.abs(albedo - 0.8) ** 3)
    return tuple(float(v) for v in 7 * d * d)


def principled(reader, node, weight):
    """A coated diffuse body, metal and glass, by their shares. Of its coat a quarter (before 4.0) mirrors."""
    new = node.socket("Specular IOR Level") is not None
    base, rough = node("Base Color"), values.squared(node("Roughness"))
    metal, glassy = node("Metallic"), node("Transmission", "Transmission Weight")
    inside = node("Subsurface", "Subsurface Weight")
    normal, anisotropy = node.normal(), node("Anisotropic")
    lobe = {"rough": rough, "normal": normal, "angle": node("Anisotropic Rotation"),
            "anisotropy": None if values.is_black(anisotropy) else anisotropy}
    weight = cut_out(reader, node, weight)
    found = []
    solid = scaled(values.rest(metal), weight)
    if not values.is_black(glassy):
        ior = reader.number(node("IOR", otherwise=1.45))
        found.append(Closure("glass", base, scaled(solid, glassy), rough=rough, ior=ior, normal=normal))
        solid = scaled(solid, values.rest(glassy))
    if not values.is_black(solid):
        found += bodies(reader, node, solid, base, inside, lobe, new)
    if not values.is_black(metal):
        found.append(Closure("glossy", base, scaled(weight, metal), ior=MIRROR_IOR, **lobe))
    shine(reader, node, found, weight)
    for name in ("Sheen", "Sheen Weight"):
        if node.socket(name) and not values.is_black(node(name)):
            reader.miss("sheen is left out")
    if reader.transparent is not None:
        found.append(reader.transparent)
        reader.transparent = None
    return found


def cut_out(reader, node, weight):
    """Takes Alpha off the weight, and leaves a transparent closure for what is gone."""
    alpha = node("Alpha", otherwise=1.0)
    reader.transparent = None
    if values.is_one(alpha):
        return weight
    reader.transparent = Closure("transparent", values.constant((1, 1, 1)), scaled(weight, values.rest(alpha)))
    return scaled(weight, alpha)


def bodies(reader, node, weight, base, inside, lobe, new):
    """The diffuse body under its own reflection, and the share of it that has a coat."""
    level = reader.number(node("Specular IOR Level", "Specular", otherwise=0.5))
    if new:
        ior = reader.number(node("IOR", otherwise=1.5))
        f0 = min(((ior - 1) / (ior + 1)) ** 2 * 2 * level, 0.99)
    else:
        f0 = min(0.08 * level, 0.99)
        if not values.is_black(inside):
            base = values.sum_of([values.product(base, values.rest(inside)),
                                  values.product(node("Subsurface Color"), inside)])
        # Before 4.0 reflection comes on top of the diffuse light; layers take it off that: in the mean this much.
        taken = f0 + (1 - f0) / 21 if f0 > 0 else 0.0
        base = values.product(base, values.constant(1 / (1 - taken)))
    told = dict(lobe, ior=(1 + math.sqrt(f0)) / (1 - math.sqrt(f0)))
    white = values.constant((1, 1, 1))
    if not values.is_black(inside):
        length = values.product(node("Subsurface Radius"), node("Subsurface Scale", otherwise=1.0))
        if not new:
            length = values.product(length, inside)
            inside = values.constant(1.0)
        told["diffusion"] = diffusion_of(reader, base, length)
        if not values.is_one(inside):
            reader.miss("of a subsurface weight that is not 1 all of the body scatters below the surface")
    coat = node("Clearcoat", "Coat Weight")
    if values.is_black(coat):
        return [Closure("coated", white, weight, under=base, **told)]
    share = coat if new else values.product(coat, values.constant(0.25))
    coated = dict(told, rough=values.squared(node("Clearcoat Roughness", "Coat Roughness")), ior=1.5)
    return [Closure("coated", white, scaled(weight, values.rest(share)), under=base, **told),
            Closure("coated", white, scaled(weight, share), under=base, **coated)]


def shine(reader, node, found, weight):
    """Emission goes into the layers of bodies; where there is none, into one of its own."""
    light = values.product(node("Emission", "Emission Color"), node("Emission Strength", otherwise=1.0))
    if values.is_black(light):
        return
    if found and all(c.kind == "coated" for c in found):
        light_up(found, light)
    else:
        reader.adds = True
        found.append(Closure("emission", light, weight))


def light_up(bodies_, light):
    """Lets coated bodies emit light, of which their reflection takes its share off."""
    for closure in bodies_:
        f0 = ((closure.ior - 1) / (closure.ior + 1)) ** 2
        told = values.product(light, values.constant(1 / (1 - f0)))
        closure.emission = told if closure.emission is None else values.sum_of([closure.emission, told])


def hair(reader, node, weight):
    """A fibre's colour at one scattering, of the colour that many fibres show or of its absorption."""
    kind = getattr(node.node, "parametrization", "COLOR")
    if node.node.type == "BSDF_HAIR":
        return [Closure("fiber", node("Color"), weight)]
    beta = reader.number(node("Radial Roughness", otherwise=0.3))
    if kind == "COLOR":
        color = np.clip(values.mean(node("Color"), reader.name), 1e-3, 1)
        # Chiang et al., "A Practical and Controllable Hair and Fur Model for Production Path Tracing", 2016.
        span = 5.969 - 0.215 * beta + 2.532 * beta**2 - 10.73 * beta**3 + 5.574 * beta**4 + 0.245 * beta**5
        absorption = (np.log(color) / span) ** 2
    elif kind == "MELANIN":
        amount = -math.log(max(1 - min(reader.number(node("Melanin")), 0.9999), 1e-4))
        red = min(max(reader.number(node("Melanin Redness")), 0), 1)
        absorption = amount * ((1 - red) * np.array([0.506, 0.841, 1.653]) + red * np.array([0.343, 0.733, 1.924]))
    else:
        absorption = values.mean(node("Absorption Coefficient"), reader.name)
    # In the mean over a fibre's width and inclinations, in radii; what the scene's fibres absorb by themselves is in.
    left = np.exp(3.6 * np.array([0.01, 0.02, 0.01]) - 2.0 * absorption)
    return [Closure("fiber", values.constant(tuple(float(v) for v in np.minimum(left, 1))), weight)]


CLOSURES = {
    "MIX_SHADER": mixed, "ADD_SHADER": added, "EMISSION": emission, "BACKGROUND": emission,
    "BSDF_DIFFUSE": plain("diffuse", "Color"), "BSDF_TRANSLUCENT": plain("translucent", "Color"),
    "BSDF_TRANSPARENT": plain("transparent", "Color"), "BSDF_GLOSSY": glossy, "BSDF_ANISOTROPIC": glossy,
    "BSDF_METALLIC": glossy, "BSDF_GLASS": glass, "BSDF_REFRACTION": glass, "SUBSURFACE_SCATTERING": subsurface,
    "BSDF_PRINCIPLED": principled, "BSDF_HAIR": hair, "BSDF_HAIR_PRINCIPLED": hair,
    "BSDF_VELVET": plain("diffuse", "Color", note="is drawn as diffuse"),
    "BSDF_SHEEN": plain("diffuse", "Color", note="is drawn as diffuse"),
    "BSDF_TOON": plain("diffuse", "Color", note="is drawn as diffuse"),
    "EEVEE_SPECULAR": plain("diffuse", "Base Color", note="is drawn as diffuse"),
}


class Layer:
    """Elements of one surface layer, as values, and its weight."""

    def __init__(self, weight):
        self.weight = weight
        self.elements = {}
        self.material = None  # "dielectric", or a conductor
        self.normal = None


def layers_of(reader, closures, total):
    """Diffuse and emissive closures share one layer, each other closure has its own."""
    layers = []
    base = [c for c in closures if c.kind in BASE]
    if base:
        weight = values.sum_of([c.weight for c in base]) if len(base) > 1 else base[0].weight
        layer = Layer(weight)
        layer.normal = next((c.normal for c in base if c.normal), None)
        for kind, element in zip(BASE, ("lambertian", "transmissive", "emissive")):
            parts = [c for c in base if c.kind == kind]
            if parts:
                sums = values.sum_of([scaled(c.weight, c.color) for c in parts])
                layer.elements[element] = parts[0].color if len(base) == 1 else values.quotient(sums, weight)
        layers.append(layer)
    layers += [layer_of(c, reader.hair) for c in closures if c.kind not in BASE]
    for layer in layers:
        for element in ("lambertian", "transmissive"):
            if element in layer.elements:
                layer.elements[element] = limited(layer.elements[element])
    if reader.adds or len(layers) == 1:
        known = values.number(total)
        if known is None or abs(float(np.mean(known)) - 1) > 1e-6:
            for layer in layers:
                for element in ("lambertian", "transmissive", "emissive", "glossy", "specular"):
                    if element in layer.elements:
                        layer.elements[element] = values.product(layer.elements[element], total)
    return layers


def layer_of(closure, hair):
    layer = Layer(closure.weight)
    layer.normal = closure.normal
    told = layer.elements
    if closure.kind == "subsurface":
        told["lambertian"] = closure.color
    elif hair and closure.kind in ("fiber", "glossy", "glass"):
        told["glossy"] = closure.color
    elif closure.kind == "fiber" or hair and closure.kind == "coated":
        told["lambertian"] = closure.under or closure.color
    else:
        rough = values.number(closure.rough)
        sharp = rough is not None and float(np.mean(rough)) < SMOOTH**2
        told["specular" if sharp else "glossy"] = closure.color
        told["ior"] = values.constant(float(closure.ior))
        if not sharp:
            told["roughness"] = closure.rough
            if closure.anisotropy is not None:
                square = closure.anisotropy
                told["anisotropy"] = values.Value(lambda p: 1 - np.sqrt(1 - 0.9 * np.clip(square.at(p), 0, 1)))
                told["angle"] = closure.angle
        if closure.kind == "glass":
            layer.material = "dielectric"
        if closure.under is not None:
            told["lambertian"] = closure.under
        if closure.emission is not None:
            told["emissive"] = closure.emission
    if closure.diffusion:
        told["diffusion"] = values.constant(closure.diffusion)
    return layer


def limited(value):
    """Reflectances end at 1."""
    found = values.number(value)
    if found is not None and np.max(found) <= 1 or value.picture:
        return value
    return values.Value(lambda points: np.clip(value.at(points), 0, 1))


def tree_of(material):
    if material.node_tree is None or not material.use_nodes:
        return None
    return next((n for target in ("CYCLES", "ALL", "EEVEE") for n in material.node_tree.nodes
                 if n.type == "OUTPUT_MATERIAL" and n.target == target and n.is_active_output), None)


class Shaders:
    """Writes shader sections, each when it is first asked for."""

    def __init__(self, text, baker):
        self.text = text
        self.baker = baker
        self.names = {}
        self.has_fibers = False  # light goes on through many of them

    def name_of(self, material, flags=(), hair=False, uv_length=1.0):
        """The shader of a material that is seen as `flags` tell. `uv_length`: how long a texture is in the scene."""
        key = (material.name_full if material else None, flags, hair)
        if key not in self.names:
            told = [material.name if material else "default", *(["hair"] if hair else []), *flags]
            name = word("-".join(told))
            while name in self.names.values():
                name += "_"
            self.names[key] = name
            self.write(name, material, flags, hair, uv_length)
        return self.names[key]

    def uv_name(self, material):
        """The texture coordinates that a material asks for by name; empty for the usual ones."""
        named = {n for n in self.baker.uv_names.get(material.name if material else None, ()) if n}
        if len(named) > 1:
            losses.note("%s: of several texture coordinates one serves all pictures" % material.name)
        return min(named, default="")

    def write(self, name, material, flags, hair, uv_length):
        out = tree_of(material) if material else None
        with self.text.block("shader"):
            self.text.say("name", quoted(name))
            for flag in flags:
                if flag.startswith("group-"):
                    self.text.say("group", quoted(flag[len("group-"):]))
            if "catcher" in flags:
                with self.text.block("surface_shader"):
                    self.text.say("shadow_catcher")
                self.geometry(None, flags)
            elif out is not None:
                self.surface(Reader(material, hair), out, flags, uv_length)
            else:
                color = tuple(material.diffuse_color[:3]) if material else (0.8, 0.8, 0.8)
                with self.text.block("surface_shader"):
                    values.write_element(self.text, "lambertian", {"color": color})
                self.geometry(None, flags)

    def surface(self, reader, out, flags, uv_length):
        closures = reader.closures(out.inputs["Surface"], (), values.constant(1.0))
        closures = [c for c in closures if not values.is_black(c.weight)]
        gone = [c for c in closures if c.kind == "transparent"]
        closures = [c for c in closures if c.kind != "transparent"]
        lamps = [c for c in closures if c.kind == "emission"]
        lit = [c for c in closures if c.kind != "emission"]
        if reader.adds and lamps and lit and all(c.kind == "coated" for c in lit):
            light_up(lit, values.sum_of([scaled(c.weight, c.color) for c in lamps]))
            closures = lit
        clip = None
        total = values.sum_of([c.weight for c in closures]) if closures else values.constant(1.0)
        if gone:
            if any(not values.is_one(c.color) for c in gone):
                reader.miss("coloured transparency is white")
            left = values.sum_of([c.weight for c in gone])
            clip = gone[0].weight if len(gone) == 1 else left
            clip = values.rest(clip)
            total = values.quotient(total, clip) if closures and reader.adds else values.constant(1.0)
        layers = layers_of(reader, closures, total)
        if out.inputs["Displacement"].is_linked:
            for layer in layers:
                layer.normal = layer.normal or (out.inputs["Displacement"], ())
        if reader.hair:
            clip = None
            self.has_fibers = self.has_fibers or any("glossy" in layer.elements for layer in layers)
        for layer in layers:
            self.layer(reader, layer, len(layers) > 1, uv_length)
        if not layers and not gone:
            with self.text.block("surface_shader"):
                values.write_element(self.text, "lambertian", {"color": (0, 0, 0)})
        self.geometry(clip if layers else values.constant(0.0), flags, reader.name)
        self.volume(reader, out)

    def layer(self, reader, layer, several, uv_length):
        def element(value):
            if not reader.hair:
                return self.baker.element(value, reader.name)
            return {"color": tuple(float(v) for v in np.broadcast_to(values.mean(value, reader.name), 3))}

        with self.text.block("surface_shader"):
            if layer.material:
                self.text.say(layer.material)
            if "emissive" in layer.elements:
                self.text.say("virtual_light")
            for name, value in layer.elements.items():
                values.write_element(self.text, name, element(value))
            if several:
                values.write_element(self.text, "weight", element(layer.weight))
            if layer.normal and not reader.hair:
                self.normal(reader, layer.normal, uv_length)

    def normal(self, reader, told, uv_length):
        socket, stack = told
        found, inner = nodes.source(socket, stack)
        if found is None or not found.is_output:
            return
        node = found.node
        if node.type == "NORMAL_MAP" and node.space == "TANGENT":
            color = values.linked(by_name(node, "Color"), inner)
            strength = reader.number(values.linked(by_name(node, "Strength"), inner))
            self.baker.uv_names.setdefault(reader.name, set()).add(node.uv_map)
            direction = color.picture
            if direction is None or "color_matrix" in direction:
                grid = self.baker.grid(color, 1024, reader.name) * 2 - 1
                direction = self.baker.normal(grid)
            direction = dict(direction, color_matrix=(2 * strength, 0, 0, -strength, 0, 2 * strength, 0, -strength,
                                                      0, 0, 2, -1, 0, 0, 0, 1))
        elif node.type == "BUMP":
            height, strength, distance = (values.linked(by_name(node, n), inner)
                                          for n in ("Height", "Strength", "Distance"))
            sign = -1 if node.invert else 1
            direction = self.bump(reader, height, reader.number(strength), sign * reader.number(distance), uv_length)
        elif node.type == "DISPLACEMENT":
            if reader.displaces != "BUMP":
                reader.miss("displacement bends normals alone")
            height, scale = (values.linked(by_name(node, n), inner) for n in ("Height", "Scale"))
            direction = self.bump(reader, height, 1.0, reader.number(scale), uv_length)
        else:
            reader.miss("%s as a normal is left out" % node.bl_label)
            return
        values.write_element(self.text, "normal", direction)

    def bump(self, reader, height, strength, distance, uv_length):
        """The slopes of a height over texture coordinates, a unit of which is `uv_length` wide in the scene."""
        points = nodes.Points(uv=np.float32([[0.3, 0.7]]), what=reader.name)
        height.at(points)
        self.baker.uv_names.setdefault(reader.name, set()).update(points.uv_names)
        h = self.baker.grid(height, points.size, reader.name)[..., 0] * distance
        span = 2 * uv_length / len(h)
        slopes = np.stack([(np.roll(h, 1, axis) - np.roll(h, -1, axis)) / span for axis in (1, 0)], axis=-1)
        normal = np.dstack([slopes * min(max(strength, 0), 1), np.ones_like(h)])
        return self.baker.normal(normal / np.linalg.norm(normal, axis=2, keepdims=True))

    def geometry(self, clip, flags, what=None):
        hides = [flag for flag in flags if flag in ("invisible", "unseen")]
        if clip is None and not hides:
            return
        with self.text.block("geometry_shader"):
            for flag in hides:
                self.text.say("invisible" if flag == "invisible" else "camera_primary", int(flag == "invisible"))
            if clip is not None:
                values.write_element(self.text, "clip", self.baker.element(clip, what))

    def volume(self, reader, out):
        found, inner = nodes.source(out.inputs["Volume"], ())
        if found is None or not found.is_output:
            return
        node = Inputs(found.node, inner)
        if found.node.type not in ("VOLUME_ABSORPTION", "PRINCIPLED_VOLUME"):
            reader.miss("%s is left out" % found.node.bl_label)
            return
        density = reader.number(node("Density", otherwise=1.0))
        if found.node.type == "PRINCIPLED_VOLUME":
            reader.miss("of a volume only what it absorbs shows")
            color = values.mean(node("Absorption Color"), reader.name)
        else:
            color = values.mean(node("Color"), reader.name)
        with self.text.block("volume_shader"):
            self.text.triple("transmittance", np.exp(-density * (1 - np.clip(color, 0, 1))))


def shader_of_light(text, name, color, visible, group):
    """A one-sided emitter of a radiance, which is in no other light's way."""
    with text.block("shader"):
        text.say("name", quoted(name))
        if group:
            text.say("group", quoted(group))
        with text.block("surface_shader"):
            text.say("sideness", '"face"')
            text.say("virtual_light")
            values.write_element(text, "emissive", {"color": color})
            values.write_element(text, "shadow_transparency", {"color": (1, 1, 1)})
        with text.block("surface_shader"):
            text.say("sideness", '"back"')
            values.write_element(text, "shadow_transparency", {"color": (1, 1, 1)})
        if not visible:
            with text.block("geometry_shader"):
                text.say("camera_primary", 0)
