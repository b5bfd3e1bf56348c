// frame/exported_records.h: what the exported functions share: indices and strings of a host.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/index.h"
#include "geometry/object.h"
#include "imaging/imaging.h"
#include "shading/shading.h"

namespace zp {

// The record of that index; null when there is none.
template <class T>
T* RecordAt(std::vector<T>& table, int index) {
  return IsIndex(table, index) ? &At(table, index) : nullptr;
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
  Object* record = RecordAt(objectTable, object);
  return record == nullptr ? nullptr : RecordAt(record->parts, part);
}
// For a host to change: what was derived of the layer may hold no more.
inline SurfaceShader* LayerAt(int shader, int layer) {
  Shader* record = RecordAt(shaders, shader);
  SurfaceShader* surface = record == nullptr ? nullptr : RecordAt(record->surfaces, layer);
  if (surface != nullptr) {
    surface->even = {};
    record->isTurned = record->readsUv = true;
  }
  return surface;
}
inline ImageSlot* DisplacementAt(int shader, int layer) {
  Shader* record = RecordAt(shaders, shader);
  return record == nullptr ? nullptr : RecordAt(record->geometry.vector, layer);
}
inline Aov* CameraAovAt(int camera, int aov) {
  Camera* record = RecordAt(cameras, camera);
  return record == nullptr ? nullptr : RecordAt(record->aovs, aov);
}

}  // namespace zp
