// import/model.h: what files of any format hold, as far as a scene can show it.

#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/ray.h"
#include "core/vec.h"

namespace zp {

// Ends the import; its text is the rest of a sentence, as in "cannot import 'NAME': ...".
struct ImportError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

inline constexpr Mat3 kUnitMat3 = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};

// A picture of the source, and the file that the scene has of it.
struct ImportPicture {
  std::string label;                // what the source calls it
  std::string path;                 // of its file; empty: `bytes` are the file, or nothing is
  std::vector<std::uint8_t> bytes;  // of a file that was embedded
  std::string name;                 // in the folder of pictures, once it is taken over; empty: it is not
};

// How an element of a surface is read from a picture.
struct PictureUse {
  std::int32_t picture = kNone;
  Mat3 uvMatrix = kUnitMat3;  // acts on (u, v, 1), v upwards
  std::int32_t uvSet = 0;
  bool nearest = false;
};

enum class AlphaMode { kOpaque, kMask, kBlend };

// A material as the formats have it. Colours are linear, and factors of pictures.
struct ImportSurface {
  std::string name;
  Vec3 base = kWhite;
  PictureUse basePicture;       // of screen colours, with alpha
  float metallic = 0;           // 0 to 1
  PictureUse metallicPicture;   // its blue channel
  float roughness = 1;          // 0 to 1, the root of the width of the lobe
  PictureUse roughnessPicture;  // its green channel
  float ior = 1.5f;
  float specular = 1;      // factor of the reflection of what is no metal
  Vec3 emission = kBlack;  // radiance
  PictureUse emissionPicture;
  PictureUse normalPicture;
  float normalScale = 1;
  bool normalIsDoubtful = false;  // it may be a picture of heights
  AlphaMode alphaMode = AlphaMode::kOpaque;
  float alpha = 1;
  float alphaCutoff = 0.5f;
  PictureUse maskPicture;       // in place of the alpha of basePicture; grey
  float transmission = 0;       // share of what is no metal that is glass
  bool thin = true;             // glass is a sheet, not a body
  Vec3 transmittance = kWhite;  // of a body, for each metre
  float coat = 0;               // share of a sharp reflection over all
  bool twoSided = true;
  bool unlit = false;  // shows `base` as it is
};

struct ImportMesh {
  std::vector<Vec3> positions;
  std::vector<Vec3> normals;             // one a position, or none
  std::vector<std::vector<Vec2>> uvs;    // sets, each one a position; v upwards
  std::vector<std::uint32_t> corners;    // of all faces
  std::vector<std::uint32_t> faceSizes;  // 3 up
  std::int32_t surface = kNone;
};

struct ImportNode {
  std::string name;
  Mat4 matrix;  // to its parent
  std::vector<std::int32_t> children;
  std::vector<std::int32_t> meshes;
};

// In the coordinates of the file.
struct ImportCamera {
  std::string name;
  Vec3 position, forward = {0, 0, -1}, up = {0, 1, 0};
  float fieldOfView = 40;  // full horizontal angle, degrees
  float aspect = 16.0f / 9;
};

enum class LightKind { kPoint, kSpot, kParallel };
struct ImportLight {
  std::string name;
  LightKind kind = LightKind::kPoint;
  Vec3 color = kWhite;  // as scene text has it
  Vec3 position, direction = {0, 0, -1};
  float inner = 0, outer = 45;  // degrees off the axis
};

// One file.
struct ImportModel {
  std::string name;  // a token
  Mat4 toScene;      // z up, metres
  std::vector<ImportPicture> pictures;
  std::vector<ImportSurface> surfaces;
  std::vector<ImportMesh> meshes;
  std::vector<ImportNode> nodes;  // the first is the root
  std::vector<ImportCamera> cameras;
  std::vector<ImportLight> lights;
  std::vector<std::string> losses;  // sentences without a stop
};

// Adds a sentence once.
void AddLoss(ImportModel& model, const std::string& sentence);

struct ReadSettings {
  std::optional<bool> upIsZ;  // of formats that do not say it
  float unit = 1;             // metres, likewise
};

// Reads a file of any format. Throws what std::exception is made of.
ImportModel ReadModel(const std::string& path, const ReadSettings& settings);
ImportModel ReadGltf(const std::string& path);
ImportModel ReadByAssimp(const std::string& path, const ReadSettings& settings);

Mat4 Multiply(const Mat4& a, const Mat4& b);
// From y up to z up, x stays.
inline constexpr Mat4 kYToZ = {{{1, 0, 0, 0}, {0, 0, -1, 0}, {0, 1, 0, 0}, {0, 0, 0, 1}}};

// The linear light of a colour made for a screen.
Vec3 LinearColor(Vec3 screen);

// The matrices from each node to the file, and whether the nodes form a tree; throws where they do not.
std::vector<Mat4> NodePlaces(const ImportModel& model);

// A skin or a morph, applied: positions and normals go by the sum of matrices and weights.
struct SkinWeights {
  std::vector<std::array<std::int32_t, 4>> joints;  // of each vertex
  std::vector<std::array<float, 4>> weights;
};
void ApplySkin(ImportMesh& mesh, const std::vector<Mat4>& joints, const SkinWeights& skin);

// A file could not be written, as errno says.
[[noreturn]] void FailWrite(const std::string& name);

// The whole file.
std::vector<std::uint8_t> ReadBytes(const std::string& path);

}  // namespace zp
