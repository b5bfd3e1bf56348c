// frame/exported_records.h: what the exported functions share: indices and strings of a host.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "geometry/object.h"
#include "imaging/imaging.h"
#include "shading/shading.h"

namespace zp {

// The record of that index; null when there is none.
template <class T>
T* At(std::vector<T>& table, int index) {
  return index < 0 || static_cast<std::size_t>(index) >= table.size()
             ? nullptr
             : &table[static_cast<std::size_t>(index)];
}

// Appends a default record and returns its index.
template <class T>
int Append(std::vector<T>& table) {
  table.emplace_back();
  return static_cast<int>(table.size()) - 1;
}

// Whether an enumerator of the interface and one of the library pass for each other: hosts and tables
// exchange them by value.
template <class Public, class Internal>
constexpr bool Agree(Public a, Internal b) {
  return sizeof(Public) == 4 && sizeof(Internal) == 4 &&
         static_cast<std::int64_t>(a) == static_cast<std::int64_t>(b);
}

inline std::string Text(const char* text) { return text == nullptr ? std::string() : std::string(text); }

inline Part* PartAt(int object, int part) {
  Object* record = At(objectTable, object);
  return record == nullptr ? nullptr : At(record->parts, part);
}
inline SurfaceShader* LayerAt(int shader, int layer) {
  Shader* record = At(shaders, shader);
  return record == nullptr ? nullptr : At(record->surfaces, layer);
}
inline ImageSlot* DisplacementAt(int shader, int layer) {
  Shader* record = At(shaders, shader);
  return record == nullptr ? nullptr : At(record->geometry.vector, layer);
}
inline Aov* CameraAovAt(int camera, int aov) {
  Camera* record = At(cameras, camera);
  return record == nullptr ? nullptr : At(record->aovs, aov);
}

}  // namespace zp
