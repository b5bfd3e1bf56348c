// Any bytes as the calls of a host: all functions of the interface, in any order, with any indices. Numbers
// that would only ask for much work (pixels, photons, levels, samples) stay small.

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "accel/accel.h"
#include "core/console.h"
#include "core/index.h"
#include "core/settings.h"
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

// A call whose values are known before it is chosen.
template <class Function, class... Values>
std::function<void()> With(Function function, Values... values) {
  return [=] { function(values...); };
}

template <class... Calls>
void CallOneOf(Bytes& in, const Calls&... calls) {
  const std::function<void()> table[] = {calls...};
  table[in.Below(static_cast<int>(sizeof...(calls)))]();
}

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
  CallOneOf(in, With(zpSetDisplayGamma, a), With(zpSetRendererClamp, a, b, c),
            With(zpSetRendererError, a, b, c), With(zpSetRendererRayDepth, i * 3),
            With(zpSetRendererPhotonDepth, i * 3), With(zpSetRendererSample, i * 2),
            With(zpSetRendererBounce, i), With(zpSetRendererDistance, a),
            With(zpSetRendererResolution, a < 0.05f ? std::min(a, 0.0f) : a), With(zpSetRendererRadius, a),
            With(zpSetPreviewWindow, false), With(zpSetShaderTime, i, a));
}

void Geometry(Bytes& in) {
  const int object = in.Index(), part = in.Below(3) - 1, count = in.Below(24) - 1;
  const int size = std::max(count, 0), limit = 16;
  CallOneOf(
      in, With(zpAddObject), [&] { zpSetObjectName(object, in.Name()); }, [&] { zpAddPart(object); },
      [&] { zpSetShaderID(object, part, in.Index()); },
      [&] { zpAddPositions(object, part, count, Numbers(in, 3 * size).data()); },
      [&] { zpAddPositions(object, part, count, Numbers(in, 3 * size).data()); },
      [&] { zpAddNormals(object, part, count, Numbers(in, 3 * size).data()); },
      [&] { zpAddTangents(object, part, count, Numbers(in, 3 * size).data()); },
      [&] { zpAddUVs(object, part, count, Numbers(in, 2 * size).data()); },
      [&] { zpAddRadii(object, part, count, Numbers(in, size).data()); },
      [&] { zpAddTriangles(object, part, count, Indices(in, 3 * size, limit).data()); },
      [&] { zpAddTetragons(object, part, count, Indices(in, 4 * size, limit).data()); },
      [&] { zpAddCylinders(object, part, count, Indices(in, size, limit).data()); },
      [&] { zpAddParticles(object, part, count, Indices(in, size, limit).data()); },
      [&] {
        const int kind = in.Below(5);
        zpAddVertexData(object, part, in.Chance(1, 2) ? "motion" : in.Name(), count, kind,
                        Numbers(in, 3 * size).data());
      },
      [&] {
        const int instance = in.Chance(1, 2) ? zpAddInstance(object) : in.Index();
        float matrix[4][4] = {};
        for (int row = 0; row < 4; ++row)
          for (int column = 0; column < 4; ++column)
            matrix[row][column] = in.Chance(1, 4) ? in.Number() : static_cast<float>(row == column);
        zpSetInstance(object, instance, in.Index(), in.Chance(1, 4) ? nullptr : matrix, in.Index());
      });
}

void Shaders(Bytes& in) {
  const int shader = in.Index(), layer = in.Below(3) - 1;
  const auto element = static_cast<Element>(in.Below(18) - 1);
  const float a = in.Number(), b = in.Number(), c = in.Number();
  CallOneOf(
      in, With(zpAddShader), [&] { zpSetShaderName(shader, in.Name()); },
      [&] { zpSetShaderVisibility(shader, static_cast<Visibility>(in.Index())); },
      With(zpSetShaderSmoothAngle, shader, 60 * a), With(zpSetShaderRoundCorner, shader, a),
      With(zpAddSurfaceShader, shader), With(zpSetSurfaceColor, shader, layer, element, a, b, c),
      With(zpSetSurfaceColor, shader, layer, element, a, b, c),
      With(zpSetSurfaceColor, shader, layer, element, a, b, c),
      [&] { zpSetSurfaceImage(shader, layer, element, in.Name(), a, nullptr, nullptr); },
      [&] { zpSetSurfaceMaterial(shader, layer, static_cast<Material>(in.Index())); },
      [&] { zpSetSurfaceSideness(shader, layer, static_cast<Sideness>(in.Index())); },
      [&] { zpSetSurfaceVirtualLight(shader, layer, in.Chance(1, 2)); },
      [&] {
        if (in.Chance(1, 2)) zpAddDisplacementShader(shader);
        zpSetDisplacementImage(shader, layer, in.Name(), a, nullptr, nullptr);
        zpSetDisplacementLevel(shader, layer, in.Below(5) - 1);
        zpSetDisplacementVector(shader, layer, a, b, c);
      });
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
  CallOneOf(
      in, AddCamera, [&] { zpSetCameraName(camera, in.Name()); }, With(zpSetCameraPosition, camera, a, b, c),
      With(zpSetCameraTarget, camera, a, b, c), With(zpSetCameraUpVector, camera, a, b, c),
      With(zpSetCameraBokeh, camera, a), With(zpSetCameraFOV, camera, 30 * a),
      [&] { zpSetCameraAngleMeasure(camera, static_cast<AngleMeasure>(in.Index())); },
      With(zpSetCameraExposure, camera, a, b, c), [&] { zpSetCameraSample(camera, in.Index()); },
      With(zpSetCameraTime, camera, a),
      [&] { zpSetCameraProjection(camera, static_cast<Projection>(in.Index())); },
      [&] { zpSetCameraResolution(camera, in.Below(9) - 1, in.Below(9) - 1); },
      [&] { zpSetCameraRegion(camera, in.Index(), in.Index(), in.Index() + 3, in.Index() + 3); },
      [&] {
        if (in.Chance(1, 2)) zpAddCameraAOV(camera);
        zpSetCameraAOVChannel(camera, aov,
                              static_cast<Channel>(in.Chance(1, 4) ? in.Next() : 1 << in.Below(17)));
        zpSetCameraAOVUserData(camera, aov, in.Name());
      });
}

void Lights(Bytes& in) {
  const int light = in.Below(3) - 1, aov = in.Below(3) - 1, few = in.Index(), photons = in.Below(64) - 4;
  const auto channel = static_cast<Channel>(1 << in.Below(17));
  const float a = in.Number(), b = in.Number(), c = in.Number();
  CallOneOf(
      in, With(zpAddPointLight), With(zpSetPointLightColor, light, a, b, c),
      With(zpSetPointLightPosition, light, a, b, c), With(zpSetPointLightDirection, light, a, b, c),
      With(zpSetPointLightBlur, light, a), With(zpSetPointLightOffset, light, a),
      With(zpSetPointLightInnerAngle, light, 60 * a), With(zpSetPointLightOuterAngle, light, 60 * a),
      With(zpSetPointLightSample, light, few), With(zpSetPointLightPhoton, light, photons),
      With(zpSetPointLightShaderLink, light, few), With(zpAddPointLightAOV, light),
      With(zpSetPointLightAOVChannel, light, aov, channel), With(zpSetPointLightAOVName, light, aov, ""),
      With(zpAddParallelLight), With(zpSetParallelLightColor, light, a, b, c),
      With(zpSetParallelLightDirection, light, a, b, c), With(zpSetParallelLightBlur, light, 30 * a),
      With(zpSetParallelLightOffset, light, a), With(zpSetParallelLightSample, light, few),
      With(zpSetParallelLightPhoton, light, photons), With(zpSetParallelLightShaderLink, light, few),
      With(zpAddParallelLightAOV, light), With(zpSetParallelLightAOVChannel, light, aov, channel),
      With(zpSetParallelLightAOVName, light, aov, ""), With(zpSetSkyLightColor, a, b, c),
      With(zpSetSkyLightNorth, a, b, c), With(zpSetSkyLightZenith, a, b, c),
      [&] { zpSetSkyLightImage(in.Name()); }, [&] { zpSetSkyLightBackdrop(in.Name()); },
      With(zpSetSkyLightSample, few), With(zpSetSkyLightPhoton, photons), With(zpSetSkyLightShaderLink, few),
      With(zpAddSkyLightAOV), With(zpSetSkyLightAOVChannel, aov, channel),
      [&] { zpSetSkyLightAOVName(aov, in.Name()); }, With(zpSetGeometryLightSample, few),
      With(zpSetGeometryLightPhoton, photons), With(zpSetGeometryLightShaderLink, few),
      With(zpAddGeometryLightAOV), With(zpSetGeometryLightAOVChannel, aov, channel),
      [&] { zpSetGeometryLightAOVName(aov, in.Name()); },
      [&] { zpSetGeometryLightAOVShaderName(aov, in.Name()); }, [&] { return; });
}

// The two lights that are always there cast a million photons each by default, as often as something resets
// them.
void FewPhotons() {
  zp::skyLight.photon = std::min(zp::PhotonsOf(zp::skyLight.photon), 64);
  zp::geometryLight.photon = std::min(zp::PhotonsOf(zp::geometryLight.photon), 64);
}

void LifeCycle(Bytes& in) {
  CallOneOf(in, zpStartup, zpShutdown, zpInitializeCameras, zpFinalizeCameras, zpInitializeShaders,
            zpFinalizeShaders, zpInitializeGaffer, zpFinalizeGaffer, zpInitializeSkyLight, zpFinalizeSkyLight,
            zpInitializeGeometryLight, zpFinalizeGeometryLight, zpInitializeAccelerator,
            zpFinalizeAccelerator, zpInitializeRenderer, zpFinalizeRenderer, zpInitialize, zpInitialize,
            zpFinalize, zpRender, zpRender, [&] {
              const int count = in.Below(80) - 1;
              std::vector<float> out(3 * static_cast<std::size_t>(std::max(count, 0)) + 1, 7.0f);
              zpRenderPixels(count, out.data(), in.Index());
              zp::Require(out.back() == 7.0f, __LINE__);
            });
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
