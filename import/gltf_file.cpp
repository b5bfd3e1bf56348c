#include "gltf_file.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <type_traits>

#include "model.h"

namespace zp {
namespace {

using nlohmann::json;

static_assert(std::endian::native == std::endian::little);

template <class T>
T Take(const std::uint8_t* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

constexpr std::uint32_t kMagic = 0x46546C67, kJsonChunk = 0x4E4F534A, kBinaryChunk = 0x004E4942;

// The chunks of a GLB file.
std::string SplitChunks(const std::vector<std::uint8_t>& bytes, GltfFile& file) {
  if (bytes.size() < 12 || Take<std::uint32_t>(&bytes[4]) != 2)
    throw ImportError("it is no GLB file of version 2");
  if (Take<std::uint32_t>(&bytes[8]) > bytes.size()) throw ImportError("it is cut off");
  const std::size_t end = Take<std::uint32_t>(&bytes[8]);
  std::string text;
  for (std::size_t at = 12; at + 8 <= end;) {
    const std::size_t size = Take<std::uint32_t>(&bytes[at]);
    const auto kind = Take<std::uint32_t>(&bytes[at + 4]);
    at += 8;
    if (size > end - at) throw ImportError("it is cut off");
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(at);
    const auto last = first + static_cast<std::ptrdiff_t>(size);
    if (kind == kJsonChunk && text.empty()) text.assign(first, last);
    if (kind == kBinaryChunk && file.binary.empty()) file.binary.assign(first, last);
    at += size;
  }
  return text;
}

std::vector<std::uint8_t> DecodeBase64(std::string_view text) {
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t word = 0;
  int bits = 0;
  for (const char c : text) {
    const int value = c >= 'A' && c <= 'Z'   ? c - 'A'
                      : c >= 'a' && c <= 'z' ? c - 'a' + 26
                      : c >= '0' && c <= '9' ? c - '0' + 52
                      : c == '+' || c == '-' ? 62
                      : c == '/' || c == '_' ? 63
                                             : -1;
    if (c == '=') break;
    if (value < 0) throw ImportError("a data URI is no base64");
    word = word << 6U | static_cast<std::uint32_t>(value);
    bits += 6;
    if (bits < 8) continue;
    bits -= 8;
    bytes.push_back(static_cast<std::uint8_t>(word >> static_cast<unsigned>(bits)));
  }
  return bytes;
}

std::string DecodePercent(const std::string& uri) {
  std::string name;
  const auto digit = [](char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
  };
  for (std::size_t i = 0; i < uri.size(); ++i) {
    const bool escape =
        uri[i] == '%' && i + 2 < uri.size() && digit(uri[i + 1]) >= 0 && digit(uri[i + 2]) >= 0;
    name += escape ? static_cast<char>(digit(uri[i + 1]) * 16 + digit(uri[i + 2])) : uri[i];
    if (escape) i += 2;
  }
  return name;
}

struct ComponentKind {
  int code;
  std::size_t bytes;
  double largest;  // what reads as 1 where integers are fractions
};
constexpr ComponentKind kComponents[] = {{5120, 1, 127},   {5121, 1, 255},          {5122, 2, 32767},
                                         {5123, 2, 65535}, {5125, 4, 4294967295.0}, {5126, 4, 1}};

const ComponentKind& KindOf(int code) {
  for (const ComponentKind& kind : kComponents)
    if (kind.code == code) return kind;
  throw ImportError("an accessor has numbers of no known kind");
}

double ReadComponent(const std::uint8_t* bytes, int code) {
  switch (code) {
    case 5120:
      return Take<std::int8_t>(bytes);
    case 5121:
      return *bytes;
    case 5122:
      return Take<std::int16_t>(bytes);
    case 5123:
      return Take<std::uint16_t>(bytes);
    case 5125:
      return Take<std::uint32_t>(bytes);
    default:
      return Take<float>(bytes);
  }
}

std::size_t ComponentsOf(const std::string& type) {
  constexpr std::pair<std::string_view, std::size_t> kTypes[] = {
      {"SCALAR", 1}, {"VEC2", 2}, {"VEC3", 3}, {"VEC4", 4}, {"MAT2", 4}, {"MAT3", 9}, {"MAT4", 16}};
  for (const auto& [word, count] : kTypes)
    if (type == word) return count;
  throw ImportError("an accessor is of no known type");
}

// Elements of a view that follow each other at some distance.
struct Elements {
  std::span<const std::uint8_t> bytes;
  std::size_t stride = 0, size = 0;

  const std::uint8_t* At(std::size_t index) const { return &bytes[index * stride]; }
};

Elements ElementsOf(const GltfFile& file, const json& source, std::size_t size, std::size_t count) {
  Elements elements;
  const auto view = source.at("bufferView").get<std::int64_t>();
  const std::span<const std::uint8_t> bytes = GltfView(file, view);
  const auto offset = source.value<std::uint64_t>("byteOffset", 0);
  elements.size = size;
  elements.stride = GltfItem(file, "bufferViews", view).value<std::size_t>("byteStride", size);
  if (elements.stride == 0) elements.stride = size;
  if (offset > bytes.size()) throw ImportError("an accessor goes beyond its buffer");
  elements.bytes = bytes.subspan(offset);
  const std::size_t room = elements.bytes.size();
  if (count > 0 && (room < size || (count - 1) > (room - size) / elements.stride))
    throw ImportError("an accessor goes beyond its buffer");
  return elements;
}

// Calls put(element, component, value) for all numbers, the sparse ones last.
template <class Put>
void ForEachNumber(const GltfFile& file, const json& accessor, std::size_t components, std::size_t count,
                   const Put& put) {
  const int code = accessor.at("componentType").get<int>();
  const ComponentKind& kind = KindOf(code);
  const bool isFraction = accessor.value("normalized", false) && code != 5126;
  const auto putElement = [&](const Elements& elements, std::size_t from, std::size_t to) {
    for (std::size_t c = 0; c < components; ++c) {
      const double value = ReadComponent(elements.At(from) + c * kind.bytes, code);
      put(to, c, isFraction ? std::max(value / kind.largest, -1.0) : value);
    }
  };
  const std::size_t size = components * kind.bytes;
  if (accessor.contains("bufferView")) {
    const Elements elements = ElementsOf(file, accessor, size, count);
    for (std::size_t i = 0; i < count; ++i) putElement(elements, i, i);
  }
  if (!accessor.contains("sparse")) return;
  const json& sparse = accessor["sparse"];
  const auto changes = sparse.at("count").get<std::size_t>();
  const int indexCode = sparse.at("indices").at("componentType").get<int>();
  const Elements indices = ElementsOf(file, sparse["indices"], KindOf(indexCode).bytes, changes);
  const Elements values = ElementsOf(file, sparse.at("values"), size, changes);
  for (std::size_t i = 0; i < changes; ++i) {
    const double index = ReadComponent(indices.At(i), indexCode);
    if (!(index >= 0 && index < static_cast<double>(count)))
      throw ImportError("a sparse accessor has no such element");
    putElement(values, i, static_cast<std::size_t>(index));
  }
}

template <class T>
std::vector<T> ReadNumbers(const GltfFile& file, std::int64_t index, std::size_t components) {
  const json& accessor = GltfItem(file, "accessors", index);
  if (ComponentsOf(accessor.at("type").get<std::string>()) != components)
    throw ImportError("an accessor is of another type than it is used as");
  if (const int code = accessor.at("componentType").get<int>();
      std::is_integral_v<T> && code != 5121 && code != 5123 && code != 5125)
    throw ImportError("an accessor of indices has other numbers");
  const auto count = accessor.at("count").get<std::uint64_t>();
  constexpr std::uint64_t kMost = std::uint64_t{1} << 31U;
  if (count > kMost) throw ImportError("an accessor has too many elements");
  std::uint64_t bytes = 0;  // a file that holds less than it promises must not take its promise in memory
  for (const auto& buffer : file.buffers) bytes += buffer.size();
  if (count > bytes + 65536) throw ImportError("an accessor goes beyond its buffer");
  std::vector<T> numbers(count * components);
  ForEachNumber(file, accessor, components, count,
                [&](std::size_t element, std::size_t component, double value) {
                  numbers[element * components + component] = static_cast<T>(value);
                });
  return numbers;
}

}  // namespace

std::vector<std::uint8_t> GltfUri(const GltfFile& file, const std::string& uri, std::string* path) {
  if (uri.starts_with("data:")) {
    const std::size_t comma = uri.find(',');
    if (comma == std::string::npos || uri.rfind(";base64", comma) == std::string::npos)
      throw ImportError("a data URI is no base64");
    return DecodeBase64(std::string_view(uri).substr(comma + 1));
  }
  const std::string name = (std::filesystem::path(file.folder) / DecodePercent(uri)).string();
  if (path != nullptr) {
    *path = name;
    return {};
  }
  return ReadBytes(name);
}

GltfFile ReadGltfFile(const std::string& path) {
  GltfFile file;
  file.folder = std::filesystem::path(path).parent_path().string();
  const std::vector<std::uint8_t> bytes = ReadBytes(path);
  const bool isBinary = bytes.size() >= 4 && Take<std::uint32_t>(bytes.data()) == kMagic;
  const std::string text = isBinary ? SplitChunks(bytes, file) : std::string(bytes.begin(), bytes.end());
  file.text = json::parse(text, nullptr, false);
  if (!file.text.is_object()) throw ImportError("its text is no JSON: it is damaged or of another format");
  if (const json& asset = file.text.value("asset", json::object());
      !asset.value("version", "2.0").starts_with("2"))
    throw ImportError("it is of glTF " + asset.value("version", "") + ", and 2 is read");
  for (const json& buffer : file.text.value("buffers", json::array())) {
    std::vector<std::uint8_t>& read = file.buffers.emplace_back();
    read = buffer.contains("uri") ? GltfUri(file, buffer["uri"].get<std::string>()) : file.binary;
    if (read.size() < buffer.value<std::uint64_t>("byteLength", 0)) throw ImportError("a buffer is cut off");
  }
  return file;
}

const json& GltfItem(const GltfFile& file, const char* array, std::int64_t index) {
  const auto found = file.text.find(array);
  if (found == file.text.end() || !found->is_array() || index < 0 ||
      index >= static_cast<std::int64_t>(found->size()) ||
      !(*found)[static_cast<std::size_t>(index)].is_object())
    throw ImportError("there is no " + std::to_string(index) + " in its " + array);
  return (*found)[static_cast<std::size_t>(index)];
}

std::span<const std::uint8_t> GltfView(const GltfFile& file, std::int64_t index) {
  const json& view = GltfItem(file, "bufferViews", index);
  const auto buffer = view.at("buffer").get<std::uint64_t>();
  const auto offset = view.value<std::uint64_t>("byteOffset", 0),
             size = view.at("byteLength").get<std::uint64_t>();
  if (buffer >= file.buffers.size() || offset > file.buffers[buffer].size() ||
      size > file.buffers[buffer].size() - offset)
    throw ImportError("a view goes beyond its buffer");
  return std::span(file.buffers[buffer]).subspan(offset, size);
}

std::vector<float> GltfFloats(const GltfFile& file, std::int64_t accessor, std::size_t components) {
  return ReadNumbers<float>(file, accessor, components);
}

std::vector<std::uint32_t> GltfIntegers(const GltfFile& file, std::int64_t accessor, std::size_t components) {
  return ReadNumbers<std::uint32_t>(file, accessor, components);
}

}  // namespace zp
