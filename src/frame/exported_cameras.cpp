// Cameras and their AOVs, as a host fills them.

#include "frame/exported_records.h"
#include "frame/zp.h"

using zp::Agree;
using zp::At;

namespace {

static_assert(Agree(kZpBeauty, zp::kChannelBeauty));
static_assert(Agree(kZpLightPath, zp::kChannelLightPath));
static_assert(Agree(kZpLambertian, zp::kChannelLambertian));
static_assert(Agree(kZpLambertianColor, zp::kChannelLambertianColor));
static_assert(Agree(kZpTransmissive, zp::kChannelTransmissive));
static_assert(Agree(kZpTransmissiveColor, zp::kChannelTransmissiveColor));
static_assert(Agree(kZpGlossy, zp::kChannelGlossy));
static_assert(Agree(kZpGlossyColor, zp::kChannelGlossyColor));
static_assert(Agree(kZpSpecular, zp::kChannelSpecular));
static_assert(Agree(kZpSpecularColor, zp::kChannelSpecularColor));
static_assert(Agree(kZpEmissive, zp::kChannelEmissive));
static_assert(Agree(kZpNormal, zp::kChannelNormal));
static_assert(Agree(kZpTangent, zp::kChannelTangent));
static_assert(Agree(kZpPosition, zp::kChannelPosition));
static_assert(Agree(kZpDepth, zp::kChannelDepth));
static_assert(Agree(kZpUserData, zp::kChannelUserData));
static_assert(Agree(kZpSamples, zp::kChannelSamples));
static_assert(Agree(Projection::kPerspective, zp::Projection::kPerspective));
static_assert(Agree(Projection::kSpherical, zp::Projection::kSpherical));
static_assert(sizeof(AngleMeasure) == 4);

// The pose that setters write, with `field` marked as written; null without such a camera.
zp::CameraPose* WrittenPose(int camera, zp::PoseField field) {
  zp::Camera* record = RecordAt(zp::cameras, camera);
  if (record == nullptr) return nullptr;
  const int pose = record->poseIndex == 1 ? 1 : 0;
  record->poseWritten[pose] |= field;
  return &record->poses[pose];
}

}  // namespace

int zpAddCamera() noexcept { return zp::Append(zp::cameras); }

void zpSetCameraName(int camera, const char* name) noexcept {
  if (zp::Camera* record = RecordAt(zp::cameras, camera)) record->name = zp::Text(name);
}
void zpSetCameraPosition(int camera, float x, float y, float z) noexcept {
  if (zp::CameraPose* pose = WrittenPose(camera, zp::kPosePosition)) pose->position = {x, y, z};
}
void zpSetCameraTarget(int camera, float x, float y, float z) noexcept {
  if (zp::CameraPose* pose = WrittenPose(camera, zp::kPoseTarget)) pose->target = {x, y, z};
}
void zpSetCameraUpVector(int camera, float x, float y, float z) noexcept {
  if (zp::CameraPose* pose = WrittenPose(camera, zp::kPoseUpVector)) pose->upVector = {x, y, z};
}
void zpSetCameraBokeh(int camera, float degrees) noexcept {
  if (zp::CameraPose* pose = WrittenPose(camera, zp::kPoseBokeh)) pose->bokeh = degrees;
}
void zpSetCameraFOV(int camera, float degrees) noexcept {
  if (zp::CameraPose* pose = WrittenPose(camera, zp::kPoseFieldOfView)) pose->fieldOfView = degrees;
}
void zpSetCameraAngleMeasure(int camera, AngleMeasure measure) noexcept {
  if (zp::Camera* record = RecordAt(zp::cameras, camera))
    record->angleMeasure = static_cast<zp::AngleMeasure>(measure);
}
void zpSetCameraExposure(int camera, float r, float g, float b) noexcept {
  if (zp::Camera* record = RecordAt(zp::cameras, camera)) record->exposure = {r, g, b};
}
void zpSetCameraSample(int camera, int sample) noexcept {
  if (zp::Camera* record = RecordAt(zp::cameras, camera)) record->sample = sample;
}
void zpSetCameraTime(int camera, float time) noexcept {
  if (zp::Camera* record = RecordAt(zp::cameras, camera)) record->poseIndex = time >= 0.5f ? 1 : 0;
}
void zpSetCameraProjection(int camera, Projection projection) noexcept {
  if (zp::Camera* record = RecordAt(zp::cameras, camera))
    record->projection = static_cast<zp::Projection>(projection);
}
void zpSetCameraResolution(int camera, int width, int height) noexcept {
  if (zp::Camera* record = RecordAt(zp::cameras, camera)) {
    record->width = width;
    record->height = height;
  }
}
void zpSetCameraRegion(int camera, int xMin, int yMin, int xMax, int yMax) noexcept {
  if (zp::Camera* record = RecordAt(zp::cameras, camera)) {
    record->regionXMin = xMin;
    record->regionYMin = yMin;
    record->regionXMax = xMax;
    record->regionYMax = yMax;
  }
}

int zpAddCameraAOV(int camera) noexcept {
  zp::Camera* record = RecordAt(zp::cameras, camera);
  return record == nullptr ? zp::kNone : zp::Append(record->aovs);
}
void zpSetCameraAOVChannel(int camera, int aov, Channel channel) noexcept {
  if (zp::Aov* record = zp::CameraAovAt(camera, aov)) {
    record->channel = channel;
    record->lastType = 0;
  }
}
void zpSetCameraAOVName(int camera, int aov, const char* name) noexcept {
  if (zp::Aov* record = zp::CameraAovAt(camera, aov)) record->image.fileName = zp::Text(name);
}
void zpSetCameraAOVUserData(int camera, int aov, const char* name) noexcept {
  if (zp::Aov* record = zp::CameraAovAt(camera, aov)) record->userData = zp::Text(name);
}
