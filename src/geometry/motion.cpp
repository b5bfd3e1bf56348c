#include "geometry/motion.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <numeric>
#include <tuple>

#include "core/console.h"
#include "core/index.h"
#include "core/settings.h"
#include "core/threads.h"
#include "geometry/geometry.h"
#include "shading/shading.h"

namespace zp {
namespace {

// Of an Instance's matrix without translation: in double precision, since the parts are put together again.
using Linear = std::array<std::array<double, 3>, 3>;

double Determinant(const Linear& a) {
  double sum = 0;
  for (std::size_t i = 0; i < 3; ++i) {
    const std::size_t j = (i + 1) % 3, k = (i + 2) % 3;
    sum += a[0][i] * (a[1][j] * a[2][k] - a[1][k] * a[2][j]);
  }
  return sum;
}

Linear InverseTranspose(const Linear& a, double determinant) {
  Linear result;
  for (std::size_t i = 0; i < 3; ++i)
    for (std::size_t j = 0; j < 3; ++j) {
      const std::size_t i1 = (i + 1) % 3, i2 = (i + 2) % 3, j1 = (j + 1) % 3, j2 = (j + 2) % 3;
      result[i][j] = (a[i1][j1] * a[i2][j2] - a[i1][j2] * a[i2][j1]) / determinant;
    }
  return result;
}

// a = rotation * stretch for a matrix of positive determinant, by Newton's iteration (Higham, "Computing the
// Polar Decomposition - with Applications", 1986).
void DecomposePolar(const Linear& a, Linear& rotation, Linear& stretch) {
  constexpr int kMostSteps = 100;
  constexpr double kSettled = 1e-14;
  rotation = a;
  double change = 1;
  for (int step = 0; step < kMostSteps && change > kSettled; ++step) {
    const double determinant = Determinant(rotation);
    const double scale = std::pow(determinant, -1.0 / 3);  // brings the lengths near 1 at once
    const Linear other = InverseTranspose(rotation, determinant);
    change = 0;
    for (std::size_t i = 0; i < 3; ++i)
      for (std::size_t j = 0; j < 3; ++j) {
        const double next = 0.5 * (scale * rotation[i][j] + other[i][j] / scale);
        change = std::max(change, std::abs(next - rotation[i][j]));
        rotation[i][j] = next;
      }
  }
  for (std::size_t i = 0; i < 3; ++i)
    for (std::size_t j = 0; j < 3; ++j) {
      stretch[i][j] = 0;
      for (std::size_t k = 0; k < 3; ++k) stretch[i][j] += rotation[k][i] * a[k][j];
    }
}

// The unit quaternion of a rotation; its real part comes last. Taken from the largest of the four components,
// which loses no digits (Shepperd, "Quaternion from Rotation Matrix", 1978).
std::array<double, 4> QuaternionOf(const Linear& r) {
  const double trace = r[0][0] + r[1][1] + r[2][2];
  const std::array<double, 4> diagonal = {r[0][0], r[1][1], r[2][2], trace};
  const auto largest =
      static_cast<std::size_t>(std::max_element(diagonal.begin(), diagonal.end()) - diagonal.begin());
  std::array<double, 4> q;
  if (largest == 3) {
    q = {r[2][1] - r[1][2], r[0][2] - r[2][0], r[1][0] - r[0][1], 1 + trace};
  } else {
    const std::size_t i = largest, j = (i + 1) % 3, k = (i + 2) % 3;
    q[i] = 1 - trace + 2 * r[i][i];
    q[j] = r[i][j] + r[j][i];
    q[k] = r[i][k] + r[k][i];
    q[3] = r[k][j] - r[j][k];
  }
  const double length = std::sqrt(std::inner_product(q.begin(), q.end(), q.begin(), 0.0));
  for (double& component : q) component /= length;
  return q;
}

// By the shortest turn (Shoemake, "Animating Rotation with Quaternion Curves", 1985).
std::array<double, 4> Turn(const std::array<double, 4>& from, std::array<double, 4> to, double time) {
  double cosine = std::inner_product(from.begin(), from.end(), to.begin(), 0.0);
  if (cosine < 0) {
    for (double& component : to) component = -component;
    cosine = -cosine;
  }
  const double angle = std::acos(std::min(cosine, 1.0));
  double share0 = 1 - time, share1 = time;
  if (angle > 1e-6) {
    share0 = std::sin(share0 * angle) / std::sin(angle);
    share1 = std::sin(share1 * angle) / std::sin(angle);
  }
  std::array<double, 4> q;
  for (std::size_t i = 0; i < 4; ++i) q[i] = share0 * from[i] + share1 * to[i];
  return q;
}

Linear RotationOf(const std::array<double, 4>& q) {
  const auto [x, y, z, w] = q;
  return {{{1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)},
           {2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)},
           {2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)}}};
}

Linear LinearOf(const Mat4& matrix) {
  Linear a;
  for (std::size_t i = 0; i < 3; ++i)
    for (std::size_t j = 0; j < 3; ++j) a[i][j] = double{matrix.m[i][j]};
  return a;
}

// A mirror is the opposite of a matrix that has none.
InstancePlace PlaceOf(const Mat4& matrix, bool mirrored) {
  Linear a = LinearOf(matrix), rotation;
  if (mirrored)
    for (auto& row : a)
      for (double& entry : row) entry = -entry;
  InstancePlace place;
  DecomposePolar(a, rotation, place.stretch);
  place.turn = QuaternionOf(rotation);
  for (int i = 0; i < 3; ++i) place.origin[static_cast<std::size_t>(i)] = double{matrix.m[i][3]};
  return place;
}

bool IsAffine(const Mat4& matrix) {
  const auto& m = matrix.m;
  for (const auto& row : m)
    for (const float entry : row)
      if (!std::isfinite(entry)) return false;
  return m[3][0] == 0 && m[3][1] == 0 && m[3][2] == 0 && m[3][3] == 1;
}

}  // namespace

std::string MotionProblem(const Mat4& open, const Mat4& close) {
  if (!IsAffine(open) || !IsAffine(close)) return "a fourth row other than 0 0 0 1 leads nowhere";
  const double before = Determinant(LinearOf(open)), after = Determinant(LinearOf(close));
  Mat4 inverse;
  if (!Invert(open, inverse) || !Invert(close, inverse) || !(std::abs(before * after) > 0))
    return "a matrix without an inverse leads nowhere";
  if ((before < 0) != (after < 0)) return "one mirrors and the other does not";
  return {};
}

void SetMatrixEnd(Instance& instance, const Mat4& close) {
  if (instance.aside < 0) {
    instance.aside = static_cast<std::int32_t>(instanceMotions.size());
    instanceMotions.emplace_back();
  }
  At(instanceMotions, instance.aside).close = close;
}

void PrepareMotion(Instance& instance) {
  if (instance.aside < 0) return;
  InstanceMotion& motion = At(instanceMotions, instance.aside);
  const Mat4& close = motion.close;
  const auto standStill = [&] { instance.aside = kNone; };
  if (settings.format < 2 || close == instance.matrix) return standStill();
  const std::string problem = MotionProblem(instance.matrix, close);
  if (!problem.empty()) {
    PrintError("object - an instance stands still, of matrix and matrix_end: " + problem, {"instance-still"});
    return standStill();
  }
  motion.mirrored = Determinant(LinearOf(close)) < 0;
  motion.first = PlaceOf(instance.matrix, motion.mirrored);
  motion.last = PlaceOf(close, motion.mirrored);
}

Mat4 MatrixAt(const Instance& instance, float time) {
  Mat4 matrix = instance.matrix;
  const InstanceMotion* motion = MotionOf(instance);
  if (motion == nullptr) return matrix;
  const InstancePlace &first = motion->first, &last = motion->last;
  const double share1 = double{time}, share0 = 1 - share1;
  const Linear rotation = RotationOf(Turn(first.turn, last.turn, share1));
  for (std::size_t i = 0; i < 3; ++i) {
    for (std::size_t j = 0; j < 3; ++j) {
      double sum = 0;
      for (std::size_t k = 0; k < 3; ++k)
        sum += rotation[i][k] * (share0 * first.stretch[k][j] + share1 * last.stretch[k][j]);
      matrix.m[i][j] = static_cast<float>(motion->mirrored ? -sum : sum);
    }
    matrix.m[i][3] = static_cast<float>(share0 * first.origin[i] + share1 * last.origin[i]);
  }
  return matrix;
}

void MoveInstance(Instance& instance, float time) {
  if (MotionOf(instance) != nullptr) instance.matrix = MatrixAt(instance, time);
}

Vec3 MotionAt(const Part& part, const Corners& corners) {
  Vec3 sum;
  if (settings.format >= 2 ? !part.atOpen : !part.motion) return sum;
  for (const VertexSet<Vec3>& set : part.vectorSets) {
    if (set.name != "motion" || set.values.size() != part.positions.size()) continue;
    for (int i = 0; i < corners.count; ++i) sum += corners.weight[i] * set.values[corners.vertex[i]];
    break;
  }
  return sum;
}

void PrintOtherEnd(const std::string& path, const std::string& endPath) {
  PrintError("object - " + endPath + " has other vertices or faces than " + path + ": nothing moves",
             {"model-end", endPath});
  PrintRule();
}

std::vector<Vec3>* MotionOf(Part& part) {
  if (settings.format < 2) return nullptr;
  for (auto& set : part.vectorSets)
    if (set.name == "motion")
      return !set.values.empty() && set.values.size() == part.positions.size() ? &set.values : nullptr;
  return nullptr;
}

namespace {

// For each vertex the first of those at its place that move alike and have its normal: where vertices split
// for other reasons, a surface shall not break.
std::vector<std::uint32_t> FindAlike(const Part& part, const std::vector<Vec3>& motion) {
  std::vector<std::uint32_t> order(part.positions.size()), alike(order.size());
  std::iota(order.begin(), order.end(), 0U);
  const auto key = [&](std::uint32_t v) {
    const Vec3 p = part.positions[v], m = motion[v];
    const PackedVector n = part.normals[v];
    const auto bits = [](float x) { return std::bit_cast<std::uint32_t>(x + 0.0f); };
    return std::tuple(bits(p.x), bits(p.y), bits(p.z), bits(m.x), bits(m.y), bits(m.z), n.x, n.y, n.z);
  };
  std::sort(order.begin(), order.end(),
            [&](std::uint32_t a, std::uint32_t b) { return std::pair(key(a), a) < std::pair(key(b), b); });
  for (std::size_t i = 0; i < order.size(); ++i)
    alike[order[i]] = i > 0 && key(order[i]) == key(order[i - 1]) ? alike[order[i - 1]] : order[i];
  return alike;
}

// What becomes of vectors at a face while two of its edges turn into others. Lengths along the normal follow
// the root of the area, so that a face that only grows turns nothing.
class FaceChange {
 public:
  FaceChange(Vec3 a0, Vec3 b0, Vec3 a1, Vec3 b1) : a0_(a0), b0_(b0), a1_(a1), b1_(b1) {
    const Vec3 cross0 = Cross(a0, b0), cross1 = Cross(a1, b1);
    area0_ = Length(cross0);
    area1_ = Length(cross1);
    sound_ = area0_ > 0 && area1_ > 0 && std::isfinite(area0_) && std::isfinite(area1_);
    normal0_ = UnitVector(cross0);
    normal1_ = UnitVector(cross1);
  }
  bool IsSound() const { return sound_; }

  Vec3 OfNormal(Vec3 n) const {
    const Vec3 dualA = Cross(b1_, normal1_), dualB = Cross(normal1_, a1_);
    return UnitVector((Dot(n, a0_) / area1_) * dualA + (Dot(n, b0_) / area1_) * dualB +
                      (Dot(n, normal0_) * std::sqrt(area0_ / area1_)) * normal1_);
  }
  Vec3 OfTangent(Vec3 t) const {
    const Vec3 dualA = Cross(b0_, normal0_), dualB = Cross(normal0_, a0_);
    return UnitVector((Dot(t, dualA) / area0_) * a1_ + (Dot(t, dualB) / area0_) * b1_ +
                      (Dot(t, normal0_) * std::sqrt(area1_ / area0_)) * normal1_);
  }

 private:
  static float Length(Vec3 v) { return std::sqrt(Dot(v, v)); }

  Vec3 a0_, b0_, a1_, b1_, normal0_, normal1_;
  float area0_, area1_;
  bool sound_;
};

// Calls visit(face's vertices, count, shader) for each triangle and tetragon.
template <class Visit>
void ForEachFace(const Part& part, Visit visit) {
  for (const Triangle& face : part.triangles) visit(face.vertex, 3, face.shader);
  for (const Tetragon& face : part.tetragons) visit(face.vertex, 4, face.shader);
}

// Takes a file's normals at the end for those vertices whose first normals are a file's, too.
void TakeFileNormals(Part& part) {
  const auto set = std::find_if(part.vectorSets.begin(), part.vectorSets.end(),
                                [](const auto& s) { return s.name == kEndNormalSet; });
  if (set == part.vectorSets.end() || set->values.size() != part.positions.size()) return;
  ForEachFace(part, [&](const std::uint32_t* vertex, int count, std::int32_t shader) {
    if (HasShader(shader) && !(ShaderAt(shader).geometry.smoothAngle < 0)) return;
    for (int i = 0; i < count; ++i) {
      const std::uint32_t v = vertex[i];
      if (!IsZero(part.normals[v]) && set->values[v] != Vec3{})
        part.endNormals[v] = Pack(UnitVector(set->values[v]));
    }
  });
}

}  // namespace

void DeriveEndVectors(Part& part) {
  part.endNormals.clear();
  part.endTangents.clear();
  const std::vector<Vec3>* motion = MotionOf(part);
  const std::size_t count = part.positions.size();
  if (motion == nullptr || part.normals.size() != count || part.tangents.size() != count) return;
  const std::vector<std::uint32_t> alike = FindAlike(part, *motion);
  std::vector<Vec3> normals(count), tangents(count);
  const auto end = [&](std::uint32_t v) { return part.positions[v] + (*motion)[v]; };
  ForEachFace(part, [&](const std::uint32_t* v, int corners, std::int32_t) {
    // Two edges of a triangle; the diagonals of a rectangle.
    const std::uint32_t a = v[0], b = v[corners == 4 ? 2 : 1], c = v[corners == 4 ? 1 : 0],
                        d = v[corners - 1];
    const auto& p = part.positions;
    const FaceChange change(p[b] - p[a], p[d] - p[c], end(b) - end(a), end(d) - end(c));
    if (!change.IsSound()) return;
    for (int i = 0; i < corners; ++i) {
      if (!IsZero(part.normals[v[i]]))
        normals[alike[v[i]]] += change.OfNormal(UnitVector(Unpack(part.normals[v[i]])));
      if (!IsZero(part.tangents[v[i]]))
        tangents[v[i]] += change.OfTangent(UnitVector(Unpack(part.tangents[v[i]])));
    }
  });
  part.endNormals = part.normals;
  part.endTangents = part.tangents;
  for (std::size_t v = 0; v < count; ++v) {
    const Vec3 normal = UnitVector(normals[alike[v]]), tangent = UnitVector(tangents[v]);
    if (normal != Vec3{} && IsFinite(normal)) part.endNormals[v] = Pack(normal);
    if (tangent != Vec3{} && IsFinite(tangent)) part.endTangents[v] = Pack(tangent);
  }
  TakeFileNormals(part);
}

namespace {

// A rectangle that turns or bends need not be one on its way.
void SplitTurning(Part& part, const std::vector<Vec3>& motion) {
  const auto turns = [&](const Tetragon& face) {
    const auto& v = face.vertex;
    return std::any_of(v, v + 4, [&](std::uint32_t corner) { return motion[corner] != motion[v[0]]; });
  };
  for (const Tetragon& face : part.tetragons) {
    if (!turns(face)) continue;
    const auto& v = face.vertex;
    part.triangles.push_back({{v[0], v[1], v[2]}, face.shader});
    part.triangles.push_back({{v[2], v[3], v[0]}, face.shader});
  }
  std::erase_if(part.tetragons, turns);
}

PackedVector Between(PackedVector open, PackedVector close, float time) {
  if (open == close || IsZero(open)) return open;
  return Pack(UnitVector((1 - time) * UnitVector(Unpack(open)) + time * UnitVector(Unpack(close))));
}

}  // namespace

void PrepareMotion(Part& part) {
  part.atOpen.reset();
  const std::vector<Vec3>* motion = MotionOf(part);
  if (motion == nullptr) return;
  SplitTurning(part, *motion);
  DeriveEndVectors(part);
  part.atOpen = std::make_shared<VertexState>(VertexState{part.positions, part.normals, part.tangents});
}

void MovePart(Part& part, float time) {
  const std::vector<Vec3>* motion = MotionOf(part);
  if (motion == nullptr || !part.atOpen || part.atOpen->positions.size() != part.positions.size()) return;
  const VertexState& open = *part.atOpen;
  const std::size_t count = part.positions.size();
  const bool turns = part.endNormals.size() == count && part.normals.size() == count;
#pragma omp parallel for schedule(static) if (IsWorthThreads(count, 20))
  for (std::size_t i = 0; i < count; ++i) {
    part.positions[i] = open.positions[i] + time * (*motion)[i];
    if (!turns) continue;
    part.normals[i] = Between(open.normals[i], part.endNormals[i], time);
    part.tangents[i] = Between(open.tangents[i], part.endTangents[i], time);
  }
  if (!part.cylinders.empty()) DeriveStrandTangents(part);
}

}  // namespace zp
