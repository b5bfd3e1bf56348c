// imaging/imaging.h: pictures in memory and on disk, and the camera that looks at the scene.
// Knows nothing of the integrator. Nothing here prints but InitializeCameras; a failed load or save is a
// false result, and never destroys a file that was there.

#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/ray.h"
#include "core/vec.h"
#include "imaging/mattes.h"

namespace zp {

// Red, green and blue mantissas with the exponent they share: channel * 2^(exponent - 136).
struct PackedPixel {
  std::uint8_t r = 0, g = 0, b = 0, exponent = 0;
};

// Why a file gave no picture. Of several files, the last of these says most.
enum class PictureProblem : std::int32_t {
  kSound,          // it did
  kMissing,        // there is no such file
  kUnreadable,     // no permission, or what is there is no file
  kUnknownFormat,  // of its content
  kUnsupported,    // one or four bits a pixel, or deep pixels
  kDamaged,        // cut off, or not what its format asks for
  kNoMemory,
  kStopped,  // all work was, within this one
  kLast = kStopped,
};
// What follows "the image ... ", as in "cannot be found".
std::string_view ProblemText(PictureProblem problem);

// One picture. Only the array that `bits` and `packed` choose is in use. Rows lie one after the other,
// components interleaved; pixel p starts at element p * channels.
struct ImageBuffer {
  bool loaded = false;        // a file was read into it
  bool packed = false;        // the pixels are in packedPixels
  bool allowPacked = true;    // a float picture that is loaded is kept packed
  std::int32_t bits = 32;     // per component: 1, 8, 16, 32 or 64
  std::int32_t channels = 3;  // 1, 3 or 4
  std::int32_t width = 0;
  std::int32_t height = 0;
  float wordScale = 1.0f / 65535;        // what a component of 16 bits reads as, for each step
  std::vector<std::uint32_t> bitPixels;  // 32 pixels a word, lowest bit first
  std::vector<std::uint8_t> bytePixels;
  std::vector<std::uint16_t> wordPixels;
  std::vector<float> floatPixels;
  std::vector<double> doublePixels;
  std::vector<PackedPixel> packedPixels;
  std::string fileName;                             // loaded from, or saved to
  PictureProblem problem = PictureProblem::kSound;  // of the last attempt to load it
};

// Sets the format and clears the pixels; does nothing but clear `loaded` unless all four sizes are positive.
void Allocate(ImageBuffer& image, int width, int height, int channels, int bits, bool packed);
// One pixel as three floats, integers from 0 to 1. In format 1 a 16-bit component reads as value / 255, so
// that 1.0 written reads 257.
Vec3 ReadPixel(const ImageBuffer& image, std::size_t pixel);
// Packed and 1-bit pictures are not written.
void WritePixel(ImageBuffer& image, Vec3 color, std::size_t pixel);
std::size_t PixelBytes(const ImageBuffer& image);

// The picture in 8 bits for a screen: each channel times its exposure, then the curve of sRGB.
ImageBuffer ScreenPicture(const ImageBuffer& linear, const std::array<double, 3>& exposure);
// The linear light of a number by that curve.
float DecodeSrgb(float encoded);
// Whether the format that the name tells keeps 8 bits of each number, from 0 to 1, and no floats.
bool KeepsBytes(const std::string& fileName);

// Writes the picture to image.fileName, in the format that the name tells, or `formatName` where it is given.
// Empty if a file was written, else the reason as the rest of a sentence: "no space is left".
std::string StoreImage(const ImageBuffer& image, const std::string& formatName = {});
bool SaveImage(const ImageBuffer& image);  // true if a file was written
// What will keep the first of these pictures from being written, as far as can be known: its name in quotes
// and the reason. Needs their sizes alone. Leaves no file.
std::string SaveObstacle(const std::vector<const ImageBuffer*>& images);
// Writes a nameless file into the folder of image.fileName, in the format that `formatName` tells, and reads
// it into `back`. False if it could not be written; a file that holds nothing readable leaves `back` as it
// was.
bool WriteAndReadBack(const ImageBuffer& image, const std::string& formatName, ImageBuffer& back);

struct SaveFailure {
  std::string name, reason;
};
// Keeps what became of a save of that name; an empty reason: it went well.
void KeepSave(const std::string& name, const std::string& reason);
// Pictures whose last save since the last call has failed, by name; one without a name is no failure.
std::vector<SaveFailure> TakeFailedSaves();

// Reads a file of any format FreeImage knows; false, with image.problem, if it held no whole picture of a
// supported type.
bool LoadImage(ImageBuffer& image, const std::string& path);
// The same for a file's bytes, in this process: for tests, and for bytes that are trusted.
PictureProblem DecodePicture(std::span<const std::uint8_t> bytes, ImageBuffer& image);
void StartImageFiles();  // FreeImage_Initialise
void StopImageFiles();   // FreeImage_DeInitialise

// What an AOV records: a set of bits.
enum Channel : std::uint32_t {
  kChannelBeauty = 1,
  kChannelLightPath = 2,
  kChannelLambertian = 4,
  kChannelLambertianColor = 8,
  kChannelTransmissive = 16,
  kChannelTransmissiveColor = 32,
  kChannelGlossy = 64,
  kChannelGlossyColor = 128,
  kChannelSpecular = 256,
  kChannelSpecularColor = 512,
  kChannelEmissive = 1024,
  kChannelNormal = 2048,
  kChannelTangent = 4096,
  kChannelPosition = 8192,
  kChannelDepth = 16384,
  kChannelUserData = 32768,
  kChannelSamples = 65536,  // of each pixel; sums hold nothing of it
  // Of frames with layers (imaging/frame_layers.h), which the program adds to a camera.
  // 1 for a hit that has a surface to show, for any hit, and what a catcher lets be seen behind it
  kChannelCover = 1 << 20,
  kChannelView = 1 << 21,    // distance along the view axis; along the ray in a spherical picture
  kChannelFacing = 1 << 22,  // the shading normal, turned to the camera, -1 to 1
  kChannelMotion = 1 << 23,  // pixels that the place goes from shutter opening to closing, right and down
  kChannelAlbedo = 1 << 24,  // colours of all lobes, followed through smooth mirrors and glass
  kChannelObject = 1 << 25,  // mattes, by object and by shader: no sums, but counts
  kChannelShader = 1 << 26,
  // Of the nearest sample to the pixel's middle: 1 less its squared distance, and 1 where it hit something.
  kChannelNearness = 1 << 27,
  kChannelLightGroup = 1 << 28,  // what one light group brings: a mean, as the beauty image
};

// What a channel's numbers are: what a screen can show, with an exposure or without, or nothing of the kind.
enum class ChannelKind { kLight, kColor, kNumber };

struct ChannelWord {
  std::string_view word;
  Channel channel;
  ChannelKind kind;
};
// The words of scene text, in the order of their bits.
inline constexpr ChannelWord kChannelWords[] = {
    {"light_path", kChannelLightPath, ChannelKind::kLight},
    {"lambertian", kChannelLambertian, ChannelKind::kLight},
    {"lambertian_color", kChannelLambertianColor, ChannelKind::kColor},
    {"transmissive", kChannelTransmissive, ChannelKind::kLight},
    {"transmissive_color", kChannelTransmissiveColor, ChannelKind::kColor},
    {"glossy", kChannelGlossy, ChannelKind::kLight},
    {"glossy_color", kChannelGlossyColor, ChannelKind::kColor},
    {"specular", kChannelSpecular, ChannelKind::kLight},
    {"specular_color", kChannelSpecularColor, ChannelKind::kColor},
    {"emissive", kChannelEmissive, ChannelKind::kLight},
    {"normal", kChannelNormal, ChannelKind::kNumber},
    {"tangent", kChannelTangent, ChannelKind::kNumber},
    {"position", kChannelPosition, ChannelKind::kNumber},
    {"depth", kChannelDepth, ChannelKind::kNumber},
    {"samples", kChannelSamples, ChannelKind::kNumber},  // in format 1 a name of vertex data, as ever
};
static_assert(std::size(kChannelWords) == 15);

// One output image.
struct Aov {
  std::string shaderName;              // restricts a geometry light's AOV to hits of that Shader
  std::string userData = "undefined";  // name of the vertex data that a user-data AOV shows
  ImageBuffer image;
  std::int32_t shaderIndex = kNone;  // of shaderName
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::uint32_t channel = kChannelBeauty;
  std::uint32_t lastType = 0;  // of scene text, alone; 0 without one, and where a host has chosen the channel
  bool ofLight = false;        // owned by one: light whatever the channel
  bool mean = false;           // of the samples so far, not a sum of their shares
  // Where half sets are kept apart (settings.said.halfSets) one more that holds the odd passes; `image` has
  // the even ones then. In format 1 the beauty image alone has it, and `image` holds all passes.
  std::vector<Aov> odd;
  std::vector<Aov>
      squares;        // of the beauty image in format 2: means of the squares of even and of odd samples
  std::string layer;  // its name in the file of its frame's layers; empty: not there
  bool withLayers = false;  // layerWriter writes its file
  bool nearest = false;     // no sum, but what the sample says that is nearest to the pixel's middle
  MatteLists matte;         // of such a channel, in place of an image
};
inline bool IsMatte(const Aov& aov) { return aov.channel == kChannelObject || aov.channel == kChannelShader; }

// What a camera's AOV records by the types of scene text: in format 1 the bits of all of them and beauty's,
// in format 2 the last. Lights' AOVs add in both.
void SettleChannel(Aov& aov);
// Of the channel, where it is one alone; of a beauty image and of what lights record always light.
ChannelKind KindOf(const Aov& aov);
// Allocates the AOV's pixels, and those of its odd passes: 3 channels of 32 bits, black; or its matte.
void InitializeAov(Aov& aov, int width, int height);
// Writes those that have a name and pixels, as finished pictures; one that cannot be written gets an error
// row with the reason. Where all was stopped before the first sample, and in format 2 wherever none was
// taken, there is nothing to write, and old files stay. In format 2 files of 8 bits show light and colours to
// the eye, unless settings.said.linearFiles: light times the exposure of the rendered camera, and the sRGB
// curve.
void SaveAovs(const std::vector<Aov>& aovs);
// Whether it has a name and pixels.
bool IsSaved(const Aov& aov);
// Writes such a one, however much is rendered; a unit of the work of writing.
void SaveAov(const Aov& aov);
// The same of a picture that is finished, by the name it has itself; the AOV tells what its numbers are.
void SavePicture(const Aov& aov, const ImageBuffer& picture);
// "beauty-YYYYMMDD-HHMMSS.hdr" of the local time; a second one of the same second gets "-2" before its
// extension. Unique in the process, and it overwrites no other's file: where there is one when the picture is
// first saved, the picture takes the next number.
std::string DefaultBeautyName();

enum class Projection : std::int32_t { kPerspective = 0, kSpherical = 1 };
enum class AngleMeasure : std::int32_t {};

// The fields of a pose that text and hosts write: a set of bits.
enum PoseField : std::uint8_t {
  kPosePosition = 1,
  kPoseTarget = 2,
  kPoseUpVector = 4,
  kPoseBokeh = 8,
  kPoseFieldOfView = 16,
  kWholePose = 31,
};

// Where the camera stands at one instant. The first four members and the lengths are derived.
struct CameraPose {
  Vec3 right, forward, up;  // unit vectors, perpendicular
  Mat3 toWorld;             // columns right, forward, up
  Vec3 position;            // scene units
  Vec3 target;
  Vec3 upVector;            // of any length
  float bokeh = 0;          // half angle of the lens cone, degrees; 0 or less is a pinhole
  float focusDistance = 0;  // from position to target
  float focalLength = 0;    // distance of the image plane, pixels
  float fieldOfView = 0;    // full horizontal angle, degrees
};

inline constexpr std::int32_t kMostSamples = 65535;  // of a camera

struct Camera {
  Camera();  // with a beauty AOV of its own

  std::vector<Aov> aovs;  // the first is the beauty image
  Projection projection = Projection::kPerspective;
  AngleMeasure angleMeasure = {};  // Intended: stored, without effect; angles are in degrees
  std::int32_t poseIndex = 0;      // the pose that setters write
  CameraPose poses[2];             // shutter open and close
  std::uint8_t poseWritten[2] =
      {};  // PoseField bits; a field that nobody wrote is a copy of the other pose's
  std::string name;
  Vec3 exposure = {1, 1, 1};   // Intended: never applied
  std::int32_t poseCount = 0;  // pose blocks read so far
  std::int32_t width = 960;
  std::int32_t height = 540;
  std::int32_t sample = 17;     // passes
  std::int32_t regionXMin = 0;  // first column rendered
  std::int32_t regionYMin = 0;
  std::int32_t regionXMax = 1048576;  // one behind the last
  std::int32_t regionYMax = 1048576;
  float ior = 1;  // of the medium around the camera
};

extern std::vector<Camera> cameras;

// Fields that only one pose has are copied to the other, so that what is not said twice stands still.
void CompletePoses(Camera& camera);
// Limits, poses, channels and AOV pixels of every camera; prints their report. AOVs are bound to shaders
// elsewhere. In format 2 a camera that is not rendered gets no pixels, and so writes no files.
void InitializeCameras();
// Writes every AOV of every camera and empties the table.
void FinalizeCameras();
// The pose at `time` in 0 (shutter open) to 1 (close).
CameraPose CameraAtTime(const Camera& camera, float time);
// The instant that all rays of a pass see: the pass number stratifies the shutter.
float TimeOfPass(const Camera& camera, std::uint32_t pass);
// Fills a fresh ray for pass `sample` through pixel (x, y), except its thread and pixel slot: the caller sets
// ray.thread before. An unknown projection leaves origin and direction as they were.
// Returns its place in the pixel, 0 to 1 from the left upper corner.
//   pose  of the camera, at the pass's time
Vec2 MakePrimaryRay(const Camera& camera, const CameraPose& pose, RayRecord& ray, int x, int y,
                    std::uint32_t sample);

// Pictures and models of the scene that were sought in vain since the count was last set to 0, one for each
// attempt. Readers on any thread add to it; nothing else depends on it.
inline std::atomic<int> missingFiles = 0;

}  // namespace zp
