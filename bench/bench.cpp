// zp_bench: tree construction, nearest hits and OBJ loading, beside Embree where it is installed; the photon
// store. docs/benchmarks.md says how to read what it prints.

#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include "accel/accel.h"
#include "axis.h"
#include "core/console.h"
#include "core/settings.h"
#include "embree_side.h"
#include "frame/frame.h"
#include "geometry/geometry.h"
#include "meshes.h"
#include "neighbour.h"
#include "photons.h"
#include "rays.h"
#include "results.h"
#include "shading/shading.h"

namespace zp {
namespace {

enum class Side : std::uint8_t { kOurs, kEmbree };
enum class RayKind : std::uint8_t { kCamera, kBounce, kShadow, kAmbient };

// How a set of rays is made and traced on both sides.
struct RayCase {
  RayKind kind;
  const char* name;
  HitSums (*ours)(const RaySet&, int, std::vector<float>*);
  HitSums (*embree)(const RaySet&, int, std::vector<float>*);
};
constexpr RayCase kRayCases[] = {
    {RayKind::kCamera, "camera/", TraceOurs, TraceEmbree},
    {RayKind::kBounce, "bounce/", TraceOurs, TraceEmbree},
    {RayKind::kShadow, "shadow/", OccludeOurs, OccludeEmbree},
    {RayKind::kAmbient, "ambient/", OccludeOurs, OccludeEmbree},
};

constexpr double kMillion = 1e6;

constexpr std::size_t kPhotons = 2'000'000;
constexpr float kGatherRadius = 0.004f;   // of a unit square: some 40 photons where they are spread evenly
constexpr std::size_t kGatherStride = 4;  // photons from one gather to the next

// The cases point into these, so places must not move.
std::deque<MeshSource> meshes;
std::deque<CaseResult> results;
std::vector<Agreement> agreements;
std::vector<std::pair<std::string, MemoryUse>> memory;  // of the generated meshes

// The ray sets of the entered mesh.
struct {
  std::string mesh;
  RaySet camera, bounce, shadow;
} raySets;

// Which mesh Embree's scene holds and for how many threads its device was opened.
struct {
  std::string mesh;
  int threads = 0;
} embreeState;

// Some case could not be measured; the rest goes on.
bool failed = false;

void Fail(benchmark::State& state, const char* message) {
  failed = true;
  state.SkipWithError(message);
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

int AllThreads() { return std::clamp(omp_get_num_procs(), 1, kMaxThreads); }

bool Enter(const MeshSource& mesh) {
  if (!EnterMesh(mesh)) return false;
  const auto known = [&](const auto& entry) { return entry.first == mesh.name; };
  if (mesh.file.empty() && std::none_of(memory.begin(), memory.end(), known))
    memory.emplace_back(mesh.name, EnteredMemory());
  return true;
}

// Opens Embree for the entered mesh; the scene is built and thereby warm. False if it fails.
bool EnterEmbree(const MeshSource& mesh, int threads) {
  if (embreeState.mesh == mesh.name && embreeState.threads == threads) return true;
  OpenEmbree(EnteredPart(), threads);
  embreeState = {mesh.name, threads};
  if (BuildEmbree() > 0) return true;
  embreeState = {};
  return false;
}

// One construction from an Object without a tree. What the last one left is freed before the clock starts.
double BuildOurs(Object& object) {
  Object fresh;
  fresh.name = object.name;
  fresh.bounds = objectTable[0].bounds;
  fresh.parts = std::move(object.parts);
  fresh.deformable = object.deformable;
  object = std::move(fresh);
  const auto start = std::chrono::steady_clock::now();
  Build(object);
  Update(object, true, 1);
  return SecondsSince(start);
}

const RaySet& EnterRays(const MeshSource& mesh, RayKind kind) {
  if (raySets.mesh != mesh.name) {
    raySets.mesh = mesh.name;
    raySets.camera = CameraRays(objectTable[0].bounds);
    raySets.bounce = BounceRays(raySets.camera, objectTable[0].bounds, AllThreads());
    raySets.shadow = ShadowRays(raySets.camera, objectTable[0].bounds, AllThreads());
  }
  switch (kind) {
    case RayKind::kCamera:
      return raySets.camera;
    case RayKind::kShadow:
      return raySets.shadow;
    default:
      return raySets.bounce;  // ambient occlusion asks of the same rays whether they meet anything
  }
}

// Runs `measure`, which returns seconds, for every iteration and keeps the samples. A negative time is an
// error of the other side.
template <class F>
void Sample(benchmark::State& state, const CaseResult& result, std::vector<double>& samples, F measure) {
  for (auto _ : state) {
    const double seconds = measure();
    if (seconds < 0) {
      Fail(state, "Embree reports an error");
      break;
    }
    state.SetIterationTime(seconds);
    samples.push_back(seconds);
  }
  const std::int64_t amount =
      std::llround(static_cast<double>(state.iterations()) * result.amount * kMillion);
  if (result.unit == "MB/s")
    state.SetBytesProcessed(amount);
  else
    state.SetItemsProcessed(amount);
}

void MeasureBuild(benchmark::State& state, const MeshSource& mesh, Side side, CaseResult& result) {
  if (!Enter(mesh)) return Fail(state, "no such mesh");
  const int oldThreads = omp_get_max_threads();
  omp_set_num_threads(result.threads);
  result.amount = static_cast<double>(PrimitiveCount(EnteredPart())) / kMillion;
  if (side == Side::kOurs) {
    Object object;
    object.parts = objectTable[0].parts;
    if (result.ours.empty()) BuildOurs(object);
    Sample(state, result, result.ours, [&] { return BuildOurs(object); });
  } else if (EnterEmbree(mesh, result.threads)) {
    Sample(state, result, result.other, BuildEmbree);
  } else {
    Fail(state, "Embree reports an error");
  }
  omp_set_num_threads(oldThreads);
}

// Both sides ray by ray. Distances count as equal within the rounding of single precision on either side.
void CompareSides(const std::string& name, const RayCase& rayCase, const RaySet& rays) {
  const bool curves = !EnteredPart().cylinders.empty();
  const auto known = [&](const Agreement& a) { return a.name == name; };
  if (std::any_of(agreements.begin(), agreements.end(), known)) return;
  std::vector<float> ours(rays.size()), other(rays.size());
  const HitSums ourSums = rayCase.ours(rays, AllThreads(), &ours);
  const HitSums otherSums = rayCase.embree(rays, AllThreads(), &other);
  std::size_t different = 0;
  for (std::size_t i = 0; i < rays.size(); ++i) {
    const float limit = 1e-4f * std::max({ours[i], other[i], 0.0f}) + (curves ? 3e-3f : 1e-5f) * sceneRadius;
    if ((ours[i] < 0) != (other[i] < 0) || !(std::abs(ours[i] - other[i]) <= limit)) ++different;
  }
  agreements.push_back({name, rays.size(), ourSums.hits, otherSums.hits, ourSums.distance, otherSums.distance,
                        different, curves ? kCurveTolerance : kAgreementTolerance});
}

void MeasureRays(benchmark::State& state, const MeshSource& mesh, const RayCase& rayCase, Side side,
                 CaseResult& result) {
  if (!Enter(mesh)) return Fail(state, "no such mesh");
  const RaySet& rays = EnterRays(mesh, rayCase.kind);
  if (rays.empty()) return Fail(state, "no ray hit the mesh");
  result.amount = static_cast<double>(rays.size()) / kMillion;
  const auto measure = [&](auto trace) {
    return [&rays, &result, trace] {
      const auto start = std::chrono::steady_clock::now();
      benchmark::DoNotOptimize(trace(rays, result.threads, nullptr));
      return SecondsSince(start);
    };
  };
  if (side == Side::kOurs) {
    if (result.ours.empty()) rayCase.ours(rays, result.threads, nullptr);
    Sample(state, result, result.ours, measure(rayCase.ours));
  } else {
    if (!EnterEmbree(mesh, AllThreads())) return Fail(state, "Embree reports an error");
    CompareSides(result.name, rayCase, rays);
    if (result.other.empty()) rayCase.embree(rays, result.threads, nullptr);
    Sample(state, result, result.other, measure(rayCase.embree));
  }
}

// The shadow rays of the terrain, with a roof between it and the light: slots in the order that the first
// pass gives them, beside the order of construction, which stands in the other side's place.
void MeasureOrder(benchmark::State& state, const MeshSource& terrain, bool ordered, CaseResult& result) {
  static RaySet rays;
  static std::uint64_t blocked = 0;
  if (rays.empty()) {
    if (!Enter(terrain)) return Fail(state, "no such mesh");
    rays = EnterRays(terrain, RayKind::kShadow);
  }
  LeaveMesh();
  if (!EnterMesh({"roofed", {}, Shape::kTerrain, terrain.amount, true})) return Fail(state, "no such mesh");
  result.amount = static_cast<double>(rays.size()) / kMillion;
  if (ordered) {
    const std::int32_t pass = std::exchange(settings.frame.samplePass, 0);
    OccludeOurs(rays, AllThreads());
    settings.frame.samplePass = pass;
    OrderOccluders(objectTable[0]);
  }
  const std::uint64_t found = OccludeOurs(rays, result.threads).hits;
  if (blocked == 0) blocked = found;
  if (found == 0 || found != blocked) return Fail(state, "the order of slots changes what is blocked");
  Sample(state, result, ordered ? result.ours : result.other, [&] {
    const auto start = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(OccludeOurs(rays, result.threads));
    return SecondsSince(start);
  });
}

struct AxisCase {
  AxisWork work;
  const char* name;
};
constexpr AxisCase kAxisCases[] = {{AxisWork::kNearest, "axis/nearest"},
                                   {AxisWork::kShadow, "axis/shadow"},
                                   {AxisWork::kPhotons, "axis/photons"}};

// Along the axes, beside tilted ones, which stand in the other side's place.
void MeasureAxis(benchmark::State& state, const MeshSource& terrain, AxisWork work, bool tilted,
                 CaseResult& result) {
  if (!Enter(terrain)) return Fail(state, "no such mesh");
  const auto measure = [&, work]() -> double {
    if (work == AxisWork::kPhotons) return TimeAxisPhotons(tilted, result.threads);
    static RaySet sets[2][2];
    RaySet& nearest = sets[0][tilted ? 1 : 0];
    RaySet& shadow = sets[1][tilted ? 1 : 0];
    if (nearest.empty()) {
      nearest = AxisRays(objectTable[0].bounds, tilted);
      shadow = AxisShadowRays(nearest, objectTable[0].bounds, AllThreads());
    }
    const RaySet& rays = work == AxisWork::kNearest ? nearest : shadow;
    const auto start = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(work == AxisWork::kNearest ? TraceOurs(rays, result.threads)
                                                        : OccludeOurs(rays, result.threads));
    // As if there were as many of them as first rays, of which some on one side may have missed.
    return SecondsSince(start) * static_cast<double>(nearest.size()) / static_cast<double>(rays.size());
  };
  result.amount = (work == AxisWork::kPhotons ? kAxisPhotons : kImageSize * kImageSize) / kMillion;
  std::vector<double>& samples = tilted ? result.other : result.ours;
  if (samples.empty()) measure();
  Sample(state, result, samples, measure);
}

// A file that is removed with its directory.
struct TemporaryObj {
  std::filesystem::path directory;
  std::string path;
  ~TemporaryObj() {
    std::error_code ignored;
    if (!directory.empty()) std::filesystem::remove_all(directory, ignored);
  }
};
TemporaryObj temporaryObj;

// The file of the mesh; a terrain is written to a temporary directory first. Empty if that fails.
std::string FileOf(const MeshSource& mesh) {
  if (!mesh.file.empty()) return mesh.file;
  if (!temporaryObj.path.empty()) return temporaryObj.path;
  std::string pattern = (std::filesystem::temp_directory_path() / "zp_bench_XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) return {};
  temporaryObj.directory = pattern;
  Part part;
  FillTerrain(part, mesh.amount);
  const std::string path = (temporaryObj.directory / "terrain.obj").string();
  if (WriteObjFile(path, part)) temporaryObj.path = path;
  return temporaryObj.path;
}

// Seconds to bring the whole file into memory; negative if that fails.
double ReadPlainly(const std::string& path, std::size_t size) {
  const auto start = std::chrono::steady_clock::now();
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return -1;
  const auto bytes = std::make_unique_for_overwrite<char[]>(size);
  const std::size_t count = std::fread(bytes.get(), 1, size, file);
  std::fclose(file);
  benchmark::DoNotOptimize(bytes[count / 2]);
  return count == size ? SecondsSince(start) : -1;
}

// The plain read stands in the other side's place.
void MeasureLoad(benchmark::State& state, const MeshSource& mesh, bool plain, CaseResult& result) {
  const std::string path = FileOf(mesh);
  std::error_code error;
  const auto size = path.empty() ? 0 : std::filesystem::file_size(path, error);
  if (path.empty() || error || size == 0) return Fail(state, "the file cannot be read");
  result.amount = static_cast<double>(size) / kMillion;
  const double warmUp = ReadPlainly(path, size);  // from now on the file is in the page cache
  if (warmUp < 0) return Fail(state, "the file cannot be read");
  bool good = true;
  const auto load = [&] {
    Part part;
    const auto start = std::chrono::steady_clock::now();
    good = ReadObjFile(path, part) && PrimitiveCount(part) > 0 && good;
    return SecondsSince(start);
  };
  if (plain)
    Sample(state, result, result.other, [&] { return ReadPlainly(path, size); });
  else
    Sample(state, result, result.ours, load);
  if (!good) {
    result.ours.clear();
    Fail(state, "the file holds no faces");
  }
}

// Made once; the store is built of copies.
const std::vector<PhotonRecord>& Photons() {
  static const std::vector<PhotonRecord> photons = MakePhotons(kPhotons);
  return photons;
}

void MeasureStore(benchmark::State& state, CaseResult& result) {
  const int oldThreads = omp_get_max_threads();
  omp_set_num_threads(result.threads);
  result.amount = static_cast<double>(kPhotons) / kMillion;
  if (result.ours.empty()) TimeStore(Photons(), kGatherRadius);
  Sample(state, result, result.ours, [] { return TimeStore(Photons(), kGatherRadius); });
  omp_set_num_threads(oldThreads);
}

void MeasureGathers(benchmark::State& state, CaseResult& result) {
  if (photonStore.photons.size() != kPhotons) TimeStore(Photons(), kGatherRadius);
  result.amount = static_cast<double>(kPhotons / kGatherStride) / kMillion;
  const auto measure = [&result] { return TimeGathers(kGatherRadius, kGatherStride, result.threads); };
  if (result.ours.empty()) measure();
  Sample(state, result, result.ours, measure);
}

template <class F>
void Register(const std::string& name, F measure) {
  benchmark::RegisterBenchmark(name.c_str(), measure)
      ->Unit(benchmark::kMillisecond)
      ->UseManualTime()
      ->Iterations(1)
      ->ComputeStatistics("min", Minimum);
}

// One case: ours, and the other side right after it.
template <class F>
void RegisterCase(const std::string& name, const char* unit, int threads, bool hasOther,
                  const char* otherName, F measure) {
  CaseResult& result = results.emplace_back();
  result.name = name;
  result.unit = unit;
  result.threads = threads;
  const std::string title = name + "/threads:" + std::to_string(threads);
  Register(title + "/ours", [&result, measure](benchmark::State& s) { measure(s, Side::kOurs, result); });
  if (hasOther)
    Register(title + "/" + otherName,
             [&result, measure](benchmark::State& s) { measure(s, Side::kEmbree, result); });
}

void RegisterMesh(const MeshSource& mesh) {
  std::vector<int> threadCounts = {1};
  if (AllThreads() > 1) threadCounts.push_back(AllThreads());
  for (const int threads : threadCounts)
    RegisterCase("build/" + mesh.name, "Mprim/s", threads, kEmbreePresent, "embree",
                 [&mesh](benchmark::State& s, Side side, CaseResult& r) { MeasureBuild(s, mesh, side, r); });
  for (const RayCase& rayCase : kRayCases)
    for (const int threads : threadCounts)
      RegisterCase(rayCase.name + mesh.name, "Mray/s", threads, kEmbreePresent, "embree",
                   [&mesh, &rayCase](benchmark::State& s, Side side, CaseResult& r) {
                     MeasureRays(s, mesh, rayCase, side, r);
                   });
}

// The store of caustic photons: its construction, and gathers of the nearest 32.
void RegisterPhotons() {
  std::vector<int> threadCounts = {1};
  if (AllThreads() > 1) threadCounts.push_back(AllThreads());
  for (const int threads : threadCounts)
    RegisterCase("photons/store", "M/s", threads, false, "",
                 [](benchmark::State& s, Side, CaseResult& r) { MeasureStore(s, r); });
  for (const int threads : threadCounts)
    RegisterCase("photons/gather", "M/s", threads, false, "",
                 [](benchmark::State& s, Side, CaseResult& r) { MeasureGathers(s, r); });
}

// One pass of a thousand.
double UpdateMoving(Object& object) {
  const auto start = std::chrono::steady_clock::now();
  Update(object, false, 1000);
  return SecondsSince(start);
}

void MeasureUpdate(benchmark::State& state, const MeshSource& mesh, CaseResult& result) {
  if (!Enter(mesh)) return Fail(state, "no such mesh");
  const int oldThreads = omp_get_max_threads();
  omp_set_num_threads(result.threads);
  result.amount = static_cast<double>(PrimitiveCount(EnteredPart())) / kMillion;
  static Object object;  // one for all samples: its construction takes longer than they do
  if (object.nodes.empty()) {
    object.parts = objectTable[0].parts;
    Part& part = object.parts[0];
    std::vector<Vec3> motion(part.positions.size());
    for (std::size_t i = 0; i < motion.size(); ++i)
      motion[i] = 0.1f * Vec3{std::sin(static_cast<float>(i)), std::cos(static_cast<float>(i)), 0.5f};
    part.vectorSets.push_back({"motion", motion});
    part.motion = object.deformable = true;
    BuildOurs(object);
  }
  if (result.ours.empty()) UpdateMoving(object);
  Sample(state, result, result.ours, [&] { return UpdateMoving(object); });
  omp_set_num_threads(oldThreads);
}

void RegisterUpdate(const MeshSource& mesh) {
  for (int threads = 1; threads <= AllThreads(); threads *= 2)
    RegisterCase("update/" + mesh.name, "Mprim/s", threads, false, "",
                 [&mesh](benchmark::State& s, Side, CaseResult& r) { MeasureUpdate(s, mesh, r); });
}

void PrintMemory() {
  std::printf("\n");
  for (const auto& [name, use] : memory) {
    const auto each = [&](std::size_t bytes) {
      return static_cast<double>(bytes) / static_cast<double>(use.primitives);
    };
    std::printf(
        "memory of %s, bytes a primitive: peak %.1f, after initialisation %.1f, arrays without the packed "
        "tree %.1f\n",
        name.c_str(), each(use.peak), each(use.resident), each(use.containers));
  }
}

// A whole number within limits; false after a line on the error stream.
bool ReadNumber(const std::string& option, const char* text, std::int64_t least, std::int64_t most,
                std::int64_t& value) {
  char* end = nullptr;
  value = std::strtoll(text, &end, 10);
  if (end != text && *end == '\0' && value >= least && value <= most) return true;
  std::fprintf(stderr, "zp_bench: %s is a number from %lld to %lld\n", option.c_str(),
               static_cast<long long>(least), static_cast<long long>(most));
  return false;
}

// Takes our own options out of the list; false after a line on the error stream.
bool ParseOptions(std::vector<char*>& arguments, std::int64_t& triangles, std::int64_t& neighbours) {
  std::vector<char*> rest = {arguments[0]};
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    const std::string option = arguments[i];
    if (option != "--obj" && option != "--triangles" && option != "--neighbour") {
      rest.push_back(arguments[i]);
      continue;
    }
    if (++i == arguments.size()) {
      std::fprintf(stderr, "zp_bench: %s needs a value\n", option.c_str());
      return false;
    }
    if (option == "--obj") {
      MeshSource mesh = {std::filesystem::path(arguments[i]).stem().string(), arguments[i]};
      const auto taken = [&](const MeshSource& other) { return other.name == mesh.name; };
      while (mesh.name.empty() || std::any_of(meshes.begin(), meshes.end(), taken)) mesh.name += "'";
      meshes.push_back(mesh);
    } else if (option == "--triangles") {
      if (!ReadNumber(option, arguments[i], 4, 100'000'000, triangles)) return false;
    } else if (!ReadNumber(option, arguments[i], 0, 64, neighbours)) {
      return false;
    }
  }
  arguments = rest;
  return true;
}

void PrintHelp() {
  std::printf(
      "zp_bench [--obj FILE]... [--triangles N] [--neighbour N] [options of Google Benchmark]\n"
      "  --obj FILE       measure this mesh after the terrain\n"
      "  --triangles N    size of the terrain (1000000)\n"
      "  --neighbour N    processes that stream through memory meanwhile (0)\n\n");
  benchmark::PrintDefaultHelp();
}

int Main(int argc, char** argv) {
  std::vector<char*> arguments(argv, argv + argc);
  meshes = {{"terrain", {}, Shape::kTerrain, 1'000'000},
            {"hair", {}, Shape::kHair, 100'000},
            {"particles", {}, Shape::kParticles, 1'000'000}};
  std::int64_t neighbourCount = 0;
  if (!ParseOptions(arguments, meshes.front().amount, neighbourCount)) return 2;
  // Before the caller's own, which win.
  std::string repetitions = "--benchmark_repetitions=7",
              aggregates = "--benchmark_display_aggregates_only=true";
  arguments.insert(arguments.begin() + 1, {repetitions.data(), aggregates.data()});
  auto count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  benchmark::Initialize(&count, arguments.data(), PrintHelp);
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
  Neighbours neighbours;
  if (!neighbours.Start(static_cast<int>(neighbourCount))) {
    std::fprintf(stderr, "zp_bench: no process for --neighbour\n");
    return 1;
  }

  // The terrain comes first: its memory is measured while the process holds nothing else.
  for (const MeshSource& mesh : meshes) RegisterMesh(mesh);
  RegisterUpdate(meshes.front());
  RegisterCase("ordered/roofed", "Mray/s", 1, true, "unordered",
               [](benchmark::State& s, Side side, CaseResult& r) {
                 MeasureOrder(s, meshes.front(), side == Side::kOurs, r);
               });
  for (const AxisCase& axisCase : kAxisCases)
    RegisterCase(axisCase.name, "Mray/s", 1, true, "tilted",
                 [&axisCase](benchmark::State& s, Side side, CaseResult& r) {
                   MeasureAxis(s, meshes.front(), axisCase.work, side == Side::kEmbree, r);
                 });
  for (const MeshSource& mesh : meshes)
    if (mesh.shape == Shape::kTerrain)
      RegisterCase("load/" + mesh.name, "MB/s", AllThreads(), true, "plain-read",
                   [&mesh](benchmark::State& s, Side side, CaseResult& r) {
                     MeasureLoad(s, mesh, side == Side::kEmbree, r);
                   });

  RegisterPhotons();

  SetConsoleQuiet(true);
  Startup(1);
  InitializeShaders();  // shadow rays ask which surfaces are opaque
  SetConsoleQuiet(true);
  benchmark::RunSpecifiedBenchmarks();
  CloseEmbree();
  LeaveMesh();
  EmptyPhotonStore();

  std::vector<CaseResult> measured;
  for (const CaseResult& r : results)
    if (!r.ours.empty() || !r.other.empty()) measured.push_back(r);
  if (!measured.empty()) PrintResults(measured);
  PrintMemory();
  std::printf("\n");
  const bool agree = PrintAgreements(agreements);
  if (!kEmbreePresent) std::printf("Embree is not installed: hits were not compared\n");
  Shutdown();
  benchmark::Shutdown();
  return agree && !failed ? 0 : 1;
}

}  // namespace
}  // namespace zp

int main(int argc, char** argv) { return zp::Main(argc, argv); }
