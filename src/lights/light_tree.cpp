#include "lights/light_tree.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "core/validate.h"

namespace zp {
namespace {

constexpr int kBins = 12;
constexpr std::size_t kFewLights = 1024;  // so many at most are tried along all three axes
// Spheres are a little larger than need be, so that rounding leaves nothing out.
constexpr float kMargin = 1e-4f;

float HalfDiagonal(const Box& box) { return 0.5f * std::sqrt(Dot(box.max - box.min, box.max - box.min)); }

float Angle(float cosine) { return std::acos(std::clamp(cosine, -1.0f, 1.0f)); }

float Power(const LightBounds& light) { return light.front + light.back; }

// The smallest cone around two (Barequet and Elber, "Optimal Bounding Cones of Vectors in Three Dimensions",
// 2005).
void JoinCones(const LightBounds& a, const LightBounds& b, LightBounds& result) {
  const float wide = Angle(a.cosine), narrow = Angle(b.cosine), between = Angle(Dot(a.axis, b.axis));
  if (std::min(between + narrow, kPi) <= wide) {
    result.axis = a.axis;
    result.cosine = a.cosine;
    return;
  }
  const float half = 0.5f * (wide + between + narrow);
  const Vec3 across = Cross(Cross(a.axis, b.axis), a.axis);
  if (!(half < kPi) || !(Dot(across, across) > 0)) {
    result.axis = a.axis;
    result.cosine = -1;
    return;
  }
  const float turn = half - wide;
  result.axis = UnitVector(std::cos(turn) * a.axis + std::sin(turn) * UnitVector(across));
  result.cosine = std::cos(half);
}

// What a split goes by.
struct Group {
  Box box;
  Vec3 axes;  // sum of the unit vectors
  double power = 0;
  float count = 0;

  void Add(const LightBounds& light) {
    Grow(box, light.box);
    axes += light.axis;
    power += double{Power(light)};
    ++count;
  }
  void Add(const Group& other) {
    Grow(box, other.box);
    axes += other.axes;
    power += other.power;
    count += other.count;
  }
  // Power by extent by spread. How short the mean of the axes is tells how they spread (Mardia, "Statistics
  // of Directional Data", 1972); all over the sphere counts four times as much as one direction, as with
  // cones.
  double Cost() const {
    if (!(count > 0)) return 0;
    const Vec3 mean = axes / count;
    return power * double{HalfArea(box)} * double{4 - 3 * std::sqrt(MinOf(Dot(mean, mean), 1.0f))};
  }
};

struct Range {
  std::size_t begin = 0, end = 0;
  double cost = 0;
  std::size_t Count() const { return end - begin; }
};

class Builder {
 public:
  Builder(LightTree& tree, std::span<const LightBounds> lights) : tree_(tree), lights_(lights) {
    for (std::uint32_t i = 0; i < lights.size(); ++i)
      if (Power(lights[i]) > 0 && !IsEmpty(lights[i].box)) order_.push_back(i);
  }

  void Build() {
    tree_.nodes.clear();
    tree_.parents.clear();
    tree_.places.assign(lights_.size(), kNowhere);
    if (order_.empty()) return;
    struct Work {
      Range range;
      std::uint32_t parent;
    };
    tree_.nodes.reserve(order_.size() / 6 + 1);
    tree_.parents.reserve(tree_.nodes.capacity());
    std::vector<Work> stack = {{RangeOf(0, order_.size()), kNowhere}};
    while (!stack.empty()) {
      const Work work = stack.back();
      stack.pop_back();
      const auto node = static_cast<std::uint32_t>(tree_.nodes.size());
      tree_.nodes.emplace_back();
      tree_.parents.push_back(work.parent);
      if (work.parent != kNowhere)
        tree_.nodes[work.parent / kLightLanes].child[work.parent % kLightLanes] = node;
      std::array<Range, kLightLanes> parts;
      const std::size_t count = Divide(work.range, parts);
      for (std::size_t lane = 0; lane < count; ++lane) {
        const auto place = static_cast<std::uint32_t>(kLightLanes * node + lane);
        if (parts[lane].Count() > 1) {
          stack.push_back({parts[lane], place});
          continue;
        }
        const std::uint32_t light = order_[parts[lane].begin];
        tree_.nodes[node].child[lane] = kLeafLane | light;
        tree_.places[light] = place;
      }
    }
  }

 private:
  Range RangeOf(std::size_t begin, std::size_t end) const {
    Group group;
    for (std::size_t i = begin; i < end; ++i) group.Add(lights_[order_[i]]);
    return {begin, end, group.Cost()};
  }

  // Into eight parts, or fewer: always the one that costs most is split. What fits into a node stays
  // together, until nothing else is left.
  std::size_t Divide(const Range& range, std::array<Range, kLightLanes>& parts) {
    const std::size_t least = range.Count() > kLightLanes ? kLightLanes : 1;
    parts[0] = range;
    std::size_t count = 1;
    while (count < kLightLanes) {
      std::size_t widest = count;
      for (std::size_t i = 0; i < count; ++i)
        if (parts[i].Count() > least && (widest == count || parts[i].cost > parts[widest].cost)) widest = i;
      if (widest == count) break;
      const std::size_t middle = Split(parts[widest]);
      parts[count++] = RangeOf(middle, parts[widest].end);
      parts[widest] = RangeOf(parts[widest].begin, middle);
    }
    return count;
  }

  // Sorts a range into two and returns where the second begins.
  std::size_t Split(const Range& range) {
    Box centers;
    for (std::size_t i = range.begin; i < range.end; ++i) Grow(centers, Center(lights_[order_[i]].box));
    const Vec3 size = centers.max - centers.min;
    const int longest = size.x >= size.y && size.x >= size.z ? 0 : size.y >= size.z ? 1 : 2;
    double best = std::numeric_limits<double>::infinity();
    int bestAxis = 0, bestBin = 0;
    for (int axis = 0; axis < 3; ++axis) {
      if (!(size[axis] > 0) || (axis != longest && range.Count() > kFewLights)) continue;
      // Thin boxes are not good to cut across (Conty Estevez and Kulla).
      TryAxis(range, centers, axis, double{size[longest]} / double{size[axis]}, best, bestAxis, bestBin);
    }
    const auto begin = order_.begin() + static_cast<std::ptrdiff_t>(range.begin);
    const auto end = order_.begin() + static_cast<std::ptrdiff_t>(range.end);
    std::ptrdiff_t below = (end - begin) / 2;
    if (std::isfinite(best))
      below = std::count_if(begin, end, [&](std::uint32_t light) {
        return BinOf(centers, bestAxis, Center(lights_[light].box)) <= bestBin;
      });
    if (end - begin > kLightLanes)
      below = (below + kLightLanes / 2) / kLightLanes * kLightLanes;  // nodes are full
    const std::ptrdiff_t least = end - begin > kLightLanes ? kLightLanes : 1;
    below = std::clamp(below, least, (end - begin - 1) / least * least);
    std::nth_element(begin, begin + below, end, [&](std::uint32_t a, std::uint32_t b) {
      return Center(lights_[a].box)[bestAxis] < Center(lights_[b].box)[bestAxis];
    });
    return range.begin + static_cast<std::size_t>(below);
  }

  static int BinOf(const Box& centers, int axis, Vec3 p) {
    const float place = (p[axis] - centers.min[axis]) / (centers.max[axis] - centers.min[axis]);
    return std::clamp(static_cast<int>(place * kBins), 0, kBins - 1);
  }

  void TryAxis(const Range& range, const Box& centers, int axis, double thinness, double& best, int& bestAxis,
               int& bestBin) const {
    std::array<Group, kBins> bins, above;
    for (std::size_t i = range.begin; i < range.end; ++i) {
      const LightBounds& light = lights_[order_[i]];
      bins[static_cast<std::size_t>(BinOf(centers, axis, Center(light.box)))].Add(light);
    }
    for (std::size_t b = kBins - 1; b > 0; --b) {
      above[b - 1] = above[b];
      above[b - 1].Add(bins[b]);
    }
    Group below;
    for (std::size_t b = 0; b + 1 < kBins; ++b) {
      below.Add(bins[b]);
      if (!(below.count > 0) || !(above[b].count > 0)) continue;
      const double cost = thinness * (below.Cost() + above[b].Cost());
      if (!(cost < best)) continue;
      best = cost;
      bestAxis = axis;
      bestBin = static_cast<int>(b);
    }
  }

  LightTree& tree_;
  std::span<const LightBounds> lights_;
  std::vector<std::uint32_t> order_;
};

void SetLane(LightNode& node, std::size_t lane, const LightBounds& light, double total) {
  const Vec3 center = Center(light.box);
  const float reach = std::fabs(center.x) + std::fabs(center.y) + std::fabs(center.z);
  for (int i = 0; i < 3; ++i) {
    node.center[i][lane] = center[i];
    node.axis[i][lane] = light.axis[i];
  }
  node.radius[lane] = (1 + kMargin) * HalfDiagonal(light.box) + 1e-6f * reach;
  if (light.spot) {
    constexpr float kDim = 0.02f;  // of the promise at the cone's rim
    const float full = std::max(Angle(light.cosine) - light.rim, 0.0f);
    node.lift[lane] = kDim - light.cosine;
    node.slope[lane] = 1 / std::max(std::cos(full) - light.cosine, kDim);
  } else {
    // Twice the sine of half the angle is how far a unit vector can turn away.
    node.lift[lane] = std::sqrt(std::max(2 - 2 * light.cosine, 0.0f)) + 10 * kMargin;
    node.slope[lane] = 1;
  }
  // A light that has power never loses all of it beside others.
  constexpr double kLeastShare = 1e-20;
  const auto share = [&](float power) {
    return power > 0 ? static_cast<float>(std::max(double{power} / total, kLeastShare)) : 0.0f;
  };
  node.front[lane] = share(light.front);
  node.back[lane] = share(light.back);
}

// What each lane promises at the point. The true share of a small light is power * cosine there * cosine here
// / distance^2; both cosines are those of the sphere's centre, widened as the sphere and the cone demand, and
// inside of the sphere its radius stands for the distance.
struct Promise {
  alignas(32) float lanes[kLightLanes];
};
Promise PromiseOf(const LightNode& node, const LightReceiver& receiver) {
  constexpr float kNearest = 1e-18f;
  Promise promise;
  const Vec3 p = receiver.position, m = receiver.normal;
  const float allSides = receiver.seesAllSides ? 1.0f : 0.0f;
  const auto above = [](float x, float limit) { return x > limit ? x : limit; };
  const auto below = [](float x, float limit) { return x < limit ? x : limit; };
  for (int i = 0; i < kLightLanes; ++i) {
    const float x = p.x - node.center[0][i], y = p.y - node.center[1][i], z = p.z - node.center[2][i];
    const float r = node.radius[i];
    const float squared = above(above(x * x + y * y + z * z, r * r), kNearest);
    const float distance = std::sqrt(squared), inverse = 1.0f / squared;
    const float along = x * node.axis[0][i] + y * node.axis[1][i] + z * node.axis[2][i];
    const float rim = r + node.lift[i] * distance;
    const float front = below(node.slope[i] * above(rim + along, 0.0f), distance);
    const float back = below(node.slope[i] * above(rim - along, 0.0f), distance);
    const float up = r - (x * m.x + y * m.y + z * m.z) + allSides * distance;
    const float here = below(above(up, 0.0f), distance);
    promise.lanes[i] = (receiver.front * node.front[i] * front + receiver.back * node.back[i] * back) *
                       inverse * (here * inverse);
  }
  return promise;
}

float Sum(const Promise& promise) {
  float sum = 0;
  for (const float lane : promise.lanes) sum += lane;
  return sum;
}

// One light needs no weighing.
bool IsAlone(const LightTree& tree) { return tree.places.size() == 1; }

bool IsUsable(float sum) { return sum > 0 && sum <= kFarthest; }

}  // namespace

LightBounds Join(const LightBounds& a, const LightBounds& b) {
  if (IsEmpty(a.box)) return b;
  if (IsEmpty(b.box)) return a;
  LightBounds result;
  result.box = Union(a.box, b.box);
  result.front = a.front + b.front;
  result.back = a.back + b.back;
  result.spot = a.spot;
  if (a.cosine <= b.cosine)
    JoinCones(a, b, result);
  else
    JoinCones(b, a, result);
  // Full light reaches as far from the middle as it does for any.
  const auto full = [&](const LightBounds& light) {
    return Angle(Dot(result.axis, light.axis)) + Angle(light.cosine) - light.rim;
  };
  if (result.spot) result.rim = std::max(Angle(result.cosine) - std::max(full(a), full(b)), 0.0f);
  return result;
}

void BuildLightTree(LightTree& tree, std::span<const LightBounds> lights) {
  Builder(tree, lights).Build();
  RefitLightTree(tree, lights);
}

void RefitLightTree(LightTree& tree, std::span<const LightBounds> lights) {
  tree.whole = {};
  double total = 0;
  bool same = tree.places.size() == lights.size();
  for (std::size_t i = 0; i < lights.size(); ++i) {
    const bool shines = Power(lights[i]) > 0 && !IsEmpty(lights[i].box);
    if (shines) total += double{Power(lights[i])};
    same = same && shines == (tree.places[i] != kNowhere);
  }
  if (!same) return BuildLightTree(tree, lights);
  if (!std::isfinite(total)) tree = {};
  // Nodes stand behind those above them.
  std::vector<LightBounds> below(tree.nodes.size());
  for (std::size_t n = tree.nodes.size(); n-- > 0;) {
    LightNode& node = tree.nodes[n];
    for (std::size_t lane = 0; lane < kLightLanes; ++lane) {
      const std::uint32_t child = node.child[lane];
      if (child == 0) continue;  // the root is below no other node
      const LightBounds& light = (child & kLeafLane) != 0 ? lights[child & ~kLeafLane] : below[child];
      SetLane(node, lane, light, total);
      below[n] = Join(below[n], light);
    }
  }
  if (!below.empty()) tree.whole = below[0];
  if (kValidates) RequireSound(ValidateLightTree(tree, lights));
}

std::string ValidateLightTree(const LightTree& tree, std::span<const LightBounds> lights) {
  Fault fault;
  const auto& [nodes, parents, places, whole] = tree;
  if (nodes.empty()) return {};
  if (!fault.Require(places.size() == lights.size() && parents.size() == nodes.size(), "light tree's tables"))
    return fault.text;
  for (std::size_t n = 1; n < nodes.size(); ++n)
    if (fault.Require(parents[n] / kLightLanes < n, "light tree's parent", n))
      fault.Require(nodes[parents[n] / kLightLanes].child[parents[n] % kLightLanes] == n,
                    "light tree's child", n);
  for (std::uint32_t i = 0; i < lights.size(); ++i) {
    std::uint32_t place = places[i];
    fault.Require((place != kNowhere) == (Power(lights[i]) > 0 && !IsEmpty(lights[i].box)), "light's place",
                  i);
    if (place == kNowhere) continue;
    if (!fault.Require(place / kLightLanes < nodes.size(), "light's node", i)) continue;
    fault.Require(nodes[place / kLightLanes].child[place % kLightLanes] == (kLeafLane | i), "light's lane",
                  i);
    for (; place != kNowhere; place = parents[place / kLightLanes]) {
      const LightNode& node = nodes[place / kLightLanes];
      const std::uint32_t lane = place % kLightLanes;
      const Vec3 center = {node.center[0][lane], node.center[1][lane], node.center[2][lane]};
      const Vec3 way = MaxOf(lights[i].box.max - center, center - lights[i].box.min);
      fault.Require(Dot(way, way) <= 1.001f * node.radius[lane] * node.radius[lane], "light's sphere", i);
      fault.Require(
          (node.front[lane] > 0 || !(lights[i].front > 0)) && (node.back[lane] > 0 || !(lights[i].back > 0)),
          "light's power", i);
    }
  }
  return fault.text;
}

bool PickLight(const LightTree& tree, const LightReceiver& receiver, double number, LightPick& pick) {
  if (tree.nodes.empty()) return false;
  pick = {0, 1, number};
  if (IsAlone(tree)) return true;
  std::uint32_t child = 0;
  do {
    const LightNode& node = tree.nodes[child];
    const Promise promise = PromiseOf(node, receiver);
    const float sum = Sum(promise);
    if (!IsUsable(sum)) return false;
    // The first lane whose running sum is above, else the last that promises anything.
    double left = number * double{sum};
    int lane = -1;
    for (int i = 0; i < kLightLanes; ++i) {
      if (!(promise.lanes[i] > 0)) continue;
      if (lane >= 0) left -= double{promise.lanes[lane]};
      lane = i;
      if (left < double{promise.lanes[i]}) break;
    }
    const float taken = promise.lanes[lane];
    number = std::clamp(left / double{taken}, 0.0, 0x1.fffffep-1);
    pick.probability *= taken / sum;
    child = node.child[lane];
  } while ((child & kLeafLane) == 0);
  pick.light = child & ~kLeafLane;
  pick.rest = number;
  return pick.probability > 0;
}

float PickProbability(const LightTree& tree, const LightReceiver& receiver, std::uint32_t light) {
  if (light >= tree.places.size()) return 0;
  float probability = tree.places[light] == kNowhere ? 0.0f : 1.0f;
  if (IsAlone(tree)) return probability;
  for (std::uint32_t place = tree.places[light]; place != kNowhere && probability > 0;
       place = tree.parents[place / kLightLanes]) {
    const Promise promise = PromiseOf(tree.nodes[place / kLightLanes], receiver);
    const float sum = Sum(promise);
    probability *= IsUsable(sum) ? promise.lanes[place % kLightLanes] / sum : 0.0f;
  }
  return probability;
}

}  // namespace zp
