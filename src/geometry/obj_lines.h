// geometry/obj_lines.h: the lines of an OBJ file, as raw arrays and a stream of faces. All threads read
// pieces of the text at once. What a line means by those before it (numbers counted backwards, the Shader,
// the smoothing) is settled when all pieces are known, so that nothing depends on where they begin.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/release.h"
#include "core/vec.h"
#include "geometry/geometry.h"

namespace zp {

inline constexpr std::uint32_t kMissing = 0xFFFFFFFF;
inline constexpr std::size_t kObjPieceBytes = 1U << 18U;  // what a thread parses of a file stays in its cache

// What faces a file may have. Format 1 drops those of five corners and more, and splits all of four alike.
struct FaceRules {
  bool anyCorners;        // and concave ones: by ear clipping
  std::size_t lineLimit;  // bytes, without the line feed; such a line is dropped
};
FaceRules RulesOfFormat();

// Raw indices of one corner.
struct Corner {
  std::uint32_t position, uv, normal;  // kMissing where the file has none
  std::uint32_t endNormal;             // of the model's end
};

struct RawCounts {
  std::size_t positions = 0, uvs = 0, normals = 0;
};

// The lines that begin in one piece of the text. Numbers of faces count those kept in the piece.
struct ObjPiece {
  std::span<const Vec3> positions;
  std::span<const Vec2> uvs;
  std::span<const Vec3> normals;
  std::span<const std::uint32_t> faces;  // a record each, see FaceCursor
  std::uint32_t faceCount = 0;
  bool triangles = true;  // no face has another number of corners than three
  // From a face on, what a "usemtl" says.
  struct ShaderName {
    std::uint32_t face;
    std::string name;
  };
  std::vector<ShaderName> shaderNames;
  std::uint32_t unnamed = 0;  // faces before the first of them
  // The last "s"; the faces before the first one, which the pieces before settle.
  std::optional<bool> smooth;
  std::uint32_t inheritingSmooth = std::numeric_limits<std::uint32_t>::max();
  // Polygons that were dropped, by the last "o" or "g"; none: of the pieces before.
  struct PolygonRun {
    std::optional<std::string> group;
    std::size_t polygons;
  };
  std::vector<PolygonRun> polygonRuns;
  std::uint32_t firstPolygon = kMissing;  // faces before it
  std::optional<std::string> group;       // the last one
  std::size_t faceLines = 0, slivers = 0, longLines = 0;

  // Settled by the pieces before.
  struct ShaderRun {
    std::uint32_t face;
    std::int32_t shader;
  };
  std::vector<ShaderRun> shaders;  // the first from face 0 on
  RawCounts before;
  std::size_t facesBefore = 0;
  bool smoothBefore = true;
};

struct ObjLines {
  FaceRules rules = RulesOfFormat();
  RawVector<Vec3> positions;
  RawVector<Vec2> uvs;
  RawVector<Vec3> normals;
  std::vector<ObjPiece> pieces;
  std::vector<RawVector<std::byte>> blocks;  // with the arrays of the pieces
};
inline std::size_t FaceCount(const ObjLines& lines) {
  return lines.pieces.empty() ? 0 : lines.pieces.back().facesBefore + lines.pieces.back().faceCount;
}

// All lines of a file; counts what was met in `report`. Without `namesShaders` none is looked up or made.
// False with an error row if it cannot be opened. A file that shrinks meanwhile ends there; a pipe is read to
// its end.
bool ReadObjLines(const std::string& path, bool namesShaders, ObjLines& lines, ObjReport& report);
// The same from memory, in pieces of that size.
void ReadObjLines(std::string_view text, std::size_t pieceBytes, ObjLines& lines, ObjReport& report);

// Walks the faces of a piece. A record is a word of flags and the number of corners, and for each corner its
// position and what the flags tell of. If some index counts backwards, there are instead the counts of raw
// entries at the line, and each corner's three indices as they stand, of two words.
class FaceCursor {
 public:
  explicit FaceCursor(const ObjPiece& piece) : piece_(piece), at_(piece.faces.data()) {}

  static constexpr std::uint32_t kCorners = (1U << 20U) - 1, kUvs = 1U << 20U, kNormals = 1U << 21U,
                                 kBackwards = 1U << 22U;

  bool AtEnd() const { return face_ == piece_.faceCount; }
  std::uint32_t Face() const { return face_; }  // the number of the next one
  std::size_t CornerCount() const { return *at_ & kCorners; }
  // Of the next face.
  std::int32_t Shader() {
    while (run_ + 1 < piece_.shaders.size() && piece_.shaders[run_ + 1].face <= face_) ++run_;
    return piece_.shaders[run_].shader;
  }
  // Takes the next face and goes on.
  void Take(std::vector<Corner>& corners);
  void Skip();

 private:
  void TakeBackwards(std::vector<Corner>& corners, bool smooth);

  const ObjPiece& piece_;
  const std::uint32_t* at_;
  std::uint32_t face_ = 0;
  std::size_t run_ = 0;
};

inline void FaceCursor::Take(std::vector<Corner>& corners) {
  const std::uint32_t flags = *at_;
  const bool smooth = piece_.smoothBefore || face_ >= piece_.inheritingSmooth;
  corners.resize(CornerCount());
  if ((flags & kBackwards) != 0) return TakeBackwards(corners, smooth);
  const bool uvs = (flags & kUvs) != 0, normals = (flags & kNormals) != 0;
  const std::uint32_t* word = at_ + 1;
  for (Corner& c : corners) {
    c.position = *word++;
    c.uv = uvs ? *word++ : kMissing;
    c.normal = normals ? *word++ : kMissing;
    if (!smooth) c.normal = kMissing;
    c.endNormal = kMissing;
  }
  at_ = word;
  ++face_;
}

// One number as a file writes it; moves `cursor` behind its token, which a blank or the line ends: at `end` a
// line feed or NUL stands. 0 where there is none. Any spelling gives what the nearest double is as a float.
float ParseFloat(const char*& cursor, const char* end);

}  // namespace zp
