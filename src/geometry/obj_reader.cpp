// The OBJ reader works in two stages: lines become raw arrays and streams of faces (obj_lines.h), and when
// all lines are known the faces become merged vertices and primitives, piece by piece on all threads.

#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <new>
#include <optional>
#include <span>
#include <utility>

#include "core/console.h"
#include "core/index.h"
#include "core/large_array.h"
#include "core/release.h"
#include "core/stop.h"
#include "core/threads.h"
#include "geometry/ear_clipping.h"
#include "geometry/geometry.h"
#include "geometry/motion.h"
#include "geometry/obj_lines.h"
#include "geometry/vertex_merge.h"

namespace zp {
namespace {

// What a piece has become, and what was met there.
struct PieceResult {
  std::size_t triangles = 0, tetragons = 0;  // places in the Part that are its own, then how many it took
  std::size_t firstTriangle = 0, firstTetragon = 0;  // of its places
  std::size_t outOfRange = 0, concave = 0;
  std::uint32_t degenerateFace = kMissing, outOfRangeFace = kMissing;  // the first one
};

struct ModelLoader {
  Part& part;
  ObjReport& report;
  std::string_view file = {};  // empty: of text in memory
  ObjLines lines = {};
  // The same model when the shutter closes, or null. With it the Part's new vertices have the way to their
  // end and their normal there.
  const ObjLines* end = nullptr;
  std::vector<Vec3> motions = {}, endNormals = {};
  RawVector<PackedVector> packedNormals = {};  // of the lines
};

// The faces of a piece, each with the normals of the one of the same number at the end.
struct FacePairs {
  FaceCursor cursor;
  const ObjLines* end;
  std::size_t endPiece = 0;
  std::optional<FaceCursor> endCursor = {};
  std::vector<Corner> endCorners = {};

  FacePairs(const ModelLoader& loader, const ObjPiece& piece) : cursor(piece), end(loader.end) {
    if (end == nullptr) return;
    const auto& pieces = end->pieces;
    while (endPiece + 1 < pieces.size() && pieces[endPiece + 1].facesBefore <= piece.facesBefore) ++endPiece;
    endCursor.emplace(pieces[endPiece]);
    for (std::size_t i = pieces[endPiece].facesBefore; i < piece.facesBefore; ++i) endCursor->Skip();
  }
  void Take(std::vector<Corner>& corners) {
    cursor.Take(corners);
    if (end == nullptr) return;
    while (endCursor->AtEnd()) endCursor.emplace(end->pieces[++endPiece]);
    endCursor->Take(endCorners);
    for (std::size_t i = 0; i < corners.size(); ++i) corners[i].endNormal = endCorners[i].normal;
  }
};

void PackNormals(ModelLoader& loader) {
  const auto& normals = loader.lines.normals;
  loader.packedNormals.resize(normals.size());
#pragma omp parallel for schedule(static) if (IsWorthThreads(normals.size(), 10))
  for (std::size_t i = 0; i < normals.size(); ++i) loader.packedNormals[i] = Pack(normals[i]);
}

// What the opposite vector packs to.
PackedVector Opposite(PackedVector v) {
  const auto opposite = [](std::int8_t x) { return static_cast<std::int8_t>(-x); };
  return {opposite(v.x), opposite(v.y), opposite(v.z)};
}

// Of a face's corners, zero where there is none. `outward` looks along the normal of its winding; normals
// that all look the other way are turned round.
struct CornerNormals {
  Vec3 of[4];
  bool present[4] = {};
  bool turned = false;

  CornerNormals(std::span<const Vec3> normals, const Corner* corners, int count, Vec3 outward,
                std::uint32_t Corner::*number) {
    for (int i = 0; i < count; ++i) {
      present[i] = corners[i].*number < normals.size();
      if (present[i]) of[i] = normals[corners[i].*number];
    }
    // No root for what is clear without: it changes no sign but by rounding.
    const float first = Dot(of[0], outward);
    if (first > 0 && first * first > 1e-6f * Dot(of[0], of[0]) * Dot(outward, outward)) return;
    const Vec3 unit = number == &Corner::normal ? SafeNormalize(outward) : outward;
    turned = std::all_of(of, of + count, [&](Vec3 normal) { return Dot(normal, unit) < 0; });
    for (int i = 0; i < count && turned; ++i) of[i] = -of[i];
  }
};

// A direction along the normal of a triangle's (count 3) or tetragon's (4) winding.
Vec3 Outward(std::span<const Vec3> positions, const Corner* c, int count) {
  const auto p = [&](int i) { return positions[c[i].position]; };
  return count == 3 ? Cross(p(1) - p(0), p(2) - p(0)) : Cross(p(2) - p(0), p(3) - p(1));
}

// The corner that a quadrangle with equal position indices does without; -1 if all four differ.
int RedundantCorner(const Corner* c) {
  constexpr int kPairs[6][3] = {{0, 1, 1}, {0, 2, 2}, {0, 3, 3}, {1, 2, 2}, {1, 3, 3}, {2, 3, 3}};
  int redundant = -1;
  for (const auto& pair : kPairs)  // the last match counts
    if (c[pair[0]].position == c[pair[1]].position) redundant = pair[2];
  return redundant;
}

bool IsRectangle(std::span<const Vec3> positions, const Corner* c) {
  Vec3 edges[4];
  for (int i = 0; i < 4; ++i)
    edges[i] = SafeNormalize(positions[c[(i + 1) & 3].position] - positions[c[i].position]);
  const Vec3 normal0 = SafeNormalize(Cross(edges[0], edges[1]));
  const Vec3 normal1 = SafeNormalize(Cross(edges[2], edges[3]));
  if (!(Dot(normal0, normal1) > 0.999999f)) return false;
  for (int i = 0; i < 4; ++i)
    if (!(std::fabs(Dot(edges[i], edges[(i + 1) & 3])) < 1e-6f)) return false;
  return true;
}

// Turns the faces of a piece into primitives: calls triangle(corners, shader) and tetragon(corners, shader).
template <class AddTriangle, class AddTetragon>
struct FaceSplitter {
  const ModelLoader& loader;
  PieceResult& result;
  AddTriangle triangle;
  AddTetragon tetragon;
  std::span<const Vec3> positions = loader.lines.positions;

  void Triangle(const Corner& a, const Corner& b, const Corner& c, std::int32_t shader) {
    const Vec3 p0 = positions[a.position], p1 = positions[b.position], p2 = positions[c.position];
    if (p0 == p1 || p1 == p2 || p2 == p0) return;
    const Corner corners[] = {a, b, c};
    triangle(corners, shader);
  }

  void Rectangle(const Corner* c, std::int32_t shader) {
    const auto p = [&](int i) { return positions[c[i].position]; };
    if (!(p(0) == p(2)) && !(p(1) == p(3))) tetragon(c, shader);
  }

  // The rim of a face of five corners or more, or of a concave one of four where the rules ask.
  bool AddByEars(const std::vector<Corner>& corners, std::int32_t shader) {
    if (corners.size() < 4) return false;
    std::vector<Vec3> rim;
    for (const Corner& corner : corners) rim.push_back(positions[corner.position]);
    if (corners.size() == 4 && !IsConcave(rim)) return false;
    if (!loader.lines.rules.anyCorners) {
      ++result.concave;
      return false;
    }
    for (const auto& ear : ClipEars(rim)) Triangle(corners[ear[0]], corners[ear[1]], corners[ear[2]], shader);
    return true;
  }

  void Face(std::vector<Corner>& c, std::uint32_t number, std::int32_t shader) {
    const auto isOutside = [&](const Corner& corner) { return corner.position >= positions.size(); };
    if (std::any_of(c.begin(), c.end(), isOutside)) {
      result.outOfRangeFace = std::min(result.outOfRangeFace, number);
      ++result.outOfRange;
      return;
    }
    const int redundant = c.size() == 4 ? RedundantCorner(c.data()) : -1;
    if (c.size() == 4 && redundant < 0 && IsRectangle(positions, c.data()))
      return Rectangle(c.data(), shader);
    if (redundant >= 0) {
      result.degenerateFace = std::min(result.degenerateFace, number);
      c.erase(c.begin() + redundant);
    }
    if (AddByEars(c, shader)) return;
    Triangle(c[0], c[1], c[2], shader);
    if (c.size() == 4) Triangle(c[2], c[3], c[0], shader);
  }

  void Split(const ObjPiece& piece) {
    std::vector<Corner> corners;
    for (FacePairs faces(loader, piece); !faces.cursor.AtEnd();) {
      const std::uint32_t number = faces.cursor.Face();
      const std::int32_t shader = faces.cursor.Shader();
      faces.Take(corners);
      Face(corners, number, shader);
    }
  }
};

// Runs body(piece's index) for all pieces by all threads, none any more when work shall stop.
template <class Body>
void ForEachPiece(const ModelLoader& loader, std::size_t nanosecondsEach, Body body) {
  const std::size_t count = loader.lines.pieces.size();
  bool memoryIsShort = false;
#pragma omp parallel for schedule(dynamic, 1) if (IsWorthThreads(FaceCount(loader.lines), nanosecondsEach))
  for (std::size_t i = 0; i < count; ++i) {
    if (Stopping()) continue;
    try {
      body(i);
    } catch (const std::bad_alloc&) {
#pragma omp atomic write
      memoryIsShort = true;
    }
  }
  if (memoryIsShort) throw std::bad_alloc();
}

// Gives every piece places for its primitives: of triangles alone at most one a face, else as many as there
// will be.
std::vector<PieceResult> PlacePieces(const ModelLoader& loader) {
  const auto& pieces = loader.lines.pieces;
  std::vector<PieceResult> results(pieces.size());
  ForEachPiece(loader, 40, [&](std::size_t i) {
    PieceResult counted;
    const auto triangle = [&](const Corner*, std::int32_t) { ++counted.triangles; };
    const auto tetragon = [&](const Corner*, std::int32_t) { ++counted.tetragons; };
    if (!pieces[i].triangles)
      FaceSplitter<decltype(triangle), decltype(tetragon)>{loader, counted, triangle, tetragon}.Split(
          pieces[i]);
    results[i].triangles = pieces[i].triangles ? pieces[i].faceCount : counted.triangles;
    results[i].tetragons = counted.tetragons;
  });
  std::size_t triangles = loader.part.triangles.size(), tetragons = loader.part.tetragons.size();
  for (PieceResult& result : results) {
    result.firstTriangle = triangles;
    result.firstTetragon = tetragons;
    triangles += result.triangles;
    tetragons += result.tetragons;
  }
  return results;
}

// The warnings in the order of what they speak of, and the sums of the report.
void ReportPieces(ModelLoader& loader, const std::vector<PieceResult>& results) {
  bool warned[3] = {};
  for (std::size_t i = 0; i < results.size(); ++i) {
    const PieceResult& result = results[i];
    loader.report.outOfRange += result.outOfRange;
    loader.report.concave += result.concave;
    std::array<std::pair<std::uint32_t, int>, 3> found = {
        {{loader.lines.pieces[i].firstPolygon, 0}, {result.degenerateFace, 1}, {result.outOfRangeFace, 2}}};
    std::sort(found.begin(), found.end());
    for (const auto& [face, kind] : found) {
      if (face == kMissing || std::exchange(warned[kind], true)) continue;
      if (kind == 0)
        PrintWarning("object - please triangulate/quadrangulate the input model(s)",
                     {"model-polygons", loader.file});
      if (kind == 0) PrintRule();
      if (kind == 1)
        PrintWarning("object - there are degenerated quadrangles", {"model-quadrangles", loader.file});
      if (kind == 2) PrintWarning("object - face index out of range", {"model-indices", loader.file});
    }
  }
}

// Whether the two have as many vertices, and faces of as many corners each: vertices are what they are by
// their order in the two files.
bool TakeEnd(ModelLoader& loader, const ObjLines& end) {
  const ObjLines& lines = loader.lines;
  if (lines.positions.size() != end.positions.size() || FaceCount(lines) != FaceCount(end)) return false;
  std::size_t piece = 0;
  std::optional<FaceCursor> other;
  for (const ObjPiece& own : lines.pieces)
    for (FaceCursor cursor(own); !cursor.AtEnd(); cursor.Skip(), other->Skip()) {
      if (!other) other.emplace(end.pieces[piece]);
      while (other->AtEnd()) other.emplace(end.pieces[++piece]);
      if (cursor.CornerCount() != other->CornerCount()) return false;
    }
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

// Adds the corners of primitives to a merger. Orders run through the triangles' corners and then the
// tetragons'.
struct CornerAdder {
  const ModelLoader& loader;
  VertexMerger& merger;
  std::size_t known;           // vertices of the Part, whose positions stand before those of the lines
  VertexMerger::Share& share;  // its thread's

  // Puts the vertices' entries in `vertices`.
  void Add(const Corner* corners, int count, std::uint64_t order, std::uint32_t* vertices) {
    const ObjLines& lines = loader.lines;
    const auto position = [&](int i) { return static_cast<std::uint32_t>(known + corners[i].position); };
    if (lines.normals.empty() && loader.end == nullptr) {
      for (int i = 0; i < count; ++i)
        vertices[i] =
            merger.Add(position(i), {UvOf(corners[i])}, order + static_cast<std::uint64_t>(i), share);
      return;
    }
    const ObjLines* end = loader.end;
    const CornerNormals normals(lines.normals, corners, count, Outward(lines.positions, corners, count),
                                &Corner::normal);
    const CornerNormals endNormals(end ? std::span<const Vec3>(end->normals) : std::span<const Vec3>(),
                                   corners, count, end ? Outward(end->positions, corners, count) : Vec3{},
                                   &Corner::endNormal);
    for (int i = 0; i < count; ++i) {
      CornerData data = {UvOf(corners[i])};
      if (normals.present[i]) {
        data.normal = At(loader.packedNormals, corners[i].normal);
        if (normals.turned) data.normal = Opposite(data.normal);
      }
      if (end) data.motion = end->positions[corners[i].position] - lines.positions[corners[i].position];
      if (endNormals.present[i]) data.endNormal = endNormals.of[i];
      vertices[i] = merger.Add(position(i), data, order + static_cast<std::uint64_t>(i), share);
    }
  }
  Vec2 UvOf(const Corner& corner) const {
    return corner.uv < loader.lines.uvs.size() ? loader.lines.uvs[corner.uv] : Vec2{};
  }
};

// Primitives with entries of the merger for vertices, each piece's from its first place on.
void AddPrimitives(ModelLoader& loader, VertexMerger& merger, std::vector<PieceResult>& results,
                   std::size_t known) {
  Part& part = loader.part;
  const PieceResult& front = results.front();
  const std::uint64_t triangleCorners = 3 * (part.triangles.size() - front.firstTriangle);
  std::vector<VertexMerger::Share> shares(static_cast<std::size_t>(omp_get_max_threads()));
  ForEachPiece(loader, 100, [&](std::size_t i) {
    PieceResult& result = results[i];
    CornerAdder adder{loader, merger, known, shares[static_cast<std::size_t>(omp_get_thread_num())]};
    std::size_t triangles = result.firstTriangle, tetragons = result.firstTetragon;
    const auto triangle = [&](const Corner* corners, std::int32_t shader) {
      Triangle& added = part.triangles[triangles];
      added.shader = shader;
      adder.Add(corners, 3, known + 3 * (triangles++ - front.firstTriangle), added.vertex);
    };
    const auto tetragon = [&](const Corner* corners, std::int32_t shader) {
      Tetragon& added = part.tetragons[tetragons];
      added.shader = shader;
      adder.Add(corners, 4, known + triangleCorners + 4 * (tetragons++ - front.firstTetragon), added.vertex);
    };
    FaceSplitter<decltype(triangle), decltype(tetragon)>{loader, result, triangle, tetragon}.Split(
        loader.lines.pieces[i]);
    result.triangles = triangles - result.firstTriangle;
    result.tetragons = tetragons - result.firstTetragon;
  });
}

// Numbers of vertices in place of entries, and no places left over.
void SettlePrimitives(ModelLoader& loader, const VertexMerger& merger,
                      const std::vector<PieceResult>& results) {
  Part& part = loader.part;
  ForEachPiece(loader, 20, [&](std::size_t i) {
    const auto settle = [&](auto& list, std::size_t first, std::size_t count) {
      for (std::size_t k = first; k < first + count; ++k)
        for (std::uint32_t& vertex : list[k].vertex) vertex = merger.Number(vertex);
    };
    settle(part.triangles, results[i].firstTriangle, results[i].triangles);
    settle(part.tetragons, results[i].firstTetragon, results[i].tetragons);
  });
  const auto close = [&](auto& list, std::size_t PieceResult::*first, std::size_t PieceResult::*count) {
    std::size_t end = results.front().*first;
    for (const PieceResult& result : results) {
      const auto from = list.begin() + static_cast<std::ptrdiff_t>(result.*first);
      const auto to = list.begin() + static_cast<std::ptrdiff_t>(end);
      if (from != to) std::copy_n(from, result.*count, to);
      end += result.*count;
    }
    list.resize(end);
  };
  close(part.triangles, &PieceResult::firstTriangle, &PieceResult::triangles);
  close(part.tetragons, &PieceResult::firstTetragon, &PieceResult::tetragons);
}

// The Part's own vertices without tangents may be met again.
void AddKnown(VertexMerger& merger, const Part& part) {
  VertexMerger::Share share;
  for (std::uint32_t v = 0; v < part.positions.size(); ++v)
    if (IsZero(part.tangents[v])) merger.Add(v, {part.uvSets[0].values[v], part.normals[v]}, v, share);
}

void Finish(ModelLoader& loader) {
  if (Stopping()) return;  // pieces are missing
  const auto hasPolygons = [](const ObjPiece& piece) { return piece.firstPolygon != kMissing; };
  const auto& pieces = loader.lines.pieces;
  if (FaceCount(loader.lines) == 0 && std::none_of(pieces.begin(), pieces.end(), hasPolygons)) return;
  Part& part = loader.part;
  if (part.uvSets.empty()) part.uvSets.push_back({"uv", {}});
  // Positions that came without the other three get them, for vertices append to all four alike.
  const std::size_t known = part.positions.size();
  part.uvSets[0].values.resize(known);
  part.normals.resize(known);
  part.tangents.resize(known);

  std::vector<PieceResult> results = PlacePieces(loader);
  const std::size_t oldTriangles = part.triangles.size(), oldTetragons = part.tetragons.size();
  const PieceResult& back = results.back();
  ReserveLarge(part.triangles, back.firstTriangle + back.triangles);
  part.triangles.resize(back.firstTriangle + back.triangles);
  part.tetragons.resize(back.firstTetragon + back.tetragons);
  std::vector<Vec3> all;
  if (known > 0) {
    all = part.positions;
    all.insert(all.end(), loader.lines.positions.begin(), loader.lines.positions.end());
  }
  const bool bare =
      known == 0 && loader.end == nullptr && loader.lines.uvs.empty() && loader.lines.normals.empty();
  VertexMerger merger(
      known > 0 ? std::span<const Vec3>(all) : loader.lines.positions, bare, loader.end != nullptr, known,
      3 * (part.triangles.size() - oldTriangles) + 4 * (part.tetragons.size() - oldTetragons));
  PackNormals(loader);
  if (known > 0) AddKnown(merger, part);
  AddPrimitives(loader, merger, results, known);
  if (Stopping()) {  // no entry is a vertex yet
    part.triangles.resize(oldTriangles);
    part.tetragons.resize(oldTetragons);
    return;
  }
  ReportPieces(loader, results);
  merger.AppendVertices(part, loader.motions, loader.endNormals);
  SettlePrimitives(loader, merger, results);
  AddEndSets(loader);
}

}  // namespace

void ReadObj(std::string_view text, Part& part, std::size_t pieceBytes) {
  ObjReport report;
  ModelLoader loader{part, report};
  ReadObjLines(text, pieceBytes, loader.lines, report);
  Finish(loader);
}

bool ReadObjFile(const std::string& path, Part& part, ObjReport* report, const std::string& endPath,
                 EndResult* endResult) {
  ObjReport unused, endReport;
  ModelLoader loader{part, report ? *report : unused, path};
  if (!ReadObjLines(path, true, loader.lines, loader.report)) return false;
  ObjLines end;
  EndResult result = EndResult::kTaken;
  if (!endPath.empty() && !ReadObjLines(endPath, false, end, endReport)) result = EndResult::kMissing;
  if (!endPath.empty() && result == EndResult::kTaken && !TakeEnd(loader, end)) {
    result = EndResult::kOther;
    PrintOtherEnd(path, endPath);
  }
  if (endResult != nullptr) *endResult = result;
  Finish(loader);
  return true;
}

}  // namespace zp
