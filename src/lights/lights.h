// lights/lights.h: where light comes from: point and parallel lights (the Gaffer), emissive surfaces, the
// sky. Records change before a render only; sampling runs on any thread and does not fail.

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/settings.h"
#include "imaging/imaging.h"
#include "shading/shading.h"

namespace zp {

// Shaders that a light is restricted to; an empty list lights everything.
struct ShaderLink {
  std::vector<std::string> names;     // of scene text, resolved at initialisation
  std::vector<std::int32_t> shaders;  // indices
};
void ResolveLink(ShaderLink& link);
bool IsLinked(const ShaderLink& link, std::int32_t shader);

// What a light offers a point, before anything in between is known.
struct LightSample {
  Vec3 direction;      // unit, from the point to the light
  float distance = 0;  // length of the shadow ray: ends just before an emitter; kFarthest for what is outside
  Vec3 radiance;       // linear RGB; for point and parallel lights the perpendicular irradiance
  float pdf = 0;       // of the direction, per solid angle; 0 for point and parallel lights
  float factor = 0;    // geometric factor of a geometry light's sample
  std::int32_t shader = kNone;  // of the surface that sends it
  std::int32_t light = kNone;   // of a LightGroup: which one it is, by its table
};

// What a caller would like to have done within the draw of a sample, whose steps wait long for each other. It
// may be left out.
struct Meanwhile {
  void (*work)(const void* of) = nullptr;
  const void* of = nullptr;

  void Do() const {
    if (work != nullptr) work(of);
  }
};

// Where light is wanted: what lights can send there decides which of many are picked.
struct LightReceiver {
  Vec3 position;
  Vec3 normal = kBlack;       // unit: light from behind it counts for nothing; zero where all sides count
  bool seesAllSides = true;   // as `normal` says
  float front = 1, back = 1;  // factors of what leaves either side of an emitter
};

// Lights that are not in the scene. They shine on surfaces directly and shoot photons.
struct Light {
  Vec3 xAxis, yAxis, zAxis;  // emission frame; a parallel light shines along zAxis
  Vec3 color = {1, 1, 1};    // linear RGB
  Vec3 power;                // of all photons together; black without photons
  std::int64_t photon = 0;   // number of photons
  float blur = 0;            // a point light's radius, a parallel light's cone angle in degrees
  float ior = 1;             // of the medium around it
  std::int32_t sample = 1;   // shadow rays of a first hit, over all passes or, in format 2, in each
  ShaderLink link;
  std::vector<Aov> aovs;
  std::string group;            // light group: lights/groups.h
  std::int32_t groupIndex = 0;  // derived
  float cosine = 1;             // of the cone that photons are shot into
  float offset = 0.1f;          // softens the terminator of Lambertian surfaces
};

struct PointLight : Light {
  bool inside = false;                     // shoots photons everywhere, not just towards the scene
  Vec3 position;                           // scene units
  Vec3 direction = {0, 1, 0};              // spot axis
  float innerCut = 0, outerCut = 0;        // radians
  float innerAngle = 0, outerAngle = 180;  // degrees off the axis
};

struct ParallelLight : Light {};

extern std::vector<PointLight> pointLights;
extern std::vector<ParallelLight> parallelLights;

struct LightTree;  // lights/light_tree.h

// In format 2, more than eight lights of one kind and link: a hit picks some of them, each with a known
// chance, and the others not at all.
struct LightGroup {
  bool parallel = false;             // of parallelLights, else of pointLights
  bool seesAllSides = false;         // some light goes around terminators: no side of a surface is left out
  bool hasAovs = false;              // some light has
  ShaderLink link;                   // of all
  std::int32_t sample = 4;           // picks of a first hit: the largest `sample` of the lights, or this
  std::vector<std::int32_t> lights;  // indices in their table
  std::shared_ptr<const LightTree> tree;
};
extern std::vector<LightGroup> lightGroups;
extern std::vector<std::int32_t> lonePointLights, loneParallelLights;  // of the tables, the others
struct GroupPick {
  std::int32_t light = kNone;  // index in its table
  float probability = 0;
  double rest = 0;  // where the number that chose lies among those that choose this light
};
// The light under a number in [0, 1). False where none can reach the receiver.
bool PickFromGroup(const LightGroup& group, LightReceiver receiver, double number, GroupPick& pick);

void InitializeGaffer();
void FinalizeGaffer();  // writes the AOVs and empties both tables
// u, v in [0, 1) place a sample on a light with `blur` and are not used otherwise. `radiance` is the
// perpendicular irradiance that arrives at `position`: pi * color, by spot factor and squared distance for a
// point light.
LightSample SampleLight(const PointLight& light, Vec3 position, float u, float v);
LightSample SampleLight(const ParallelLight& light, Vec3 position, float u, float v);
// Fills the whole ray as photon number `sample` of the light's `photon`.
void MakePhotonRay(const PointLight& light, RayRecord& ray, std::uint32_t sample);
void MakePhotonRay(const ParallelLight& light, RayRecord& ray, std::uint32_t sample);

inline constexpr std::string_view kAnalyticSky = "analytic";  // reserved as an image: no file is looked for

struct SkyLight {
  // Kept by a reset.
  std::string image, backdrop;
  float turbidity = 9, albedo = 0.2f;
  float stretch = 0.1f;  // Intended: stored, without effect
  // Put back by a reset.
  Vec3 color = {0.75f, 0.75f, 0.75f};
  std::optional<std::int32_t> photon;  // PhotonsOf
  std::int32_t sample = kUnsaid;       // see LightBudget
  Vec3 north = {0, 1, 0};
  Vec3 zenith = {0, 0, 1};
  float thickness = 1000;  // Intended: stored, without effect
  float ior = 1;
  ShaderLink link;
  std::vector<Aov> aovs;
  std::string group;
  std::int32_t groupIndex = 0;  // derived
};
extern SkyLight skyLight;

struct GeometryLight {
  std::optional<std::int32_t> photon;  // PhotonsOf
  std::int32_t sample = kUnsaid;
  float area = 0;                // of the RootObject's virtual lights, at the instant that is rendered
  Vec3 colorWeight = {1, 1, 1};  // factor from emission to a photon's power
  bool initialized = false;
  ShaderLink link;
  std::vector<Aov> aovs;
  std::string group;  // of emission whose Shader names none
};
extern GeometryLight geometryLight;

// `sample` as it was said, or the default: initialisation stores it.
inline std::int32_t LightBudget(const SkyLight& light) { return SaidOr(light.sample, 64, 1); }
inline std::int32_t LightBudget(const GeometryLight& light) { return SaidOr(light.sample, 0, 1); }

void ResetSky();  // also the volume around everything
void ResetGeometryLight();
void InitializeSky();
void InitializeGeometryLight();
void FinalizeSky();  // writes the AOVs and resets
void FinalizeGeometryLight();

// Powers and cones of the photons of sky, point and parallel lights: what depends on the scene's bounds and
// on the medium around it, which are known when all else is initialised.
void AimPhotons();

// Radiance of the sky in a unit direction, `color` included.
Vec3 SkyRadiance(Vec3 direction);
// What a ray sees that comes from the camera without a bounce: the backdrop, or the sky without one.
Vec3 BackgroundRadiance(Vec3 direction);
// A direction in proportion to the brightness of the sky's image; u, v in [0, 1). False without an
// importance table, or for a sky that is not sampled.
bool SampleSky(float u, float v, LightSample& sample);
// Density per solid angle of SampleSky at a unit direction; 0 without a table.
float SkyDensity(Vec3 direction);
void MakeSkyPhotonRay(RayRecord& ray, std::uint32_t sample);

// An emitting primitive drawn from an emission list, in the space of its own Object.
struct EmitterPick {
  const Part* part = nullptr;
  std::uint8_t kind = kKindNone;
  std::uint8_t side = 1;        // 1 front, 0 back
  std::uint32_t index = 0;      // in the Part's list of that kind
  std::int32_t shader = kNone;  // the primitive's, or that of the Instance that overrides it
  Mat4 toWorld, normalToWorld;  // of all Instances around it
  bool placed = false;          // there are some
  std::uint64_t place = 0;      // PlaceInside of them
  float weight = 0;             // probability of the pick
};
// Of the RootObject's virtual lights, or its emitters, the one under a number in [0, 1), in proportion to
// their areas. False where there is none.
bool PickEmitter(bool virtualLights, double number, EmitterPick& pick);
double StratifiedNumber(std::uint32_t i, std::uint32_t n);  // drawn from the stratum i % n of n
// The surface of a pick at (a, b) in [0, 1)^2, uniform by area: position, frame looking out of the emitting
// side, uv; world space. The layer is not chosen.
void PlaceOnEmitter(const EmitterPick& pick, float a, float b, ShadingPoint& point);
// One sample of the virtual lights for a point: radiance is the emission towards it. `choice` in [0, 1) says
// which one, by area in format 1; in format 2 by what each may send there (lights/light_tree.h), and what it
// leaves of the number takes the place of `a`. (a, b) place the sample on it, uniform by area, or in format 2
// on rectangles by solid angle. factor is 1 / (pi * pdf); in format 1 cosine / (distance^2 * 18481 *
// pick.weight). False where no light leaves for the point.
bool SampleGeometryLight(const LightReceiver& receiver, double choice, float a, float b, LightSample& sample,
                         const Meanwhile& meanwhile = {});
// The pdf that samples of format 2 for that receiver have where a ray has hit; 0 where there are none. Comes
// before the thread's next Trace (HitInstance).
float EmitterDensity(const LightReceiver& receiver, const RayRecord& hit);
// Takes the virtual lights as they stand, after the scene has moved: see geometryLight.area.
void MoveEmitters();
void MakeGeometryPhotonRay(RayRecord& ray, std::uint32_t sample);

}  // namespace zp
