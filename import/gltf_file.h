// import/gltf_file.h: the parts of a glTF 2 file: its text, and the numbers in its buffers.
// Whatever a file says, nothing here reads beyond what it holds; what does not fit throws ImportError.

#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <vector>

namespace zp {

struct GltfFile {
  std::string folder;  // that the names of other files count from
  nlohmann::json text;
  std::vector<std::uint8_t> binary;                // the chunk of a GLB file
  std::vector<std::vector<std::uint8_t>> buffers;  // read
};

// `path` is a .gltf or .glb file. Reads all its buffers.
GltfFile ReadGltfFile(const std::string& path);

// The element of an array of the file by its name and number; throws if there is none.
const nlohmann::json& GltfItem(const GltfFile& file, const char* array, std::int64_t index);
std::span<const std::uint8_t> GltfView(const GltfFile& file, std::int64_t view);
// All numbers of an accessor with that many components for each element, integers as they are or, where the
// file says so, from -1 or 0 to 1.
std::vector<float> GltfFloats(const GltfFile& file, std::int64_t accessor, std::size_t components);
std::vector<std::uint32_t> GltfIntegers(const GltfFile& file, std::int64_t accessor, std::size_t components);
// The bytes of a URI: of a file beside the model, in which case `path` becomes its name, or of the text.
std::vector<std::uint8_t> GltfUri(const GltfFile& file, const std::string& uri, std::string* path = nullptr);

}  // namespace zp
