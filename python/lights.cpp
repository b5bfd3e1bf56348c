// Point and parallel lights, the sky light, the geometry light, and their AOVs.

#include "tables.h"

namespace zp::python {
namespace {

using namespace py::literals;

// What several lights share.
constexpr const char* kLinkText =
    "Restricts the light to this shader and those linked before; without any it lights everything.";
constexpr const char* kOffsetText = "Softens the terminator of Lambertian surfaces: a cosine. Default 0.1.";
constexpr const char* kSampleText =
    "Shadow rays of a first hit over all passes, in format 2 in each pass. Default 1.";
constexpr const char* kPhotonText = "Number of photons. Default 0.";
constexpr const char* kAddAovText = "Appends an image of this light and returns its index.";
constexpr const char* kChannelText =
    "Adds channels to those that the image records, at first BEAUTY; unlike a camera's, on purpose.";
constexpr const char* kFileText = "The file to write. Default none.";

void DefineGaffer(py::module_& m) {
  DefineAdd<kPointLights>(
      m, "add_point_light", zpAddPointLight,
      "Appends a point light and returns its index.\n"
      "By default a spot that fades from +y to -y: set the inner angle to 180 for one that lights all "
      "sides.");
  DefineSetter<kPointLights>(
      m, "set_point_light_color", zpSetPointLightColor, "light"_a, "r"_a, "g"_a, "b"_a,
      "Linear RGB: a surface that faces it at a distance d receives pi * color / d^2. Default 1.");
  DefineSetter<kPointLights>(m, "set_point_light_position", zpSetPointLightPosition, "light"_a, "x"_a, "y"_a,
                             "z"_a, "Scene units. Default the origin.");
  DefineSetter<kPointLights>(m, "set_point_light_direction", zpSetPointLightDirection, "light"_a, "x"_a,
                             "y"_a, "z"_a, "Axis of the spot, of any length. Default +y.");
  DefineSetter<kPointLights>(m, "set_point_light_blur", zpSetPointLightBlur, "light"_a, "radius"_a,
                             "Radius of a sphere of light, scene units, for soft shadows. Default 0.");
  DefineSetter<kPointLights>(m, "set_point_light_offset", zpSetPointLightOffset, "light"_a, "offset"_a,
                             kOffsetText);
  DefineSetter<kPointLights>(m, "set_point_light_inner_angle", zpSetPointLightInnerAngle, "light"_a,
                             "degrees"_a, "Off the axis: full light up to here. Default 0.");
  DefineSetter<kPointLights>(m, "set_point_light_outer_angle", zpSetPointLightOuterAngle, "light"_a,
                             "degrees"_a,
                             "Off the axis: no light from here, between the two angles linear. Default 180.");
  DefineSetter<kPointLights>(m, "set_point_light_sample", zpSetPointLightSample, "light"_a, "sample"_a,
                             kSampleText);
  DefineSetter<kPointLights>(m, "set_point_light_photon", zpSetPointLightPhoton, "light"_a, "photon"_a,
                             kPhotonText);
  DefineSetter<kPointLights>(m, "set_point_light_shader_link", zpSetPointLightShaderLink, "light"_a,
                             "shader"_a, kLinkText);
  DefineAdd<kPointAovs>(m, "add_point_light_aov", zpAddPointLightAOV, "light"_a, kAddAovText);
  DefineSetter<kPointAovs>(m, "set_point_light_aov_channel", zpSetPointLightAOVChannel, "light"_a, "aov"_a,
                           "channel"_a, kChannelText);
  DefineSetter<kPointAovs, Path>(m, "set_point_light_aov_name", zpSetPointLightAOVName, "light"_a, "aov"_a,
                                 "name"_a, kFileText);

  DefineAdd<kParallelLights>(m, "add_parallel_light", zpAddParallelLight,
                             "Appends a light from infinitely far away and returns its index.");
  DefineSetter<kParallelLights>(
      m, "set_parallel_light_color", zpSetParallelLightColor, "light"_a, "r"_a, "g"_a, "b"_a,
      "Linear RGB: a surface that faces it receives the irradiance pi * color. Default 1.");
  DefineSetter<kParallelLights>(m, "set_parallel_light_direction", zpSetParallelLightDirection, "light"_a,
                                "x"_a, "y"_a, "z"_a,
                                "The way the light travels, of any length. No default: state it.");
  DefineSetter<kParallelLights>(m, "set_parallel_light_blur", zpSetParallelLightBlur, "light"_a, "degrees"_a,
                                "Half angle of the cone of directions. Default 0.");
  DefineSetter<kParallelLights>(m, "set_parallel_light_offset", zpSetParallelLightOffset, "light"_a,
                                "offset"_a, kOffsetText);
  DefineSetter<kParallelLights>(m, "set_parallel_light_sample", zpSetParallelLightSample, "light"_a,
                                "sample"_a, kSampleText);
  DefineSetter<kParallelLights>(m, "set_parallel_light_photon", zpSetParallelLightPhoton, "light"_a,
                                "photon"_a, kPhotonText);
  DefineSetter<kParallelLights>(m, "set_parallel_light_shader_link", zpSetParallelLightShaderLink, "light"_a,
                                "shader"_a, kLinkText);
  DefineAdd<kParallelAovs>(m, "add_parallel_light_aov", zpAddParallelLightAOV, "light"_a, kAddAovText);
  DefineSetter<kParallelAovs>(m, "set_parallel_light_aov_channel", zpSetParallelLightAOVChannel, "light"_a,
                              "aov"_a, "channel"_a, kChannelText);
  DefineSetter<kParallelAovs, Path>(m, "set_parallel_light_aov_name", zpSetParallelLightAOVName, "light"_a,
                                    "aov"_a, "name"_a, kFileText);
}

void DefineSkyAndGeometryLight(py::module_& m) {
  Define(m, "set_sky_light_color", zpSetSkyLightColor, "r"_a, "g"_a, "b"_a,
         "Radiance of the sky, linear RGB, or a factor of its image. Default 0.75.");
  Define(m, "set_sky_light_north", zpSetSkyLightNorth, "x"_a, "y"_a, "z"_a,
         "Turns the sky's image. Default +y.");
  Define(m, "set_sky_light_zenith", zpSetSkyLightZenith, "x"_a, "y"_a, "z"_a,
         "Up for the sky's image. Default +z.");
  Define<Path>(m, "set_sky_light_image", zpSetSkyLightImage, "path"_a,
               "A latitude-longitude picture, or \"analytic\" for a clear sky. Default none.\n"
               "Kept by finalize: a second scene inherits it.");
  Define<Path>(m, "set_sky_light_backdrop", zpSetSkyLightBackdrop, "path"_a,
               "A latitude-longitude picture that camera rays see instead of the sky. Default none.\n"
               "Kept by finalize: a second scene inherits it.");
  Define(m, "set_sky_light_sample", zpSetSkyLightSample, "sample"_a,
         "Shadow rays of a first hit towards the sky's image over all passes. Default 64.\n"
         "In format 2 in each pass, default 1.");
  Define(m, "set_sky_light_photon", zpSetSkyLightPhoton, "photon"_a,
         "Number of photons. Default 1000000, which takes time: 0 where there is no final gathering.");
  Define(m, "set_sky_light_shader_link", zpSetSkyLightShaderLink, "shader"_a, kLinkText);
  DefineAdd<kSkyAovs>(m, "add_sky_light_aov", zpAddSkyLightAOV,
                      "Appends an image of the sky light and returns its index.");
  DefineSetter<kSkyAovs>(m, "set_sky_light_aov_channel", zpSetSkyLightAOVChannel, "aov"_a, "channel"_a,
                         kChannelText);
  DefineSetter<kSkyAovs, Path>(m, "set_sky_light_aov_name", zpSetSkyLightAOVName, "aov"_a, "name"_a,
                               kFileText);

  Define(m, "set_geometry_light_sample", zpSetGeometryLightSample, "sample"_a,
         "Shadow rays of a first hit to surfaces with virtual light, over all passes. Default 0.\n"
         "In format 2 in each pass, default 1.");
  Define(m, "set_geometry_light_photon", zpSetGeometryLightPhoton, "photon"_a,
         "Number of photons of emissive surfaces. Default 1000000.");
  Define(m, "set_geometry_light_shader_link", zpSetGeometryLightShaderLink, "shader"_a, kLinkText);
  DefineAdd<kGeometryAovs>(m, "add_geometry_light_aov", zpAddGeometryLightAOV,
                           "Appends an image of the geometry light and returns its index.");
  DefineSetter<kGeometryAovs>(m, "set_geometry_light_aov_channel", zpSetGeometryLightAOVChannel, "aov"_a,
                              "channel"_a, kChannelText);
  DefineSetter<kGeometryAovs, Path>(m, "set_geometry_light_aov_name", zpSetGeometryLightAOVName, "aov"_a,
                                    "name"_a, kFileText);
  DefineSetter<kGeometryAovs>(
      m, "set_geometry_light_aov_shader_name", zpSetGeometryLightAOVShaderName, "aov"_a, "name"_a,
      "Only light from the shader of this name goes to the image. Default empty: from all.");
}

}  // namespace

void DefineLights(py::module_& m) {
  DefineGaffer(m);
  DefineSkyAndGeometryLight(m);
}

}  // namespace zp::python
