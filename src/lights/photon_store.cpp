#include "lights/photon_store.h"

#include <algorithm>
#include <atomic>

#include "core/console.h"
#include "core/index.h"
#include "core/stop.h"
#include "core/threads.h"

namespace zp {

PhotonStore photonStore;

namespace {

// Component after and before a major axis, in the order of the packed ratios.
constexpr int kFirstRatio[3] = {1, 2, 0};
constexpr int kSecondRatio[3] = {2, 0, 1};

std::uint16_t PackRatio(float numerator, float divisor) {
  return divisor > 0 ? static_cast<std::uint16_t>(std::min(static_cast<int>(32 * (numerator / divisor)), 31))
                     : std::uint16_t{0};
}

}  // namespace

std::uint16_t PackDirection(Vec3 v) {
  v = SafeNormalize(v);
  const Vec3 size = {std::fabs(v.x), std::fabs(v.y), std::fabs(v.z)};
  int axis = size.y > size.x ? 1 : 0;
  if (size.z > MaxOf(size.x, size.y)) axis = 2;
  const int octant = (v.x < 0 ? 4 : 0) + (v.y < 0 ? 2 : 0) + (v.z < 0 ? 1 : 0);
  const int p = PackRatio(size[kFirstRatio[axis]], size[axis]);
  const int q = PackRatio(size[kSecondRatio[axis]], size[axis]);
  return static_cast<std::uint16_t>((p << 10) + (q << 5) + 4 * octant + axis + 1);
}

Vec3 UnpackDirection(std::uint16_t packed) {
  const int axis = std::max((packed & 3) - 1, 0);
  const int octant = packed >> 2 & 7;
  Vec3 v;
  v[axis] = 1;
  v[kFirstRatio[axis]] = (static_cast<float>(packed >> 10 & 31) + 0.5f) / 32;
  v[kSecondRatio[axis]] = (static_cast<float>(packed >> 5 & 31) + 0.5f) / 32;
  if ((octant & 4) != 0) v.x = -v.x;
  if ((octant & 2) != 0) v.y = -v.y;
  if ((octant & 1) != 0) v.z = -v.z;
  return SafeNormalize(v);
}

namespace {

constexpr int kBins = 17;
constexpr std::uint32_t kSmallestSplit = 17;  // photons; fewer are a leaf
constexpr int kDeepest = 31;
constexpr std::uint32_t kTask = 4096;  // photons; fewer are not worth a task

float HalfArea(Vec3 min, Vec3 max) {
  const Vec3 d = max - min;
  return d.x * d.y + d.y * d.z + d.z * d.x;
}

struct Split {
  float plane = 0;
  float cost = kFarthest;
  std::uint32_t left = 0, right = 0;
};

// A photon with its slot.
struct SlottedPhoton : PhotonRecord {
  std::uint16_t slot = 0;
};

// The tree grows into nodes that are there already, so that threads share nothing but the counter.
template <class Record>
struct Builder {
  std::vector<Record>& photons;
  RawVector<PhotonNode>& nodes;
  float radius;
  std::atomic<std::uint32_t> used{1};

  // Index of the first of `count` new nodes; 0 when there are none left.
  std::uint32_t Append(std::uint32_t count) {
    const std::uint32_t first = used.fetch_add(count, std::memory_order_relaxed);
    return first + count <= nodes.size() ? first : 0;
  }

  Split BestSplit(const Box& box, int axis, std::uint32_t first, std::uint32_t end) const {
    const float low = box.min[axis], extent = box.max[axis] - low;
    std::uint32_t bins[kBins] = {};
    for (std::uint32_t i = first; i < end; ++i) {
      const auto bin = static_cast<int>(kBins / extent * (photons[i].position[axis] - low));
      ++bins[std::clamp(bin, 0, kBins - 1)];
    }
    Split best;
    std::uint32_t left = 0;
    for (int k = 1; k < kBins; ++k) {
      left += bins[k - 1];
      const std::uint32_t right = end - first - left;
      const float plane = low + extent * static_cast<float>(k) / kBins;
      Vec3 leftMax = box.max, rightMin = box.min;
      leftMax[axis] = rightMin[axis] = plane;
      const float cost = static_cast<float>(left) * HalfArea(box.min, leftMax) +
                         static_cast<float>(right) * HalfArea(rightMin, box.max);
      if (cost < best.cost) best = {plane, cost, left, right};
    }
    return best;
  }

  void MakeLeaf(std::uint32_t node, std::uint32_t first, std::uint32_t end) {
    nodes[node] = {first, {}, 0, 0};
    nodes[node].count = end - first;
  }

  void Build(Box box, std::uint32_t first, std::uint32_t end, int depth, std::uint32_t node) {
    const Vec3 extent = box.max - box.min;
    int axis = extent.y > extent.x ? 1 : 0;
    if (extent.z > extent[axis]) axis = 2;
    if (end - first < kSmallestSplit || depth >= kDeepest || !(0.25f * radius <= extent[axis]) ||
        !(extent[axis] > 0) || Stopping())
      return MakeLeaf(node, first, end);

    const Split split = BestSplit(box, axis, first, end);
    const auto begin = photons.begin();
    // By the plane and not by the bins, so that searches can trust it.
    const auto middle = std::partition(begin + first, begin + end, [&](const Record& photon) {
      return photon.position[axis] < split.plane;
    });
    const auto pivot = static_cast<std::uint32_t>(middle - begin);
    const std::uint32_t left = pivot - first, right = end - pivot;
    const bool both = left > 0 && right > 0;
    const std::uint32_t child = Append(both ? 2 : 1);
    if (child == 0) return MakeLeaf(node, first, end);
    nodes[node].first = child;
    nodes[node].split = split.plane;
    nodes[node].axis = static_cast<std::uint8_t>(axis);
    nodes[node].children = static_cast<std::uint8_t>(both ? 3 : left > 0 ? 1 : 2);
    Box lower = box, upper = box;
    lower.max[axis] = upper.min[axis] = split.plane;
    if (!both)
      return left > 0 ? Build(lower, first, end, depth + 1, child)
                      : Build(upper, first, end, depth + 1, child);
    if (std::min(left, right) < kTask) {
      Build(lower, first, pivot, depth + 1, child);
      Build(upper, pivot, end, depth + 1, child + 1);
      return;
    }
#pragma omp task default(shared)
    Build(lower, first, pivot, depth + 1, child);
    Build(upper, pivot, end, depth + 1, child + 1);
#pragma omp taskwait
  }
};

void PrintPhotons() {
  const std::size_t count = photonStore.photons.size();
  PrintCountRow("photons", count, static_cast<float>(count * sizeof(PhotonRecord)) * kMegabytesPerByte);
}

template <class Record>
void BuildTree(std::vector<Record>& photons, float radius) {
  // Leaves hold eight photons and more on average, and a node in between two children.
  photonStore.nodes.resize(2 * photons.size() + 1);
  Builder<Record> builder{photons, photonStore.nodes, radius};
#pragma omp parallel if (IsWorthThreads(photons.size(), 100))
#pragma omp single
  builder.Build(photonStore.box, 0, static_cast<std::uint32_t>(photons.size()), 0, 0);
  photonStore.nodes.resize(std::min<std::size_t>(builder.used, photonStore.nodes.size()));
  photonStore.nodes.shrink_to_fit();
}

// Of all positions.
Box FindBox(const std::vector<PhotonRecord>& photons) {
  Box all;
#pragma omp parallel if (IsWorthThreads(photons.size(), 3))
  {
    Box box;
#pragma omp for schedule(static) nowait
    for (const PhotonRecord& photon : photons) Grow(box, photon.position);
#pragma omp critical
    Grow(all, box);
  }
  return all;
}

void BuildWithSlots(float radius) {
  const std::size_t count = photonStore.photons.size();
  std::vector<SlottedPhoton> photons(count);
#pragma omp parallel for schedule(static) if (IsWorthThreads(count, 5))
  for (std::size_t i = 0; i < count; ++i) photons[i] = {photonStore.photons[i], photonStore.slots[i]};
  BuildTree(photons, radius);
#pragma omp parallel for schedule(static) if (IsWorthThreads(count, 5))
  for (std::size_t i = 0; i < count; ++i) {
    photonStore.photons[i] = photons[i];
    photonStore.slots[i] = photons[i].slot;
  }
}

}  // namespace

void BuildPhotonStore(float radius) {
  std::vector<PhotonRecord>& photons = photonStore.photons;
  photonStore.box = Box();
  Release(photonStore.nodes);
  if (photons.empty()) return PrintPhotons();
  photonStore.box = FindBox(photons);
  if (photonStore.slots.size() == photons.size())
    BuildWithSlots(radius);
  else
    BuildTree(photons, radius);
  PrintPhotons();
}

void EmptyPhotonStore() {
  Release(photonStore.photons);
  Release(photonStore.slots);
  Release(photonStore.nodes);
  photonStore.box = Box();
}

namespace {

constexpr float kFacingCosine = 0.5f;

bool IsNearer(const FoundPhotons::Found& a, const FoundPhotons::Found& b) {
  return a.squaredDistance < b.squaredDistance;
}

// A heap with the farthest photon in front, which the next nearer one replaces.
void Take(FoundPhotons& result, FoundPhotons::Found photon, float& limit) {
  const auto begin = result.found.begin();
  if (result.count == kMostFoundPhotons) {
    std::pop_heap(begin, begin + result.count, IsNearer);
    --result.count;
  }
  At(result.found, result.count++) = photon;
  std::push_heap(begin, begin + result.count, IsNearer);
  if (result.count == kMostFoundPhotons) limit = result.found[0].squaredDistance;
}

}  // namespace

void FindPhotons(Vec3 position, Vec3 normal, float squaredRadius, FoundPhotons& result) {
  result.count = 0;
  result.largestSquared = 0;
  if (photonStore.nodes.empty()) return;
  struct Waiting {
    std::uint32_t node;
    float squaredDistance;  // at least this far away
  };
  Waiting stack[kDeepest + 2];
  int top = 0;
  float limit = squaredRadius;
  stack[top++] = {0, 0};
  while (top > 0) {
    const Waiting waiting = stack[--top];
    if (waiting.squaredDistance > limit) continue;
    std::uint32_t index = waiting.node;
    while (photonStore.nodes[index].children != 0) {
      const PhotonNode& node = photonStore.nodes[index];
      const float beyond = position[node.axis] - node.split;
      const bool upper = beyond >= 0;
      if (node.children != 3) {
        index = node.first;
        continue;
      }
      const float across = MaxOf(beyond * beyond, waiting.squaredDistance);
      if (across <= limit) stack[top++] = {node.first + (upper ? 0U : 1U), across};
      index = node.first + (upper ? 1U : 0U);
    }
    const PhotonNode& leaf = photonStore.nodes[index];
    for (std::uint32_t i = leaf.first; i < leaf.first + leaf.count; ++i) {
      const PhotonRecord& photon = photonStore.photons[i];
      const Vec3 way = photon.position - position;
      const float squared = Dot(way, way);
      if (!(squared < limit) || Dot(UnpackDirection(photon.normal), normal) < kFacingCosine) continue;
      Take(result, {squared, i}, limit);
    }
  }
  if (result.count > 0) result.largestSquared = result.found[0].squaredDistance;
}

}  // namespace zp
