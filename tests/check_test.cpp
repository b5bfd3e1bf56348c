// `zephlore check`: every kind of mistake is found where it stands, and sound scenes are silent.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "built_files.h"

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
    Write("render/0.zp", kPathTracing);
  }
  void TearDown() override {
    std::error_code error;
    fs::remove_all(root, error);
  }

  // Writes a file of the scene. What must be said of a line follows it, each part behind a '~'.
  void Write(const std::string& name, const std::string& text) {
    const fs::path path = root / "scene" / name;
    fs::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    std::istringstream lines(text);
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
      ++number;
      std::istringstream parts(line);
      std::getline(parts, line, '~');
      file << line << (lines.eof() ? "" : "\n");
      for (std::string part; std::getline(parts, part, '~');)
        expected[name].push_back(name + ":" + std::to_string(number) + ": " + part);
    }
  }

  // The lines of the report; paths count from the scene folder. Sets the exit status.
  std::vector<std::string> Run(const std::string& scene = "scene") {
    const std::string command =
        "cd '" + root.string() + "' && '" + kProgram + "' check '" + scene + "' " + option + ">out 2>err";
    const int raw = std::system(command.c_str());
    status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    std::ifstream file(root / "out");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
      lines.push_back(line.starts_with("scene/") ? line.substr(6) : line);
    return lines;
  }

  // The same findings in both forms, whatever bytes the text holds.
  void ExpectJson() {
    const std::vector<std::string> lines = Run();
    option = "--json ";
    const std::vector<std::string> objects = Run();
    ASSERT_EQ(objects.size() + 1, lines.size());
    for (std::size_t i = 0; i < objects.size(); ++i) {
      const auto object = nlohmann::json::parse(objects[i]);
      const std::string text = object["file"].get<std::string>().substr(6) + ":" +
                               std::to_string(object["line"].get<int>()) + ": " +
                               object["severity"].get<std::string>() + ": ";
      EXPECT_TRUE(lines[i].starts_with(text) && object["code"].is_string() && object["text"].is_string())
          << lines[i] << objects[i];
      const std::string suggestion = object["suggestion"];
      EXPECT_EQ(suggestion.empty(),
                lines[i].find("did you mean") + lines[i].find("; write") == 2 * lines[i].npos);
    }
  }

  // What is expected begins the lines at its places, and there are no others but the sum.
  void Expect(const std::string& sum) {
    std::vector<std::string> beginnings;
    for (const auto& [name, ofFile] : expected)
      beginnings.insert(beginnings.end(), ofFile.begin(), ofFile.end());
    beginnings.push_back(sum);
    std::vector<std::string> lines = Run();
    for (std::size_t i = 0; i < std::min(lines.size(), beginnings.size()); ++i)
      if (lines[i].starts_with(beginnings[i]) && i + 1 < lines.size()) lines[i] = beginnings[i];
    EXPECT_EQ(lines, beginnings);
  }

  static inline const std::string kMark = "\xEF\xBB\xBF";  // byte-order mark
  static constexpr const char* kPathTracing = "render\n final_gather\n  resolution 0\n end\nend\n";
  static constexpr const char* kCamera =
      "camera\n pose\n  position 0 -5 0\n  target 0 0 0\n  up_vector 0 0 1\n  field_of_view 60\n end\nend\n";
  fs::path root;
  std::string option;
  std::map<std::string, std::vector<std::string>> expected;  // by file, in the order of the report
  int status = -1;
};

TEST_F(Check, SoundScenesAreSilent) {
  const fs::path scenes = fs::path(kSources) / "scenes";
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
  Expect("0 errors, 0 warnings");
  EXPECT_EQ(status, 0);
}

TEST_F(Check, TextThatIsNotRead) {
  expected["lights"] = {"lights:0: warning: is not read"};
  Write("render/a.zp",
        "render\n clmap 1 1 1~error: unknown keyword \"clmap\" in \"render\" of line 1; did you mean "
        "\"clamp\"?\n"
        " clamp 1 x 1~error: clamp: cannot read \"x\"\n error 1 2~error: error: a number is missing\n"
        " gamma 2,2~error: gamma: only the beginning of \"2,2\"\n"
        " exposure~error: exposure: a number is missing\n final_gather\n"
        "  sample 3.5~error: sample: only the beginning of \"3.5\"\n"
        "  bounce 99999999999~error: bounce: cannot read \"99999999999\"\n end\n"
        " image_path maps~error: image_path: a string without quotes counts as empty\nend\n");
  Write("shader/b.zp",
        "shader\n name \"b~error: name: the closing quote is missing\n surface_shader\n"
        "  sideness \"left\"~error: sideness: unknown word \"left\"\n"
        "  dielektric~error: unknown keyword \"dielektric\" in \"surface_shader\" of line 3\n"
        "  lambertian\n   sampler\n"
        "    pixel_sampler \"cubic\"~error: pixel_sampler: unknown word \"cubic\"\n"
        "   end\n  end\n end\nend\n");
  Write("light/a.zp",
        "sky_light\n color 1 1 1 # " + std::string(5000, '-') +
            "~error: a line of 4096 bytes or more is dropped\n"
            " position 1 2 3~error: unknown keyword \"position\" in \"sky_light\" of line 1\n"
            " volume_shader\n  medium_id blue~error: medium_id: cannot read \"blue\"\n end\nend\n"
            "fog~error: \"fog\" is no section\n a\n end\nend\n");
  Write("camera/b.txt", "not read, and not meant to be");
  Write("lights/a.zp", "sky_light\nend\n");
  Expect("16 errors, 1 warning");
  EXPECT_EQ(status, 1);
}

TEST_F(Check, BlocksThatEndEarlyOrNever) {
  Write("render/a.zp",
        "render\n fog~error: unknown keyword \"fog\"\n  clamp 1 1 1\n"
        " end~error: \"end\" closes \"render\" of line 1 early: \"fog\" of line 2\n"
        " error 1 1 1~error: \"error\" is no section\nend\n");
  Write("render/b.zp",
        "render~error: \"render\" is still open at the end of the file\n final_gather\n  sample 3\n"
        " gamma 1~error: unknown keyword \"gamma\" in \"final_gather\" of line 2\nend\n");
  Write("render/c.zp", "render\nend\nend~error: \"end\" closes nothing\n");
  Write("render/d.zp",
        "render\n clamp 1 1 1\n"
        " camera~error: unknown keyword \"camera\" in \"render\" of line 1: an \"end\" is missing\n"
        "  sample 1~error: unknown keyword \"sample\"\n end\n");
  Write("camera/a.zp",
        "camera\n pose\n  position 0 -5 0\n  target 0 0 0\n  up_vector 0 0 1\n  field_of_view 60\n"
        " end\n pose\n  position 0 -5 0\n  target 0 0 0\n  up_vector 0 0 1\n  field_of_view 60\n"
        " end\n pose~error: pose: a camera reads two poses only\n"
        "  bokeh 0~error: unknown keyword \"bokeh\" in \"camera\" of line 1\n"
        " end~error: \"end\" closes \"camera\" of line 1 early: \"pose\" of line 14\n"
        " sample 3~error: \"sample\" is no section\nend\n");
  Expect("12 errors, 0 warnings");
  EXPECT_EQ(status, 1);
}

TEST_F(Check, NamesThatResolveToNothing) {
  Write("model/two.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nusemtl unused\nusemtl plain\nf 1 2 3\n");
  Write("maps/bad.png", "no picture");
  Write("render/a.zp",
        "render\n image_path \"maps\"\n image_path \"mops\"~warning: there is no folder \"mops\"\n"
        "end\n");
  Write("geometry/a.zp",
        "object~warning: nothing places \"a\"\n name a\n shader \"paint\"~error: an object's shader does not "
        "reach the faces\n"
        " obj \"model/two.obj\"~error: there is no shader \"plain\" for faces of \"model/two.obj\"\n"
        " obj \"model/none.obj\"~error: obj: cannot open the file \"model/none.obj\"\nend\n"
        "object~warning: there is an object \"a\" already\n name a\n instance\n"
        "  object b~error: there is no object \"b\"\n"
        "  shader \"Pant\"~error: there is no shader \"Pant\"; did you mean \"paint\"?\n end\n"
        " instance~error: \"instance\" states no \"object\"\n end\nend\n");
  Write("shader/b.zp",
        "shader\n name \"c\"\n surface_shader\n  lambertian\n   color 1 1 1\n"
        "   image \"bad.png\"~error: the image \"bad.png\" cannot be found or read\n"
        "  end\n end\nend\nshader~warning: shader \"c\" replaces that of b.zp line 1\n"
        " name \"c\"\nend\nshader~warning: a shader without a name\n"
        " surface_shader~warning: the image of \"lambertian\" is multiplied by a black color\n"
        "  lambertian\n   image \"none.png\"~error: the image \"none.png\" cannot be found\n"
        "  end\n end\nend\n");
  Write("light/a.zp",
        "sky_light\n image \"sky.hdr\"~error: the image \"sky.hdr\" cannot be found\n"
        " backdrop \"analytic\"~error: the image \"analytic\" cannot be found\n"
        " link\n  shader \"plain\"\n  shader \"gone!\"~error: there is no shader \"gone!\"\n"
        " end\nend\npoint_light~error: \"point_light\" states no \"position\"\nend\n"
        "parallel_light~error: \"parallel_light\" states no \"direction\"\nend\n");
  Expect("13 errors, 6 warnings");
}

TEST_F(Check, GeometryThatCannotBeRead) {
  expected["model/a.fur"] = {"model/a.fur:0: error: the strands ask for more points than there are"};
  Write("model/a.fur",
        "segment 2\nposition 0 0~error: position: a number is missing\n"
        "postion 0 0 1~error: unknown keyword \"postion\" in a fur file\nposition 0 0 1\n");
  Write("model/short.hair", "HAIR");
  Write("maps/bytes.pgm", "P5 1 1 255 a");
  Write("geometry/a.zp",
        "object\n shader \"paint\"~error: an object's shader does not reach its hair\n"
        " hair \"model/none.hair\"~error: hair: cannot open or read the file \"model/none.hair\"\n"
        " hair \"model/short.hair\"~error: hair: cannot open or read the file \"model/short.hair\"\n"
        " fur \"model/none.fur\"~error: fur: cannot open the file \"model/none.fur\"\n"
        " fur \"model/a.fur\"\n"
        " particle_texture \"none.tif\""
        "~error: particle_texture: the image \"none.tif\" cannot be found or read\n"
        " uv_texture~error: uv_texture: a string is missing\n"
        " normal_texture \"bytes.pgm\"~error: normal_texture: \"bytes.pgm\" holds no 32-bit floats\n"
        " triangle_texture \"none.pfm\""
        "~error: triangle_texture: the image \"none.pfm\" cannot be found or read\n"
        " furr \"a\"~error: unknown keyword \"furr\" in \"object\" of line 1\n"
        " uv_texture \"a.pfm\"~error: uv_texture: no \"triangle_texture\" follows\nend\n");
  Write("render/a.zp", "render\n image_path \"maps\"\nend\n");
  Expect("13 errors, 0 warnings");
  EXPECT_EQ(status, 1);
}

TEST_F(Check, RecordsThatDoNotDoWhatTheySay) {
  expected["shader/d.zp"] = {"shader/d.zp:3: error: a conductor of ior 1"};
  const std::string layer = " surface_shader\n  lambertian\n   color 1 1 1\n  end\n end\n";
  const std::string weighted =
      " surface_shader\n  lambertian\n   color 1 1 1\n  end\n  weight\n   color 1 1 1\n  end\n end\n";
  const std::string metal = " surface_shader\n  specular\n   color 1 1 1\n  end\n";
  Write("shader/a.zp", "shader~error: several layers on one side and no weight\n name \"paint\"\n" + layer +
                           layer + "end\n");
  Write("shader/b.zp",
        "shader~warning: a layer without weight beside others\n name \"b\"\n" + weighted + layer + "end\n");
  Write("shader/c.zp",  // one on each side
        "shader\n name \"c\"\n surface_shader\n  sideness \"face\"\n end\n surface_shader\n"
        "  sideness \"back\"\n end\nend\n");
  Write("shader/d.zp", "shader\n name \"d\"\n" + metal + " end\nend\n");
  Write("shader/e.zp", "shader\n name \"e\"\n" + metal + "  ior\n   color 2 2 2\n  end\n end\nend\n");
  Write("shader/f.zp", "shader\n name \"f\"\n" + metal + "  dielectric\n end\nend\n");
  Write("geometry/a.zp",
        "object\n name square\n obj \"model/square.obj\"\nend\nobject\n name root\n"
        " instance~error: the matrix is not rigid\n"
        "  object square\n  matrix 2 0 0 0  0 2 0 0  0 0 2 0  0 0 0 1\n end\n"
        " instance~error: the matrix is not rigid\n"
        "  object square\n  matrix 1 0.1 0 0  0 1 0 0  0 0 1 0  0 0 0 1\n end\n instance\n"
        "  object square\n  matrix 0.8 0.6 0 5  -0.6 0.8 0 6  0 0 1 7  0 0 0 1\n end\nend\n");
  Write("camera/a.zp",
        "camera~error: the camera has no pose\nend\n"
        "camera~warning: only the first camera is rendered~error: the target is where the camera is"
        "~error: field_of_view is not between 0 and 180~error: up_vector is zero, or along the view\n"
        " pose~error: \"pose\" states no \"up_vector\"\n"
        "  position 0 0 0\n  target 0 0 0\n end\n pose\n  position 1 0 0\n  target 0 0 0\n"
        "  up_vector 2 0 0\n  field_of_view 60\n end\nend\n");
  Expect("9 errors, 2 warnings");
}

TEST_F(Check, OutputsThatShowNothingOrTooLittle) {
  const auto aov = [](const std::string& image, const std::string& type, const std::string& ofImage = "",
                      const std::string& ofType = "") {
    return " aov\n  image \"" + image + "\"" + ofImage + "\n  type \"" + type + "\"" + ofType + "\n end\n";
  };
  const std::string black = "~error: a camera's AOV of this type stays black",
                    unknown = "~error: no image of this format can be written: ";
  Write("geometry/a.zp", "object\n obj \"model/square.obj\"\nend\n");
  Write("camera/a.zp",
        std::string(kCamera).substr(0, std::string(kCamera).size() - 4) + aov("a.hdr", "normal", "", black) +
            aov("b.pfm", "uv") + aov("c.png", "uv", "~error: \"c.png\" keeps 8 bits") +
            aov("d.exr", "uv", "~warning: \"d.exr\" keeps half floats") +
            aov("e.hdr", "uv", "~warning: \"e.hdr\" keeps 8 bits of each number") +
            aov("f.webp", "uv", unknown + "\"f.webp\"") + aov("out/g.Hdr", "uv", unknown + "\"out/g.Hdr\"") +
            aov("h.gif", "uv", unknown + "\"h.gif\"") +
            aov("i.pfm", "vu", "", "~warning: no model has vertex data named \"vu\"") +
            " aov~warning: an AOV without an image\n  type \"uv\"\n  type \"depth\"" + black + "\n end\n" +
            aov("b.pfm", "uv", "~warning: another AOV is written to \"b.pfm\"") +
            aov("j.png", "emissive", "~warning: \"j.png\" keeps 8 bits: light above 1", black) + "end\n");
  Write("light/a.zp", "sky_light\n" +
                          aov("k.jpg", "glossy", "~warning: \"k.jpg\" keeps 8 bits: light above 1") +
                          aov("l.exr", "glossy") + "end\ngeometry_light\n" +
                          aov("m.pfm", "depth", "", "~warning: a light records nothing") +
                          aov("n.pfm", "emissive", "", "~warning: a light records nothing") +
                          aov("o.pfm", "specular") + "end\npoint_light\n position 0 0 1\n" +
                          aov("p.pfm", "specular", "", "~warning: a light records nothing") + "end\n");
  Expect("7 errors, 10 warnings");
  EXPECT_FALSE(fs::exists(root / "b.pfm") || fs::exists(root / "scene/b.pfm"));
}

TEST_F(Check, ModelsThatAreDroppedOrNotDrawn) {
  Write("model/a.stl", "solid a\nendsolid a\n");
  Write("model/empty.obj", "");
  Write("model/many.obj",
        kMark +
            "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\no lid\nf 1 2 3 4 1\no body\nf 1 2 3 4 1\nf 1 2 3 4 2\n"
            "f 1 2\nf 1 2 9\nf 1 2 3\n");
  Write("model/a.fur", "segment 2\nposition 0 0 0\nposition 0 0 0.1\nposition 0 0.1 0.1\n");
  std::string parts;
  for (int i = 0; i < 65536; ++i) parts += " particle_texture \"\"\n";
  Write(
      "geometry/a.zp",
      kMark +
          "object~warning: nothing places \"square\": it joins \"level0\"\n name square\n"
          " obj \"model/square.obj\"\n obj \"model/a.stl\"~error: \"model/a.stl\" holds no faces: it seems "
          "to "
          "be an STL\n obj \"model/empty.obj\"~error: \"model/empty.obj\" holds no faces: it is empty\n"
          " obj \"model/many.obj\"~error: \"model/many.obj\": 3 faces of 6 with five corners or more are "
          "dropped: 1 in \"lid\", 2 in \"body\"~error: \"model/many.obj\": 1 face with less~error: "
          "\"model/many.obj\": 1 face with corners that~warning: \"model/many.obj\": 2 faces without usemtl\n"
          " fur \"model/a.fur\"~warning: \"model/a.fur\": segments of 0.1 scene units\nend\n"
          "object~error: \"a\" is not drawn\n name a\n instance\n  object b\n end\nend\n"
          "object~error: \"b\" is not drawn\n name b\n instance~error: \"b\" places \"a\", which already\n"
          "  object a\n end\n instance~error: an object cannot place itself\n  object b\n end\nend\n"
          "object~error: the object has 65536 parts~error: \"parts\" is not drawn\n name parts\n" +
          parts + "end\n");
  std::string chain;
  for (int i = 0; i < 18; ++i)
    chain += std::string("object") + (i == 17 ? "~error: \"level17\" is not drawn" : "") + "\n name level" +
             std::to_string(i) + "\n instance" + (i == 16 ? "~error: \"level17\" lies more than 16" : "") +
             "\n  object " + (i == 17 ? "parts" : "level" + std::to_string(i + 1)) + "\n end\nend\n";
  Write("geometry/b.zp", chain);
  Expect("13 errors, 3 warnings");
}

TEST_F(Check, NumbersThatAreNotMeantSo) {
  Write("image/words.pgm", "P5 1 1 65535 ab");
  Write("image/bytes.ppm", "P6 1 1 255 az!");
  Write("image/normals.ppm", "P6 1 1 255 \x80\x80\xff");
  Write(
      "shader/b.zp",
      "shader\n name \"\xff\\\"\n opacity 1~note: opacity: has no effect\n surface_shader~warning: colors "
      "above 1\n"
      "  virtual_light~warning: virtual_light of \"\xff\\\" is not sampled\n  lambertian\n   color 1 1.2 1\n"
      "   fresnel 1 0 0~warning: fresnel: is stored and has no effect\n  end\n  emissive\n   color 1 1 1\n"
      "   image \"bytes.ppm\"~warning: \"bytes.ppm\" holds colors of 8 bits\n  end\n  roughness\n   color 1 "
      "1 1\n"
      "   image \"words.pgm\"~warning: \"words.pgm\" holds 16 bits\n  end\n  normal\n"
      "   image \"normals.ppm\"~warning: \"normals.ppm\" keeps normals as 0 to 1\n  end\n end\n"
      " geometry_shader\n  vector~warning: a displaced surface\n   color 0 0 0.001\n"
      "   image \"words.pgm\"\n  end\n end\nend\n");
  Write("render/a.zp",
        "render\n gamma 2.2~note: gamma: has no effect\n exposure 1~warning: exposure: is stored\n "
        "final_gather\n"
        "  bounce 0~warning: bounce: 0 counts as 1\n  sample 2000000000~warning: sample: about\n end\nend\n");
  Write("camera/a.zp", "camera\n resolution 20000 20000\n sample 65535~warning: passes: about" +
                           std::string(kCamera).substr(6));
  Write("light/a.zp",
        "point_light\n position 0 0 1\n photon 1000000000000000000~warning: photon: about\nend\n");
  Write("geometry/a.zp", "object\n obj \"model/square.obj\"\nend\n");
  Expect("0 errors, 12 warnings, 2 notes");
  EXPECT_EQ(status, 0);
  ExpectJson();
}

TEST_F(Check, CellsThatAreNoneOrTooMany) {
  std::string faces = "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nusemtl paint\n";
  for (int i = 0; i < 700; ++i) faces += "f 1 2 3 4\n";
  Write("model/faces.obj", faces);
  Write("geometry/a.zp",
        "object\n name square\n obj \"model/square.obj\"\nend\nobject\n obj \"model/faces.obj\"\n instance\n"
        "  object square\n end\nend\n");
  Write("light/a.zp", "geometry_light\n sample 3~warning: no surface with \"virtual_light\"\nend\n");
  Write("render/a.zp",
        "render\n final_gather\n  bounce 1\n  resolution 1e-9~warning: resolution: cells below\n end\nend\n");
  Expect("0 errors, 2 warnings");
  expected.erase("render/a.zp");
  Write("render/a.zp",
        "render\n final_gather\n  bounce 1~warning: final gathering with \"bounce\" 1\n"
        "  resolution 1e-7~error: resolution: the cells of one model take 1.0 GB\n end\nend\n");
  Expect("1 error, 2 warnings");
}

TEST_F(Check, ScenesThatAreNotThere) {
  EXPECT_TRUE(Run("missing").empty());
  EXPECT_EQ(status, 1);
  fs::create_directories(root / "empty");
  EXPECT_EQ(Run("empty"),
            (std::vector<std::string>{"empty/camera:0: error: there is no camera", "1 error, 0 warnings"}));
  EXPECT_EQ(status, 1);
  // Warnings alone do not fail.
  expected["camera/b.zp"] = {"camera/b.zp:1: warning: only the first camera"};
  Write("camera/b.zp", kCamera);
  Expect("0 errors, 1 warning");
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace zp
