// `zephlore check`: every kind of mistake is found where it stands, and sound scenes are silent.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace zp {
namespace {

namespace fs = std::filesystem;

class Check : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "zephlore-checks-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root = pattern;
    Write("model/square.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nusemtl paint\nf 1 2 3 4\n");
    Write("camera/a.zp", kCamera);
    Write("shader/a.zp", "shader\n name \"paint\"\nend\n");
  }
  void TearDown() override {
    std::error_code error;
    fs::remove_all(root, error);
  }

  void Write(const std::string& name, const std::string& text) const {
    const fs::path path = root / "scene" / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }

  // The lines of the report; paths count from the scene folder. Sets the exit status.
  std::vector<std::string> Run(const std::string& scene = "scene") {
    const std::string command =
        "cd '" + root.string() + "' && '" ZP_PROGRAM "' check '" + scene + "' >out 2>err";
    const int raw = std::system(command.c_str());
    status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    std::ifstream file(root / "out");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
      lines.push_back(line.starts_with("scene/") ? line.substr(6) : line);
    return lines;
  }

  // Every expected line begins the line at its place, and there are no others but the sum.
  void Expect(const std::vector<std::string>& expected, const std::string& sum) {
    const std::vector<std::string> lines = Run();
    std::string all;
    for (const std::string& line : lines) all += line + "\n";
    ASSERT_EQ(lines.size(), expected.size() + 1) << all;
    for (std::size_t i = 0; i < expected.size(); ++i)
      EXPECT_TRUE(lines[i].starts_with(expected[i])) << lines[i] << "\nexpected " << expected[i];
    EXPECT_EQ(lines.back(), sum);
  }

  static constexpr const char* kCamera =
      "camera\n pose\n  position 0 -5 0\n  target 0 0 0\n  up_vector 0 0 1\n  field_of_view 60\n end\nend\n";
  fs::path root;
  int status = -1;
};

TEST_F(Check, SoundScenesAreSilent) {
  const fs::path scenes = fs::path(ZP_SOURCES) / "scenes";
  for (const fs::directory_entry& scene : fs::directory_iterator(scenes)) {
    if (!fs::is_directory(scene.path() / "camera")) continue;
    EXPECT_EQ(Run(scene.path().string()), std::vector<std::string>{"0 errors, 0 warnings"}) << scene;
    EXPECT_EQ(status, 0) << scene;
  }
  // What looks odd but is right: remarks, mirrored instances, a shader that only a model names in a link, the
  // analytic sky, one light given by each keyword there is.
  Write("geometry/a.zp",
        "object\n # a remark\n   #another\n name square the first\n obj \"model/square.obj\"\nend\n"
        "object\r\n name root\r\n instance\r\n  matrix 0 1 0 0  1 0 0 0  0 0 1 0  0 0 0 1 mirrored\r\n"
        "  object square\r\n  shader \"paint\"\r\n end\r\nend");
  Write("light/a.zp",
        "point_light\n color 1 1 1\n position 0 0 1\n blur 1\n sample 2\n photon 5000000000\n"
        " direction 0 0 1\n inner_angle 5\n outer_angle 10\n offset 0\n ior 1\n link\n  shader \"paint\"\n"
        " end\nend\nparallel_light\n color 1 1 1\n blur 1\n sample 2\n photon 5000000000\n direction 0 0 1\n"
        " ior 1\n offset 0\nend\nsky_light\n image \"analytic\"\n turbidity 3\nend\n");
  Expect({}, "0 errors, 0 warnings");
  EXPECT_EQ(status, 0);
}

TEST_F(Check, TextThatIsNotRead) {
  Write("render/a.zp",
        "render\n clmap 1 1 1\n clamp 1 x 1\n error 1 2\n gamma 2,2\n exposure\n final_gather\n  sample 3.5\n"
        "  bounce 99999999999\n end\n image_path maps\nend\n");
  Write("shader/b.zp",
        "shader\n name \"b\n surface_shader\n  sideness \"left\"\n  dielektric\n  lambertian\n   sampler\n"
        "    pixel_sampler \"cubic\"\n   end\n  end\n end\nend\n");
  Write("light/a.zp",
        "sky_light\n color 1 1 1 # " + std::string(5000, '-') +
            "\n position 1 2 3\n volume_shader\n  medium_id blue\n end\nend\nfog\n a\n end\nend\n");
  Write("camera/b.txt", "not read, and not meant to be");
  Write("lights/a.zp", "sky_light\nend\n");
  Expect(
      {
          "light/a.zp:2: error: a line of 4096 bytes or more is dropped",
          "light/a.zp:3: error: unknown keyword \"position\" in \"sky_light\" of line 1",
          "light/a.zp:5: error: medium_id: cannot read \"blue\"",
          "light/a.zp:8: error: \"fog\" is no section",
          "lights:0: warning: is not read",
          "render/a.zp:2: error: unknown keyword \"clmap\" in \"render\" of line 1",
          "render/a.zp:3: error: clamp: cannot read \"x\"",
          "render/a.zp:4: error: error: a number is missing",
          "render/a.zp:5: error: gamma: only the beginning of \"2,2\"",
          "render/a.zp:6: error: exposure: a number is missing",
          "render/a.zp:8: error: sample: only the beginning of \"3.5\"",
          "render/a.zp:9: error: bounce: cannot read \"99999999999\"",
          "render/a.zp:11: error: image_path: a string without quotes counts as empty",
          "shader/b.zp:2: error: name: the closing quote is missing",
          "shader/b.zp:4: error: sideness: unknown word \"left\"",
          "shader/b.zp:5: error: unknown keyword \"dielektric\" in \"surface_shader\" of line 3",
          "shader/b.zp:8: error: pixel_sampler: unknown word \"cubic\"",
      },
      "16 errors, 1 warning");
  EXPECT_EQ(status, 1);
}

TEST_F(Check, BlocksThatEndEarlyOrNever) {
  Write("render/a.zp", "render\n fog\n  clamp 1 1 1\n end\n error 1 1 1\nend\n");  // an unknown block
  Write("render/b.zp", "render\n final_gather\n  sample 3\n gamma 1\nend\n");      // an end is missing
  Write("render/c.zp", "render\nend\nend\n");                                      // one too many
  Write("render/d.zp", "render\n gamma 1\n camera\n  sample 1\n end\n");           // before a section
  Write("camera/a.zp",
        "camera\n pose\n  position 0 -5 0\n  target 0 0 0\n  up_vector 0 0 1\n"
        "  field_of_view 60\n end\n pose\n  position 0 -5 0\n  target 0 0 0\n  up_vector 0 0 1\n"
        "  field_of_view 60\n end\n pose\n  bokeh 0\n end\n sample 3\nend\n");
  Expect(
      {
          "camera/a.zp:14: error: pose: a camera reads two poses only",
          "camera/a.zp:15: error: unknown keyword \"bokeh\" in \"camera\" of line 1",
          "camera/a.zp:16: error: \"end\" closes \"camera\" of line 1 early: \"pose\" of line 14",
          "camera/a.zp:17: error: \"sample\" is no section",
          "render/a.zp:2: error: unknown keyword \"fog\"",
          "render/a.zp:4: error: \"end\" closes \"render\" of line 1 early: \"fog\" of line 2",
          "render/a.zp:5: error: \"error\" is no section",
          "render/b.zp:1: error: \"render\" is still open at the end of the file",
          "render/b.zp:4: error: unknown keyword \"gamma\" in \"final_gather\" of line 2",
          "render/c.zp:3: error: \"end\" closes nothing",
          "render/d.zp:3: error: unknown keyword \"camera\" in \"render\" of line 1: an \"end\" is missing",
          "render/d.zp:4: error: unknown keyword \"sample\"",
      },
      "12 errors, 0 warnings");
  EXPECT_EQ(status, 1);
}

TEST_F(Check, NamesThatResolveToNothing) {
  Write("model/two.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nusemtl unused\nusemtl plain\nf 1 2 3\n");
  Write("maps/bad.png", "no picture");
  Write("render/a.zp", "render\n image_path \"maps\"\n image_path \"mops\"\nend\n");
  Write("geometry/a.zp",
        "object\n name a\n shader \"paint\"\n obj \"model/two.obj\"\n obj \"model/none.obj\"\nend\n"
        "object\n name a\n instance\n  object b\n  shader \"gone\"\n end\n instance\n end\nend\n");
  Write("shader/b.zp",
        "shader\n name \"c\"\n surface_shader\n  lambertian\n   color 1 1 1\n   image \"bad.png\"\n  end\n "
        "end\n"
        "end\nshader\n name \"c\"\nend\nshader\n surface_shader\n  lambertian\n   image \"none.png\"\n  end\n"
        " end\nend\n");
  Write(
      "light/a.zp",
      "sky_light\n image \"sky.hdr\"\n backdrop \"analytic\"\n link\n  shader \"plain\"\n  shader \"gone!\"\n"
      " end\nend\npoint_light\nend\nparallel_light\nend\n");
  Expect(
      {
          "geometry/a.zp:3: error: an object's shader does not reach the faces",
          "geometry/a.zp:4: error: there is no shader \"plain\" for faces of \"model/two.obj\"",
          "geometry/a.zp:5: error: obj: cannot open the file \"model/none.obj\"",
          "geometry/a.zp:7: warning: there is an object \"a\" already",
          "geometry/a.zp:10: error: there is no object \"b\"",
          "geometry/a.zp:11: error: there is no shader \"gone\"",
          "geometry/a.zp:13: error: \"instance\" states no \"object\"",
          "light/a.zp:2: error: the image \"sky.hdr\" cannot be found",
          "light/a.zp:3: error: the image \"analytic\" cannot be found",
          "light/a.zp:6: error: there is no shader \"gone!\"",
          "light/a.zp:9: error: \"point_light\" states no \"position\"",
          "light/a.zp:11: error: \"parallel_light\" states no \"direction\"",
          "render/a.zp:3: warning: there is no folder \"mops\"",
          "shader/b.zp:6: error: the image \"bad.png\" cannot be found or read",
          "shader/b.zp:10: warning: shader \"c\" replaces that of b.zp line 1",
          "shader/b.zp:13: warning: a shader without a name",
          "shader/b.zp:14: warning: the image of \"lambertian\" is multiplied by a black color",
          "shader/b.zp:16: error: the image \"none.png\" cannot be found",
      },
      "13 errors, 5 warnings");
}

TEST_F(Check, GeometryThatCannotBeRead) {
  Write("model/a.fur", "segment 2\nposition 0 0\npostion 0 0 1\nposition 0 0 1\n");
  Write("model/short.hair", "HAIR");
  Write("maps/bytes.pgm", "P5 1 1 255 a");
  Write("geometry/a.zp",
        "object\n shader \"paint\"\n hair \"model/none.hair\"\n hair \"model/short.hair\"\n fur "
        "\"model/none.fur\"\n fur \"model/a.fur\"\n particle_texture \"none.tif\"\n uv_texture\n"
        " normal_texture \"bytes.pgm\"\n position_texture \"none.pfm\"\n triangle_texture \"none.pfm\"\n"
        " triangle_texture \"none.pfm\"\n furr \"a\"\n uv_texture \"a.pfm\"\nend\n");
  Write("render/a.zp", "render\n image_path \"maps\"\nend\n");
  Expect(
      {
          "geometry/a.zp:2: error: an object's shader does not reach its hair",
          "geometry/a.zp:3: error: hair: cannot open or read the file \"model/none.hair\"",
          "geometry/a.zp:4: error: hair: cannot open or read the file \"model/short.hair\"",
          "geometry/a.zp:5: error: fur: cannot open the file \"model/none.fur\"",
          "geometry/a.zp:7: error: particle_texture: the image \"none.tif\" cannot be found or read",
          "geometry/a.zp:8: error: uv_texture: a string is missing",
          "geometry/a.zp:9: error: normal_texture: \"bytes.pgm\" holds no 32-bit floats",
          "geometry/a.zp:10: error: position_texture: the image \"none.pfm\" cannot be found or read",
          "geometry/a.zp:11: error: triangle_texture: the image \"none.pfm\" cannot be found or read",
          "geometry/a.zp:12: error: triangle_texture: the image \"none.pfm\" cannot be found or read",
          "geometry/a.zp:13: error: unknown keyword \"furr\" in \"object\" of line 1",
          "geometry/a.zp:14: error: uv_texture: no \"triangle_texture\" follows",
          "model/a.fur:0: error: the strands ask for more points than there are",
          "model/a.fur:2: error: position: a number is missing",
          "model/a.fur:3: error: unknown keyword \"postion\" in a fur file",
      },
      "15 errors, 0 warnings");
  EXPECT_EQ(status, 1);
}

TEST_F(Check, RecordsThatDoNotDoWhatTheySay) {
  const std::string layer = " surface_shader\n  lambertian\n   color 1 1 1\n  end\n end\n";
  const std::string weighted =
      " surface_shader\n  lambertian\n   color 1 1 1\n  end\n  weight\n   color 1 1 1\n  end\n end\n";
  const std::string face = " surface_shader\n  sideness \"face\"\n end\n";
  const std::string back = " surface_shader\n  sideness \"back\"\n end\n";
  const std::string metal = " surface_shader\n  specular\n   color 1 1 1\n  end\n";
  Write("shader/a.zp", "shader\n name \"paint\"\n" + layer + layer + "end\n");
  Write("shader/b.zp", "shader\n name \"b\"\n" + weighted + layer + "end\n");
  Write("shader/c.zp", "shader\n name \"c\"\n" + face + back + "end\n");  // one on each side
  Write("shader/d.zp", "shader\n name \"d\"\n" + metal + " end\nend\n");
  Write("shader/e.zp", "shader\n name \"e\"\n" + metal + "  ior\n   color 2 2 2\n  end\n end\nend\n");
  Write("shader/f.zp", "shader\n name \"f\"\n" + metal + "  dielectric\n end\nend\n");
  Write("geometry/a.zp",
        "object\n name square\n obj \"model/square.obj\"\nend\nobject\n name root\n instance\n"
        "  object square\n  matrix 2 0 0 0  0 2 0 0  0 0 2 0  0 0 0 1\n end\n instance\n  object square\n"
        "  matrix 1 0.1 0 0  0 1 0 0  0 0 1 0  0 0 0 1\n end\n instance\n  object square\n"
        "  matrix 0.8 0.6 0 5  -0.6 0.8 0 6  0 0 1 7  0 0 0 1\n end\nend\n");
  Write("camera/a.zp",
        "camera\nend\ncamera\n pose\n  position 0 0 0\n  target 0 0 0\n end\n pose\n  position 1 0 0\n"
        "  target 0 0 0\n  up_vector 2 0 0\n  field_of_view 60\n end\nend\n");
  Expect(
      {
          "camera/a.zp:1: error: the camera has no pose",
          "camera/a.zp:3: warning: only the first camera is rendered",
          "camera/a.zp:3: error: the target is where the camera is",
          "camera/a.zp:3: error: field_of_view is not between 0 and 180",
          "camera/a.zp:3: error: up_vector is zero, or along the view",
          "camera/a.zp:4: error: \"pose\" states no \"up_vector\"",
          "geometry/a.zp:7: error: the matrix is not rigid",
          "geometry/a.zp:11: error: the matrix is not rigid",
          "shader/a.zp:1: error: several layers on one side and no weight",
          "shader/b.zp:1: warning: a layer without weight beside others",
          "shader/d.zp:3: error: a conductor of ior 1",
      },
      "9 errors, 2 warnings");
}

TEST_F(Check, OutputsThatShowNothingOrTooLittle) {
  const auto aov = [](const std::string& image, const std::string& type) {
    return " aov\n  image \"" + image + "\"\n  type \"" + type + "\"\n end\n";
  };
  Write("geometry/a.zp", "object\n obj \"model/square.obj\"\nend\n");
  Write("camera/a.zp", std::string(kCamera).substr(0, std::string(kCamera).size() - 4) +       // to line 7
                           aov("a.hdr", "normal") + aov("b.pfm", "uv") + aov("c.png", "uv") +  // 8, 12, 16
                           aov("d.exr", "uv") + aov("e.hdr", "uv") + aov("f.webp", "uv") +     // 20, 24, 28
                           aov("out/g.Hdr", "uv") + aov("h.gif", "uv") + aov("i.pfm", "vu") +  // 32, 36, 40
                           " aov\n  type \"uv\"\n  type \"depth\"\n end\n" +                   // 44
                           aov("b.pfm", "uv") + aov("j.png", "emissive") + "end\n");           // 48, 52
  Write("light/a.zp", "sky_light\n" + aov("k.jpg", "glossy") + aov("l.exr", "glossy") +
                          "end\ngeometry_light\n" + aov("m.pfm", "depth") + "end\n");
  Expect(
      {
          "camera/a.zp:10: error: a camera's AOV of this type stays black",
          "camera/a.zp:17: error: \"c.png\" keeps 8 bits",
          "camera/a.zp:21: warning: \"d.exr\" keeps half floats",
          "camera/a.zp:25: warning: \"e.hdr\" keeps 8 bits of each number",
          "camera/a.zp:29: error: no image of this format can be written: \"f.webp\"",
          "camera/a.zp:33: error: no image of this format can be written: \"out/g.Hdr\"",
          "camera/a.zp:37: error: no image of this format can be written: \"h.gif\"",
          "camera/a.zp:42: warning: no model has vertex data named \"vu\"",
          "camera/a.zp:44: warning: an AOV without an image",
          "camera/a.zp:46: error: a camera's AOV of this type stays black",
          "camera/a.zp:49: warning: another AOV is written to \"b.pfm\"",
          "camera/a.zp:53: warning: \"j.png\" keeps 8 bits: light above 1",
          "camera/a.zp:54: error: a camera's AOV of this type stays black",
          "light/a.zp:3: warning: \"k.jpg\" keeps 8 bits: light above 1",
          "light/a.zp:14: warning: a light records nothing",
      },
      "7 errors, 8 warnings");
  EXPECT_FALSE(fs::exists(root / "b.pfm") || fs::exists(root / "scene/b.pfm"));
}

TEST_F(Check, ScenesThatAreNotThere) {
  EXPECT_TRUE(Run("missing").empty());
  EXPECT_EQ(status, 1);
  fs::create_directories(root / "empty");
  EXPECT_EQ(Run("empty"),
            (std::vector<std::string>{"empty/camera:0: error: there is no camera", "1 error, 0 warnings"}));
  EXPECT_EQ(status, 1);
  // Warnings alone do not fail.
  Write("camera/b.zp", kCamera);
  Expect({"camera/b.zp:1: warning: only the first camera"}, "0 errors, 1 warning");
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace zp
