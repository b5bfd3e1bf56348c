// The text rules of scene files, and where each keyword's value goes.

#include "scene/scene.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <tuple>

#include "core/settings.h"
#include "geometry/geometry.h"
#include "lights/lights.h"
#include "scene/notes.h"
#include "surroundings.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

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
    ResetSky();
    skyLight = {};
    ResetGeometryLight();
    geometryLight = {};
  }

  // The reader never prints.
  static void Read(const std::string& text) {
    std::istringstream stream(text);
    EXPECT_EQ(Printed([&] { ReadScene(stream); }), "");
  }
  void Write(const std::string& name, const std::string& bytes) const { WriteFile(folder_ / name, bytes); }
  static Shader& Named(std::string_view name) {
    return shaders.at(static_cast<std::size_t>(FindShader(name)));
  }

  const TemporaryFolder folder_;
};

TEST_F(SceneTest, BlocksEndEarlyAndLate) {
  Read(
      "end\nend\nrender\nend\nrender\n unknown\n  clamp 1 2 3\n end\n error 1 1 1\nend\n"
      "object\n name a\n");
  EXPECT_EQ(settings.said.clamp, (Vec3{1, 2, 3}));  // an unknown block's body belongs to the block around it
  EXPECT_EQ(settings.said.error, (Vec3{0, 0, 0}));  // and its end ends that
  ASSERT_EQ(objectTable.size(), 1U);                // the end of the file ends every block
  EXPECT_EQ(objectTable[0].name, "a");
  // Unknown sections: their lines are read at file level.
  Read("fog\n render\n  gamma 3\n end\nend\ncamera\n render\n sample 5\nend\n");
  EXPECT_EQ(settings.said.displayGamma, 3);
  ASSERT_EQ(cameras.size(), 1U);
  EXPECT_EQ(cameras[0].sample, 5);
}

// An observer sees the reader at work and changes nothing of what it reads.
TEST_F(SceneTest, MissingAndBadValuesKeepTheFieldAndAreNoted) {
  const std::string text =
      "render\n clamp 5\n error 1 x 3\n gamma\n exposure 2.5 remark\n odd\n final_gather\n  sample\n"
      "  bounce 1e\n  ray_depth 99999999999\n  radius nan-ish\n end\nend\n"
      "camera\n resolution 640\n region 1 2 3\n exposure . 2 3\n projection \"fisheye\"\n name bare\nend\n"
      "point_light\n position 1 2\n photon 7 8";
  for (const bool observed : {false, true}) {
    Clear();
    SceneNotes notes;
    if (observed) sceneNotes = &notes;
    Read(text);
    sceneNotes = nullptr;
    EXPECT_EQ(settings.said.clamp, (Vec3{5, kFarthest, kFarthest}));
    EXPECT_EQ(settings.said.error, (Vec3{1, 0, 0}));
    EXPECT_EQ(std::tuple(settings.said.displayGamma, settings.said.exposure), std::tuple(2.2f, 2.5f));
    EXPECT_EQ(std::tuple(settings.said.rendererSample, settings.said.rendererBounce, settings.said.rayDepth),
              std::tuple(kUnsaid, 1, 8));
    EXPECT_EQ(settings.said.photonRadius, std::nullopt);
    ASSERT_EQ(cameras.size(), 1U);
    const Camera& c = cameras[0];
    EXPECT_EQ(std::tuple(c.name, c.width, c.height), std::tuple("", 640, 540));
    EXPECT_EQ(std::tuple(c.regionXMin, c.regionYMin, c.regionXMax, c.regionYMax),
              std::tuple(1, 2, 3, 1048576));
    EXPECT_EQ(std::tuple(c.exposure, c.projection), std::tuple(kWhite, Projection::kPerspective));
    ASSERT_EQ(pointLights.size(), 1U);
    EXPECT_EQ(std::tuple(pointLights[0].position, pointLights[0].photon), std::tuple(Vec3{1, 2, 0}, 7));
    std::vector<int> lines;
    for (const Finding& finding : notes.findings) lines.push_back(finding.place.line);
    std::sort(lines.begin(), lines.end());
    if (!observed) continue;
    EXPECT_EQ(lines, (std::vector<int>{2, 3, 4, 5, 6, 8, 9, 10, 11, 15, 16, 17, 18, 19, 21, 22}));
  }
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

TEST_F(SceneTest, LineEndsCommentsAndLongLines) {
  Read(
      "#render\r\n\r\nrender\r\n# gamma 9\r\n  #gamma 9\r\n\tgamma 4\r\n\r\nend\r\n"
      "shader\r\n name \"grey\"\r\nend\r\ncamera\r\n sample 3\r\nend");
  EXPECT_EQ(settings.said.displayGamma, 4);
  EXPECT_NE(FindShader("grey"), kNone);
  ASSERT_EQ(cameras.size(), 1U);
  const auto line = [](std::string text, std::size_t length) {
    text.resize(length, ' ');
    return text;
  };
  Read("render\n" + line(" gamma 5", 4095) + "\n" + line(" gamma 6", 4096) + "\n" +
       line(" error 1 1 1", 20000) + "\n clamp 1 1 1\nend\n");
  EXPECT_EQ(settings.said.displayGamma, 5);
  EXPECT_EQ(settings.said.error, (Vec3{0, 0, 0}));
  EXPECT_EQ(settings.said.clamp, (Vec3{1, 1, 1}));
  // The last line counts without its line feed, and has the same limit.
  Read("render\n" + line(" gamma 7", 4095));
  Read("render\n" + line(" gamma 8", 4096));
  EXPECT_EQ(settings.said.displayGamma, 7);
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
  EXPECT_EQ(camera.poseWritten[0], kPosePosition | kPoseBokeh);
  EXPECT_EQ(camera.poseWritten[1], kPoseTarget);
  EXPECT_EQ(camera.sample, 9);  // a line of the camera
  Read("camera\nend\n");
  EXPECT_EQ(cameras[1].poseWritten[0], 0);
}

TEST_F(SceneTest, RepeatedShadersReplaceAndElementsMerge) {
  Read(
      "object\n shader \"paint\"\n instance\n  matrix 1 0 0 7\n  object other\n  shader \"coat\"\n "
      "end\nend\n");
  const std::int32_t paint = FindShader("paint");
  EXPECT_EQ(objectTable[0].shader, paint);
  const Instance& instance = objectTable[0].instances.at(0);
  EXPECT_EQ(instance.matrix, (Mat4{{{1, 0, 0, 7}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}}}));
  EXPECT_EQ(std::tuple(instance.objectName, instance.shader), std::tuple("other", FindShader("coat")));
  Read(
      "shader\n opacity 0.5\n name \"paint\"\n surface_shader\n  lambertian\n   color 0.1 0.2 0.3\n  end\n"
      "  lambertian\n   level 4\n   sampler\n    pixel_sampler \"nearest\"\n    pixel_sampler \"cubic\"\n"
      "    uv_matrix 2\n   end\n  end\n  window\n  dielectric\n  thin_dielectric\n  sideness \"back\"\n"
      "  sideness \"left\"\n end\n surface_shader\n end\nend\n");
  EXPECT_EQ(FindShader("paint"), paint);
  EXPECT_EQ(Named("paint").opacity, 0.5f);
  ASSERT_EQ(Named("paint").surfaces.size(), 2U);
  SurfaceShader& surface = Named("paint").surfaces[0];
  const ImageSlot& slot = surface[Element::kLambertian];
  EXPECT_EQ(std::tuple(slot.color, slot.level), std::tuple(Vec3{0.1f, 0.2f, 0.3f}, 4));
  EXPECT_EQ(slot.pixelSampler, PixelSampler::kNearest);
  EXPECT_EQ(std::tuple(slot.uvMatrixIsIdentity, slot.colorMatrixIsIdentity), std::tuple(false, true));
  EXPECT_EQ(std::tuple(slot.uvMatrix.m[0][0], slot.uvMatrix.m[2][2]), std::tuple(2, 1));
  EXPECT_EQ(std::tuple(surface.window, surface.virtualLight), std::tuple(true, false));
  EXPECT_EQ(std::tuple(surface.material, surface.sideness),
            std::tuple(Material::kThinDielectric, Sideness::kBack));
  Read("shader\n name \"paint\"\nend\nshader\n opacity 0.25\nend\n");
  EXPECT_TRUE(Named("paint").surfaces.empty());
  // Without a name it takes the place of the undefined one.
  EXPECT_EQ(std::tuple(shaders[0].name, shaders[0].opacity), std::tuple("undefined", 0.25f));
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

// Where their other lines go is seen in the pictures of scenes that are built once by functions.
TEST_F(SceneTest, LightsThatAreTheirOwnAndLightsThatGoOn) {
  Read(
      "point_light\n ior 1.25\nend\npoint_light\n photon 5000000000\n aov\n  image \"lamp.exr\"\n"
      "  type \"depth\"\n  type \"normal\"\n end\n link\n  shader \"a\"\n  shader \"b\"\n end\nend\n"
      "sky_light\n color 1 2 3\n image \"map.hdr\"\n turbidity 3\n link\n  shader \"a\"\n end\n link\n"
      "  shader \"b\"\n end\n volume_shader\n  medium_id 12\n end\nend\ngeometry_light\n photon 5\nend\n");
  ASSERT_EQ(pointLights.size(), 2U);  // each section is a light of its own
  EXPECT_EQ(std::tuple(pointLights[0].ior, pointLights[0].photon, pointLights[0].outerAngle),
            std::tuple(1.25f, 0, 180));
  EXPECT_EQ(std::tuple(pointLights[1].ior, pointLights[1].photon), std::tuple(1, 5000000000));
  const Aov& depth = pointLights[1].aovs.at(0);
  EXPECT_EQ(std::tuple(depth.channel, depth.image.fileName),
            std::tuple(kChannelBeauty | kChannelDepth | kChannelNormal, "lamp.exr"));
  for (const ShaderLink& link : {pointLights[1].link, skyLight.link})
    EXPECT_EQ(link.names, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(std::tuple(skyLight.color, globalVolume.mediumId), std::tuple(Vec3{1, 2, 3}, 12U));
  Read("sky_light\n ior 1.5\nend\ngeometry_light\n sample 6\n aov\n  type \"mine\"\n end\nend\n");
  EXPECT_EQ(std::tuple(skyLight.color, skyLight.image, skyLight.turbidity, skyLight.ior),
            std::tuple(Vec3{0.75f, 0.75f, 0.75f}, "map.hdr", 3, 1.5f));  // starts over, but for what is kept
  EXPECT_EQ(std::tuple(geometryLight.photon, geometryLight.sample), std::tuple(5, 6));  // goes on
  EXPECT_EQ(geometryLight.aovs.at(0).userData, "mine");
}

TEST_F(SceneTest, GeometryOfEveryKind) {
  const auto picture = [&](const std::string& name, const void* pixels) {  // of three pixels
    Write(name, "PF\n3 1\n-1\n" + std::string(static_cast<const char*>(pixels), 36));
  };
  Write("a.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
  Write("a.fur", "segment 1\nposition 0 0 0\nposition 0 0 1\n");
  const std::uint32_t header[] = {1, 3, 2, 2};
  std::string hair = "HAIR" + std::string(reinterpret_cast<const char*>(header), sizeof header);
  hair.resize(128 + 3 * 12, '\0');
  Write("a.hair", hair);
  const float corners[] = {0, 0, 0, 1, 0, 0, 0, 1, 0}, up[] = {0, 0, 1, 0, 0, 1, 0, 0, 1};
  const std::uint32_t indices[] = {0, 1, 2, 2, 1, 0, 1, 0, 2};
  picture("p.pfm", corners), picture("v.pfm", up), picture("t.pfm", indices);

  imageSearchPaths = {folder_.path.string()};
  const auto own = [&](const std::string& keyword, const std::string& name) {
    return " " + keyword + " \"" + (folder_ / name) + "\"\n";
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
  for (const std::size_t i : {0U, 5U, 7U}) EXPECT_TRUE(parts[i].positions.empty());  // nothing to load yet
  EXPECT_EQ(parts[1].cylinders, (std::vector<std::uint32_t>{0, 1}));
  EXPECT_EQ(parts[2].triangles.size(), 1U);
  EXPECT_EQ(parts[3].cylinders, std::vector<std::uint32_t>{0});
  EXPECT_EQ(parts[4].positions, (std::vector<Vec3>{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}));
  EXPECT_EQ(parts[4].uvSets[0].values, std::vector<Vec2>(3));
  EXPECT_EQ(parts[4].normals, (std::vector<PackedVector>(3, {0, 0, 127})));
  EXPECT_EQ(parts[4].tangents, parts[4].normals);
  ASSERT_EQ(parts[4].triangles.size(), 3U);
  EXPECT_EQ(parts[4].triangles[1].vertex[0], 2U);
  EXPECT_EQ(parts[6].strandLengths, std::vector<std::uint32_t>{2});
  // The same mesh again, loaded on top of what it held: indices count from the first position of all.
  EXPECT_EQ(parts[8].positions.size() + parts[8].tangents.size() + parts[8].uvSets[0].values.size(), 18U);
  EXPECT_EQ(parts[8].triangles.at(4).vertex[0], 2U);
}

TEST_F(SceneTest, FoldersAreReadInOrder) {
  Write("render/b.zp", "render\n gamma 2\n image_path \"b\"\nend\n");
  Write("render/a.zp", "render\n gamma 1\n image_path \"a\"\nend\n");
  Write("render/B.zp", "render\n gamma 3\n image_path \"B\"\nend\n");
  Write("render/c.txt", "render\n gamma 9\nend\n");
  Write("render/deep/a.zp", "render\n gamma 9\nend\n");
  fs::create_directories(folder_ / "render/folder.zp");
  Write("geometry/a.zp", "render\n image_path \"geometry\"\nend\n");
  Write("shader/a.zp", "render\n image_path \"shader\"\nend\n");
  Write("camera/a.zp", "");
  Write("other/a.zp", "render\n gamma 9\nend\n");
  EXPECT_TRUE(ReadSceneFolder(folder_.path.string()));
  EXPECT_EQ(imageSearchPaths, (std::vector<std::string>{"shader", "B", "a", "b", "geometry"}));
  EXPECT_EQ(settings.said.displayGamma, 2);

  fs::remove_all(folder_.path);
  EXPECT_FALSE(ReadSceneFolder(folder_.path.string()));
  EXPECT_FALSE(ReadSceneFile(folder_ / "none.zp"));
}

}  // namespace
}  // namespace zp
