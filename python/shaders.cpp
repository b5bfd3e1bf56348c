// Shaders and their layers.

#include "tables.h"

namespace zp::python {
namespace {

using namespace py::literals;

void SetSurfaceImage(int shader, int layer, Element element, const Path& path, float gamma,
                     const ArrayLike& color, const ArrayLike& uv) {
  RequireIdle();
  RequireRecord("set_surface_image", kSurfaces, {shader, layer});
  const auto colorMatrix = ToMatrix<4>(color, {"set_surface_image", "color"});
  const auto uvMatrix = ToMatrix<3>(uv, {"set_surface_image", "uv"});
  zpSetSurfaceImage(shader, layer, element, path.bytes.c_str(), gamma, colorMatrix.Hand(), uvMatrix.Hand());
}

void SetDisplacementImage(int shader, int layer, const Path& path, float gamma, const ArrayLike& color,
                          const ArrayLike& uv) {
  RequireIdle();
  RequireRecord("set_displacement_image", kDisplacements, {shader, layer});
  const auto colorMatrix = ToMatrix<4>(color, {"set_displacement_image", "color"});
  const auto uvMatrix = ToMatrix<3>(uv, {"set_displacement_image", "uv"});
  zpSetDisplacementImage(shader, layer, path.bytes.c_str(), gamma, colorMatrix.Hand(), uvMatrix.Hand());
}

}  // namespace

void DefineShaders(py::module_& m) {
  DefineAdd<kShaders>(m, "add_shader", zpAddShader,
                      "Appends a shader and returns its index; 0 is \"undefined\", grey 0.85, of startup.\n"
                      "One without layers looks like \"undefined\".");
  DefineSetter<kShaders>(m, "set_shader_name", zpSetShaderName, "shader"_a, "name"_a,
                         "What AOVs and scene text call it. Default \"undefined\".");
  DefineSetter<kShaders>(m, "set_shader_visibility", zpSetShaderVisibility, "shader"_a, "visibility"_a,
                         "Default ALL.");
  DefineSetter<kShaders>(
      m, "set_shader_smooth_angle", zpSetShaderSmoothAngle, "shader"_a, "degrees"_a,
      "Faces that meet at less than this angle get smooth normals. Default -1 keeps the given ones.");
  DefineSetter<kShaders>(m, "set_shader_round_corner", zpSetShaderRoundCorner, "shader"_a, "radius"_a,
                         "Limited to 0 to 1 and otherwise without effect. Default 1.");
  DefineSetter<kShaders>(m, "set_shader_time", zpSetShaderTime, "shader"_a, "time"_a,
                         "Without any effect, on purpose.");
  DefineAdd<kSurfaces>(m, "add_surface_shader", zpAddSurfaceShader, "shader"_a,
                       "Appends a layer to a shader and returns its index.\n"
                       "A side with several layers is a mixture of them in proportion to their WEIGHT.");
  DefineSetter<kSurfaces>(m, "set_surface_color", zpSetSurfaceColor, "shader"_a, "layer"_a, "element"_a,
                          "r"_a, "g"_a, "b"_a,
                          "The value of an element, linear RGB; scalars such as IOR have it in all three.\n"
                          "Default black, but 1 of NORMAL, IOR and UNNAMED13.");
  m.def("set_surface_image", SetSurfaceImage, "shader"_a, "layer"_a, "element"_a, "path"_a, "gamma"_a = 1.0f,
        "color"_a = py::none(), "uv"_a = py::none(),
        "An image that multiplies the element's colour: on black it shows nothing.\n"
        "gamma: exponent of each texel component. color: [4, 4], uv: [3, 3]; in format 1 kept, but not "
        "applied.");
  DefineSetter<kSurfaces>(m, "set_surface_material", zpSetSurfaceMaterial, "shader"_a, "layer"_a,
                          "material"_a, "Default CONDUCTOR.");
  DefineSetter<kSurfaces>(m, "set_surface_sideness", zpSetSurfaceSideness, "shader"_a, "layer"_a,
                          "sideness"_a, "Default BOTH.");
  DefineSetter<kSurfaces>(
      m, "set_surface_virtual_light", zpSetSurfaceVirtualLight, "shader"_a, "layer"_a,
      py::arg("on").noconvert(),
      "Whether an emissive layer is sampled as a light; see set_geometry_light_sample. Default False.\n"
      "In format 1 right only for lamps of pi / 18481 square units, some 50 times too dark at one: leave it\n"
      "off there, or take a point light with a blur.");
  DefineAdd<kDisplacements>(m, "add_displacement_shader", zpAddDisplacementShader, "shader"_a,
                            "Appends a displacement layer and returns its index.");
  m.def("set_displacement_image", SetDisplacementImage, "shader"_a, "layer"_a, "path"_a, "gamma"_a = 1.0f,
        "color"_a = py::none(), "uv"_a = py::none(),
        "The image of a displacement layer; gamma, color [4, 4] and uv [3, 3] as in set_surface_image.");
  DefineSetter<kDisplacements>(
      m, "set_displacement_level", zpSetDisplacementLevel, "shader"_a, "layer"_a, "level"_a,
      "How finely triangles are split before they move: the rows along an edge. Default 1.");
  DefineSetter<kDisplacements>(
      m, "set_displacement_vector", zpSetDisplacementVector, "shader"_a, "layer"_a, "x"_a, "y"_a, "z"_a,
      "The move along tangent, bitangent and normal, scene units; times (image - 0.5) with an image. "
      "Default 0.");
}

}  // namespace zp::python
