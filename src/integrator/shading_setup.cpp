// From a hit to a ShadingPoint.

#include <algorithm>

#include "accel/accel.h"
#include "geometry/geometry.h"
#include "geometry/object.h"
#include "integrator/estimator.h"

namespace zp {
namespace {

// The corners of a hit primitive and how much each of them counts.
struct Corners {
  std::uint32_t vertex[4] = {};
  float weight[4] = {};
  int count = 0;
};

// A unit vector of any input but zero, tiny ones included: the safe length would leave the normals of
// triangles with edges below a thousandth short.
Vec3 UnitVector(Vec3 v) {
  const float largest = std::max({std::fabs(v.x), std::fabs(v.y), std::fabs(v.z)});
  return largest > 0 && std::isfinite(largest) ? SafeNormalize(v / largest) : v;
}

Vec3 CornerSum(const Corners& corners, const std::vector<PackedVector>& values) {
  Vec3 sum;
  for (int i = 0; i < corners.count; ++i) {
    if (corners.vertex[i] >= values.size() || IsZero(values[corners.vertex[i]])) return {};
    sum += corners.weight[i] * UnitVector(Unpack(values[corners.vertex[i]]));
  }
  return sum;
}

Vec2 CornerUv(const Corners& corners, const Part& part) {
  if (part.uvSets.empty()) return {};
  const std::vector<Vec2>& values = part.uvSets[0].values;
  Vec2 uv;
  for (int i = 0; i < corners.count; ++i) {
    if (corners.vertex[i] >= values.size()) return {};
    uv.x += corners.weight[i] * values[corners.vertex[i]].x;
    uv.y += corners.weight[i] * values[corners.vertex[i]].y;
  }
  return uv;
}

// Object space, before Instances and before the normals are turned to the ray's origin.
struct LocalSurface {
  Corners corners;
  Vec3 faceNormal;
  Vec3 tangent;  // zero: none
};

LocalSurface TriangleSurface(const RayRecord& ray) {
  const Triangle& triangle = ray.part->triangles[static_cast<std::size_t>(ray.primitive)];
  const auto& p = ray.part->positions;
  LocalSurface surface;
  surface.corners.count = 3;
  for (int i = 0; i < 3; ++i) {
    surface.corners.vertex[i] = triangle.vertex[i];
    surface.corners.weight[i] = ray.barycentric[i];
  }
  const Vec3 p0 = p[triangle.vertex[0]];
  surface.faceNormal = UnitVector(Cross(p[triangle.vertex[1]] - p0, p[triangle.vertex[2]] - p0));
  surface.tangent = CornerSum(surface.corners, ray.part->tangents);
  return surface;
}

LocalSurface TetragonSurface(const RayRecord& ray) {
  const Tetragon& tetragon = ray.part->tetragons[static_cast<std::size_t>(ray.primitive)];
  const auto& p = ray.part->positions;
  const float a = ray.barycentric.x, b = ray.barycentric.y;
  LocalSurface surface;
  surface.corners = {{tetragon.vertex[0], tetragon.vertex[1], tetragon.vertex[2], tetragon.vertex[3]},
                     {(1 - a) * (1 - b), (1 - a) * b, a * b, a * (1 - b)},
                     4};
  surface.faceNormal = UnitVector(
      Cross(p[tetragon.vertex[2]] - p[tetragon.vertex[0]], p[tetragon.vertex[3]] - p[tetragon.vertex[1]]));
  surface.tangent = CornerSum(surface.corners, ray.part->tangents);
  return surface;
}

LocalSurface ParticleSurface(const RayRecord& ray) {
  LocalSurface surface;
  surface.corners = {
      {ray.part->particles[static_cast<std::size_t>(ray.primitive)], 0, 0, 0}, {1, 0, 0, 0}, 1};
  surface.faceNormal = UnitVector(ray.barycentric);  // from the centre
  return surface;
}

// Only the axis of the curve is a matter of object space; the normal follows from the view of it.
LocalSurface CylinderSurface(const RayRecord& ray) {
  const auto index = static_cast<std::uint32_t>(ray.primitive);
  const std::uint32_t first = ray.part->cylinders[index];
  const float along = ray.barycentric.z;
  LocalSurface surface;
  surface.corners = {{first, first + 1, 0, 0}, {1 - along, along, 0, 0}, 2};
  constexpr float kHalfStep = 1.0f / 16.0f;  // the eight straight pieces that were hit
  surface.tangent = UnitVector(CurvePoint(*ray.part, index, std::min(along + kHalfStep, 1.0f)) -
                               CurvePoint(*ray.part, index, std::max(along - kHalfStep, 0.0f)));
  return surface;
}

// The normal of a cylinder around `axis`, met by the ray at `offset` radii beside the axis, -1 to 1.
Vec3 CylinderNormal(Vec3 direction, Vec3 axis, float offset) {
  const Vec3 beside = UnitVector(Cross(direction, axis));
  const Vec3 facing = UnitVector(Dot(direction, axis) * axis - direction);
  const float height = std::sqrt(std::max(0.0f, 1.0f - offset * offset));
  return UnitVector(height * facing - offset * beside);
}

}  // namespace

void SetFrame(ShadingPoint& point, Vec3 tangent) {
  constexpr float kParallel = 1e-6f;  // squared sine
  Vec3 bitangent = Cross(point.normal, UnitVector(tangent));
  if (!(Dot(bitangent, bitangent) > kParallel)) {
    // The perpendicular vector vanishes along (1, 1, -1), where any axis will do.
    bitangent = Cross(point.normal, UnitVector(Perpendicular(point.normal)));
    if (!(Dot(Perpendicular(point.normal), Perpendicular(point.normal)) > kParallel))
      bitangent = Cross(point.normal, Vec3{1, 0, 0});
  }
  point.bitangent = UnitVector(bitangent);
  point.tangent = UnitVector(Cross(point.bitangent, point.normal));
}

bool SetUpShadingPoint(const RayRecord& ray, ShadingPoint& point) {
  if (ray.part == nullptr || ray.primitive < 0 || ray.shader < 0) return false;
  if (static_cast<std::size_t>(ray.shader) >= shaders.size()) return false;
  const Shader& shader = shaders[static_cast<std::size_t>(ray.shader)];
  if (shader.surfaces.empty()) return false;

  LocalSurface surface;
  switch (ray.kind) {
    case kKindTriangle:
      surface = TriangleSurface(ray);
      break;
    case kKindTetragon:
      surface = TetragonSurface(ray);
      break;
    case kKindParticle:
      surface = ParticleSurface(ray);
      break;
    case kKindCylinder:
      surface = CylinderSurface(ray);
      break;
    default:
      return false;
  }

  Vec3 normal = surface.faceNormal;
  if (ray.kind == kKindTriangle || ray.kind == kKindTetragon) {
    const Vec3 smooth = CornerSum(surface.corners, ray.part->normals);
    if (Dot(smooth, smooth) > 0) normal = UnitVector(smooth);
  }
  if (ray.hitMatrixDepth > 0) {
    const Mat3 toWorld = HitNormalMatrix(ray);
    surface.faceNormal = UnitVector(toWorld * surface.faceNormal);
    normal = UnitVector(toWorld * normal);
    surface.tangent = UnitVector(toWorld * surface.tangent);
  }
  if (ray.kind == kKindCylinder)
    surface.faceNormal = normal = CylinderNormal(ray.direction, surface.tangent, ray.barycentric.x);

  // Towards the ray's origin; a supplied normal follows its face, also where the two disagree.
  point.geometricNormal =
      Dot(surface.faceNormal, ray.direction) > 0 ? -surface.faceNormal : surface.faceNormal;
  point.normal = Dot(normal, point.geometricNormal) < 0 ? -normal : normal;
  // Intended: t counts as a distance of world space. Instances that scale do not convert it either.
  point.position = ray.origin + ray.t * ray.direction;
  point.outgoing = -ray.direction;
  point.uv = CornerUv(surface.corners, *ray.part);
  SetFrame(point, surface.tangent);

  FinishShadingPoint(point, shader, ray.frontFace);
  return true;
}

}  // namespace zp
