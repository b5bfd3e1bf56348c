// What tests share that run the program in a folder of their own.

#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "imaging/imaging.h"
#include "surroundings.h"

namespace zp {

// "work" is the caller's directory, "scene" a scene that a test may ask for.
class ProgramTest : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(work);
    StartImageFiles();
  }
  void TearDown() override { StopImageFiles(); }

  // A square that faces the camera and fills the right half of the view under a sky of constant colour, on a
  // floor that makes the picture noisy. Each first hit gathers one ray a pass whatever the number of passes,
  // so that with a seed the picture after pass k is that of a render with k passes. The model's path counts
  // from the scene folder.
  void WriteScene(const std::string& cameraText, bool onFloor) const {
    const std::pair<const char*, std::string> files[] = {
        {"model/square.obj", "v 0 0 -9\nv 9 0 -9\nv 9 0 9\nv 0 0 9\nusemtl red\nf 1 2 3 4\n"},
        {"geometry/a.zp", "object\nname square\nobj \"model/square.obj\"\nend\n"},
        {"shader/a.zp",
         "shader\nname \"red\"\nsurface_shader\nlambertian\ncolor 0.9 0.5 0.3\nend\nend\nend\n"},
        {"light/a.zp", "sky_light\ncolor 0.3 0.6 1.5\nend\n"},
        {"render/a.zp", "render\nfinal_gather\nsample 1\nbounce 8\ndistance 0\nresolution 0\nend\nend\n"},
        {"camera/a.zp",
         "camera\n" + cameraText +
             "pose\nposition 0 -5 0\ntarget 0 0 0\nup_vector 0 0 1\nbokeh 0\nfield_of_view 60\nend\nend\n"}};
    for (const auto& [name, text] : files) WriteFile(root / "scene" / name, text);
    if (onFloor)
      std::ofstream(root / "scene/model/square.obj", std::ios::app)
          << "v -9 -9 -1\nv 9 -9 -1\nv 9 9 -1\nv -9 9 -1\nf 5 6 7 8\n";
  }

  const TemporaryFolder own;
  const std::filesystem::path root = own.path, work = root / "work";
};

}  // namespace zp
