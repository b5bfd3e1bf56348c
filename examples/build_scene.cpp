// Builds a scene with functions alone and renders it to files:
//
//   build_scene [FOLDER [WIDTH [SAMPLES]]]
//
// An armillary sphere of beaded gold rings around a ball of glass, within a circle of stones that carry
// gems, under an evening sky. FOLDER (created) receives beauty.pfm and the images beside it. The exit status
// is 0 if all of them are there and none is black.
//
// Units are metres; z points up.

#include <zp.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

constexpr float kPi = 3.14159265f;
constexpr float kFront = 172;  // azimuth of the camera, degrees from x

struct Color {
  float r, g, b;
};

// ---------------------------------------------------------------------------------------------------------
// Materials. A Shader holds layers; a layer holds elements. What is not set keeps its default: black, and an
// index of refraction of 1.

// Every Shader needs a name. One without counts as "undefined", and faces that show it are given the Shader
// that was set last in their Part. Shader 0 is there already: it is "undefined", a light grey.
int AddShader(const char* name) {
  const int shader = zpAddShader();
  zpSetShaderName(shader, name);
  return shader;
}

void SetColor(int shader, int layer, Element element, Color color) {
  zpSetSurfaceColor(shader, layer, element, color.r, color.g, color.b);
}
void SetValue(int shader, int layer, Element element, float value) {
  zpSetSurfaceColor(shader, layer, element, value, value, value);
}

int AddMatte(const char* name, Color color) {
  const int shader = AddShader(name);
  const int layer = zpAddSurfaceShader(shader);
  SetColor(shader, layer, Element::kLambertian, color);
  return shader;
}

// `glossy` is scaled by the Fresnel term of `ior`, and an ior of 1 reflects nothing. A high one makes metal:
// 30 reflects 88 % of its colour at normal incidence.
int AddMetal(const char* name, Color color, float roughness) {
  const int shader = AddShader(name);
  const int layer = zpAddSurfaceShader(shader);
  SetColor(shader, layer, Element::kGlossy, color);
  SetValue(shader, layer, Element::kRoughness, roughness);
  SetValue(shader, layer, Element::kIor, 30);
  return shader;
}

// A dielectric refracts what it does not reflect. Shadow rays stop at it unless it lets a share of them pass,
// straight on. (The other way is to leave that black and let the lights cast photons, which make caustics.)
int AddGlass(const char* name, Color color) {
  const int shader = AddShader(name);
  const int layer = zpAddSurfaceShader(shader);
  zpSetSurfaceMaterial(shader, layer, Material::kDielectric);
  SetColor(shader, layer, Element::kSpecular, color);
  SetColor(shader, layer, Element::kShadowTransparency, color);
  SetValue(shader, layer, Element::kIor, 1.5f);
  return shader;
}

// Emission as radiance, of the front side only. Paths find its light where they meet the surface; a virtual
// light is sampled as well, which is far quicker.
int AddEmitter(const char* name, Color radiance) {
  const int shader = AddShader(name);
  const int layer = zpAddSurfaceShader(shader);
  SetColor(shader, layer, Element::kEmissive, radiance);
  zpSetSurfaceSideness(shader, layer, Sideness::kFace);
  zpSetSurfaceVirtualLight(shader, layer, true);
  return shader;
}

// Two layers: each hit shows one of them, drawn in proportion to their weights. With more than one layer on
// a side every layer needs a weight: the default is 0, which never shows.
int AddPolishedStone(const char* name, Color color, float polished) {
  const int shader = AddShader(name);
  const int rough = zpAddSurfaceShader(shader);
  SetColor(shader, rough, Element::kLambertian, color);
  SetValue(shader, rough, Element::kWeight, 1 - polished);
  const int shiny = zpAddSurfaceShader(shader);
  SetColor(shader, shiny, Element::kLambertian, color);
  SetValue(shader, shiny, Element::kGlossy, 1);
  SetValue(shader, shiny, Element::kRoughness, 0.08f);
  SetValue(shader, shiny, Element::kIor, 1.8f);
  SetValue(shader, shiny, Element::kWeight, polished);
  return shader;
}

// ---------------------------------------------------------------------------------------------------------
// Shapes. An Object holds Parts (meshes) and Instances of other Objects.

struct ProfilePoint {
  float radius, height;
};

// Turns a profile about the z axis into a mesh of triangles, as a new Part of the Object. A profile that runs
// upwards makes faces that look outwards: counter-clockwise seen from their front.
void AddLathe(int object, int shader, const std::vector<ProfilePoint>& profile, int segments) {
  std::vector<float> positions;
  for (const ProfilePoint& p : profile)
    for (int i = 0; i < segments; ++i) {
      const float angle = 2 * kPi * static_cast<float>(i) / static_cast<float>(segments);
      positions.insert(positions.end(), {p.radius * std::cos(angle), p.radius * std::sin(angle), p.height});
    }
  std::vector<int> triangles;
  for (int ring = 0; ring + 1 < static_cast<int>(profile.size()); ++ring)
    for (int i = 0; i < segments; ++i) {
      const int a = ring * segments + i, b = ring * segments + (i + 1) % segments;
      const int c = a + segments, d = b + segments;
      // At the axis one of the two triangles has no area.
      if (profile[static_cast<std::size_t>(ring)].radius > 0) triangles.insert(triangles.end(), {a, b, d});
      if (profile[static_cast<std::size_t>(ring) + 1].radius > 0)
        triangles.insert(triangles.end(), {a, d, c});
    }
  const int part = zpAddPart(object);
  zpSetShaderID(object, part, shader);  // before the triangles: it goes to what is added next
  // Counts are vertices and triangles, not numbers.
  zpAddPositions(object, part, static_cast<int>(positions.size() / 3), positions.data());
  zpAddTriangles(object, part, static_cast<int>(triangles.size() / 3), triangles.data());
}

// A circle beside the axis, turned about it.
void AddTorus(int object, int shader, float radius, float thickness) {
  constexpr int kSides = 24;
  std::vector<ProfilePoint> profile;
  for (int i = 0; i <= kSides; ++i) {
    const float angle = 2 * kPi * static_cast<float>(i) / kSides;
    profile.push_back({radius + thickness * std::cos(angle), thickness * std::sin(angle)});
  }
  AddLathe(object, shader, profile, 128);
}

// A particle is a perfect sphere: one vertex with a radius.
void AddBall(int object, int shader, float radius) {
  const int part = zpAddPart(object);
  const float center[3] = {0, 0, 0};
  const int vertex = 0;
  zpSetShaderID(object, part, shader);
  zpAddPositions(object, part, 1, center);
  zpAddRadii(object, part, 1, &radius);
  zpAddParticles(object, part, 1, &vertex);
}

// An upright rectangle in the xz plane, its foot in the origin, which faces -y. Four corners around the rim.
void AddPanel(int object, int shader, float width, float height) {
  const float x = width / 2;
  const float corners[] = {-x, 0, 0, x, 0, 0, x, 0, height, -x, 0, height};
  const int rim[] = {0, 1, 2, 3};
  const int part = zpAddPart(object);
  zpSetShaderID(object, part, shader);
  zpAddPositions(object, part, 4, corners);
  zpAddTetragons(object, part, 1, rim);
}

// ---------------------------------------------------------------------------------------------------------
// Places. A matrix takes points of the placed Object to those of the Object that holds the Instance. Points
// are columns, so the translation stands in the last column, and the right factor of a product acts first.

struct Matrix {
  float m[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
};

Matrix operator*(const Matrix& a, const Matrix& b) {
  Matrix product;
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) {
      product.m[i][j] = 0;
      for (int k = 0; k < 4; ++k) product.m[i][j] += a.m[i][k] * b.m[k][j];
    }
  return product;
}

Matrix Move(float x, float y, float z) {
  Matrix matrix;
  matrix.m[0][3] = x;
  matrix.m[1][3] = y;
  matrix.m[2][3] = z;
  return matrix;
}

// About axis 0, 1 or 2 (x, y, z), counter-clockwise seen from its tip.
Matrix Turn(int axis, float degrees) {
  const int i = (axis + 1) % 3, j = (axis + 2) % 3;
  const float c = std::cos(degrees * kPi / 180), s = std::sin(degrees * kPi / 180);
  Matrix matrix;
  matrix.m[i][i] = matrix.m[j][j] = c;
  matrix.m[i][j] = -s;
  matrix.m[j][i] = s;
  return matrix;
}

// Any matrix with an inverse will do: turns, moves, mirrors, sizes. A shader of -1 keeps the placed Object's
// own.
void Place(int object, int target, const Matrix& matrix, int shader = -1) {
  zpSetInstance(object, zpAddInstance(object), target, matrix.m, shader);
}

// ---------------------------------------------------------------------------------------------------------
// The scene.

// A ring with beads of one material all around it. The beads are Instances inside this Object, which is
// placed by an Instance itself: levels nest.
int AddBeadedRing(float radius, float thickness, int beads, int metal, int bead) {
  const int ring = zpAddObject();
  AddTorus(ring, metal, radius, thickness);
  for (int i = 0; i < beads; ++i)
    Place(ring, bead,
          Turn(2, 360.0f * static_cast<float>(i) / static_cast<float>(beads)) * Move(radius, 0, 0));
  return ring;
}

void BuildGeometry() {
  const int stone = AddMatte("stone", {0.52f, 0.47f, 0.42f});
  const int sand = AddMatte("sand", {0.24f, 0.2f, 0.17f});
  const int slate = AddPolishedStone("slate", {0.16f, 0.19f, 0.24f}, 0.6f);
  const int gold = AddMetal("gold", {1.0f, 0.71f, 0.32f}, 0.12f);
  const int copper = AddMetal("copper", {0.95f, 0.5f, 0.36f}, 0.2f);
  const int glass = AddGlass("glass", {1, 1, 1});
  const int ruby = AddGlass("ruby", {1.0f, 0.25f, 0.28f});
  const int aqua = AddGlass("aqua", {0.35f, 0.85f, 0.95f});
  const int lamp = AddEmitter("lamp", {2.4f, 1.1f, 0.42f});
  // Without normals a mesh shows facets. A smoothing angle makes normals where faces meet at less than it:
  // round bodies turn smooth, and edges stay.
  for (const int round : {stone, slate, gold, copper}) zpSetShaderSmoothAngle(round, 35);

  // What is placed many times is stored once.
  const int bead = zpAddObject();
  AddBall(bead, copper, 0.085f);
  const int ball = zpAddObject();
  AddBall(ball, glass, 0.62f);

  const int gem = zpAddObject();  // eight sides, all facets
  AddLathe(gem, aqua, {{0, -0.42f}, {0.36f, 0}, {0.36f, 0.06f}, {0.2f, 0.22f}, {0, 0.22f}}, 8);

  const int stele = zpAddObject();  // a tapering pillar of four sides with a gem above
  AddLathe(
      stele, stone,
      {{0.42f, 0}, {0.42f, 0.16f}, {0.34f, 0.22f}, {0.27f, 2.0f}, {0.33f, 2.06f}, {0.33f, 2.16f}, {0, 2.16f}},
      4);

  const int pedestal = zpAddObject();
  AddLathe(pedestal, slate,
           {{0.95f, 0},
            {0.95f, 0.12f},
            {0.8f, 0.2f},
            {0.42f, 0.34f},
            {0.3f, 0.5f},
            {0.26f, 0.66f},
            {0.34f, 0.74f},
            {0.34f, 0.8f},
            {0, 0.8f}},
           96);

  const int panel = zpAddObject();
  AddPanel(panel, lamp, 0.5f, 1.5f);

  // One ring tilts inside the other.
  const int armillary = zpAddObject();
  Place(armillary, AddBeadedRing(1.5f, 0.05f, 24, gold, bead), Turn(0, 90));
  Place(armillary, AddBeadedRing(1.28f, 0.045f, 18, gold, bead), Turn(2, 60) * Turn(0, 68));
  Place(armillary, AddBeadedRing(1.06f, 0.04f, 12, gold, bead), Turn(2, -30) * Turn(0, -52));
  Place(armillary, ball, Matrix());

  // The Object that nobody places is the scene. There should be only one of them.
  const int scene = zpAddObject();
  zpSetObjectName(scene, "scene");
  // Parts of its own, two steps in a plain, beside the Instances.
  AddLathe(scene, slate, {{24.6f, -0.4f}, {24.6f, -0.2f}, {24, -0.2f}, {24, 0}, {0, 0}}, 128);
  AddLathe(scene, sand, {{800, -0.4f}, {0, -0.4f}}, 64);
  Place(scene, pedestal, Matrix());
  Place(scene, armillary, Move(0, 0, 2.35f) * Turn(2, 25));
  // Two thirds of a circle, open towards the camera.
  constexpr int kSteles = 9;
  for (int i = 0; i < kSteles; ++i) {
    const Matrix spot = Turn(2, kFront + 60 + 30.0f * static_cast<float>(i)) * Move(5.2f, 0, 0);
    Place(scene, stele, spot * Turn(2, 45));
    // An Instance's shader overrides those of all that it places.
    Place(scene, gem, spot * Move(0, 0, 2.62f) * Turn(2, 30.0f * static_cast<float>(i)),
          i % 2 == 0 ? ruby : aqua);
  }
  for (const float angle : {135.0f, 165.0f, 195.0f, 225.0f})  // between stones; they face the middle
    Place(scene, panel, Turn(2, kFront + angle) * Move(5.6f, 0, 0) * Turn(2, -90));
}

void SetUpLights() {
  // The analytic sky is bright: its colour scales it. Its sun stands in the direction (1, 2, 1), but its
  // disc is left to a parallel light.
  zpSetSkyLightImage("analytic");
  zpSetSkyLightColor(0.04f, 0.045f, 0.06f);
  zpSetSkyLightSample(2);  // shadow rays of each pass towards bright parts of the sky

  // The low sun. The direction is that of its light; blur is its half angle and makes soft shadows. One
  // shadow ray a pass, the default, is enough: passes take the noise away.
  const int sun = zpAddParallelLight();
  zpSetParallelLightColor(sun, 2.2f, 1.4f, 0.75f);
  zpSetParallelLightDirection(sun, -1, -2, -1);
  zpSetParallelLightBlur(sun, 0.6f);

  // A lamp overhead that shines down on the middle. By default a point light fades from its direction, +y,
  // all the way to the opposite one: say where it points. The angles are off that axis; full light up to the
  // first, none from the second. (180 and 181 make a light that is alike on all sides.)
  const int spot = zpAddPointLight();
  zpSetPointLightColor(spot, 9.0f, 7.5f, 6.0f);  // falls off with the squared distance
  zpSetPointLightPosition(spot, -1.2f, -2.2f, 6.0f);
  zpSetPointLightDirection(spot, 0.3f, 0.5f, -1);
  zpSetPointLightInnerAngle(spot, 12);
  zpSetPointLightOuterAngle(spot, 30);
  zpSetPointLightBlur(spot, 0.15f);
}

void SetUpRenderer() {
  // Path tracing, the default, suits open air. Rooms of a scene's own Parts may be quicker by final
  // gathering, which a distance and a resolution above 0 choose.
  zpSetRendererBounce(3);  // diffuse bounces
  zpSetRendererSample(4);  // indirect rays of a first hit in each pass

  zpSetRendererClamp(4, 4, 4);  // of a sample: rare bright ones would stay as specks
}

void SetUpCamera(int width, int samples) {
  const int camera = zpAddCamera();
  zpSetCameraResolution(camera, width, std::max(width * 9 / 16, 1));
  zpSetCameraSample(camera, samples);
  // Position, target, up vector and field of view have no defaults: a camera needs all four.

  const float azimuth = kFront * kPi / 180;
  zpSetCameraPosition(camera, 10.6f * std::cos(azimuth), 10.6f * std::sin(azimuth), 2.2f);
  zpSetCameraTarget(camera, 0, 0, 1.85f);
  zpSetCameraUpVector(camera, 0, 0, 1);
  zpSetCameraFOV(camera, 42);
}

// ---------------------------------------------------------------------------------------------------------
// Images. The extension chooses the format: .hdr, .exr and .pfm keep linear floats, and .pfm all of their
// digits, which depths and positions need. All files are written as the last pass ends.

std::vector<std::string> NameImages(const std::string& folder) {
  std::vector<std::string> files;
  const auto file = [&](const char* name) {
    files.push_back((std::filesystem::path(folder) / name).string());
    return files.back().c_str();
  };

  // A camera's first AOV is its beauty image. Without a name of ours it takes one with the time of day.
  constexpr int kCamera = 0;
  zpSetCameraAOVName(kCamera, 0, file("beauty.pfm"));
  const auto addCameraAov = [&](Channel channel, const char* name) {
    const int aov = zpAddCameraAOV(kCamera);
    zpSetCameraAOVChannel(kCamera, aov, channel);
    zpSetCameraAOVName(kCamera, aov, file(name));
  };
  addCameraAov(kZpDepth, "depth.pfm");    // distance to the first hit; 0 where there is none
  addCameraAov(kZpNormal, "normal.pfm");  // -1 to 1 as 0 to 1
  addCameraAov(kZpLambertian, "lambertian.pfm");
  addCameraAov(kZpGlossy, "glossy.pfm");
  addCameraAov(kZpSpecular, "specular.pfm");

  // A light's AOV holds what its own samples bring to the surfaces in view; the sky's also the sky behind
  // them. Each call adds a channel.
  const int sky = zpAddSkyLightAOV();
  zpSetSkyLightAOVChannel(sky, kZpLambertian);
  zpSetSkyLightAOVChannel(sky, kZpGlossy);
  zpSetSkyLightAOVName(sky, file("light_sky.pfm"));
  const int sun = zpAddParallelLightAOV(0);
  zpSetParallelLightAOVChannel(0, sun, kZpLambertian);
  zpSetParallelLightAOVChannel(0, sun, kZpGlossy);
  zpSetParallelLightAOVName(0, sun, file("light_sun.pfm"));
  return files;
}

// No function of the library fails: what goes wrong is printed on standard output. So look at the files: in
// the pixels of a .pfm, after a header of three lines, a byte other than 0 must stand.
bool HoldsLight(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string line;
  for (int i = 0; i < 3; ++i) std::getline(file, line);
  return std::any_of(std::istreambuf_iterator<char>(file), {}, [](char byte) { return byte != 0; });
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : "build_scene_images";
  const int width = argc > 2 ? std::atoi(argv[2]) : 640;
  const int samples = argc > 3 ? std::atoi(argv[3]) : 64;
  if (width < 1 || samples < 1) {
    std::fprintf(stderr, "usage: build_scene [FOLDER [WIDTH [SAMPLES]]]\n");
    return 2;
  }
  std::error_code error;
  std::filesystem::create_directories(folder, error);

  // The rules of format 2 are those that other renderers lead to expect; without a word it is format 1. The
  // user's environment goes before.
  setenv("ZP_FORMAT", "2", 0);
  zpStartup();  // before everything else
  BuildGeometry();
  SetUpLights();
  SetUpRenderer();
  SetUpCamera(width, samples);
  const std::vector<std::string> files = NameImages(folder);
  for (const std::string& file : files) std::filesystem::remove(file, error);  // of an earlier run

  zpInitialize();  // after all additions
  zpRender();      // all passes; writes the images
  zpFinalize();    // empties all tables
  zpShutdown();

  int missing = 0;
  for (const std::string& file : files)
    if (!HoldsLight(file)) {
      std::fprintf(stderr, "build_scene: %s is missing or black\n", file.c_str());
      ++missing;
    }
  return missing == 0 ? 0 : 1;
}
