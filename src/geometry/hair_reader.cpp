// Binary hair files: a header of 128 bytes, then the arrays that its bits name, all little-endian. No number
// of the header is believed: arrays are sized after the bytes for them are there.

#include <algorithm>
#include <bit>
#include <cstring>
#include <fstream>

#include "core/console.h"
#include "core/files.h"
#include "core/stop.h"
#include "geometry/geometry.h"
#include "imaging/imaging.h"

namespace zp {
namespace {

static_assert(std::endian::native == std::endian::little);

// The file's header, byte for byte.
struct HairHeader {
  char signature[4] = {};
  std::uint32_t hairCount = 0;
  std::uint32_t pointCount = 0;
  std::uint32_t arrays = 0;           // bits of kHairArrays
  std::uint32_t defaultSegments = 0;  // of each strand, without an array of them
  float defaultThickness = 1;         // diameter, scene units
  float defaultTransparency = 0;
  float defaultColor[3] = {1, 1, 1};
  char information[88] = {};
};
constexpr std::size_t kHeaderBytes = 128;
static_assert(sizeof(HairHeader) == kHeaderBytes);
constexpr std::string_view kSignature = "HAIR";

enum HairBit : std::uint32_t {
  kSegments = 1,
  kPoints = 2,
  kThickness = 4,
  kTransparency = 8,
  kColor = 16,
};

// In file order.
struct HairArrayRow {
  HairBit bit;
  std::size_t bytes;  // of an element
  bool perStrand;     // else per point
  std::string_view name;
};
constexpr HairArrayRow kHairArrays[] = {
    {kSegments, 2, true, "segments"},    {kPoints, 12, false, "points"},
    {kThickness, 4, false, "thickness"}, {kTransparency, 4, false, "transparency"},
    {kColor, 12, false, "color"},
};

std::uint64_t ArrayBytes(const HairHeader& header, const HairArrayRow& row) {
  if ((header.arrays & row.bit) == 0) return 0;
  return std::uint64_t{row.perStrand ? header.hairCount : header.pointCount} * row.bytes;
}

// A file without points has positions of no defined place, but as many as its header says. That number has
// nothing to be checked against, hence a limit.
constexpr std::uint32_t kMostPointsWithoutPlace = 1U << 12U;

template <class T>
T ElementAt(std::string_view array, std::size_t index) {
  T element;
  std::memcpy(&element, array.data() + index * sizeof element, sizeof element);
  return element;
}

bool Fail(std::string_view message, const std::string& name) {
  ++missingFiles;
  PrintBareError(std::string(message) + name, {"hair-unread", name});
  return false;
}

// The header, and no more of the file than it asks for.
std::string ReadAsPromised(std::istream& stream) {
  constexpr std::size_t kBlock = 1U << 20U;
  std::string bytes(kHeaderBytes, '\0');
  stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<std::size_t>(std::max<std::streamsize>(stream.gcount(), 0)));
  if (bytes.size() < kHeaderBytes || !bytes.starts_with(kSignature)) return bytes;
  const auto header = ElementAt<HairHeader>(bytes, 0);
  std::uint64_t left = 0;
  for (const HairArrayRow& row : kHairArrays) left += ArrayBytes(header, row);
  while (left > 0 && stream && !Stopping()) {
    const std::size_t held = bytes.size();
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(left, kBlock));
    bytes.resize(held + wanted);
    stream.read(bytes.data() + held, static_cast<std::streamsize>(wanted));
    bytes.resize(held + static_cast<std::size_t>(stream.gcount()));
    left -= bytes.size() - held;
  }
  return bytes;
}

}  // namespace

bool ReadHair(std::string_view bytes, const std::string& name, Part& part) {
  if (bytes.size() < kHeaderBytes) return Fail("cannot open hair file header ", name);
  const auto header = ElementAt<HairHeader>(bytes, 0);
  if (!bytes.starts_with(kSignature)) return Fail("hair file has wrong signature ", name);
  std::string_view rest = bytes.substr(kHeaderBytes);
  std::string_view segments, points, thickness;
  for (const HairArrayRow& row : kHairArrays) {
    const std::uint64_t size = ArrayBytes(header, row);
    const bool unlimited =
        row.bit == kPoints && (header.arrays & kPoints) == 0 && header.pointCount > kMostPointsWithoutPlace;
    if (size > rest.size() || unlimited) return Fail("cannot read hair " + std::string(row.name) + " ", name);
    const std::string_view array = rest.substr(0, static_cast<std::size_t>(size));
    rest.remove_prefix(array.size());
    if (row.bit == kSegments) segments = array;
    if (row.bit == kPoints) points = array;
    if (row.bit == kThickness) thickness = array;
  }

  const std::size_t count = header.pointCount;
  if (part.uvSets.empty()) part.uvSets.push_back({"uv", {}});
  if (part.scalarSets.empty()) part.scalarSets.push_back({"radius", {}});
  part.positions.assign(count, Vec3{});
  part.uvSets[0].values.resize(count);
  part.scalarSets[0].values.resize(count);
  static_assert(sizeof(Vec3) == 12);
  if (!points.empty()) std::memcpy(part.positions.data(), points.data(), points.size());
  const auto whole = static_cast<float>(count);
  for (std::size_t i = 0; i < count; ++i) {
    // Only keep strands apart until strands take the coordinates of the surface they stand on.
    part.uvSets[0].values[i] = {static_cast<float>(i) / whole, static_cast<float>(i + 1) / whole};
    part.scalarSets[0].values[i] =
        0.5f * (thickness.empty() ? header.defaultThickness : ElementAt<float>(thickness, i));
  }

  StrandLayout strands = {part};
  const bool hasSegments = (header.arrays & kSegments) != 0;
  for (std::size_t h = 0; h < header.hairCount; ++h)
    if (!strands.Add(hasSegments ? ElementAt<std::uint16_t>(segments, h) : header.defaultSegments)) break;
  strands.Finish();
  return true;
}

bool ReadHairFile(const std::string& path, Part& part) {
  std::ifstream stream;
  if (HoldsBytes(path)) stream.open(path, std::ios::binary);
  if (!stream.is_open()) return Fail("cannot open ", path);
  const std::string bytes = ReadAsPromised(stream);
  return !Stopping() && ReadHair(bytes, path, part);
}

EndResult ReadHairEnd(const std::string& path, const std::string& endPath, Part& part) {
  Part end;
  if (!ReadHairFile(endPath, end)) return EndResult::kMissing;
  if (end.positions.size() != part.positions.size() || end.strandLengths != part.strandLengths) {
    PrintOtherEnd(path, endPath);
    return EndResult::kOther;
  }
  for (std::size_t i = 0; i < end.positions.size(); ++i)
    end.positions[i] = end.positions[i] - part.positions[i];
  part.vectorSets.push_back({"motion", std::move(end.positions)});
  return EndResult::kTaken;
}

}  // namespace zp
