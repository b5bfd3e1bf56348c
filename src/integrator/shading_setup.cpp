// From a hit to a ShadingPoint.

#include <algorithm>
#include <cmath>

#include "accel/accel.h"
#include "core/float8.h"
#include "core/index.h"
#include "core/settings.h"
#include "geometry/geometry.h"
#include "geometry/object.h"
#include "integrator/estimator.h"

namespace zp {
namespace {

// Object space, before Instances and before the normals are turned to the ray's origin.
struct LocalSurface {
  Vec3 faceNormal;
  Vec3 smoothNormal;  // of the corners' normals; of no length; zero: none
  Vec3 tangent;       // zero: none
  Corners corners;    // filled where something asks for it
};

bool AreAlike(const PackedVector (&of)[4], int count) {
  const std::uint32_t first = Bytes(of[0]);
  std::uint32_t other = (Bytes(of[1]) ^ first) | (Bytes(of[2]) ^ first);
  if (count > 3) other |= Bytes(of[3]) ^ first;
  return other == 0;
}

// Sums the corners' unit normals and, where they are wanted, tangents, each by its corner's weight. All of
// them are made unit vectors at once: that takes as long as one.
void SumCorners(const RayRecord& ray, bool wantsTangent, LocalSurface& surface) {
  const Corners& corners = surface.corners;
  const auto index = static_cast<std::uint32_t>(ray.primitive);
  PackedVector normals[4], tangents[4];
  const bool hasNormals = CornerNormals(corners, *ray.part, ray.kind, index, normals);
  const bool hasTangents = wantsTangent && CornerTangents(corners, *ray.part, ray.kind, index, tangents);
  if (!hasNormals && !hasTangents) return;
  if (!wantsTangent && AreAlike(normals, corners.count)) {
    surface.smoothNormal = Unpack(normals[0]);
    return;
  }

  std::uint32_t words[2][4];
  for (int i = 0; i < 4; ++i) {
    words[0][i] = Bytes(normals[i]);
    words[1][i] = Bytes(tangents[i]);
  }
  const Words8 packed = MakeWords(words[0], words[1]);
  Float8 x = SignedByte<0>(packed), y = SignedByte<1>(packed), z = SignedByte<2>(packed);
  const Float8 largest = Max(Max(Abs(x), Abs(y)), Abs(z));
  x = x / largest, y = y / largest, z = z / largest;
  const Float8 scale = Float8::Set(1) / Sqrt(x * x + y * y + z * z);
  x = x * scale, y = y * scale, z = z * scale;
  Float8 w = x;  // no fourth component
  TransposeHalves(x, y, z, w);
  Float8 total = Float8::Set(0);
  const Float8 corner[4] = {x, y, z, w};
  for (int i = 0; i < corners.count; ++i) total = total + Float8::Set(corners.weight[i]) * corner[i];
  float sums[8];
  total.Store(sums);
  if (hasNormals) surface.smoothNormal = {sums[0], sums[1], sums[2]};
  if (hasTangents) surface.tangent = {sums[4], sums[5], sums[6]};
}

// A unit vector of any input but zero. By format 2 lengths that floats can square take no scaling first.
inline Vec3 MadeUnit(Vec3 v) {
  if (settings.format < 2) return UnitVector(v);
  const float squared = Dot(v, v);
  return squared > 1e-20f && squared < 1e20f ? v * (1 / std::sqrt(squared)) : UnitVector(v);
}

// Along the normal, of no length: of a triangle's edges, and of a tetragon's diagonals.
Vec3 EdgeProduct(const Part& part, const std::uint32_t* vertex) {
  const Vec3 p0 = part.positions[vertex[0]];
  return Cross(part.positions[vertex[1]] - p0, part.positions[vertex[2]] - p0);
}
inline Vec3 DiagonalProduct(const Part& part, const std::uint32_t* vertex) {
  const Vec3* const p = part.positions.data();
  return Cross(p[vertex[2]] - p[vertex[0]], p[vertex[3]] - p[vertex[1]]);
}

// The normals of a face whose corners have all the same one, or none, and of which a hit needs nothing else:
// of most, and their vertices need not be read where the walk has told the edges. False of any other.
inline bool TakeEvenFace(const RayRecord& ray, LocalSurface& surface) {
  const Part& part = *ray.part;
  const bool tetragon = ray.kind == kKindTetragon;
  if (!tetragon && (ray.kind != kKindTriangle || ray.product == kBlack)) return false;
  const std::vector<PackedVector>& normals = part.cornerNormals.values;
  const std::size_t face = FaceNumber(part, ray.kind, static_cast<std::uint32_t>(ray.primitive));
  if (face < normals.size()) {
    if (normals[face] == kVaried) return false;
    surface.smoothNormal = Unpack(normals[face]);
  } else if (!part.normals.empty()) {
    return false;
  }
  surface.faceNormal =
      MadeUnit(tetragon ? DiagonalProduct(part, At(part.tetragons, ray.primitive).vertex) : ray.product);
  return true;
}

// What a hit needs beside its normals.
struct Wants {
  bool tangent, uv;
};

// Whether the record of a triangle need not be read: its normals stand by faces.
bool GoesWithoutVertices(const RayRecord& ray, Wants wants) {
  return ray.kind == kKindTriangle && !wants.tangent && !wants.uv && !(ray.product == kBlack) &&
         IsIndex(ray.part->cornerNormals.values, ray.primitive);
}

// False for what has no surface.
bool TakeSurface(const RayRecord& ray, Wants wants, LocalSurface& surface) {
  const Part& part = *ray.part;
  const auto index = static_cast<std::uint32_t>(ray.primitive);
  if (GoesWithoutVertices(ray, wants))
    surface.corners = {{}, {ray.barycentric.x, ray.barycentric.y, ray.barycentric.z, 0}, 3};
  else
    surface.corners = HitCorners(part, ray.kind, index, ray.barycentric);
  switch (ray.kind) {
    case kKindTriangle:
      surface.faceNormal =
          MadeUnit(ray.product == kBlack ? EdgeProduct(part, surface.corners.vertex) : ray.product);
      SumCorners(ray, wants.tangent, surface);
      break;
    case kKindTetragon:
      surface.faceNormal = MadeUnit(DiagonalProduct(part, surface.corners.vertex));
      SumCorners(ray, wants.tangent, surface);
      break;
    case kKindParticle:
      surface.faceNormal = UnitVector(ray.barycentric);  // from the centre
      break;
    case kKindCylinder:  // its normal follows from the view of it, once the axis is in world space
      surface.tangent = CurveAxis(part, index, ray.barycentric.z);
      break;
    default:
      break;
  }
  return surface.corners.count > 0;
}

// The normal of a cylinder around `axis`, met by the ray at `offset` radii beside the axis, -1 to 1.
Vec3 CylinderNormal(Vec3 direction, Vec3 axis, float offset) {
  Vec3 beside = UnitVector(Cross(direction, axis));
  if (!(Dot(beside, beside) > 0)) beside = UnitPerpendicular(axis);  // looked along: all sides are alike
  const Vec3 facing = Cross(beside, axis);
  const float height = std::sqrt(std::max(0.0f, 1.0f - offset * offset));
  return UnitVector(height * facing - offset * beside);
}

// The matrices of an Instance, from the product of the normal matrices.
struct Placement {
  Mat3 normals;   // to the scene
  Mat3 tangents;  // to the scene, but for a factor above zero
  bool mirrors = false;

  explicit Placement(const Mat3& normalMatrix) : normals(normalMatrix) {
    const auto row = [&](int i) {
      const float* m = normalMatrix.m[i];
      return Vec3{m[0], m[1], m[2]};
    };
    const Vec3 cofactors[3] = {Cross(row(1), row(2)), Cross(row(2), row(0)), Cross(row(0), row(1))};
    mirrors = Dot(row(0), cofactors[0]) < 0;
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) tangents.m[i][j] = mirrors ? -cofactors[i][j] : cofactors[i][j];
  }
  // A direction of the scene in the Object.
  Vec3 Inwards(Vec3 d) const {
    const auto& m = normals.m;
    const auto column = [&](int j) { return m[0][j] * d.x + m[1][j] * d.y + m[2][j] * d.z; };
    return {column(0), column(1), column(2)};
  }
};

struct Directions {
  Vec3 faceNormal, normal, tangent;
  bool mirrored = false;  // the bitangent goes over to the tangent's other side
};

// What an Instance makes of them by format 2. By format 1 tangents and the axes of strands turn as normals
// do, which is right where all axes scale alike.
[[gnu::noinline]] Directions PlaceExactly(const RayRecord& ray, Vec3 faceNormal, Vec3 normal, Vec3 tangent) {
  const Placement placement(HitNormalMatrix(ray));
  if (ray.kind == kKindCylinder) {
    const Vec3 direction = UnitVector(placement.Inwards(ray.direction));
    if (tangent == kBlack) tangent = UnitPerpendicular(direction);
    faceNormal = normal = CylinderNormal(direction, tangent, ray.barycentric.x);
  }
  return {UnitVector(placement.normals * faceNormal), UnitVector(placement.normals * normal),
          UnitVector(placement.tangents * tangent), placement.mirrors};
}

// In format 1 FinishShadingPoint draws the layer of what is no strand.
const SurfaceShader& DrawLayer(const RayRecord& ray, const Shader& shader, const SurfaceUv& uv) {
  const std::span<const std::uint8_t> layers = LayersOf(shader, ray.frontFace);
  if (layers.size() == 1) [[likely]]
    return shader.surfaces[layers[0]];
  if (settings.format < 2 || layers.empty()) return ChooseLayer(shader, ray.frontFace, uv);
  return ChooseLayer(shader, ray.frontFace, uv,
                     UnitPair(LonePointAt(ray.points, kDecideLayer, ray.sampleNumber)).x);
}

}  // namespace

void SetFrame(ShadingPoint& point, Vec3 tangent) {
  constexpr float kParallel = 1e-6f;  // squared sine
  Vec3 bitangent = Cross(point.normal, MadeUnit(tangent));
  if (!(Dot(bitangent, bitangent) > kParallel))
    bitangent = Cross(point.normal, UnitPerpendicular(point.normal));
  point.bitangent = MadeUnit(bitangent);
  point.tangent = Cross(point.bitangent, point.normal);
  if (settings.format < 2) point.tangent = UnitVector(point.tangent);
}

bool SetUpShadingPoint(const RayRecord& ray, ShadingPoint& point) {
  if (ray.part == nullptr || ray.primitive < 0 || ray.shader < 0) return false;
  if (!HasShader(ray.shader)) return false;
  const Shader& shader = ShaderAt(ray.shader);
  if (shader.surfaces.empty()) return false;

  const bool turned = shader.isTurned || settings.derived.showsTangents;
  LocalSurface surface;
  const Wants wants = {turned, shader.readsUv};
  if ((wants.tangent || wants.uv || !TakeEvenFace(ray, surface)) && !TakeSurface(ray, wants, surface))
    return false;

  Vec3 normal = surface.faceNormal;
  if (Dot(surface.smoothNormal, surface.smoothNormal) > 0) normal = MadeUnit(surface.smoothNormal);
  bool mirrored = false;
  const bool exact = ray.hitMatrixDepth > 0 && settings.format >= 2;
  if (exact) {
    const Directions placed = PlaceExactly(ray, surface.faceNormal, normal, surface.tangent);
    surface.faceNormal = placed.faceNormal;
    normal = placed.normal;
    surface.tangent = placed.tangent;
    mirrored = placed.mirrored;
  } else if (ray.hitMatrixDepth > 0) {
    const Mat3 toWorld = HitNormalMatrix(ray);
    surface.faceNormal = UnitVector(toWorld * surface.faceNormal);
    normal = UnitVector(toWorld * normal);
    surface.tangent = UnitVector(toWorld * surface.tangent);
  }
  if (ray.kind == kKindCylinder && !exact) {
    // A curve that stands still where it was hit has no axis; any across the view will do.
    if (surface.tangent == kBlack) surface.tangent = UnitPerpendicular(ray.direction);
    surface.faceNormal = normal = CylinderNormal(ray.direction, surface.tangent, ray.barycentric.x);
  }

  // Towards the ray's origin; a supplied normal follows its face, also where the two disagree.
  point.geometricNormal = NegatedIf(Dot(surface.faceNormal, ray.direction) > 0, surface.faceNormal);
  point.normal = NegatedIf(Dot(normal, point.geometricNormal) < 0, normal);
  // Intended: t counts as a distance of world space, which by format 1 it is not in Instances that scale.
  point.position = ray.origin + ray.t * ray.direction;
  point.outgoing = -ray.direction;
  if (shader.readsUv) TakeCornerUv(surface.corners, *ray.part, point.uv);
  if (turned || ray.kind == kKindCylinder) {
    SetFrame(point, surface.tangent);
    if (ray.part->mirroredUvs && surface.corners.count > 2 && IsMirrored(*ray.part, surface.corners.vertex))
      mirrored = !mirrored;
    if (mirrored && surface.corners.count > 2) point.bitangent = -point.bitangent;
  } else {
    FrameAround(point.normal, point.tangent, point.bitangent);
  }

  if (point.layer == nullptr) point.layer = &DrawLayer(ray, shader, point.uv);
  if (ray.kind == kKindCylinder) point.fiber = &point.layer->fiber;
  FinishShadingPoint(point, shader, ray.frontFace);
  if (ray.frontFace ? shader.frontVirtualLight : shader.backVirtualLight)
    point.pickDensity = PickDensity(ray);
  return true;
}

}  // namespace zp
