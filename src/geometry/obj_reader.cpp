// The OBJ reader works in two stages: lines become raw arrays and a stream of face words, and when all lines
// are known the faces become merged vertices and primitives.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "core/console.h"
#include "core/files.h"
#include "core/settings.h"
#include "core/stop.h"
#include "geometry/ear_clipping.h"
#include "geometry/geometry.h"
#include "geometry/motion.h"
#include "imaging/imaging.h"
#include "shading/shading.h"

namespace zp {
namespace {

constexpr std::size_t kBlockSize = 1U << 20U;
constexpr std::uint32_t kMissing = 0xFFFFFFFF;
constexpr int kMaxCorners = 8;

// Raw indices of one corner.
struct Corner {
  std::uint32_t position, uv, normal;  // kMissing where the file has none
};

// The normals of a corner in a file and in that of the model's end.
struct NormalPair {
  std::uint32_t open, close;
};

// What faces a file may have. Format 1 drops those of five corners and more, and splits all of four alike.
struct FaceRules {
  bool anyCorners;        // and concave ones: by ear clipping
  std::size_t lineLimit;  // bytes, without the line feed; such a line is dropped
};
FaceRules RulesOfFormat() {
  return settings.format >= 2 ? FaceRules{true, kBlockSize} : FaceRules{false, 4096};
}

struct ModelLoader {
  Part& part;
  ObjReport& report;
  std::vector<Vec3> positions;
  std::vector<Vec2> uvs;
  std::vector<Vec3> normals;
  // Faces in file order: number of corners (kPolygon: one was dropped here), shader, three words a corner.
  std::vector<std::uint32_t> faces;
  std::vector<std::uint32_t> lastVertex;  // of a raw position: the Part's vertex that it last became
  FaceRules rules = RulesOfFormat();
  std::int32_t shader = 0;
  bool smooth = true;
  bool warnedPolygon = false, warnedDegenerate = false, warnedRange = false;
  bool named = false;      // a usemtl was met
  bool started = false;    // the first line was met
  std::string group = {};  // last "o" or "g"
  // The same model when the shutter closes, or null. With it the third word of a corner counts `pairs`, and
  // the Part's new vertices have the way to their end and their normal there.
  const ModelLoader* end = nullptr;
  std::vector<NormalPair> pairs = {};
  std::vector<Vec3> motions = {}, endNormals = {};
  bool isEnd = false;  // names no shaders
};

bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool EndsLine(char c) { return c == '\0' || c == '\n' || c == '\r'; }
bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// The rare forms of a number: many digits, large exponents, infinities.
double ParseRareNumber(const char* begin, const char* end) {
  double value = 0;
  const auto result = std::from_chars(begin, end, value);
  if (result.ec == std::errc::result_out_of_range)
    value = std::strtod(std::string(begin, end).c_str(), nullptr);
  return value;
}

constexpr double kPowersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                   1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// One number; moves `cursor` behind its token. 0 where there is none. Up to 2^53 and 10^22 both factors are
// exact, so that one rounding gives the nearest double (Clinger, "How to Read Floating Point Numbers
// Accurately", 1990).
double ParseNumber(const char*& cursor, const char* end) {
  while (cursor < end && IsBlank(*cursor)) ++cursor;
  const char* token = cursor;
  const bool negative = token < end && *token == '-';
  const char* p = token;
  if (p < end && (*p == '-' || *p == '+')) ++p;
  const char* digitsBegin = p;
  std::uint64_t mantissa = 0;
  int digits = 0, exponent = 0;
  const auto scan = [&](int step) {
    while (p < end) {
      const auto digit = static_cast<unsigned>(static_cast<unsigned char>(*p)) - '0';
      if (digit > 9) break;
      mantissa = mantissa * 10 + digit;  // may wrap: more than 19 digits are not used
      digits += (digits > 0 || digit != 0);
      exponent -= step;
      ++p;
    }
  };
  scan(0);
  if (p < end && *p == '.') {
    ++p;
    scan(1);
  }
  bool simple = p - digitsBegin > 0;
  if (p < end && (*p == 'e' || *p == 'E')) {
    int written = 0;
    const char* q = p + 1;
    const bool minus = q < end && *q == '-';
    if (q < end && (*q == '-' || *q == '+')) ++q;
    while (q < end && *q >= '0' && *q <= '9' && written < 10000) written = written * 10 + (*q++ - '0');
    exponent += minus ? -written : written;
    p = q;
  }
  if (p < end && !IsBlank(*p) && !EndsLine(*p)) simple = false;
  while (p < end && !IsBlank(*p) && !EndsLine(*p)) ++p;
  cursor = p;
  if (!simple || digits > 19 || mantissa > (1ULL << 53U) || exponent > 22 || exponent < -22) {
    const double value = ParseRareNumber(digitsBegin, p);
    return negative ? -value : value;
  }
  double value = static_cast<double>(mantissa);
  value = exponent < 0 ? value / kPowersOfTen[-exponent] : value * kPowersOfTen[exponent];
  return negative ? -value : value;
}

float ParseFloat(const char*& cursor, const char* end) {
  return static_cast<float>(ParseNumber(cursor, end));
}

// One index of a corner; moves `cursor` to the character that ends it. What is no number counts as 0.
std::int64_t ParseIndex(const char*& cursor, const char* end) {
  const bool negative = cursor < end && *cursor == '-';
  if (cursor < end && (*cursor == '-' || *cursor == '+')) ++cursor;
  std::int64_t value = 0;
  while (cursor < end && *cursor >= '0' && *cursor <= '9') {
    value = std::min<std::int64_t>(value * 10 + (*cursor - '0'), 1LL << 40U);
    ++cursor;
  }
  while (cursor < end && *cursor != '/' && !IsBlank(*cursor) && !EndsLine(*cursor)) ++cursor;
  return negative ? -value : value;
}

// `index` as files write it, to a place in an array of `count` entries so far. Empty stays empty.
std::uint32_t Resolve(std::int64_t index, std::size_t count) {
  if (index == 0) return kMissing;
  const std::int64_t resolved = index > 0 ? index - 1 : static_cast<std::int64_t>(count) + index;
  return resolved < 0 || resolved >= static_cast<std::int64_t>(kMissing)
             ? kMissing
             : static_cast<std::uint32_t>(resolved);
}

constexpr std::uint32_t kPolygon = 0;  // in place of a number of corners

void CountPolygon(ModelLoader& loader) {
  ObjReport& report = loader.report;
  ++report.polygons;
  constexpr std::size_t kMostGroups = 64;  // enough for a report
  const bool isNew = report.groups.empty() || report.groups.back().name != loader.group;
  if (isNew && report.groups.size() == kMostGroups) return;
  if (isNew) report.groups.push_back({loader.group, 0});
  ++report.groups.back().polygons;
}

// The next corner of a face; moves `cursor` behind it. False if there is none.
bool ParseCorner(const char*& cursor, const char* end, std::int64_t (&corner)[3]) {
  while (cursor < end && IsBlank(*cursor)) ++cursor;
  if (cursor >= end || EndsLine(*cursor) || *cursor == '#')
    return false;  // no number of a remark is a corner
  for (std::int64_t& index : corner) {
    index = ParseIndex(cursor, end);
    if (cursor >= end || *cursor != '/') break;
    ++cursor;
  }
  while (cursor < end && !IsBlank(*cursor) && !EndsLine(*cursor)) ++cursor;
  return true;
}

void AddFaceCorner(ModelLoader& loader, const std::int64_t (&corner)[3]) {
  loader.faces.push_back(Resolve(corner[0], loader.positions.size()));
  loader.faces.push_back(Resolve(corner[1], loader.uvs.size()));
  loader.faces.push_back(loader.smooth ? Resolve(corner[2], loader.normals.size()) : kMissing);
}

// A face of any number of corners, up to the first that is none.
void ParsePolygon(ModelLoader& loader, const char* cursor, const char* end) {
  const std::size_t begin = loader.faces.size();
  loader.report.unnamed += !loader.named;
  loader.faces.push_back(0);
  loader.faces.push_back(static_cast<std::uint32_t>(loader.shader));
  for (;;) {
    std::int64_t corner[3] = {};
    if (!ParseCorner(cursor, end, corner) || corner[0] == 0) break;
    AddFaceCorner(loader, corner);
    ++loader.faces[begin];
  }
}

void ParseFace(ModelLoader& loader, const char* cursor, const char* end) {
  const char* const begin = cursor;
  std::int64_t indices[kMaxCorners][3] = {};
  for (auto& corner : indices)
    if (!ParseCorner(cursor, end, corner)) break;
  ++loader.report.faces;
  if (indices[4][0] != 0) {
    if (loader.rules.anyCorners) return ParsePolygon(loader, begin, end);
    CountPolygon(loader);
    if (!loader.warnedPolygon) loader.faces.push_back(kPolygon);
    loader.warnedPolygon = true;
    return;
  }
  const std::uint32_t count = indices[3][0] != 0 ? 4 : 3;
  if (indices[2][0] == 0) {
    ++loader.report.slivers;
    return;
  }
  loader.report.unnamed += !loader.named;
  loader.faces.push_back(count);
  loader.faces.push_back(static_cast<std::uint32_t>(loader.shader));
  for (std::uint32_t i = 0; i < count; ++i) AddFaceCorner(loader, indices[i]);
}

// The second word of a line; empty without one.
std::string_view SecondWord(const char* cursor, const char* end) {
  const auto skip = [&](bool space) {
    while (cursor < end && *cursor != '\0' && IsSpace(*cursor) == space) ++cursor;
  };
  skip(true);
  skip(false);
  skip(true);
  const char* begin = cursor;
  skip(false);
  return {begin, static_cast<std::size_t>(cursor - begin)};
}

void ParseLine(ModelLoader& loader, const char* line, const char* end) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // some programs begin a file with it
  if (!loader.started && std::string_view(line, end).starts_with(kByteOrderMark))
    line += kByteOrderMark.size();
  loader.started = true;
  const char* p = line;
  while (p < end && IsBlank(*p)) ++p;
  if (p >= end) return;
  const auto length = end - p;
  if (*p == 'v') {
    if (length > 1 && IsBlank(p[1])) {
      p += 2;
      const float x = ParseFloat(p, end), y = ParseFloat(p, end), z = ParseFloat(p, end);
      loader.positions.push_back({x, y, z});
    } else if (length > 2 && p[1] == 't' && IsBlank(p[2])) {
      p += 3;
      const float u = ParseFloat(p, end), v = ParseFloat(p, end);
      loader.uvs.push_back({u, v});
    } else if (length > 2 && p[1] == 'n' && IsBlank(p[2])) {
      p += 3;
      const float x = ParseFloat(p, end), y = ParseFloat(p, end), z = ParseFloat(p, end);
      loader.normals.push_back({x, y, z});
    }
    return;
  }
  if (length > 1 && IsBlank(p[1])) {
    if (*p == 'f') ParseFace(loader, p + 2, end);
    if (*p == 's') loader.smooth = SecondWord(p, end) != "off";
    if (*p == 'o' || *p == 'g') loader.group = SecondWord(p, end);
    return;
  }
  // Intended: only at the very start of the line.
  if (end - line >= 6 && std::memcmp(line, "usemtl", 6) == 0) {
    const std::string_view name = SecondWord(line, end);
    if (name.empty() || loader.isEnd) return;
    loader.shader = FindOrCreateShader(name);
    loader.named = true;
  }
}

// All whole lines of the text, and with `last` the rest too. Returns the bytes used.
std::size_t ParseLines(ModelLoader& loader, std::string_view text, bool last) {
  const char* cursor = text.data();
  const char* const end = cursor + text.size();
  while (cursor < end) {
    const auto* feed =
        static_cast<const char*>(std::memchr(cursor, '\n', static_cast<std::size_t>(end - cursor)));
    if (!feed && !last) break;
    const char* lineEnd = feed ? feed : end;
    if (static_cast<std::size_t>(lineEnd - cursor) < loader.rules.lineLimit)
      ParseLine(loader, cursor, lineEnd);
    else
      ++loader.report.longLines;
    cursor = feed ? feed + 1 : end;
  }
  return static_cast<std::size_t>(cursor - text.data());
}

// One corner as a vertex of the Part.
struct Vertex {
  Vec3 position;
  Vec2 uv;
  PackedVector normal, tangent;
  Vec3 motion = {}, endNormal = {};  // of a model with an end
};

// Equal floats have equal keys: both zeros share one, and each not-a-number is equal to itself.
std::uint32_t Key(float x) { return std::bit_cast<std::uint32_t>(x == 0.0f ? 0.0f : x); }

bool SameFloats(Vec3 a, Vec3 b) {
  return Key(a.x) == Key(b.x) && Key(a.y) == Key(b.y) && Key(a.z) == Key(b.z);
}

bool IsVertex(const ModelLoader& loader, std::uint32_t index, const Vertex& v) {
  const Part& part = loader.part;
  if (loader.end != nullptr &&
      !(SameFloats(loader.motions[index], v.motion) && SameFloats(loader.endNormals[index], v.endNormal)))
    return false;
  const Vec2 uv = part.uvSets[0].values[index];
  return SameFloats(part.positions[index], v.position) && part.normals[index] == v.normal &&
         part.tangents[index] == v.tangent && Key(uv.x) == Key(v.uv.x) && Key(uv.y) == Key(v.uv.y);
}

std::size_t HashVertex(const Vertex& v) {
  std::uint64_t h = Key(v.position.x) * 0x9E3779B97F4A7C15ULL;
  const auto mix = [&h](std::uint64_t word) { h = (std::rotl(h, 29) ^ word) * 0xD6E8FEB86659FD93ULL; };
  const auto bytes = [](PackedVector p) {
    return static_cast<std::uint64_t>(static_cast<std::uint8_t>(p.x)) |
           static_cast<std::uint64_t>(static_cast<std::uint8_t>(p.y)) << 8U |
           static_cast<std::uint64_t>(static_cast<std::uint8_t>(p.z)) << 16U;
  };
  mix(Key(v.position.y));
  mix(Key(v.position.z));
  mix(Key(v.uv.x) | static_cast<std::uint64_t>(Key(v.uv.y)) << 32U);
  mix(bytes(v.normal) | bytes(v.tangent) << 24U);
  return static_cast<std::size_t>(h ^ (h >> 32U));
}

Vertex VertexAt(const Part& part, std::uint32_t index) {
  return {part.positions[index], part.uvSets[0].values[index], part.normals[index], part.tangents[index]};
}

// Keeps at least half of the slots free.
void GrowVertexHash(Part& part) {
  const std::vector<std::uint32_t> old = std::move(part.vertexHash);
  constexpr std::size_t kFirstSlots = 16;  // of one quad: scenes hold thousands of such Parts
  part.vertexHash.assign(std::max(kFirstSlots, old.size() * 4), kUnusedSlot);
  const std::size_t mask = part.vertexHash.size() - 1;
  for (const std::uint32_t index : old) {
    if (index == kUnusedSlot) continue;
    std::size_t slot = HashVertex(VertexAt(part, index)) & mask;
    while (part.vertexHash[slot] != kUnusedSlot) slot = (slot + 1) & mask;
    part.vertexHash[slot] = index;
  }
}

// The index of the vertex, which is appended if the Part has no equal one.
std::uint32_t MergeVertex(ModelLoader& loader, const Vertex& v) {
  Part& part = loader.part;
  if (static_cast<std::size_t>(part.hashedVertices) * 2 >= part.vertexHash.size()) GrowVertexHash(part);
  const std::size_t mask = part.vertexHash.size() - 1;
  std::size_t slot = HashVertex(v) & mask;
  while (part.vertexHash[slot] != kUnusedSlot) {
    if (IsVertex(loader, part.vertexHash[slot], v)) return part.vertexHash[slot];
    slot = (slot + 1) & mask;
  }
  const auto index = static_cast<std::uint32_t>(part.positions.size());
  part.vertexHash[slot] = index;
  ++part.hashedVertices;
  part.positions.push_back(v.position);
  part.uvSets[0].values.push_back(v.uv);
  part.normals.push_back(v.normal);
  part.tangents.push_back(v.tangent);
  if (loader.end != nullptr) {
    loader.motions.push_back(v.motion);
    loader.endNormals.push_back(v.endNormal);
  }
  return index;
}

// Faces share most corners with their neighbours: the vertex that this raw position last became comes first.
std::uint32_t MergeCorner(ModelLoader& loader, std::uint32_t rawPosition, const Vertex& v) {
  std::uint32_t& last = loader.lastVertex[rawPosition];
  if (last == kMissing || !IsVertex(loader, last, v)) last = MergeVertex(loader, v);
  return last;
}

// Of a face's corners, zero where there is none. `outward` looks along the normal of its winding; normals
// that all look the other way are turned round.
struct CornerNormals {
  Vec3 of[4];
  bool present[4] = {};

  template <class NumberOf>
  CornerNormals(const ModelLoader& loader, int count, Vec3 outward, NumberOf numberOf) {
    bool against = true;
    for (int i = 0; i < count; ++i) {
      const std::uint32_t number = numberOf(i);
      present[i] = number < loader.normals.size();
      if (present[i]) of[i] = loader.normals[number];
      against = against && Dot(of[i], outward) < 0;
    }
    for (int i = 0; i < count && against; ++i) of[i] = -of[i];
  }
};

// A direction along the normal of a triangle's (count 3) or tetragon's (4) winding.
Vec3 Outward(const std::vector<Vec3>& positions, const Corner* c, int count) {
  const auto p = [&](int i) { return positions[c[i].position]; };
  return count == 3 ? Cross(p(1) - p(0), p(2) - p(0)) : Cross(p(2) - p(0), p(3) - p(1));
}

// Merges the corners of a triangle or tetragon into `vertices`.
void MergeFace(ModelLoader& loader, const Corner* corners, int count, std::uint32_t* vertices) {
  const ModelLoader* end = loader.end;
  const CornerNormals normals(
      loader, count, SafeNormalize(Outward(loader.positions, corners, count)),
      [&](int i) { return end ? loader.pairs[corners[i].normal].open : corners[i].normal; });
  const CornerNormals endNormals(
      end ? *end : loader, count, end ? Outward(end->positions, corners, count) : Vec3{},
      [&](int i) { return end ? loader.pairs[corners[i].normal].close : kMissing; });
  for (int i = 0; i < count; ++i) {
    Vertex v;
    v.position = loader.positions[corners[i].position];
    if (corners[i].uv < loader.uvs.size()) v.uv = loader.uvs[corners[i].uv];
    if (normals.present[i]) v.normal = Pack(normals.of[i]);
    if (end) v.motion = end->positions[corners[i].position] - v.position;
    if (endNormals.present[i]) v.endNormal = endNormals.of[i];
    vertices[i] = MergeCorner(loader, corners[i].position, v);
  }
}

void AddTriangle(ModelLoader& loader, const Corner& a, const Corner& b, const Corner& c,
                 std::int32_t shader) {
  const Vec3 p0 = loader.positions[a.position], p1 = loader.positions[b.position];
  const Vec3 p2 = loader.positions[c.position];
  if (p0 == p1 || p1 == p2 || p2 == p0) return;
  const Corner corners[] = {a, b, c};
  Triangle triangle{{}, shader};
  MergeFace(loader, corners, 3, triangle.vertex);
  loader.part.triangles.push_back(triangle);
}

void AddTetragon(ModelLoader& loader, const Corner* corners, std::int32_t shader) {
  Vec3 p[4];
  for (int i = 0; i < 4; ++i) p[i] = loader.positions[corners[i].position];
  if (p[0] == p[2] || p[1] == p[3]) return;
  Tetragon tetragon{{}, shader};
  MergeFace(loader, corners, 4, tetragon.vertex);
  loader.part.tetragons.push_back(tetragon);
}

// The corner that a quadrangle with equal position indices does without; -1 if all four differ.
int RedundantCorner(const Corner* c) {
  constexpr int kPairs[6][3] = {{0, 1, 1}, {0, 2, 2}, {0, 3, 3}, {1, 2, 2}, {1, 3, 3}, {2, 3, 3}};
  int redundant = -1;
  for (const auto& pair : kPairs)  // the last match counts
    if (c[pair[0]].position == c[pair[1]].position) redundant = pair[2];
  return redundant;
}

bool IsRectangle(const ModelLoader& loader, const Corner* c) {
  Vec3 edges[4];
  for (int i = 0; i < 4; ++i)
    edges[i] = SafeNormalize(loader.positions[c[(i + 1) & 3].position] - loader.positions[c[i].position]);
  const Vec3 normal0 = SafeNormalize(Cross(edges[0], edges[1]));
  const Vec3 normal1 = SafeNormalize(Cross(edges[2], edges[3]));
  if (!(Dot(normal0, normal1) > 0.999999f)) return false;
  for (int i = 0; i < 4; ++i)
    if (!(std::fabs(Dot(edges[i], edges[(i + 1) & 3])) < 1e-6f)) return false;
  return true;
}

// The rim of a face of five corners or more, or of a concave one of four where the rules ask.
bool AddByEars(ModelLoader& loader, const std::vector<Corner>& corners, std::int32_t shader) {
  if (corners.size() < 4) return false;
  std::vector<Vec3> rim;
  for (const Corner& corner : corners) rim.push_back(loader.positions[corner.position]);
  if (corners.size() == 4 && !IsConcave(rim)) return false;
  if (!loader.rules.anyCorners) {
    ++loader.report.concave;
    return false;
  }
  for (const auto& ear : ClipEars(rim))
    AddTriangle(loader, corners[ear[0]], corners[ear[1]], corners[ear[2]], shader);
  return true;
}

// A face that is no rectangle, or one of four corners that is less.
void AddFace(ModelLoader& loader, std::vector<Corner>& c, std::int32_t shader) {
  const int redundant = c.size() == 4 ? RedundantCorner(c.data()) : -1;
  if (redundant >= 0) {
    if (!loader.warnedDegenerate) PrintWarning("object - there are degenerated quadrangles");
    loader.warnedDegenerate = true;
    c.erase(c.begin() + redundant);
  }
  if (AddByEars(loader, c, shader)) return;
  AddTriangle(loader, c[0], c[1], c[2], shader);
  if (c.size() == 4) AddTriangle(loader, c[2], c[3], c[0], shader);
}

// Triangles of the file and of faces that are split, in file order; rectangles wait for their turn.
void FinishTriangles(ModelLoader& loader, std::vector<std::size_t>& rectangles) {
  std::vector<Corner> c;
  for (std::size_t at = 0; at < loader.faces.size() && !Stopping();) {
    const std::uint32_t count = loader.faces[at];
    if (count == kPolygon) {
      PrintWarning("object - please triangulate/quadrangulate the input model(s)");
      PrintRule();
      ++at;
      continue;
    }
    const std::size_t begin = at;
    at += 2 + 3 * static_cast<std::size_t>(count);
    c.resize(count);
    std::memcpy(c.data(), &loader.faces[begin + 2], count * sizeof(Corner));
    const auto isOutside = [&](const Corner& corner) { return corner.position >= loader.positions.size(); };
    if (std::any_of(c.begin(), c.end(), isOutside)) {
      if (!loader.warnedRange) PrintWarning("object - face index out of range");
      loader.warnedRange = true;
      ++loader.report.outOfRange;
      continue;
    }
    if (count == 4 && RedundantCorner(c.data()) < 0 && IsRectangle(loader, c.data()))
      rectangles.push_back(begin);
    else
      AddFace(loader, c, static_cast<std::int32_t>(loader.faces[begin + 1]));
  }
}

// Whether two streams of faces have as many corners each. Puts pairs of normals in place of the first one's.
bool PairFaces(ModelLoader& loader, const ModelLoader& end) {
  const auto &a = loader.faces, &b = end.faces;
  if (a.size() != b.size()) return false;
  std::vector<NormalPair> pairs;
  std::vector<std::size_t> places;  // of the normals in the streams
  for (std::size_t at = 0; at < a.size();) {
    if (a[at] != b[at]) return false;
    const std::size_t corners = a[at];
    at += corners == kPolygon ? 1 : 2;
    for (std::size_t i = 0; i < corners; ++i, at += 3) {
      pairs.push_back({a[at + 2], b[at + 2]});
      places.push_back(at + 2);
    }
  }
  if (pairs.size() >= kMissing) return false;
  for (std::size_t i = 0; i < places.size(); ++i) loader.faces[places[i]] = static_cast<std::uint32_t>(i);
  loader.pairs = std::move(pairs);
  return true;
}

// Vertices are what they are by their order in the two files.
bool TakeEnd(ModelLoader& loader, const ModelLoader& end) {
  if (loader.positions.size() != end.positions.size() || !PairFaces(loader, end)) return false;
  loader.end = &end;
  loader.motions.resize(loader.part.positions.size());
  loader.endNormals.resize(loader.part.positions.size());
  return true;
}

void AddEndSets(ModelLoader& loader) {
  if (loader.end == nullptr) return;
  loader.part.vectorSets.push_back({"motion", std::move(loader.motions)});
  const bool hasNormals = std::any_of(loader.endNormals.begin(), loader.endNormals.end(),
                                      [](Vec3 normal) { return normal != Vec3{}; });
  if (hasNormals) loader.part.vectorSets.push_back({kEndNormalSet, std::move(loader.endNormals)});
}

void Finish(ModelLoader& loader) {
  if (loader.faces.empty()) return;
  Part& part = loader.part;
  if (part.uvSets.empty()) part.uvSets.push_back({"uv", {}});
  // Positions that came without the other three get them, for vertices append to all four alike.
  part.uvSets[0].values.resize(part.positions.size());
  part.normals.resize(part.positions.size());
  part.tangents.resize(part.positions.size());
  loader.lastVertex.assign(loader.positions.size(), kMissing);

  std::vector<std::size_t> rectangles;
  FinishTriangles(loader, rectangles);
  for (const std::size_t begin : rectangles) {
    if (Stopping()) break;
    Corner c[4] = {};
    std::memcpy(c, &loader.faces[begin + 2], sizeof c);
    AddTetragon(loader, c, static_cast<std::int32_t>(loader.faces[begin + 1]));
  }
  AddEndSets(loader);
}

void ReadBlocks(ModelLoader& loader, int file) {
  std::vector<char> buffer(kBlockSize);
  std::size_t held = 0;   // bytes of an unfinished line
  bool dropping = false;  // the rest of a line that is too long
  while (!Stopping()) {
    const ssize_t got = read(file, buffer.data() + held, buffer.size() - held);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    std::size_t size = held + static_cast<std::size_t>(got), begin = 0;
    if (dropping) {
      const auto* feed = static_cast<const char*>(std::memchr(buffer.data(), '\n', size));
      begin = feed ? static_cast<std::size_t>(feed - buffer.data()) + 1 : size;
      dropping = feed == nullptr;
    }
    begin += ParseLines(loader, {buffer.data() + begin, size - begin}, false);
    held = size - begin;
    if (held >= loader.rules.lineLimit) {
      held = 0;
      dropping = true;
      ++loader.report.longLines;
    }
    std::memmove(buffer.data(), buffer.data() + begin, held);
  }
  ParseLines(loader, {buffer.data(), held}, true);
}

}  // namespace

void ReadObj(std::string_view text, Part& part) {
  ObjReport report;
  ModelLoader loader{part, report, {}, {}, {}, {}, {}};
  ParseLines(loader, text, true);
  Finish(loader);
}

namespace {

// False, with an error row, if the file cannot be opened.
bool ReadLines(ModelLoader& loader, const std::string& path) {
  const int file = HoldsBytes(path) ? open(path.c_str(), O_RDONLY | O_CLOEXEC) : -1;
  if (file < 0) {
    ++missingFiles;
    PrintError("object - cannot open " + path + "\n");
    PrintRule();
    return false;
  }
  ReadBlocks(loader, file);
  close(file);
  loader.report.positions = loader.positions.size();
  return true;
}

}  // namespace

bool ReadObjFile(const std::string& path, Part& part, ObjReport* report, const std::string& endPath,
                 EndResult* endResult) {
  ObjReport unused, endReport;
  ModelLoader loader{part, report ? *report : unused, {}, {}, {}, {}, {}};
  if (!ReadLines(loader, path)) return false;
  Part endPart;
  ModelLoader end{endPart, endReport, {}, {}, {}, {}, {}};
  end.isEnd = true;
  EndResult result = EndResult::kTaken;
  if (!endPath.empty() && !ReadLines(end, endPath)) result = EndResult::kMissing;
  if (!endPath.empty() && result == EndResult::kTaken && !TakeEnd(loader, end)) {
    result = EndResult::kOther;
    PrintOtherEnd(path, endPath);
  }
  if (endResult != nullptr) *endResult = result;
  Finish(loader);
  return true;
}

}  // namespace zp
