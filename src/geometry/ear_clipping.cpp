#include "geometry/ear_clipping.h"

#include <algorithm>
#include <cmath>

namespace zp {
namespace {

struct FlatPoint {
  double x, y;
};

// Twice the area of a triangle; above 0 where it is wound as the rim.
double Turn(FlatPoint a, FlatPoint b, FlatPoint c) {
  return (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
}

// Seen along the axis to which the normal of the rim is nearest. Newell's normal is the sum of the cross
// products of all edges, so that a corner that turns inwards does not mislead it.
std::vector<FlatPoint> Flatten(const std::vector<Vec3>& rim) {
  double normal[3] = {};
  for (std::size_t i = 0; i < rim.size(); ++i) {
    const Vec3 a = rim[i] - rim[0], b = rim[(i + 1) % rim.size()] - rim[0];
    normal[0] += double{a.y} * b.z - double{a.z} * b.y;
    normal[1] += double{a.z} * b.x - double{a.x} * b.z;
    normal[2] += double{a.x} * b.y - double{a.y} * b.x;
  }
  int axis = 0;
  for (int i = 1; i < 3; ++i)
    if (std::fabs(normal[i]) > std::fabs(normal[axis])) axis = i;
  const bool away = normal[axis] < 0;
  const int u = (axis + (away ? 2 : 1)) % 3, v = (axis + (away ? 1 : 2)) % 3;
  std::vector<FlatPoint> points;
  points.reserve(rim.size());
  for (const Vec3 p : rim) points.push_back({double{p[u]} - rim[0][u], double{p[v]} - rim[0][v]});
  return points;
}

// What is left of a rim: a ring of corners.
struct Ring {
  std::vector<FlatPoint> points;
  std::vector<std::uint32_t> next, previous;

  double TurnAt(std::uint32_t i) const { return Turn(points[previous[i]], points[i], points[next[i]]); }
};

// Whether nothing of the rim lies in the triangle that the corner cuts off: only corners that turn inwards
// can. A corner at the same place as one of the triangle's is not in it: rims with holes touch themselves.
bool IsEar(const Ring& ring, const std::vector<std::uint32_t>& inward, std::uint32_t i) {
  if (!(ring.TurnAt(i) > 0)) return false;
  const FlatPoint a = ring.points[ring.previous[i]], b = ring.points[i], c = ring.points[ring.next[i]];
  const auto isAt = [](FlatPoint p, FlatPoint q) { return p.x == q.x && p.y == q.y; };
  return std::none_of(inward.begin(), inward.end(), [&](std::uint32_t other) {
    const FlatPoint p = ring.points[other];
    return !isAt(p, a) && !isAt(p, b) && !isAt(p, c) && Turn(a, b, p) >= 0 && Turn(b, c, p) >= 0 &&
           Turn(c, a, p) >= 0;
  });
}

}  // namespace

bool IsConcave(const std::vector<Vec3>& rim) {
  const std::vector<FlatPoint> points = Flatten(rim);
  const std::size_t count = points.size();
  constexpr double kRounding = 1e-6;  // of positions, against the product of both edges
  for (std::size_t i = 0; i < count; ++i) {
    const FlatPoint a = points[i], b = points[(i + 1) % count], c = points[(i + 2) % count];
    const double lengths = std::hypot(b.x - a.x, b.y - a.y) * std::hypot(c.x - b.x, c.y - b.y);
    if (Turn(a, b, c) < -kRounding * lengths) return true;
  }
  return false;
}

// Meisters, "Polygons Have Ears", 1975. Where rounding or a rim that crosses itself leaves no ear, the next
// corner goes, so that it always ends.
std::vector<std::array<std::uint32_t, 3>> ClipEars(const std::vector<Vec3>& rim) {
  std::vector<std::array<std::uint32_t, 3>> triangles;
  const auto count = static_cast<std::uint32_t>(rim.size());
  if (count < 3) return triangles;
  Ring ring = {Flatten(rim), std::vector<std::uint32_t>(count), std::vector<std::uint32_t>(count)};
  for (std::uint32_t i = 0; i < count; ++i) {
    ring.next[i] = (i + 1) % count;
    ring.previous[i] = (i + count - 1) % count;
  }
  std::vector<std::uint32_t> inward;
  for (std::uint32_t i = 0; i < count; ++i)
    if (!(ring.TurnAt(i) > 0)) inward.push_back(i);
  std::uint32_t corner = 0, tried = 0;
  for (std::uint32_t left = count; left > 3;) {
    if (tried < left && !IsEar(ring, inward, corner)) {
      corner = ring.next[corner];
      ++tried;
      continue;
    }
    tried = 0;
    --left;
    const std::uint32_t before = ring.previous[corner], after = ring.next[corner];
    triangles.push_back({before, corner, after});
    ring.next[before] = after;
    ring.previous[after] = before;
    std::erase_if(inward, [&](std::uint32_t i) {
      return i == corner || ((i == before || i == after) && ring.TurnAt(i) > 0);
    });
    corner = ring.next[after];  // not the neighbour: triangles of a fan are thin
  }
  triangles.push_back({ring.previous[corner], corner, ring.next[corner]});
  return triangles;
}

}  // namespace zp
