#include "integrator/light_shares.h"

#include <algorithm>
#include <array>

#include "core/settings.h"
#include "imaging/frame_layers.h"
#include "integrator/integrator.h"
#include "lights/mix_groups.h"

namespace zp {
namespace {

struct ShareOfRay {
  Vec3 light;                            // what a unit of light adds to the sample
  int reflections = 1, refractions = 1;  // of the glossy lobe: see CountGlossyRays
};

// Of one thread.
struct alignas(64) Shares {
  std::array<ShareOfRay, kMostDepth + 1> rays;  // by their depth
  std::vector<Vec3> groups;                     // of the sample, so far
  std::vector<Vec3> marks;                      // `groups` at each mark that is open
  TakenLight taken;
};

std::vector<Shares> sharesOfThreads;
std::vector<Aov*> groupAovs;  // of the camera, by the number of their group
std::int32_t restGroup = 0;

Shares& SharesOf(const RayRecord& ray) { return sharesOfThreads[ray.thread]; }
ShareOfRay& ShareAt(const RayRecord& ray) { return SharesOf(ray).rays[ray.depth]; }

void Add(Shares& shares, std::int32_t group, Vec3 light) {
  if (static_cast<std::size_t>(group) < shares.groups.size())
    shares.groups[static_cast<std::size_t>(group)] += light;
}

bool LimitsIndirect() {
  const Vec3 limit = settings.said.clampIndirect;
  return settings.format >= 2 && !(limit == Vec3{kFarthest, kFarthest, kFarthest});
}

// The first diffuse or rough surface behind one is where light is limited. A thin pane passes that on, so
// that light straight from a lamp behind it stays whole.
bool IsLimited(const RayRecord& ray, const ShadingPoint& point) {
  return BounceCount(ray) == 1 && ray.event < kEventSpecular && LimitsIndirect() &&
         point.material != Material::kThinDielectric;
}

// By channel: what is left of a colour.
Vec3 RatioOf(Vec3 limited, Vec3 color) {
  Vec3 ratio = kWhite;
  for (int c = 0; c < 3; ++c)
    if (limited[c] != color[c]) ratio[c] = limited[c] / color[c];
  return ratio;
}

void Mark(Shares& shares) {
  shares.marks.insert(shares.marks.end(), shares.groups.begin(), shares.groups.end());
}
void ScaleBack(Shares& shares, Vec3 ratio) {
  const std::size_t count = shares.groups.size(), first = shares.marks.size() - count;
  for (std::size_t i = 0; i < count && ratio != kWhite; ++i) {
    const Vec3 before = shares.marks[first + i];
    shares.groups[i] = before + ratio * (shares.groups[i] - before);
  }
  shares.marks.resize(first);
}

void AddCells(const RayRecord& ray, const ShadingPoint& point) {
  if (!SplitsPhotons())
    return AddLight(ray, photonGroups.empty() ? 0 : photonGroups[0], CellLight(ray, point));
  for (std::size_t slot = 0; slot < photonGroups.size(); ++slot)
    AddLight(ray, photonGroups[slot], CellLight(ray, point, static_cast<std::int32_t>(slot)));
}

void Share(const RayRecord& ray, const RayRecord& child, Vec3 weight, int count) {
  Shares& shares = SharesOf(ray);
  shares.rays[child.depth].light = shares.rays[ray.depth].light * weight / static_cast<float>(count);
}
int RaysOfLobe(const RayRecord& ray, const RayRecord& child) {
  return child.sampleWeight / std::max(ray.sampleWeight, 1);
}

}  // namespace

void InitializeShares() {
  FinalizeShares();
  const Camera* camera = ActiveCamera();
  std::vector<std::string> names;
  if (camera != nullptr)
    for (const Aov& aov : camera->aovs)
      if (aov.channel == kChannelLightGroup) names.push_back(aov.layer.substr(kGroupPrefix.size()));
  followsShares = !names.empty() || LimitsIndirect();
  if (names.empty()) return;
  NumberGroups(names);
  restGroup = static_cast<std::int32_t>(std::find(names.begin(), names.end(), kRestGroup) - names.begin());
}

void FinalizeShares() {
  followsShares = false;
  groupAovs.clear();
  photonGroups.clear();
  sharesOfThreads.clear();
}

void PrepareShares(Camera& camera, int threads) {
  groupAovs.clear();
  for (Aov& aov : camera.aovs)
    if (aov.channel == kChannelLightGroup) groupAovs.push_back(&aov);
  sharesOfThreads.resize(static_cast<std::size_t>(threads));
  for (Shares& shares : sharesOfThreads) {
    shares.groups.assign(groupAovs.size(), kBlack);
    shares.marks.clear();
    shares.marks.reserve(4 * groupAovs.size());
  }
}

const std::vector<Aov*>& GroupAovs() { return groupAovs; }
const std::vector<Vec3>& GroupLight(std::uint8_t thread) { return sharesOfThreads[thread].groups; }

void SetPhotonGroups(std::vector<std::int32_t> groups) {
  std::sort(groups.begin(), groups.end());
  groups.erase(std::unique(groups.begin(), groups.end()), groups.end());
  photonGroups = std::move(groups);
}

std::int32_t PhotonSlot(std::int32_t group) {
  const auto found = std::find(photonGroups.begin(), photonGroups.end(), group);
  return found == photonGroups.end() ? 0 : static_cast<std::int32_t>(found - photonGroups.begin());
}

void BeginSample(const RayRecord& cameraRay) {
  Shares& shares = SharesOf(cameraRay);
  std::fill(shares.groups.begin(), shares.groups.end(), kBlack);
  shares.marks.clear();
  shares.taken = {};
  shares.rays[cameraRay.depth].light = kWhite;
}

TakenLight TakenByLimits(std::uint8_t thread) { return sharesOfThreads[thread].taken; }

void LimitSample(std::uint8_t thread, Vec3 color, Vec3 limited) {
  Shares& shares = sharesOfThreads[thread];
  const Vec3 ratio = RatioOf(limited, color);
  bool isFinite = true;
  for (Vec3& light : shares.groups) {
    light *= ratio;
    isFinite = isFinite && IsFinite(light);
  }
  // What is too large for one group alone.
  if (!isFinite) ReplaceSample(thread, limited);
}

void ReplaceSample(std::uint8_t thread, Vec3 color) {
  Shares& shares = sharesOfThreads[thread];
  std::fill(shares.groups.begin(), shares.groups.end(), kBlack);
  Add(shares, restGroup, color);
}

void AddLight(const RayRecord& ray, std::int32_t group, Vec3 light) {
  Add(SharesOf(ray), group, ShareAt(ray).light * light);
}

void AddLobeLight(const RayRecord& ray, const ShadingPoint& point, std::int32_t group,
                  const LobeRadiance& lobes, float scale) {
  Vec3 sum;
  for (const LobeRow& row : kLobes)
    sum += point.has[row.lobe] ? lobes[row.lobe] * point.color[row.lobe] : lobes[row.lobe];
  AddLight(ray, group, scale * sum);
}

void AddCaustics(const RayRecord& ray, const ShadingPoint& point, Event event, std::int32_t group,
                 Vec3 light) {
  const Lobe lobe = event == kEventLambertian ? Lobe::kLambertian : Lobe::kTransmissive;
  AddLight(ray, group, point.diffuseWeight * light * point.color[lobe]);
}

void EnterHit(const RayRecord& ray, const ShadingPoint& point) {
  if (sceneHasMedia) ShareAt(ray).light *= Transmission(ray);
  if (IsLimited(ray, point)) Mark(SharesOf(ray));
}

void LeaveHit(const RayRecord& ray, const ShadingPoint& point, LobeRadiance& lobes, Vec3& emission) {
  const Vec3 cells = point.useDensity ? CellLight(ray, point) : kBlack;
  const Vec3 own = emission - cells;
  if (point.useDensity) AddCells(ray, point);
  if (IsLimited(ray, point)) {
    Shares& shares = SharesOf(ray);
    Vec3 indirect = cells;
    for (const Vec3& light : lobes.values) indirect += light;
    const Vec3 limited = MinOf(settings.said.clampIndirect, indirect);
    ScaleBack(shares, RatioOf(limited, indirect));
    if (limited != indirect) {
      shares.taken.any = true;
      shares.taken.light += (indirect - limited) * ShareAt(ray).light;
      lobes = {};
      emission = own + limited;
    }
  }
  if (own != kBlack) AddLight(ray, EmissionGroup(ray.shader), own);
}

void ShareWithDiffuse(const RayRecord& ray, const ShadingPoint& point, const RayRecord& child, Event event,
                      Vec3 weight) {
  const Lobe lobe = event == kEventLambertian ? Lobe::kLambertian : Lobe::kTransmissive;
  const Vec3 color = IsHair(point) ? point.color[lobe] : point.diffuseWeight * point.color[lobe];
  Share(ray, child, weight * color, RaysOfLobe(ray, child));
}

void ShareWithLobe(const RayRecord& ray, const ShadingPoint& point, const RayRecord& child, Event event,
                   Vec3 weight) {
  const bool glossy = event == kEventGlossy || event == kEventGlossyRefraction;
  int count = RaysOfLobe(ray, child);
  if (glossy && settings.format < 2 && BounceCount(ray) == 0 && !IsHair(point))
    count = event == kEventGlossy ? ShareAt(ray).reflections : ShareAt(ray).refractions;
  Share(ray, child, weight * point.color[glossy ? Lobe::kGlossy : Lobe::kSpecular], count);
}

void MarkShares(const RayRecord& ray) {
  if (settings.format < 2) Mark(SharesOf(ray));
}
void ScaleFromMark(const RayRecord& ray, float scale) { ScaleBack(SharesOf(ray), scale * kWhite); }

void CountGlossyRays(const RayRecord& ray, int reflections, int refractions) {
  ShareAt(ray).reflections = std::max(reflections, 1);
  ShareAt(ray).refractions = std::max(refractions, 1);
}

}  // namespace zp
