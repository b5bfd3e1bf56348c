// import/gltf_primitive.h: the vertices and faces of a primitive of glTF 2, compressed or not.

#pragma once

#include <memory>

#include "gltf_file.h"

namespace zp {

struct UnpackedMesh;  // of KHR_draco_mesh_compression

struct GltfPrimitive {
  const GltfFile& file;
  const nlohmann::json& text;
  std::shared_ptr<const UnpackedMesh> unpacked;  // null where nothing is compressed
};

// Unpacks what is compressed.
GltfPrimitive OpenPrimitive(const GltfFile& file, const nlohmann::json& text);
// 0 where the primitive has no attribute of that name.
std::size_t ComponentsOf(const GltfPrimitive& primitive, const char* name);
// With as many numbers for each vertex as are asked for; empty where there is no such attribute.
std::vector<float> Attribute(const GltfPrimitive& primitive, const char* name, std::size_t components);
// Vertices of faces, as the mode of the primitive has them. Empty: all vertices in their order.
std::vector<std::uint32_t> Corners(const GltfPrimitive& primitive);

}  // namespace zp
