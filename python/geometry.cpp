// Objects, Parts and Instances.

#include "tables.h"

namespace zp::python {
namespace {

using namespace py::literals;

// The arrays of a Part; width 0 stands for the shape [n].
struct ElementRow {
  const char* name;
  const char* argument;
  int width;
  const char* text;
};

const char* ShapeOf(int width) {
  constexpr const char* kShapes[] = {"[n]", "[n, 1]", "[n, 2]", "[n, 3]", "[n, 4]"};
  return kShapes[width];
}

// An empty array has no more to say: [] is as good as one of no rows.
void RequireShape(const py::array& array, Wanted wanted, int width) {
  const bool fits = width == 0 ? array.ndim() == 1 : array.ndim() == 2 && array.shape(1) == width;
  const bool empty = array.ndim() == 1 && array.size() == 0;
  if (!fits && !empty) RaiseShape(array, wanted, ShapeOf(width));
}

void DefineFloats(py::module_& m, void (*function)(int, int, int, const float*), ElementRow row) {
  m.def(
      row.name,
      [=](int object, int part, const ArrayLike& data) {
        RequireIdle();
        RequireRecord(row.name, kParts, {object, part});
        const Wanted wanted = {row.name, row.argument};
        const py::array array = ToArray(data, wanted, ShapeOf(row.width), "biuf");
        RequireShape(array, wanted, row.width);
        const Floats numbers = ToFloats(array, wanted);
        function(object, part, CountOf(array, wanted), numbers.data());
      },
      "object"_a, "part"_a, py::arg(row.argument), row.text);
}

void DefineIntegers(py::module_& m, void (*function)(int, int, int, const int*), ElementRow row) {
  m.def(
      row.name,
      [=](int object, int part, const ArrayLike& data) {
        RequireIdle();
        RequireRecord(row.name, kParts, {object, part});
        const Wanted wanted = {row.name, row.argument};
        const py::array array = ToArray(data, wanted, ShapeOf(row.width), "iu");
        RequireShape(array, wanted, row.width);
        const Integers numbers = ToIntegers(array, wanted);
        function(object, part, CountOf(array, wanted), numbers.data());
      },
      "object"_a, "part"_a, py::arg(row.argument), row.text);
}

// The kind of zpAddVertexData is the number of columns.
void AddVertexData(int object, int part, const Name& name, const ArrayLike& values) {
  RequireIdle();
  RequireRecord("add_vertex_data", kParts, {object, part});
  const Wanted wanted = {"add_vertex_data", "values"};
  const char* shape = "[n], [n, 2] or [n, 3]";
  const py::array array = ToArray(values, wanted, shape, "biuf");
  const bool scalar = array.ndim() == 1;
  if (!scalar && (array.ndim() != 2 || array.shape(1) < 2 || array.shape(1) > 3))
    RaiseShape(array, wanted, shape);
  const Floats numbers = ToFloats(array, wanted);
  zpAddVertexData(object, part, name.bytes.c_str(), CountOf(array, wanted),
                  scalar ? 1 : static_cast<int>(array.shape(1)), numbers.data());
}

void SetInstance(int object, int instance, int target, const ArrayLike& matrix, int shader) {
  RequireIdle();
  RequireRecord("set_instance", kInstances, {object, instance});
  zpSetInstance(object, instance, target, ToMatrix<4>(matrix, {"set_instance", "matrix"}).Hand(), shader);
}

}  // namespace

void DefineGeometry(py::module_& m) {
  DefineAdd<kObjects>(m, "add_object", zpAddObject, "Appends an object and returns its index.");
  DefineSetter<kObjects>(m, "set_object_name", zpSetObjectName, "object"_a, "name"_a,
                         "Free text. Default empty.");
  DefineAdd<kParts>(m, "add_part", zpAddPart, "object"_a,
                    "Appends a part to an object and returns its index.");
  DefineSetter<kParts>(
      m, "set_shader_id", zpSetShaderID, "object"_a, "part"_a, "shader"_a,
      "The shader of the triangles and tetragons that are added next. Default 0, \"undefined\".");
  DefineFloats(m, zpAddPositions,
               {"add_positions", "positions", 3,
                "positions: [n, 3], scene units, appended. The vertices that all else counts from 0."});
  DefineFloats(
      m, zpAddNormals,
      {"add_normals", "normals", 3, "normals: [n, 3], one a vertex, of any length; kept in 3 bytes."});
  DefineFloats(
      m, zpAddTangents,
      {"add_tangents", "tangents", 3, "tangents: [n, 3], one a vertex, of any length; kept in 3 bytes."});
  DefineFloats(m, zpAddUVs, {"add_uvs", "uvs", 2, "uvs: [n, 2], one a vertex."});
  DefineFloats(
      m, zpAddRadii,
      {"add_radii", "radii", 0, "radii: [n], one a vertex, scene units, of cylinders and particles."});
  DefineIntegers(
      m, zpAddTriangles,
      {"add_triangles", "triangles", 3,
       "triangles: [n, 3] vertices, counter-clockwise seen from the face. Wrong ones are dropped."});
  DefineIntegers(m, zpAddTetragons,
                 {"add_tetragons", "tetragons", 4,
                  "tetragons: [n, 4] vertices around the rim, counter-clockwise seen from the face."});
  DefineIntegers(m, zpAddCylinders,
                 {"add_cylinders", "cylinders", 0,
                  "cylinders: [n], the first vertex of each segment, which runs to the next vertex."});
  DefineIntegers(m, zpAddParticles, {"add_particles", "particles", 0, "particles: [n], the vertex of each."});
  m.def("add_vertex_data", AddVertexData, "object"_a, "part"_a, "name"_a, "values"_a,
        "values: [n], [n, 2] or [n, 3], one a vertex or none; a new set of that name.\n"
        "\"motion\" [n, 3] moves vertices over the frame; an AOV of user data shows the set it names.");
  DefineAdd<kInstances>(m, "add_instance", zpAddInstance, "object"_a,
                        "Appends an instance to an object and returns its index.");
  m.def("set_instance", SetInstance, "object"_a, "instance"_a, "target"_a, "matrix"_a = py::none(),
        "shader"_a = -1,
        "Places the object `target` in `object`.\nmatrix: [4, 4], target to object, for columns: the "
        "translation is its last column. None keeps the stored one,\nat first the identity. shader: -1 keeps "
        "the target's own.");
}

}  // namespace zp::python
