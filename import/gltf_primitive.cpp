#include "gltf_primitive.h"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wshadow"
#include <draco/compression/decode.h>
#pragma GCC diagnostic pop

#include "model.h"

namespace zp {

struct UnpackedMesh {
  std::unique_ptr<draco::Mesh> mesh;
};

namespace {

using nlohmann::json;

const json kNothing = json::object();

const json& PackingOf(const json& primitive) {
  const auto extensions = primitive.find("extensions");
  if (extensions == primitive.end() || !extensions->is_object()) return kNothing;
  const auto found = extensions->find("KHR_draco_mesh_compression");
  return found == extensions->end() ? kNothing : *found;
}

const draco::PointAttribute* UnpackedAttribute(const GltfPrimitive& primitive, const char* name) {
  if (primitive.unpacked == nullptr) return nullptr;
  const json& numbers = PackingOf(primitive.text).at("attributes");
  const auto found = numbers.find(name);
  return found == numbers.end()
             ? nullptr
             : primitive.unpacked->mesh->GetAttributeByUniqueId(found->get<std::uint32_t>());
}

}  // namespace

GltfPrimitive OpenPrimitive(const GltfFile& file, const json& text) {
  GltfPrimitive primitive{file, text, nullptr};
  const json& packing = PackingOf(text);
  if (packing.empty()) return primitive;
  const std::span<const std::uint8_t> bytes = GltfView(file, packing.at("bufferView").get<std::int64_t>());
  draco::DecoderBuffer buffer;
  buffer.Init(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  auto decoded = draco::Decoder().DecodeMeshFromBuffer(&buffer);
  if (!decoded.ok()) throw ImportError("a compressed mesh is damaged");
  primitive.unpacked = std::make_shared<UnpackedMesh>(UnpackedMesh{std::move(decoded).value()});
  return primitive;
}

std::size_t ComponentsOf(const GltfPrimitive& primitive, const char* name) {
  if (const draco::PointAttribute* attribute = UnpackedAttribute(primitive, name))
    return static_cast<std::size_t>(attribute->num_components());
  const json& attributes = primitive.text.at("attributes");
  if (!attributes.contains(name)) return 0;
  const std::string type =
      GltfItem(primitive.file, "accessors", attributes[name].get<std::int64_t>()).value("type", "");
  return type == "VEC2" ? 2 : type == "VEC3" ? 3 : type == "VEC4" ? 4 : 1;
}

std::vector<float> Attribute(const GltfPrimitive& primitive, const char* name, std::size_t components) {
  if (const draco::PointAttribute* attribute = UnpackedAttribute(primitive, name)) {
    const std::uint32_t count = primitive.unpacked->mesh->num_points();
    std::vector<float> numbers(count * components);
    for (std::uint32_t i = 0; i < count; ++i)
      if (!attribute->ConvertValue(attribute->mapped_index(draco::PointIndex(i)),
                                   static_cast<std::int8_t>(components), &numbers[i * components]))
        throw ImportError("a compressed mesh is damaged");
    return numbers;
  }
  const json& attributes = primitive.text.at("attributes");
  if (!attributes.contains(name)) return {};
  return GltfFloats(primitive.file, attributes[name].get<std::int64_t>(), components);
}

std::vector<std::uint32_t> Corners(const GltfPrimitive& primitive) {
  std::vector<std::uint32_t> corners;
  if (primitive.unpacked != nullptr) {
    const draco::Mesh& mesh = *primitive.unpacked->mesh;
    for (std::uint32_t f = 0; f < mesh.num_faces(); ++f)
      for (const draco::PointIndex& point : mesh.face(draco::FaceIndex(f))) corners.push_back(point.value());
  } else if (primitive.text.contains("indices")) {
    corners = GltfIntegers(primitive.file, primitive.text["indices"].get<std::int64_t>(), 1);
  }
  return corners;
}

}  // namespace zp
