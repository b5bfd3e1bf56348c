// Any bytes as the calls of a host: all functions of the interface, in any order, with any indices. Numbers
// that would only ask for much work (pixels, photons, levels, samples) stay small.

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "accel/accel.h"
#include "core/console.h"
#include "frame/zp.h"
#include "fuzz.h"
#include "lights/lights.h"

namespace {

// The input as numbers; zeros behind its end.
struct Bytes {
  const std::uint8_t* at;
  const std::uint8_t* end;

  int Next() { return at < end ? *at++ : 0; }
  int Below(int limit) { return Next() % limit; }
  int Index() { return Below(6) - 1; }  // -1 to 4: often a record, sometimes none
  bool Chance(int one, int in) { return Below(in) < one; }
  float Number() {
    constexpr float kOdd[] = {NAN, INFINITY, -INFINITY, 3.4e38f, -3.4e38f, 1e-38f, 0, -0.0f};
    const int byte = Next();
    if (byte >= 250) return kOdd[Below(8)];
    return static_cast<float>(byte - 125) / 25;
  }
  const char* Name() {
    constexpr const char* kNames[] = {"", "a", "b", "undefined", "id", "no-such-folder/x.hdr", nullptr};
    return kNames[Below(7)];
  }
};

std::vector<float> Numbers(Bytes& in, int count) {
  std::vector<float> values(static_cast<std::size_t>(count));
  for (float& value : values) value = in.Number();
  return values;
}

std::vector<int> Indices(Bytes& in, int count, int limit) {
  std::vector<int> values(static_cast<std::size_t>(count));
  for (int& value : values) value = in.Chance(1, 32) ? in.Next() - 128 : in.Below(limit);
  return values;
}

void Settings(Bytes& in) {
  const int i = in.Index();
  const float a = in.Number(), b = in.Number(), c = in.Number();
  switch (in.Below(12)) {
    case 0:
      return zpSetDisplayGamma(a);
    case 1:
      return zpSetRendererClamp(a, b, c);
    case 2:
      return zpSetRendererError(a, b, c);
    case 3:
      return zpSetRendererRayDepth(i * 3);
    case 4:
      return zpSetRendererPhotonDepth(i * 3);
    case 5:
      return zpSetRendererSample(i * 2);
    case 6:
      return zpSetRendererBounce(i);
    case 7:
      return zpSetRendererDistance(a);
    case 8:
      return zpSetRendererResolution(a < 0.05f ? std::min(a, 0.0f) : a);
    case 9:
      return zpSetRendererRadius(a);
    case 10:
      return zpSetPreviewWindow(false);
    default:
      return zpSetShaderTime(i, a);
  }
}

void Geometry(Bytes& in) {
  const int object = in.Index(), part = in.Below(3) - 1, count = in.Below(24) - 1;
  const int size = std::max(count, 0), limit = 16;
  switch (in.Below(16)) {
    case 0:
      zpAddObject();
      return;
    case 1:
      return zpSetObjectName(object, in.Name());
    case 2:
      zpAddPart(object);
      return;
    case 3:
      return zpSetShaderID(object, part, in.Index());
    case 4:
    case 5:
      return zpAddPositions(object, part, count, Numbers(in, 3 * size).data());
    case 6:
      return zpAddNormals(object, part, count, Numbers(in, 3 * size).data());
    case 7:
      return zpAddTangents(object, part, count, Numbers(in, 3 * size).data());
    case 8:
      return zpAddUVs(object, part, count, Numbers(in, 2 * size).data());
    case 9:
      return zpAddRadii(object, part, count, Numbers(in, size).data());
    case 10:
      return zpAddTriangles(object, part, count, Indices(in, 3 * size, limit).data());
    case 11:
      return zpAddTetragons(object, part, count, Indices(in, 4 * size, limit).data());
    case 12:
      return zpAddCylinders(object, part, count, Indices(in, size, limit).data());
    case 13:
      return zpAddParticles(object, part, count, Indices(in, size, limit).data());
    case 14: {
      const int kind = in.Below(5);
      return zpAddVertexData(object, part, in.Chance(1, 2) ? "motion" : in.Name(), count, kind,
                             Numbers(in, 3 * size).data());
    }
    default: {
      const int instance = in.Chance(1, 2) ? zpAddInstance(object) : in.Index();
      float matrix[4][4] = {};
      for (int row = 0; row < 4; ++row)
        for (int column = 0; column < 4; ++column)
          matrix[row][column] = in.Chance(1, 4) ? in.Number() : static_cast<float>(row == column);
      return zpSetInstance(object, instance, in.Index(), in.Chance(1, 4) ? nullptr : matrix, in.Index());
    }
  }
}

void Shaders(Bytes& in) {
  const int shader = in.Index(), layer = in.Below(3) - 1;
  const auto element = static_cast<Element>(in.Below(18) - 1);
  const float a = in.Number(), b = in.Number(), c = in.Number();
  switch (in.Below(14)) {
    case 0:
      zpAddShader();
      return;
    case 1:
      return zpSetShaderName(shader, in.Name());
    case 2:
      return zpSetShaderVisibility(shader, static_cast<Visibility>(in.Index()));
    case 3:
      return zpSetShaderSmoothAngle(shader, 60 * a);
    case 4:
      return zpSetShaderRoundCorner(shader, a);
    case 5:
      zpAddSurfaceShader(shader);
      return;
    case 6:
    case 7:
    case 8:
      return zpSetSurfaceColor(shader, layer, element, a, b, c);
    case 9:
      return zpSetSurfaceImage(shader, layer, element, in.Name(), a, nullptr, nullptr);
    case 10:
      return zpSetSurfaceMaterial(shader, layer, static_cast<Material>(in.Index()));
    case 11:
      return zpSetSurfaceSideness(shader, layer, static_cast<Sideness>(in.Index()));
    case 12:
      return zpSetSurfaceVirtualLight(shader, layer, in.Chance(1, 2));
    default:
      if (in.Chance(1, 2)) zpAddDisplacementShader(shader);
      zpSetDisplacementImage(shader, layer, in.Name(), a, nullptr, nullptr);
      zpSetDisplacementLevel(shader, layer, in.Below(5) - 1);
      return zpSetDisplacementVector(shader, layer, a, b, c);
  }
}

// A small one, whose picture is not written.
void AddCamera() {
  const int camera = zpAddCamera();
  zpSetCameraAOVName(camera, 0, "");
  zpSetCameraResolution(camera, 6, 4);
  zpSetCameraSample(camera, 2);
}

void Cameras(Bytes& in) {
  const int camera = in.Below(3) - 1, aov = in.Below(4);
  const float a = in.Number(), b = in.Number(), c = in.Number();
  switch (in.Below(15)) {
    case 0:
      return AddCamera();
    case 1:
      return zpSetCameraName(camera, in.Name());
    case 2:
      return zpSetCameraPosition(camera, a, b, c);
    case 3:
      return zpSetCameraTarget(camera, a, b, c);
    case 4:
      return zpSetCameraUpVector(camera, a, b, c);
    case 5:
      return zpSetCameraBokeh(camera, a);
    case 6:
      return zpSetCameraFOV(camera, 30 * a);
    case 7:
      return zpSetCameraAngleMeasure(camera, static_cast<AngleMeasure>(in.Index()));
    case 8:
      return zpSetCameraExposure(camera, a, b, c);
    case 9:
      return zpSetCameraSample(camera, in.Index());
    case 10:
      return zpSetCameraTime(camera, a);
    case 11:
      return zpSetCameraProjection(camera, static_cast<Projection>(in.Index()));
    case 12:
      return zpSetCameraResolution(camera, in.Below(9) - 1, in.Below(9) - 1);
    case 13:
      return zpSetCameraRegion(camera, in.Index(), in.Index(), in.Index() + 3, in.Index() + 3);
    default:
      if (in.Chance(1, 2)) zpAddCameraAOV(camera);
      zpSetCameraAOVChannel(camera, aov,
                            static_cast<Channel>(in.Chance(1, 4) ? in.Next() : 1 << in.Below(17)));
      return zpSetCameraAOVUserData(camera, aov, in.Name());
  }
}

void Lights(Bytes& in) {
  const int light = in.Below(3) - 1, aov = in.Below(3) - 1, few = in.Index(), photons = in.Below(64) - 4;
  const auto channel = static_cast<Channel>(1 << in.Below(17));
  const float a = in.Number(), b = in.Number(), c = in.Number();
  switch (in.Below(44)) {
    case 0:
      zpAddPointLight();
      return;
    case 1:
      return zpSetPointLightColor(light, a, b, c);
    case 2:
      return zpSetPointLightPosition(light, a, b, c);
    case 3:
      return zpSetPointLightDirection(light, a, b, c);
    case 4:
      return zpSetPointLightBlur(light, a);
    case 5:
      return zpSetPointLightOffset(light, a);
    case 6:
      return zpSetPointLightInnerAngle(light, 60 * a);
    case 7:
      return zpSetPointLightOuterAngle(light, 60 * a);
    case 8:
      return zpSetPointLightSample(light, few);
    case 9:
      return zpSetPointLightPhoton(light, photons);
    case 10:
      return zpSetPointLightShaderLink(light, few);
    case 11:
      zpAddPointLightAOV(light);
      return;
    case 12:
      return zpSetPointLightAOVChannel(light, aov, channel);
    case 13:
      return zpSetPointLightAOVName(light, aov, "");
    case 14:
      zpAddParallelLight();
      return;
    case 15:
      return zpSetParallelLightColor(light, a, b, c);
    case 16:
      return zpSetParallelLightDirection(light, a, b, c);
    case 17:
      return zpSetParallelLightBlur(light, 30 * a);
    case 18:
      return zpSetParallelLightOffset(light, a);
    case 19:
      return zpSetParallelLightSample(light, few);
    case 20:
      return zpSetParallelLightPhoton(light, photons);
    case 21:
      return zpSetParallelLightShaderLink(light, few);
    case 22:
      zpAddParallelLightAOV(light);
      return;
    case 23:
      return zpSetParallelLightAOVChannel(light, aov, channel);
    case 24:
      return zpSetParallelLightAOVName(light, aov, "");
    case 25:
      return zpSetSkyLightColor(a, b, c);
    case 26:
      return zpSetSkyLightNorth(a, b, c);
    case 27:
      return zpSetSkyLightZenith(a, b, c);
    case 28:
      return zpSetSkyLightImage(in.Name());
    case 29:
      return zpSetSkyLightBackdrop(in.Name());
    case 30:
      return zpSetSkyLightSample(few);
    case 31:
      return zpSetSkyLightPhoton(photons);
    case 32:
      return zpSetSkyLightShaderLink(few);
    case 33:
      zpAddSkyLightAOV();
      return;
    case 34:
      return zpSetSkyLightAOVChannel(aov, channel);
    case 35:
      return zpSetSkyLightAOVName(aov, in.Name());
    case 36:
      return zpSetGeometryLightSample(few);
    case 37:
      return zpSetGeometryLightPhoton(photons);
    case 38:
      return zpSetGeometryLightShaderLink(few);
    case 39:
      zpAddGeometryLightAOV();
      return;
    case 40:
      return zpSetGeometryLightAOVChannel(aov, channel);
    case 41:
      return zpSetGeometryLightAOVName(aov, in.Name());
    case 42:
      return zpSetGeometryLightAOVShaderName(aov, in.Name());
    default:
      return;
  }
}

// The two lights that are always there cast a million photons each by default, as often as something resets
// them.
void FewPhotons() {
  zp::skyLight.photon = std::min(zp::skyLight.photon, 64);
  zp::geometryLight.photon = std::min(zp::geometryLight.photon, 64);
}

void LifeCycle(Bytes& in) {
  switch (in.Below(22)) {
    case 0:
      return zpStartup();
    case 1:
      return zpShutdown();
    case 2:
      return zpInitializeCameras();
    case 3:
      return zpFinalizeCameras();
    case 4:
      return zpInitializeShaders();
    case 5:
      return zpFinalizeShaders();
    case 6:
      return zpInitializeGaffer();
    case 7:
      return zpFinalizeGaffer();
    case 8:
      return zpInitializeSkyLight();
    case 9:
      return zpFinalizeSkyLight();
    case 10:
      return zpInitializeGeometryLight();
    case 11:
      return zpFinalizeGeometryLight();
    case 12:
      return zpInitializeAccelerator();
    case 13:
      return zpFinalizeAccelerator();
    case 14:
      return zpInitializeRenderer();
    case 15:
      return zpFinalizeRenderer();
    case 16:
    case 17:
      return zpInitialize();
    case 18:
      return zpFinalize();
    case 19:
    case 20:
      return zpRender();
    default: {
      const int count = in.Below(80) - 1;
      std::vector<float> out(3 * static_cast<std::size_t>(std::max(count, 0)) + 1, 7.0f);
      zpRenderPixels(count, out.data(), in.Index());
      zp::Require(out.back() == 7.0f, __LINE__);
      return;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zp::ClearTables();
  zp::FinalizeAccelerator();
  Bytes in{data, data + size};
  if (in.Chance(7, 8)) zpStartup();
  while (in.at < in.end) {
    FewPhotons();
    const int family = in.Below(16);
    if (family < 1)
      Settings(in);
    else if (family < 6)
      Geometry(in);
    else if (family < 9)
      Shaders(in);
    else if (family < 11)
      Cameras(in);
    else if (family < 13)
      Lights(in);
    else if (family < 15)
      LifeCycle(in);
    else {  // what a host does in the end
      zpInitialize();
      zpRender();
    }
  }
  zpFinalize();
  zpShutdown();
  return 0;
}
