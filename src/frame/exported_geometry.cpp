// Objects, Parts and Instances, as a host fills them.

#include "frame/exported_records.h"
#include "frame/zp.h"

using namespace zp;

namespace {

// Calls append(part, first number of element i) for each of `count` elements of `width` numbers.
template <class Number, class Append>
void ForEachElement(int object, int part, int count, const Number* data, std::size_t width, Append append) {
  Part* record = PartAt(object, part);
  if (record == nullptr || data == nullptr || count < 1) return;
  for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) append(*record, data + i * width);
}

Vec3 ToVec3(const float* p) { return {p[0], p[1], p[2]}; }
Vec2 ToVec2(const float* p) { return {p[0], p[1]}; }
// Negative ones become the largest, which initialisation drops.
std::uint32_t ToIndex(int i) { return static_cast<std::uint32_t>(i); }

template <class T, class Convert>
VertexSet<T> MakeSet(std::string name, std::size_t count, const float* data, std::size_t width,
                     Convert convert) {
  VertexSet<T> set{std::move(name), {}};
  set.values.reserve(count);
  for (std::size_t i = 0; i < count; ++i) set.values.push_back(convert(data + i * width));
  return set;
}

}  // namespace

int zpAddObject() noexcept { return Append(objectTable); }

void zpSetObjectName(int object, const char* name) noexcept {
  if (Object* record = RecordAt(objectTable, object)) record->name = Text(name);
}

int zpAddPart(int object) noexcept {
  Object* record = RecordAt(objectTable, object);
  return record == nullptr ? kNone : Append(record->parts);
}

void zpSetShaderID(int object, int part, int shader) noexcept {
  if (Part* record = PartAt(object, part)) record->shader = shader;
}

void zpAddPositions(int object, int part, int count, const float* data) noexcept {
  ForEachElement(object, part, count, data, 3,
                 [](Part& p, const float* element) { p.positions.push_back(ToVec3(element)); });
}

void zpAddNormals(int object, int part, int count, const float* data) noexcept {
  ForEachElement(object, part, count, data, 3,
                 [](Part& p, const float* element) { p.normals.push_back(Pack(ToVec3(element))); });
}

void zpAddTangents(int object, int part, int count, const float* data) noexcept {
  ForEachElement(object, part, count, data, 3,
                 [](Part& p, const float* element) { p.tangents.push_back(Pack(ToVec3(element))); });
}

void zpAddUVs(int object, int part, int count, const float* data) noexcept {
  ForEachElement(object, part, count, data, 2,
                 [](Part& p, const float* element) { p.uvSets[0].values.push_back(ToVec2(element)); });
}

void zpAddRadii(int object, int part, int count, const float* data) noexcept {
  ForEachElement(object, part, count, data, 1,
                 [](Part& p, const float* element) { p.scalarSets[0].values.push_back(*element); });
}

void zpAddTriangles(int object, int part, int count, const int* data) noexcept {
  ForEachElement(object, part, count, data, 3, [](Part& p, const int* v) {
    p.triangles.push_back({{ToIndex(v[0]), ToIndex(v[1]), ToIndex(v[2])}, p.shader});
  });
}

void zpAddTetragons(int object, int part, int count, const int* data) noexcept {
  ForEachElement(object, part, count, data, 4, [](Part& p, const int* v) {
    p.tetragons.push_back({{ToIndex(v[0]), ToIndex(v[1]), ToIndex(v[2]), ToIndex(v[3])}, p.shader});
  });
}

void zpAddCylinders(int object, int part, int count, const int* data) noexcept {
  ForEachElement(object, part, count, data, 1,
                 [](Part& p, const int* v) { p.cylinders.push_back(ToIndex(*v)); });
}

void zpAddParticles(int object, int part, int count, const int* data) noexcept {
  ForEachElement(object, part, count, data, 1,
                 [](Part& p, const int* v) { p.particles.push_back(ToIndex(*v)); });
}

void zpAddVertexData(int object, int part, const char* name, int count, int kind,
                     const float* data) noexcept {
  Part* record = PartAt(object, part);
  if (record == nullptr) return;
  const std::size_t size = count < 1 || data == nullptr ? 0 : static_cast<std::size_t>(count);
  if (kind == 1)
    record->scalarSets.push_back(
        MakeSet<float>(Text(name), size, data, 1, [](const float* p) { return *p; }));
  else if (kind == 2)
    record->uvSets.push_back(MakeSet<Vec2>(Text(name), size, data, 2, ToVec2));
  else
    record->vectorSets.push_back(MakeSet<Vec3>(Text(name), size, data, 3, ToVec3));
}

int zpAddInstance(int object) noexcept {
  Object* record = RecordAt(objectTable, object);
  return record == nullptr ? kNone : Append(record->instances);
}

void zpSetInstance(int object, int instance, int target, const float matrix[][4], int shader) noexcept {
  Object* record = RecordAt(objectTable, object);
  Instance* placed = record == nullptr ? nullptr : RecordAt(record->instances, instance);
  if (placed == nullptr) return;
  placed->object = target;
  placed->shader = shader;
  if (matrix == nullptr) return;
  for (int row = 0; row < 4; ++row)
    for (int column = 0; column < 4; ++column) placed->matrix.m[row][column] = matrix[row][column];
}
