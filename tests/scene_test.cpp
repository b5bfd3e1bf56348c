// The text rules of scene files, and where each keyword's value goes.

#include "scene/scene.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/settings.h"
#include "geometry/geometry.h"
#include "lights/lights.h"
#include "scene/notes.h"

namespace zp {
namespace {

class SceneTest : public testing::Test {
 protected:
  void SetUp() override { Clear(); }
  void TearDown() override { Clear(); }

  static void Clear() {
    shaders.clear();
    AddUndefinedShader();
    cameras.clear();
    objectTable.clear();
    imageSearchPaths.clear();
    settings = {};
    pointLights.clear();
    parallelLights.clear();
    ResetSky();
    skyLight = {};
    ResetGeometryLight();
    geometryLight = {};
  }

  // The reader never prints.
  static void Read(const std::string& text) {
    std::istringstream stream(text);
    testing::internal::CaptureStdout();
    ReadScene(stream);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  }
  static Shader& Named(std::string_view name) {
    return shaders.at(static_cast<std::size_t>(FindShader(name)));
  }
};

TEST_F(SceneTest, BlocksEndEarlyAndLate) {
  Read(
      "end\nend\nrender\nend\nrender\n unknown\n  clamp 1 2 3\n end\n error 1 1 1\nend\n"
      "object\n name a\n");
  EXPECT_EQ(settings.clamp, (Vec3{1, 2, 3}));  // an unknown block's body belongs to the block around it
  EXPECT_EQ(settings.error, (Vec3{0, 0, 0}));  // and its end ends that
  ASSERT_EQ(objectTable.size(), 1U);           // the end of the file ends every block
  EXPECT_EQ(objectTable[0].name, "a");
  // Unknown sections: their lines are read at file level.
  Read("fog\n render\n  gamma 3\n end\nend\ncamera\n render\n sample 5\nend\n");
  EXPECT_EQ(settings.displayGamma, 3);
  ASSERT_EQ(cameras.size(), 1U);
  EXPECT_EQ(cameras[0].sample, 5);
}

TEST_F(SceneTest, MissingAndBadValuesKeepTheField) {
  Read(
      "render\n clamp 5\n error 1 x 3\n gamma\n exposure 2.5 remark\n final_gather\n  sample\n  bounce 1e\n"
      "  ray_depth 99999999999\n  radius nan-ish\n end\nend\n"
      "camera\n resolution 640\n region 1 2 3\n exposure . 2 3\n projection \"fisheye\"\nend\n");
  EXPECT_EQ(settings.clamp, (Vec3{5, kFarthest, kFarthest}));
  EXPECT_EQ(settings.error, (Vec3{1, 0, 0}));
  EXPECT_EQ(settings.displayGamma, 2.2f);
  EXPECT_EQ(settings.exposure, 2.5f);
  EXPECT_EQ(settings.rendererSample, 64);
  EXPECT_EQ(settings.rayDepth, 8);
  EXPECT_EQ(settings.photonRadius, 1);
  ASSERT_EQ(cameras.size(), 1U);
  EXPECT_EQ(cameras[0].width, 640);
  EXPECT_EQ(cameras[0].height, 540);
  EXPECT_EQ(cameras[0].regionXMin, 1);
  EXPECT_EQ(cameras[0].regionYMin, 2);
  EXPECT_EQ(cameras[0].regionXMax, 3);
  EXPECT_EQ(cameras[0].regionYMax, 1048576);
  EXPECT_EQ(cameras[0].exposure, (Vec3{1, 1, 1}));
  EXPECT_EQ(cameras[0].projection, Projection::kPerspective);
}

TEST_F(SceneTest, StringsAndWords) {
  Read(
      "shader\n name \"two words\" \"more\"\nend\nshader\n name \"open end\nend\n"
      "object\n name one two\n shader \"two words\"\nend\nobject\n name \"q\"\nend\n"
      "camera\n name \"first\"\n name bare\nend\n");
  EXPECT_NE(FindShader("two words"), kNone);
  EXPECT_NE(FindShader("open end"), kNone);
  EXPECT_EQ(objectTable[0].name, "one");
  EXPECT_EQ(objectTable[0].shader, FindShader("two words"));
  EXPECT_EQ(objectTable[1].name, "\"q\"");
  EXPECT_EQ(cameras[0].name, "");  // a string without quotes is the empty one
}

TEST_F(SceneTest, LineEndsAndComments) {
  Read(
      "#render\r\n\r\nrender\r\n# gamma 9\r\n  #gamma 9\r\n\tgamma 4\r\n\r\nend\r\n"
      "shader\r\n name \"grey\"\r\nend\r\ncamera\r\n sample 3\r\nend");
  EXPECT_EQ(settings.displayGamma, 4);
  EXPECT_NE(FindShader("grey"), kNone);
  ASSERT_EQ(cameras.size(), 1U);
  Read("render\ngamma 5");  // the last line counts without its line feed
  EXPECT_EQ(settings.displayGamma, 5);
}

TEST_F(SceneTest, LongLinesAreDroppedWhole) {
  const auto line = [](std::string text, std::size_t length) {
    text.resize(length, ' ');
    return text;
  };
  Read("render\n" + line(" gamma 5", 4095) + "\n" + line(" gamma 6", 4096) + "\n" +
       line(" error 1 1 1", 20000) + "\n clamp 1 1 1\nend\n");
  EXPECT_EQ(settings.displayGamma, 5);
  EXPECT_EQ(settings.error, (Vec3{0, 0, 0}));
  EXPECT_EQ(settings.clamp, (Vec3{1, 1, 1}));
  Read("render\n" + line(" gamma 7", 4095));  // at the end of the file too
  EXPECT_EQ(settings.displayGamma, 7);
  Read("render\n" + line(" gamma 8", 4096));
  EXPECT_EQ(settings.displayGamma, 7);
}

TEST_F(SceneTest, ThirdPoseEndsTheCamera) {
  Read(
      "camera\n pose\n  position 1 2 3\n  bokeh 0.5\n end\n pose\n  target 4 5 6\n end\n pose\n"
      "  field_of_view 40\n  sample 9\n end\n sample 11\nend\n");
  ASSERT_EQ(cameras.size(), 1U);
  const Camera& camera = cameras[0];
  EXPECT_EQ(camera.poses[0].position, (Vec3{1, 2, 3}));
  EXPECT_EQ(camera.poses[0].bokeh, 0.5f);
  EXPECT_EQ(camera.poses[1].target, (Vec3{4, 5, 6}));
  EXPECT_TRUE(camera.poseWritten[0] && camera.poseWritten[1]);
  EXPECT_EQ(camera.sample, 9);  // a line of the camera
  Read("camera\nend\n");
  EXPECT_FALSE(cameras[1].poseWritten[0]);
}

TEST_F(SceneTest, RepeatedShadersReplaceAndElementsMerge) {
  Read(
      "object\n shader \"paint\"\n instance\n  matrix 1 0 0 7\n  object other\n  shader \"coat\"\n "
      "end\nend\n");
  const std::int32_t paint = FindShader("paint");
  EXPECT_EQ(objectTable[0].shader, paint);
  ASSERT_EQ(objectTable[0].instances.size(), 1U);
  EXPECT_EQ(objectTable[0].instances[0].matrix.m[0][3], 7);
  EXPECT_EQ(objectTable[0].instances[0].matrix.m[1][1], 1);
  EXPECT_EQ(objectTable[0].instances[0].objectName, "other");
  EXPECT_EQ(objectTable[0].instances[0].shader, FindShader("coat"));
  Read(
      "shader\n opacity 0.5\n name \"paint\"\n surface_shader\n  lambertian\n   color 0.1 0.2 0.3\n  end\n"
      "  lambertian\n   level 4\n   sampler\n    pixel_sampler \"nearest\"\n    pixel_sampler \"cubic\"\n"
      "    uv_matrix 2\n   end\n  end\n  window\n  dielectric\n  thin_dielectric\n  sideness \"back\"\n"
      "  sideness \"left\"\n end\n surface_shader\n end\nend\n");
  EXPECT_EQ(FindShader("paint"), paint);
  Shader& shader = Named("paint");
  EXPECT_EQ(shader.opacity, 0.5f);
  ASSERT_EQ(shader.surfaces.size(), 2U);
  SurfaceShader& surface = shader.surfaces[0];
  const ImageSlot& slot = surface[Element::kLambertian];
  EXPECT_EQ(slot.color, (Vec3{0.1f, 0.2f, 0.3f}));
  EXPECT_EQ(slot.level, 4);
  EXPECT_EQ(slot.pixelSampler, PixelSampler::kNearest);
  EXPECT_FALSE(slot.uvMatrixIsIdentity);
  EXPECT_TRUE(slot.colorMatrixIsIdentity);
  EXPECT_EQ(slot.uvMatrix.m[0][0], 2);
  EXPECT_EQ(slot.uvMatrix.m[2][2], 1);
  EXPECT_TRUE(surface.window);
  EXPECT_FALSE(surface.virtualLight);
  EXPECT_EQ(surface.material, Material::kThinDielectric);
  EXPECT_EQ(surface.sideness, Sideness::kBack);
  Read("shader\n name \"paint\"\nend\nshader\n opacity 0.25\nend\n");
  EXPECT_TRUE(Named("paint").surfaces.empty());
  EXPECT_EQ(shaders[0].opacity, 0.25f);  // without a name it takes the place of the undefined one
  EXPECT_EQ(shaders[0].name, "undefined");
}

TEST_F(SceneTest, GeometryShaderSwitches) {
  const auto visibility = [](const std::string& lines) {
    Read("shader\n name \"v\"\n geometry_shader\n" + lines + " end\nend\n");
    return Named("v").geometry.visibility;
  };
  EXPECT_EQ(visibility("camera_primary 1\nlight_primary 1\ninvisible 0\ninvisible\n"), Visibility::kAll);
  EXPECT_EQ(visibility("camera_primary 0\n"), Visibility::kNotCameraPrimary);
  EXPECT_EQ(visibility("camera_primary 0\nlight_primary 0\n"), Visibility::kNotLightPrimary);
  EXPECT_EQ(visibility("invisible 1\n"), Visibility::kInvisible);
  visibility(
      "flip_face 1\ntrivial_connection 1\ntrivial_connection 2\nheight\n color 3 3 3\nend\nheight\nend\n"
      "round_corner 7\n");
  const GeometryShader& geometry = Named("v").geometry;
  EXPECT_TRUE(geometry.flipFace);
  EXPECT_FALSE(geometry.trivialConnection);
  ASSERT_EQ(geometry.height.size(), 2U);
  EXPECT_EQ(geometry.height[0].color, (Vec3{3, 3, 3}));
  EXPECT_EQ(geometry.roundCorner, 7);
}

TEST_F(SceneTest, LightsLinksAndOutputs) {
  Read(
      "sky_light\n color 1 2 3\n image \"map.hdr\"\n turbidity 3\n link\n  shader \"a\"\n end\n link\n"
      "  shader \"b\"\n end\n volume_shader\n  transmittance 0.5 0.6 0.7\n  medium_id 12\n end\n"
      " aov\n  image \"out.exr\"\n  type \"depth\"\n  type \"normal\"\n end\nend\n");
  EXPECT_EQ(skyLight.color, (Vec3{1, 2, 3}));
  EXPECT_EQ(skyLight.link.names, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(globalVolume.transmittance, (Vec3{0.5f, 0.6f, 0.7f}));
  EXPECT_EQ(globalVolume.mediumId, 12U);
  ASSERT_EQ(skyLight.aovs.size(), 1U);
  EXPECT_EQ(skyLight.aovs[0].channel, kChannelBeauty | kChannelDepth | kChannelNormal);
  EXPECT_EQ(skyLight.aovs[0].image.fileName, "out.exr");
  Read("sky_light\n ior 1.5\nend\n");  // starts over, but for what is kept
  EXPECT_EQ(skyLight.color, (Vec3{0.75f, 0.75f, 0.75f}));
  EXPECT_EQ(skyLight.image, "map.hdr");
  EXPECT_EQ(skyLight.turbidity, 3);
  EXPECT_EQ(skyLight.ior, 1.5f);

  Read(
      "geometry_light\n photon 5\nend\ngeometry_light\n sample 6\n aov\n  type \"mine\"\n  shader \"s\"\n"
      "  type \"depth\"\n end\nend\n");  // goes on
  EXPECT_EQ(geometryLight.photon, 5);
  EXPECT_EQ(geometryLight.sample, 6);
  ASSERT_EQ(geometryLight.aovs.size(), 1U);
  EXPECT_EQ(geometryLight.aovs[0].channel, kChannelUserData | kChannelDepth);
  EXPECT_EQ(geometryLight.aovs[0].userData, "mine");
  EXPECT_EQ(geometryLight.aovs[0].shaderName, "s");
}

TEST_F(SceneTest, PointAndParallelLights) {
  Read(
      "point_light\n position 1 2 3\nend\n"
      "point_light\n color 4 5 6\n position 7 8 9\n blur 0.25\n sample 16\n photon 5000000000\n"
      " direction 0 0 -1\n inner_angle 10\n outer_angle 20\n offset 0.5\n ior 1.25\n"
      " aov\n  image \"lamp.exr\"\n  type \"lambertian\"\n  type \"glossy\"\n end\n"
      " link\n  shader \"a\"\n  shader \"b\"\n end\nend\n");
  ASSERT_EQ(pointLights.size(), 2U);  // each section is a light of its own
  const PointLight& plain = pointLights[0];
  EXPECT_EQ(plain.position, (Vec3{1, 2, 3}));
  EXPECT_EQ(plain.color, kWhite);
  EXPECT_EQ(plain.direction, (Vec3{0, 1, 0}));
  EXPECT_EQ(plain.photon, 0);
  EXPECT_EQ(plain.sample, 1);
  EXPECT_EQ(plain.outerAngle, 180);
  EXPECT_EQ(plain.offset, 0.1f);
  const PointLight& spot = pointLights[1];
  EXPECT_EQ(spot.color, (Vec3{4, 5, 6}));
  EXPECT_EQ(spot.position, (Vec3{7, 8, 9}));
  EXPECT_EQ(spot.blur, 0.25f);
  EXPECT_EQ(spot.sample, 16);
  EXPECT_EQ(spot.photon, 5000000000);  // more than 32 bits hold
  EXPECT_EQ(spot.direction, (Vec3{0, 0, -1}));
  EXPECT_EQ(spot.innerAngle, 10);
  EXPECT_EQ(spot.outerAngle, 20);
  EXPECT_EQ(spot.offset, 0.5f);
  EXPECT_EQ(spot.ior, 1.25f);
  ASSERT_EQ(spot.aovs.size(), 1U);
  EXPECT_EQ(spot.aovs[0].channel, kChannelBeauty | kChannelLambertian | kChannelGlossy);
  EXPECT_EQ(spot.link.names, (std::vector<std::string>{"a", "b"}));

  Read(
      "parallel_light\n color 1 2 3\n position 9 9 9\n inner_angle 5\n direction 0 1 -1\n blur 2\n"
      " sample 3\n photon 6000000000\n ior 1.5\n offset 0\n aov\n end\n link\n  shader \"c\"\n end\nend\n");
  ASSERT_EQ(parallelLights.size(), 1U);
  const ParallelLight& sun = parallelLights[0];
  EXPECT_EQ(sun.color, (Vec3{1, 2, 3}));
  EXPECT_EQ(sun.zAxis, (Vec3{0, 1, -1}));
  EXPECT_EQ(sun.blur, 2);
  EXPECT_EQ(sun.sample, 3);
  EXPECT_EQ(sun.photon, 6000000000);
  EXPECT_EQ(sun.ior, 1.5f);
  EXPECT_EQ(sun.offset, 0);
  EXPECT_EQ(sun.aovs.size(), 1U);
  EXPECT_EQ(sun.link.names, std::vector<std::string>{"c"});
}

// The observer sees the reader at work and changes nothing of what it reads.
TEST_F(SceneTest, ObserverLeavesTheRulesAlone) {
  const std::string text =
      "render\n clamp 5\n error 1 x 3\n gamma 2,2\n exposure 2.5 remark\n odd\n final_gather\n"
      "  bounce 1e\n  ray_depth 12\n end\n end\nend\ncamera\n resolution 640\n region 1 2 3\n"
      " name bare\n projection \"fisheye\"\nend\npoint_light\n position 1 2\n photon 7 8";
  const auto state = [] {
    std::ostringstream out;
    const auto put = [&out](Vec3 v) { out << v.x << ' ' << v.y << ' ' << v.z << '\n'; };
    put(settings.clamp);
    put(settings.error);
    out << settings.displayGamma << ' ' << settings.exposure << ' ' << settings.rendererBounce << ' '
        << settings.rayDepth << '\n';
    for (const Camera& camera : cameras)
      out << camera.name << ' ' << camera.width << ' ' << camera.height << ' ' << camera.regionXMin << ' '
          << camera.regionYMin << ' ' << camera.regionXMax << ' ' << camera.regionYMax << '\n';
    for (const PointLight& light : pointLights) {
      put(light.position);
      out << light.photon << '\n';
    }
    return out.str();
  };
  Read(text);
  const std::string silent = state();
  Clear();
  SceneNotes notes;
  sceneNotes = &notes;
  Read(text);
  sceneNotes = nullptr;
  EXPECT_EQ(state(), silent);
  std::vector<int> lines;
  for (const Finding& finding : notes.findings) lines.push_back(finding.place.line);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, (std::vector<int>{2, 3, 4, 6, 8, 11, 14, 15, 16, 17, 19, 20}));
}

TEST_F(SceneTest, GeometryOfEveryKind) {
  namespace fs = std::filesystem;
  std::string pattern = (fs::temp_directory_path() / "scene_test_XXXXXX").string();
  ASSERT_NE(mkdtemp(pattern.data()), nullptr);
  const fs::path folder = pattern;
  const std::string path = folder.string() + "/";
  const auto write = [&](const std::string& name, const std::string& bytes) {
    std::ofstream(path + name, std::ios::binary) << bytes;
  };
  // One picture: its pixels are positions, uvs and more, and its bit patterns no indices of any position.
  const auto save = [&](const std::string& name, const std::vector<float>& components) {
    ImageBuffer image;
    Allocate(image, 3, static_cast<int>(components.size() / 9), 3, 32, false);
    image.floatPixels = components;
    image.fileName = path + name;
    ASSERT_TRUE(SaveImage(image));
  };
  write("a.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
  write("a.fur", "segment 1\nposition 0 0 0\nposition 0 0 1\n");
  const std::uint32_t header[] = {1, 3, 2, 2};
  std::string hair = "HAIR" + std::string(reinterpret_cast<const char*>(header), sizeof header);
  hair.resize(128 + 3 * 12, '\0');
  write("a.hair", hair);
  save("p.pfm", {0, 0, 0, 1, 0, 0, 0, 1, 0});
  save("v.pfm", {0, 0, 1, 0, 0, 1, 0, 0, 1});
  const std::uint32_t indices[] = {0, 1, 2, 2, 1, 0, 1, 0, 2};
  std::vector<float> pixels(9);
  std::memcpy(pixels.data(), indices, sizeof indices);
  save("t.pfm", pixels);

  imageSearchPaths = {folder.string()};
  const auto own = [&](const std::string& keyword, const std::string& name) {
    return " " + keyword + " \"" + path + name + "\"\n";
  };
  Read("object\n triangle_texture\n" + own("hair", "a.hair") + own("obj", "a.obj") +
       " normal_texture \"v.pfm\"\n position_texture \"p.pfm\"\n" + own("fur", "a.fur") +
       " tangent_texture \"v.pfm\"\n uv_texture \"v.pfm\"\n triangle_texture \"t.pfm\"\n" +
       own("fur", "none.fur") + own("hair", "a.hair") +
       " particle_texture \"\"\n triangle_texture \"t.pfm\"\n uv_texture \"p.pfm\"\nend\n"
       "object\n uv_texture \"v.pfm\"\n position_texture \"p.pfm\"\nend\n");
  ASSERT_EQ(objectTable.size(), 2U);
  EXPECT_TRUE(objectTable[1].parts.empty());  // nothing loads them
  const std::vector<Part>& parts = objectTable[0].parts;
  ASSERT_EQ(parts.size(), 9U);
  EXPECT_TRUE(parts[0].positions.empty());  // no pictures yet
  EXPECT_EQ(parts[1].cylinders, (std::vector<std::uint32_t>{0, 1}));
  EXPECT_EQ(parts[2].triangles.size(), 1U);
  EXPECT_EQ(parts[3].cylinders, std::vector<std::uint32_t>{0});
  EXPECT_EQ(parts[4].positions, (std::vector<Vec3>{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}));
  EXPECT_EQ(parts[4].uvSets[0].values, std::vector<Vec2>(3));
  EXPECT_EQ(parts[4].normals, (std::vector<PackedVector>(3, {0, 0, 127})));
  EXPECT_EQ(parts[4].tangents, parts[4].normals);
  ASSERT_EQ(parts[4].triangles.size(), 3U);
  EXPECT_EQ(parts[4].triangles[1].vertex[0], 2U);
  EXPECT_TRUE(parts[5].positions.empty());
  EXPECT_EQ(parts[6].strandLengths, std::vector<std::uint32_t>{2});
  EXPECT_TRUE(parts[7].positions.empty());
  // The same mesh again, with everything loaded on top of what it held.
  EXPECT_EQ(parts[8].positions.size(), 6U);
  EXPECT_EQ(parts[8].normals.size(), 6U);
  EXPECT_EQ(parts[8].tangents.size(), 6U);
  EXPECT_EQ(parts[8].uvSets[0].values.size(), 6U);
  ASSERT_EQ(parts[8].triangles.size(), 6U);
  EXPECT_EQ(parts[8].triangles[4].vertex[0], 2U);  // indices count from the first position of all
  fs::remove_all(folder);
}

TEST_F(SceneTest, FoldersAreReadInOrder) {
  namespace fs = std::filesystem;
  const fs::path folder = fs::temp_directory_path() / ("scene_test_" + std::to_string(getpid()));
  const auto write = [&](const char* name, const std::string& text) {
    fs::create_directories((folder / name).parent_path());
    std::ofstream(folder / name, std::ios::binary) << text;
  };
  write("render/b.zp", "render\n gamma 2\n image_path \"b\"\nend\n");
  write("render/a.zp", "render\n gamma 1\n image_path \"a\"\nend\n");
  write("render/B.zp", "render\n gamma 3\n image_path \"B\"\nend\n");
  write("render/c.txt", "render\n gamma 9\nend\n");
  write("render/deep/a.zp", "render\n gamma 9\nend\n");
  fs::create_directories(folder / "render/folder.zp");
  write("geometry/a.zp", "render\n image_path \"geometry\"\nend\n");
  write("shader/a.zp", "render\n image_path \"shader\"\nend\n");
  write("camera/a.zp", "");
  write("other/a.zp", "render\n gamma 9\nend\n");
  EXPECT_TRUE(ReadSceneFolder(folder.string()));
  EXPECT_EQ(imageSearchPaths, (std::vector<std::string>{"shader", "B", "a", "b", "geometry"}));
  EXPECT_EQ(settings.displayGamma, 2);

  // Geometry paths are used as they are written, and a missing file leaves its empty Part.
  write("ball.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
  std::istringstream text("object\n obj \"" + (folder / "ball.obj").string() + "\"\n obj \"" +
                          (folder / "none.obj").string() + "\"\nend\n");
  testing::internal::CaptureStdout();
  ReadScene(text);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("object - cannot open "), std::string::npos);
  ASSERT_EQ(objectTable.size(), 1U);
  ASSERT_EQ(objectTable[0].parts.size(), 2U);
  EXPECT_EQ(objectTable[0].parts[0].triangles.size(), 1U);
  EXPECT_TRUE(objectTable[0].parts[1].positions.empty());

  fs::remove_all(folder);
  EXPECT_FALSE(ReadSceneFolder(folder.string()));
  EXPECT_FALSE(ReadSceneFile((folder / "none.zp").string()));
}

}  // namespace
}  // namespace zp
