// Cameras and their AOVs, as a host fills them.

#include "frame/exported_records.h"
#include "frame/zp.h"

using zp::At;

namespace {

// The pose that setters write, now marked as written; null without such a camera.
zp::CameraPose* WrittenPose(int camera) {
  zp::Camera* record = At(zp::cameras, camera);
  if (record == nullptr) return nullptr;
  const int pose = record->poseIndex == 1 ? 1 : 0;
  record->poseWritten[pose] = true;
  return &record->poses[pose];
}

}  // namespace

int zpAddCamera() { return zp::Append(zp::cameras); }

void zpSetCameraName(int camera, const char* name) {
  if (zp::Camera* record = At(zp::cameras, camera)) record->name = zp::Text(name);
}
void zpSetCameraPosition(int camera, float x, float y, float z) {
  if (zp::CameraPose* pose = WrittenPose(camera)) pose->position = {x, y, z};
}
void zpSetCameraTarget(int camera, float x, float y, float z) {
  if (zp::CameraPose* pose = WrittenPose(camera)) pose->target = {x, y, z};
}
void zpSetCameraUpVector(int camera, float x, float y, float z) {
  if (zp::CameraPose* pose = WrittenPose(camera)) pose->upVector = {x, y, z};
}
void zpSetCameraBokeh(int camera, float degrees) {
  if (zp::CameraPose* pose = WrittenPose(camera)) pose->bokeh = degrees;
}
void zpSetCameraFOV(int camera, float degrees) {
  if (zp::CameraPose* pose = WrittenPose(camera)) pose->fieldOfView = degrees;
}
void zpSetCameraAngleMeasure(int camera, AngleMeasure measure) {
  if (zp::Camera* record = At(zp::cameras, camera))
    record->angleMeasure = static_cast<zp::AngleMeasure>(measure);
}
void zpSetCameraExposure(int camera, float r, float g, float b) {
  if (zp::Camera* record = At(zp::cameras, camera)) record->exposure = {r, g, b};
}
void zpSetCameraSample(int camera, int sample) {
  if (zp::Camera* record = At(zp::cameras, camera)) record->sample = sample;
}
void zpSetCameraTime(int camera, float time) {
  if (zp::Camera* record = At(zp::cameras, camera)) record->poseIndex = time >= 0.5f ? 1 : 0;
}
void zpSetCameraProjection(int camera, Projection projection) {
  if (zp::Camera* record = At(zp::cameras, camera))
    record->projection = static_cast<zp::Projection>(projection);
}
void zpSetCameraResolution(int camera, int width, int height) {
  if (zp::Camera* record = At(zp::cameras, camera)) {
    record->width = width;
    record->height = height;
  }
}
void zpSetCameraRegion(int camera, int xMin, int yMin, int xMax, int yMax) {
  if (zp::Camera* record = At(zp::cameras, camera)) {
    record->regionXMin = xMin;
    record->regionYMin = yMin;
    record->regionXMax = xMax;
    record->regionYMax = yMax;
  }
}

int zpAddCameraAOV(int camera) {
  zp::Camera* record = At(zp::cameras, camera);
  return record == nullptr ? zp::kNone : zp::Append(record->aovs);
}
void zpSetCameraAOVChannel(int camera, int aov, Channel channel) {
  if (zp::Aov* record = zp::CameraAovAt(camera, aov)) record->channel = channel;
}
void zpSetCameraAOVName(int camera, int aov, const char* name) {
  if (zp::Aov* record = zp::CameraAovAt(camera, aov)) record->image.fileName = zp::Text(name);
}
void zpSetCameraAOVUserData(int camera, int aov, const char* name) {
  if (zp::Aov* record = zp::CameraAovAt(camera, aov)) record->userData = zp::Text(name);
}
