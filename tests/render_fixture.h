// What tests share that render small scenes of their own and look at the pixels.

#pragma once

#include <gtest/gtest.h>
#include <omp.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "core/console.h"
#include "core/index.h"
#include "core/settings.h"
#include "frame/frame.h"
#include "geometry/object.h"
#include "imaging/imaging.h"
#include "integrator/integrator.h"
#include "lights/lights.h"
#include "shading/shading.h"
#include "surroundings.h"

namespace zp {

inline constexpr float kDegree = kPi / 180;

inline Vec3 Grey(float value) { return {value, value, value}; }

inline std::int32_t AddShader(const char* name, Vec3 lambertian, Vec3 emissive, Vec3 transmissive = kBlack) {
  Shader shader;
  shader.name = name;
  shader.surfaces.emplace_back();
  shader.surfaces[0][Element::kLambertian].color = lambertian;
  shader.surfaces[0][Element::kEmissive].color = emissive;
  shader.surfaces[0][Element::kTransmissive].color = transmissive;
  shaders.push_back(shader);
  return static_cast<std::int32_t>(shaders.size()) - 1;
}

inline SurfaceShader& Layer(std::int32_t shader) { return ShaderAt(shader).surfaces[0]; }

// A float picture in the texture table, as if it had been read; color(column, row), row 0 at the bottom.
template <class Color>
std::int32_t AddImage(const std::string& name, int width, int height, const Color& color) {
  const std::int32_t index = FindOrAddTexture(name);
  ImageBuffer& image = At(images, index);
  Allocate(image, width, height, 3, 32, false);
  for (int i = 0; i < width * height; ++i)
    WritePixel(image, color(i % width, i / width), static_cast<std::size_t>(i));
  image.loaded = true;
  return index;
}

inline void ExpectNear(Vec3 actual, Vec3 expected, float tolerance) {
  for (int c = 0; c < 3; ++c) EXPECT_NEAR(actual[c], expected[c], tolerance) << "component " << c;
}

inline void AddTetragon(Part& part, std::array<Vec3, 4> corners, std::int32_t shader) {
  const auto first = static_cast<std::uint32_t>(part.positions.size());
  part.positions.insert(part.positions.end(), corners.begin(), corners.end());
  part.tetragons.push_back({{first, first + 1, first + 2, first + 3}, shader});
}

// Faces outwards.
inline void AddCube(Part& part, float half, std::int32_t shader) {
  for (int axis = 0; axis < 3; ++axis)
    for (float side : {-half, half}) {
      std::array<Vec3, 4> corners;
      for (int i = 0; i < 4; ++i) {
        Vec3& p = At(corners, side > 0 ? i : 3 - i);
        p[axis] = side;
        p[(axis + 1) % 3] = i == 1 || i == 2 ? half : -half;
        p[(axis + 2) % 3] = i >= 2 ? half : -half;
      }
      AddTetragon(part, corners, shader);
    }
}

// A sphere of triangles that face outwards: an octahedron, split `levels` times. With `smooth` its vertices
// have normals.
inline void AddSphere(Part& part, int levels, bool smooth, std::int32_t shader) {
  std::vector<std::array<Vec3, 3>> faces;
  for (float x : {-1.0f, 1.0f})
    for (float y : {-1.0f, 1.0f})
      for (float z : {-1.0f, 1.0f}) {
        const Vec3 a = {x, 0, 0}, b = {0, y, 0}, c = {0, 0, z};
        faces.push_back(x * y * z > 0 ? std::array{a, b, c} : std::array{a, c, b});
      }
  for (; levels > 0; --levels) {
    std::vector<std::array<Vec3, 3>> split;
    for (const auto& [a, b, c] : faces) {
      const Vec3 ab = SafeNormalize(a + b), bc = SafeNormalize(b + c), ca = SafeNormalize(c + a);
      split.insert(split.end(), {{a, ab, ca}, {b, bc, ab}, {c, ca, bc}, {ab, bc, ca}});
    }
    faces.swap(split);
  }
  for (const auto& face : faces) {
    const auto first = static_cast<std::uint32_t>(part.positions.size());
    for (Vec3 p : face) {
      part.positions.push_back(p);
      if (smooth) part.normals.push_back(Pack(p));
    }
    part.triangles.push_back({{first, first + 1, first + 2}, shader});
  }
}

// One Object with one Part, a white sky, path tracing, a camera of 16 by 16 pixels and 4 passes, seed 1.
// Nothing is written.
class RenderTest : public testing::Test {
 protected:
  void SetUp() override {
    SetConsoleQuiet(true);
    settings = {};
    settings.said.resolution = 0;  // path tracing
    threads_ = omp_get_max_threads();
    Startup(1);
    skyLight.color = kWhite;
    objectTable.emplace_back();
    objectTable[0].parts.emplace_back();
    cameras.emplace_back();
    cameras[0].width = cameras[0].height = 16;
    cameras[0].sample = 4;
    cameras[0].aovs[0].image.fileName.clear();  // nothing is written to disk
    LookFrom({0.7f, -4, 1.3f}, kBlack, 45);
  }

  void TearDown() override {
    frameObserver = {};
    omp_set_num_threads(threads_);
    Finalize();
    Shutdown();
    settings = {};
    SetConsoleQuiet(false);
  }

  static Part& Geometry() { return objectTable[0].parts[0]; }

  // What the console shows of the call.
  template <class Call>
  static std::string Aloud(const Call& call) {
    SetConsoleQuiet(false);
    std::string rows = Printed(call);
    SetConsoleQuiet(true);
    return rows;
  }

  static void LookFrom(Vec3 position, Vec3 target, float degrees) {
    for (int i = 0; i < 2; ++i) {
      cameras[0].poses[i].position = position;
      cameras[0].poses[i].target = target;
      cameras[0].poses[i].upVector = {0, 0, 1};
      cameras[0].poses[i].fieldOfView = degrees;
      cameras[0].poseWritten[i] = kWholePose;
    }
  }

  // A square in the plane z, facing up.
  static void AddPlane(float z, float half, std::int32_t shader) {
    AddTetragon(Geometry(),
                {Vec3{-half, -half, z}, Vec3{half, -half, z}, Vec3{half, half, z}, Vec3{-half, half, z}},
                shader);
  }

  // It shines in all directions alike; by default a light falls off around +y.
  static PointLight& AddPointLight(Vec3 position, float offset = 0, std::int64_t photons = 0) {
    PointLight& light = pointLights.emplace_back();
    light.position = position;
    light.offset = offset;
    light.innerAngle = 180;
    light.photon = photons;
    return light;
  }

  static ParallelLight& AddParallelLight(Vec3 direction, float offset = 0, std::int64_t photons = 0) {
    ParallelLight& light = parallelLights.emplace_back();
    light.zAxis = direction;
    light.offset = offset;
    light.photon = photons;
    return light;
  }

  static std::size_t AddAov(std::uint32_t channel, const char* userData = "undefined") {
    cameras[0].aovs.emplace_back();
    cameras[0].aovs.back().channel = channel;
    cameras[0].aovs.back().userData = userData;
    return cameras[0].aovs.size() - 1;
  }

  static const std::vector<float>& Pixels(std::size_t aov) { return cameras[0].aovs[aov].image.floatPixels; }

  static float Average(std::size_t aov) {
    double sum = 0;
    for (float value : Pixels(aov)) sum += static_cast<double>(value);
    return static_cast<float>(sum / static_cast<double>(Pixels(aov).size()));
  }

  static Vec3 MeanColor(std::size_t aov = 0) {
    Vec3 sum;
    const std::size_t count = Pixels(aov).size() / 3;
    for (std::size_t i = 0; i < count; ++i)
      for (int c = 0; c < 3; ++c) sum[c] += Pixels(aov)[3 * i + static_cast<std::size_t>(c)];
    return sum / static_cast<float>(count);
  }

  void Restart() {
    TearDown();
    SetUp();
  }

  static void Render() {
    Initialize();
    RenderLoop();
  }

 private:
  int threads_ = 1;
};

}  // namespace zp
