// Models of other programs, by the program.

#include <gtest/gtest.h>

#include "geometry/geometry.h"
#include "geometry/mesh_file.h"
#include "program_fixture.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

// A triangle of 0 0 0, 1 0 0 and 0 1 0 in base64, for two nodes; the second is twice as large, and moved.
constexpr char kGltf[] = R"({"asset":{"version":"2.0"},"scene":0,"scenes":[{"nodes":[0,1,2,3]}],
"nodes":[{"mesh":0,"name":"first"},{"mesh":0,"name":"second","translation":[3,0,0],"scale":[2,2,2]},
{"name":"bulb","translation":[0,5,2],"extensions":{"KHR_lights_punctual":{"light":0}}},
{"name":"eye","camera":0,"translation":[1,0.5,6]}],
"cameras":[{"type":"perspective","perspective":{"aspectRatio":2,"yfov":0.9272952}}],
"extensions":{"KHR_lights_punctual":{"lights":[{"type":"point","intensity":314.15927}]}},
"materials":[{"name":"shine","pbrMetallicRoughness":{"baseColorFactor":[0.5,0.25,0,1],"metallicFactor":0,
"roughnessFactor":0.5},"emissiveFactor":[0.96,0,0],"doubleSided":true,"alphaMode":"BLEND"}],
"meshes":[{"primitives":[{"attributes":{"POSITION":0},"material":0}]}],
"accessors":[{"bufferView":0,"componentType":5126,"count":3,"type":"VEC3"}],
"bufferViews":[{"buffer":0,"byteLength":36}],"buffers":[{"byteLength":36,
"uri":"data:;base64,AAAAAAAAAAAAAAAAAACAPwAAAAAAAAAAAAAAAAAAgD8AAAAA"}]})";
constexpr char kObj[] = "v 0 0 0\nv 1 0 0\nv 0 2 0\nv 0 0 3\nf 1 3 2\nf 1 2 4\nf 1 4 3\nf 2 3 4\n";

class Import : public ProgramTest {
 protected:
  void SetUp() override {
    ProgramTest::SetUp();
    if (!fs::exists(fs::path(kProgram).parent_path() / "zephlore-import"))
      GTEST_SKIP() << "built without assimp";
    WriteFile(work / "two.gltf", kGltf);
    WriteFile(work / "corner.obj", kObj);
  }
  std::string SceneText(const std::string& scene) const {
    std::string text;
    for (const char* name :
         {"geometry/objects.zp", "shader/materials.zp", "light/lights.zp", "camera/cameras.zp"})
      text += ReadFile(work / scene / name);
    return text;
  }
};

TEST_F(Import, KeepsPlacesColoursLightsAndCameras) {
  ASSERT_EQ(Run("import two.gltf --output made").output, "nothing was lost\n");
  const std::string text = SceneText("made");
  for (const char* line :
       {"matrix 2 0 0 3 0 2 0 0 0 0 2 0 0 0 0 1", "matrix 1 0 0 0 0 0 -1 0 0 1 0 0 0 0 0 1",
        "color 0.5 0.25 0", "color 0.25 0.25 0.25", "color 1 0 0\n", "color 100 100 100", "position 0 -2 5",
        "offset 0", "resolution 960 480", "position 1 -6 0.5", "color 0 0 0\nend"})
    EXPECT_NE(text.find(line), text.npos) << line << '\n' << text;
  EXPECT_EQ(Run("check made").output, "0 errors, 0 warnings\n");
  EXPECT_EQ(std::distance(fs::directory_iterator(work / "made/model"), {}), 1);  // one mesh, placed twice
}

TEST_F(Import, GeometryOfBytesRendersAsThatOfText) {
  for (const std::string kind : {"text", "binary"}) {
    ASSERT_EQ(
        Run("import two.gltf corner.obj --quiet -o " + kind + (kind == "text" ? "" : " --binary")).status, 0);
    ASSERT_EQ(
        Run("render " + kind + " --sample 1 --seed 1 --resolution 40x20 --quiet -o " + kind + ".pfm").status,
        0);
  }
  EXPECT_TRUE(fs::exists(work / "binary/model/corner.zpm"));
  EXPECT_EQ(ReadFile(work / "text.pfm"), ReadFile(work / "binary.pfm"));
}

TEST_F(Import, AxesAndUnitsAreThoseOfTheFileOrThoseThatAreSaid) {
  WriteFile(work / "flat.stl",
            "solid a\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\nvertex 0 1 0\n"
            "endloop\nendfacet\nendsolid a\n");
  const std::pair<const char*, const char*> rows[] = {
      {"corner.obj", "matrix 1 0 0 0 0 0 -1 0 0 1 0 0 0 0 0 1"},
      {"corner.obj --up z --unit cm", "matrix 0.01 0 0 0 0 0.01 0 0 0 0 0.01 0 0 0 0 1"},
      {"flat.stl --unit mm", "matrix 0.001 0 0 0 0 0.001 0 0 0 0 0.001 0 0 0 0 1"}};
  for (const auto& [words, line] : rows) {
    ASSERT_EQ(Run("import --force -o made " + std::string(words)).status, 0) << words;
    EXPECT_NE(SceneText("made").find(line), std::string::npos) << words;
  }
}

TEST_F(Import, WhatFailsIsOneLineAndLeavesNoFolder) {
  std::string cut = kGltf;
  WriteFile(work / "cut.gltf", cut.substr(0, cut.size() / 2));
  WriteFile(work / "short.gltf", cut.replace(cut.find("\"count\":3"), 9, "\"count\":4"));
  WriteFile(work / "loop.gltf",
            std::string(kGltf).insert(std::string(kGltf).find("\"mesh\":0"), "\"children\":[1],"));
  WriteFile(work / "none.obj", "v 0 0 0\n");
  WriteFile(work / "made/own.txt", "mine");
  for (const char* words :
       {"cut.gltf -o new", "short.gltf -o new", "loop.gltf -o new", "none.obj -o new", "nowhere.glb -o new",
        "two.gltf cut.gltf -o new", "two.gltf -o made", "two.gltf -o made --force", "two.gltf -o no/where"}) {
    const Outcome outcome = Run("import " + std::string(words));
    EXPECT_EQ(outcome.status, 1) << words;
    EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 1) << outcome.errors;
    EXPECT_FALSE(fs::exists(work / "new")) << words;
  }
  for (const fs::directory_entry& entry : fs::directory_iterator(work))
    EXPECT_NE(entry.path().filename().string().front(), '.') << entry.path();
  EXPECT_EQ(ReadFile(work / "made/own.txt"), "mine");
}

TEST_F(Import, RendersAModelThatHasNeitherLightNorCamera) {
  const Outcome outcome =
      Run("render corner.obj --keep made --sample 2 --resolution 48x48 --seed 1 -o a.png --quiet");
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  ImageBuffer picture;
  ASSERT_TRUE(LoadImage(picture, (work / "a.png").string()));
  double sum = 0;
  for (std::size_t p = 0; p < 48 * 48; ++p) sum += ReadPixel(picture, p).y;
  EXPECT_NEAR(sum / (48 * 48), 0.5, 0.12);  // a middle grey, by the curve of a screen
  EXPECT_NE(SceneText("made").find("exposure"), std::string::npos);
  EXPECT_EQ(Run("render nowhere.glb --keep other").status, 2);
}

TEST(MeshFile, ReadsWhatWasWrittenAndRefusesTheRest) {
  const TemporaryFolder folder;
  Part part, back;
  ReadObj(
      "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 1 1 0\nvt 0 0\nvt 1 0.5\nvn 0 0 1\nf 1/1/1 2/2/1 3/1/1\nf 1//1 2//1 4//1 "
      "3//1\n",
      part);
  const std::string path = (folder.path / "a.zpm").string();
  ASSERT_TRUE(WriteMeshFile(path, part));
  ASSERT_TRUE(ReadMeshFile(path, back));
  EXPECT_EQ(back.positions, part.positions);
  EXPECT_EQ(back.uvSets[0].values, part.uvSets[0].values);
  EXPECT_EQ(back.normals, part.normals);
  EXPECT_EQ(back.triangles.size(), part.triangles.size());
  EXPECT_EQ(back.tetragons.size(), 1U);
  const std::string bytes = ReadFile(path);
  for (std::size_t size = 0; size < bytes.size(); size += 7) {
    Part empty;
    EXPECT_FALSE(ReadMesh(std::string_view(bytes).substr(0, size), "a", empty)) << size;
  }
}

}  // namespace
}  // namespace zp
