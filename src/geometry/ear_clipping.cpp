#include "geometry/ear_clipping.h"

#include <algorithm>
#include <cmath>
#include <numeric>

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

// The corners that turn inwards, in the cells of a grid: contour lines have a hundred thousand.
class InwardCorners {
 public:
  explicit InwardCorners(const Ring& ring) : isInward_(ring.points.size()) {
    std::size_t count = 0;
    FlatPoint high = ring.points[0];
    low_ = high;
    for (std::uint32_t i = 0; i < ring.points.size(); ++i) {
      const FlatPoint p = ring.points[i];
      low_ = {std::min(low_.x, p.x), std::min(low_.y, p.y)};
      high = {std::max(high.x, p.x), std::max(high.y, p.y)};
      isInward_[i] = !(ring.TurnAt(i) > 0);
      count += isInward_[i];
    }
    side_ = static_cast<std::size_t>(std::sqrt(static_cast<double>(count) / 2)) + 1;
    const auto cells = static_cast<double>(side_);
    scale_ = {cells / (high.x - low_.x), cells / (high.y - low_.y)};
    begins_.resize(side_ * side_ + 1);
    const auto forEach = [&](auto visit) {
      for (std::uint32_t i = 0; i < isInward_.size(); ++i)
        if (isInward_[i]) visit(Column(ring.points[i]) + side_ * Row(ring.points[i]), i);
    };
    forEach([&](std::size_t cell, std::uint32_t) { ++begins_[cell + 1]; });
    std::partial_sum(begins_.begin(), begins_.end(), begins_.begin());
    corners_.resize(count);
    std::vector<std::uint32_t> places(begins_.begin(), begins_.end() - 1);
    forEach([&](std::size_t cell, std::uint32_t i) { corners_[places[cell]++] = i; });
  }
  void Remove(std::uint32_t corner) { isInward_[corner] = false; }

  // Whether `is` one of those from `low` to `high`, and maybe some more.
  template <class Is>
  bool Any(FlatPoint low, FlatPoint high, Is is) const {
    for (std::size_t row = Row(low); row <= Row(high); ++row) {
      const auto begin = corners_.begin() + begins_[row * side_ + Column(low)];
      const auto end = corners_.begin() + begins_[row * side_ + Column(high) + 1];
      if (std::any_of(begin, end, [&](std::uint32_t i) { return isInward_[i] && is(i); })) return true;
    }
    return false;
  }

 private:
  std::size_t Cell(double place) const {  // what is no number is in no triangle
    return place > 0 ? static_cast<std::size_t>(std::min(place, static_cast<double>(side_ - 1))) : 0;
  }
  std::size_t Column(FlatPoint p) const { return Cell((p.x - low_.x) * scale_.x); }
  std::size_t Row(FlatPoint p) const { return Cell((p.y - low_.y) * scale_.y); }

  std::vector<bool> isInward_;
  FlatPoint low_, scale_;
  std::size_t side_;
  std::vector<std::uint32_t> begins_, corners_;  // of the cells, row by row; one more at the end
};

// Whether nothing of the rim lies in the triangle that the corner cuts off: only corners that turn inwards
// can. A corner at the same place as one of the triangle's is not in it: rims with holes touch themselves.
bool IsEar(const Ring& ring, const InwardCorners& inward, std::uint32_t i) {
  if (!(ring.TurnAt(i) > 0)) return false;
  const FlatPoint a = ring.points[ring.previous[i]], b = ring.points[i], c = ring.points[ring.next[i]];
  const auto isAt = [](FlatPoint p, FlatPoint q) { return p.x == q.x && p.y == q.y; };
  const auto isInside = [&](std::uint32_t other) {
    const FlatPoint p = ring.points[other];
    return !isAt(p, a) && !isAt(p, b) && !isAt(p, c) && Turn(a, b, p) >= 0 && Turn(b, c, p) >= 0 &&
           Turn(c, a, p) >= 0;
  };
  return !inward.Any({std::min({a.x, b.x, c.x}), std::min({a.y, b.y, c.y})},
                     {std::max({a.x, b.x, c.x}), std::max({a.y, b.y, c.y})}, isInside);
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
  InwardCorners inward(ring);
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
    inward.Remove(corner);
    for (const std::uint32_t i : {before, after})
      if (ring.TurnAt(i) > 0) inward.Remove(i);
    corner = ring.next[after];  // not the neighbour: triangles of a fan are thin
  }
  triangles.push_back({ring.previous[corner], corner, ring.next[corner]});
  return triangles;
}

}  // namespace zp
