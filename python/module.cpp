// The module `zp._zp`: enumerations, life cycle, rendering and its settings. The other families have files of
// their own.

#include <dirent.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <initializer_list>
#include <optional>
#include <string>

#include "pictures.h"
#include "tables.h"

namespace zp::python {
namespace {

using namespace py::literals;

// Adds an enumeration of Python's own kind; `base` is IntEnum or IntFlag.
template <class E>
void DefineEnum(py::module_& module, const char* base, const char* name, const char* text,
                std::initializer_list<std::pair<const char*, E>> members) {
  py::list pairs;
  for (const auto& [member, value] : members)
    pairs.append(py::make_tuple(member, static_cast<std::int64_t>(value)));
  py::object type = py::module_::import("enum").attr(base)(name, pairs, "module"_a = "zp._zp");
  type.attr("__doc__") = text;
  module.attr(name) = type;
  enumClass<E> = type.release().ptr();
}

void DefineEnums(py::module_& m) {
  DefineEnum<Channel>(m, "IntFlag", "Channel", "What an image records; bits, which add up.",
                      {{"BEAUTY", kZpBeauty},
                       {"LIGHT_PATH", kZpLightPath},
                       {"LAMBERTIAN", kZpLambertian},
                       {"LAMBERTIAN_COLOR", kZpLambertianColor},
                       {"TRANSMISSIVE", kZpTransmissive},
                       {"TRANSMISSIVE_COLOR", kZpTransmissiveColor},
                       {"GLOSSY", kZpGlossy},
                       {"GLOSSY_COLOR", kZpGlossyColor},
                       {"SPECULAR", kZpSpecular},
                       {"SPECULAR_COLOR", kZpSpecularColor},
                       {"EMISSIVE", kZpEmissive},
                       {"NORMAL", kZpNormal},
                       {"TANGENT", kZpTangent},
                       {"POSITION", kZpPosition},
                       {"DEPTH", kZpDepth},
                       {"USER_DATA", kZpUserData},
                       {"SAMPLES", kZpSamples}});
  DefineEnum<Projection>(m, "IntEnum", "Projection", "How a camera sees.",
                         {{"PERSPECTIVE", Projection::kPerspective}, {"SPHERICAL", Projection::kSpherical}});
  DefineEnum<Element>(m, "IntEnum", "Element",
                      "Parameters of a surface layer. The two unnamed ones have no keyword in scene text.",
                      {{"LAMBERTIAN", Element::kLambertian},
                       {"TRANSMISSIVE", Element::kTransmissive},
                       {"GLOSSY", Element::kGlossy},
                       {"SPECULAR", Element::kSpecular},
                       {"EMISSIVE", Element::kEmissive},
                       {"DIFFUSION", Element::kDiffusion},
                       {"SHADOW_TRANSPARENCY", Element::kShadowTransparency},
                       {"NORMAL", Element::kNormal},
                       {"WEIGHT", Element::kWeight},
                       {"ANISOTROPY", Element::kAnisotropy},
                       {"ROUGHNESS", Element::kRoughness},
                       {"ANGLE", Element::kAngle},
                       {"IOR", Element::kIor},
                       {"UNNAMED13", Element::kUnnamed13},
                       {"THICKNESS", Element::kThickness},
                       {"UNNAMED15", Element::kUnnamed15}});
  DefineEnum<Material>(m, "IntEnum", "Material", "What light does at a surface with a specular colour.",
                       {{"CONDUCTOR", Material::kConductor},
                        {"DIELECTRIC", Material::kDielectric},
                        {"THIN_DIELECTRIC", Material::kThinDielectric}});
  DefineEnum<Sideness>(m, "IntEnum", "Sideness", "The side of a surface that a layer covers.",
                       {{"FACE", Sideness::kFace}, {"BACK", Sideness::kBack}, {"BOTH", Sideness::kBoth}});
  DefineEnum<Visibility>(m, "IntEnum", "Visibility", "Who sees what a shader covers.",
                         {{"INVISIBLE", Visibility::kInvisible},
                          {"NOT_LIGHT_PRIMARY", Visibility::kNotLightPrimary},
                          {"NOT_CAMERA_PRIMARY", Visibility::kNotCameraPrimary},
                          {"ALL", Visibility::kAll}});
}

// Raises FileNotFoundError and its kin. Inside a long call.
void RequireFolder(const char* path) {
  if (DIR* folder = opendir(path)) {
    closedir(folder);
    return;
  }
  const int reason = errno;
  const py::gil_scoped_acquire lock;
  errno = reason;
  PyErr_SetFromErrnoWithFilename(PyExc_OSError, path);
  throw py::error_already_set();
}

constexpr const char* kFormatVariable = "ZP_FORMAT";

// The library takes a format from the environment alone, which is as it was afterwards.
void Startup(std::optional<int> format) {
  if (format && *format != 1 && *format != 2)
    throw py::value_error("zp.startup: there are the formats 1 and 2, not " + std::to_string(*format));
  const char* const found = std::getenv(kFormatVariable);
  const std::optional<std::string> kept = found ? std::optional<std::string>(found) : std::nullopt;
  if (format) setenv(kFormatVariable, std::to_string(*format).c_str(), 1);
  zpStartup();
  if (format && kept) setenv(kFormatVariable, kept->c_str(), 1);
  if (format && !kept) unsetenv(kFormatVariable);
}
void Go(const char* folder) {
  RequireFolder(folder);
  zpGo(folder);
}

void DefineLifeCycle(py::module_& m) {
  DefineLong(m, "startup", Startup, "format"_a = py::none(),
             "Prints the banner, fills tables, sets defaults.\nFirst of all calls; go includes it.\n"
             "format: the rules, 1 or 2, others raise ValueError; without it the environment variable "
             "ZP_FORMAT tells, or else 1.");
  DefineLong(m, "shutdown", zpShutdown, "Last of all calls. startup may follow for another scene.");
  DefineLong(m, "go", Go, "folder"_a,
             "Renders one scene folder from startup to shutdown; nothing else is called around it.\n"
             "Images are written to the working directory. Raises FileNotFoundError or another OSError\n"
             "for a folder that cannot be read.");
  DefineLong(m, "initialize", zpInitialize,
             "Readies all that was added: cameras, shaders, accelerator, lights, renderer (photons, too).\n"
             "After all additions, before render.");
  DefineLong(m, "finalize", zpFinalize,
             "Writes all images once more and empties all tables; indices are void from here on.");
  DefineLong(m, "initialize_cameras", zpInitializeCameras,
             "Limits cameras, makes their images black.\nThe parts of initialize follow the order: cameras, "
             "shaders; gaffer, sky light, accelerator; renderer.");
  DefineLong(m, "finalize_cameras", zpFinalizeCameras,
             "Writes the images of all cameras, empties the table.");
  DefineLong(m, "initialize_shaders", zpInitializeShaders,
             "Loads textures, fills shaders without layers from the shader \"undefined\".");
  DefineLong(m, "finalize_shaders", zpFinalizeShaders, "Empties the table of shaders.");
  DefineLong(m, "initialize_gaffer", zpInitializeGaffer, "Readies point and parallel lights.");
  DefineLong(m, "finalize_gaffer", zpFinalizeGaffer,
             "Writes the images of point and parallel lights, empties both tables.");
  DefineLong(m, "initialize_sky_light", zpInitializeSkyLight, "Loads the sky's images, tables their light.");
  DefineLong(m, "finalize_sky_light", zpFinalizeSkyLight,
             "Writes the sky's images, puts its defaults back but for image and backdrop.");
  DefineLong(m, "initialize_geometry_light", zpInitializeGeometryLight,
             "The same as initialize_sky_light, on purpose.\n"
             "The geometry light is readied by initialize, or by initialize_renderer if it was not.");
  DefineLong(m, "finalize_geometry_light", zpFinalizeGeometryLight,
             "The same as finalize_sky_light, on purpose.");
  DefineLong(m, "initialize_accelerator", zpInitializeAccelerator,
             "Prepares all objects and builds the trees that rays walk.");
  DefineLong(m, "finalize_accelerator", zpFinalizeAccelerator, "Empties the table of objects.");
  DefineLong(m, "initialize_renderer", zpInitializeRenderer, "Limits the settings, casts photons.");
  DefineLong(m, "finalize_renderer", zpFinalizeRenderer,
             "Drops photons; puts ray depth, photon depth, sample and radius back; in format 2 distance and "
             "resolution.");
}

// One pass as a new array; `out` of zpRenderPixels.
py::array_t<float> RenderPixels(int width, int height, int pass) {
  if (width < 1 || height < 1 || width > std::numeric_limits<int>::max() / height)
    throw py::value_error(
        "zp.render_pixels: width and height must be at least 1, their product a 32-bit "
        "number, not " +
        std::to_string(width) + " and " + std::to_string(height));
  RequireIdle();
  RequireFrame("render_pixels", width, height);
  py::array_t<float> pixels(std::vector<py::ssize_t>{height, width, 3});
  float* out = pixels.mutable_data();
  {
    const LongCall call;
    std::fill_n(out, 3 * static_cast<std::size_t>(width) * static_cast<std::size_t>(height), 0.0f);
    zpRenderPixels(width * height, out, pass);
  }
  RaiseOfSignals();
  return pixels;
}

void DefineRendering(py::module_& m) {
  DefineLong(
      m, "render", zpRender,
      "Renders all passes of the first camera and writes the images. Between initialize and finalize.\n"
      "Afterwards the lights are gone: another render takes another scene.");
  m.def("render_pixels", RenderPixels, "width"_a, "height"_a, "pass_index"_a,
        "Renders one pass; returns an array [height, width, 3] of float32, linear RGB, top row first.\n"
        "width, height: those of the first camera's region; others raise ValueError. The mean of all passes "
        "is\n"
        "the picture.\n"
        "Adds to the camera's other images, as render does. Before render, which puts the lights away.");
  Define(m, "set_preview_window", zpSetPreviewWindow, py::arg("show").noconvert(),
         "Whether render and go open a window. Default False.");
  Define(m, "set_display_gamma", zpSetDisplayGamma, "gamma"_a, "Kept, without effect. Default 2.2.");
  Define(m, "set_renderer_clamp", zpSetRendererClamp, "r"_a, "g"_a, "b"_a,
         "Upper limit of a sample's radiance. Default 3.4e38. A second scene inherits it.");
  Define(m, "set_renderer_error", zpSetRendererError, "r"_a, "g"_a, "b"_a,
         "Colour of a sample that is no finite number. Default black. A second scene inherits it.");
  Define(m, "set_renderer_ray_depth", zpSetRendererRayDepth, "depth"_a,
         "A ray of this depth or more is black. 1 to 255, default 8.");
  Define(m, "set_renderer_photon_depth", zpSetRendererPhotonDepth, "depth"_a,
         "A photon's path longer than this stops. 1 to 255, default 8.");
  Define(m, "set_renderer_sample", zpSetRendererSample, "sample"_a,
         "Indirect rays of a first hit over all passes. Default 64. In format 2 in each pass, default 1.");
  Define(m, "set_renderer_bounce", zpSetRendererBounce, "bounce"_a,
         "Diffuse bounces before a path stops or photons answer. From 1, default 1. A second scene inherits "
         "it.");
  Define(
      m, "set_renderer_distance", zpSetRendererDistance, "distance"_a,
      "Final gathering: hits nearer than this, scene units, are gathered further. Default 1, in format 2 0.\n"
      "0 turns final gathering off: path tracing. In format 1 a second scene inherits it.");
  Define(m, "set_renderer_resolution", zpSetRendererResolution, "resolution"_a,
         "Final gathering: area of one density cell, scene units squared. Default 1, in format 2 0; 0 turns "
         "it off.\n"
         "In format 1 a second scene inherits it.");
  Define(
      m, "set_renderer_radius", zpSetRendererRadius, "radius"_a,
      "Radius of the photon gather, scene units. Default 1, in format 2 0.005 of the diagonal of the scene.");
}

}  // namespace
}  // namespace zp::python

PYBIND11_MODULE(_zp, module) {
  module.doc() = "The functions of the library zp.";
  module.attr("__version__") = ZP_VERSION;
  zp::python::DefineEnums(module);
  zp::python::DefineLifeCycle(module);
  zp::python::DefineRendering(module);
  zp::python::DefineGeometry(module);
  zp::python::DefineShaders(module);
  zp::python::DefineCameras(module);
  zp::python::DefineLights(module);
  zp::python::DefinePictures(module);
  zp::python::DefineFrames(module);
}
