// The program as its users meet it: words in, files and one exit status out.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "program_fixture.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

std::size_t CountLines(const std::string& text) {
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

class Program : public ProgramTest {
 protected:
  void WriteScene(const std::string& aov = "image \"user.hdr\"\ntype \"id\"\n", bool onFloor = false) const {
    ProgramTest::WriteScene("resolution 32 16\nsample 2\naov\n" + aov + "end\n", onFloor);
  }

  std::vector<std::string> Files(const char* folder) const {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(root / folder))
      names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }
  std::vector<std::string> WorkFiles() const { return Files("work"); }

  // The program says why in one line, and where it was called wrongly nothing else.
  void ExpectFailure(const std::string& arguments, int status) const {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.status, status) << arguments;
    EXPECT_TRUE(outcome.errors.starts_with("zephlore: ")) << arguments << outcome.errors;
    EXPECT_EQ(CountLines(outcome.errors), 1U) << arguments << outcome.errors;
    EXPECT_TRUE(status == 1 || outcome.output.empty()) << arguments;
  }
};

// Loads a picture with its top row first.
ImageBuffer LoadTopFirst(const fs::path& path) {
  ImageBuffer stored;
  stored.fileName = path.filename().string();
  stored.allowPacked = false;
  EXPECT_TRUE(LoadImage(stored, path.string())) << path;
  ImageBuffer turned;
  Allocate(turned, stored.width, stored.height, 3, 32, false);
  const auto width = static_cast<std::size_t>(stored.width);
  const auto height = static_cast<std::size_t>(stored.height);
  for (std::size_t y = 0; y < height; y++)
    for (std::size_t x = 0; x < width; x++)
      WritePixel(turned, ReadPixel(stored, (height - 1 - y) * width + x), y * width + x);
  return turned;
}

TEST_F(Program, ExplainsItself) {
  for (const char* arguments : {"--help", "render --help", "view --help", "check --help", "--version"}) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.status, 0) << arguments;
    EXPECT_TRUE(outcome.errors.empty() && !outcome.output.empty()) << arguments << outcome.errors;
  }
  EXPECT_EQ(Run("--version").output, "zephlore " ZP_VERSION "\n");
}

TEST_F(Program, WrongUsageIsStatusTwoAndOneLine) {
  WriteScene();
  const std::vector<std::string> words[] = {
      {"", "", "paint", "check", "check ../scene more", "check ../scene --format 3"},
      {"render ", "", "../scene more"},
      {"render ../scene ", "--colour 3", "--output", "--threads 0", "--threads 257", "--seed -1",
       "--seed 1.5"},
      {"render ../scene --sample ", "0", "x", "65536"},
      {"render ../scene --resolution ", "32", "32x", "32x16x8", "0x16", "99999999999x16"},
      {"render ../scene --region ", "1,2,3", "4,0,4,9", "-1,0,4,9", "0,0,4,9,"},
      {"view ", "", "only.hdr", "in.hdr out.gif"},
      {"view in.hdr out.png --exposure ", "bright", "nan"}};
  for (const std::vector<std::string>& group : words)
    for (std::size_t i = 1; i < group.size(); ++i) ExpectFailure(group[0] + group[i], 2);
  for (const auto& [typed, meant] : {std::pair{"rendr ../scene", "'render'"},
                                     {"render ../scene --samples 4", "'--sample'"},
                                     {"view --exposur=1 a.hdr b.png", "'--exposure'"}})
    EXPECT_NE(Run(typed).errors.find("did you mean " + std::string(meant)), std::string::npos) << typed;
  EXPECT_TRUE(WorkFiles().empty());
}

TEST_F(Program, SceneThatCannotBeRenderedIsStatusOneAndOneLine) {
  WriteScene();
  fs::create_directories(root / "empty");
  fs::create_directories(work / "folder.hdr");
  WriteFile(root / "file", "no folder");
  WriteFile(work / "old.hdr", "old");
  for (const char* arguments :
       {"../missing", "../file", "../empty", "../scene --region 40,0,50,9", "../scene --output missing/a.hdr",
        "../scene --output a.unknown", "../scene --output folder.hdr"}) {
    ExpectFailure("render " + std::string(arguments), 1);
    EXPECT_EQ(WorkFiles(), (std::vector<std::string>{"folder.hdr", "old.hdr"})) << arguments;
  }
  // A failed save loses no old file.
  WriteScene("image \"missing/second.hdr\"\ntype \"depth\"\n");
  ExpectFailure("render ../scene --quiet --output old.hdr", 1);
  EXPECT_EQ(ReadFile(work / "old.hdr"), "old");
}

// Each template is clean and renders; what is there is left alone, and of a scene that does not fit nothing
// is left.
TEST_F(Program, NewScenesRenderAtOnce) {
  for (const std::string name : {"studio", "exterior", "interior", "turntable"}) {
    EXPECT_EQ(Run("new new/" + name + " --template " + name).status, 0) << name;
    EXPECT_EQ(Run("check new/" + name).output, "0 errors, 0 warnings\n") << name;
    const std::string small = " --resolution 32x18 --sample 1 --seed 1 --strict --quiet --output ";
    EXPECT_EQ(Run("render new/" + name + small + name + ".pfm").status, 0) << name;
    const ImageBuffer image = LoadTopFirst(work / (name + ".pfm"));
    int lit = 0;
    for (std::size_t i = 0; i < 32 * 18; ++i) lit += Mean(ReadPixel(image, i)) > 0;
    EXPECT_GT(lit, 32 * 18 * 9 / 10) << name;
  }
  ExpectFailure("new new/studio", 1);
  ExpectFailure("new rooms/x --template palace", 2);
  Child full("sh -c 'ulimit -f 8 && \"" + std::string(kProgram) + "\" new full'", work);
  EXPECT_EQ(full.ExitStatus(), 1);
  EXPECT_FALSE(fs::exists(work / "full") || fs::exists(work / "rooms"));
}

// Each kind of file that a scene can lack is told, quiet or not, and once. Without --strict nothing else
// changes; with it nothing is rendered.
TEST_F(Program, StrictTellsErrorsOfTheScene) {
  WriteScene();
  EXPECT_EQ(Run("render ../scene --quiet --strict --seed 3 --output a.pfm").status, 0);
  const auto shaderWith = [](const std::string& image) {
    return "shader\nname \"lost\"\nsurface_shader\nlambertian\ncolor 1 1 1\nimage \"" + image +
           "\"\nend\nend\nend\n";
  };
  const std::pair<const char*, std::string> losses[] = {
      {"scene/geometry/b.zp", "object\nname lost\nobj \"model/lost.obj\"\nend\n"},
      {"scene/light/b.zp", "sky_light\nimage \"lost.hdr\"\nend\n"},
      {"scene/light/b.zp", "sky_light\nbackdrop \"lost.hdr\"\nend\n"},
      {"scene/shader/b.zp", shaderWith("lost.png")},
      {"scene/shader/b.zp", shaderWith("shader/b.zp")},
      {"scene/render/b.zp", "rende\nend\n"}};
  for (const auto& [file, text] : losses) {
    WriteFile(root / file, text);
    const Outcome lax = Run("render ../scene --seed 3 --output b.pfm");
    EXPECT_EQ(lax.status, 0) << text;
    EXPECT_EQ(lax.output.find("error :("), std::string::npos) << text;
    EXPECT_EQ(lax.errors.starts_with("error :( \t"), text.find("lost") != text.npos) << text << lax.errors;
    const Outcome strict = Run("render ../scene --quiet --strict --seed 3 --output c.pfm");
    EXPECT_EQ(strict.status, 1) << text;
    EXPECT_NE(strict.errors.find("errors of the scene (1)"), std::string::npos) << text << strict.errors;
    EXPECT_FALSE(fs::exists(work / "c.pfm")) << text;
    fs::remove(root / file);
  }
}

TEST_F(Program, WritesToTheCallersDirectory) {
  WriteScene();
  const std::vector<std::string> before = Files("scene");
  const Outcome outcome = Run("render ../scene/ --output a.hdr");
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_TRUE(outcome.errors.empty() && !outcome.output.empty()) << outcome.errors;
  EXPECT_EQ(WorkFiles(), (std::vector<std::string>{"a.hdr", "user.hdr"}));
  EXPECT_EQ(Files("scene"), before);

  // The model was found from here, and the picture is the scene's: sky on the left, the square on the right.
  // It sees half of a sky that nothing blocks.
  const ImageBuffer image = LoadTopFirst(work / "a.hdr");
  ASSERT_EQ(image.width, 32);
  ASSERT_EQ(image.height, 16);
  ExpectNear(ReadPixel(image, 8 * 32 + 4), {0.3f, 0.6f, 1.5f}, 0.01f);
  ExpectNear(ReadPixel(image, 8 * 32 + 28), {0.27f, 0.3f, 0.45f}, 0.01f);

  // Without --output the beauty image has its time-stamped name; an absolute name needs no directory.
  fs::remove_all(work);
  fs::create_directories(work);
  EXPECT_EQ(Run("render '" + (root / "scene").string() + "' --quiet").status, 0);
  const std::vector<std::string> stamped = WorkFiles();
  ASSERT_EQ(stamped.size(), 2U);
  EXPECT_TRUE(stamped[0].starts_with("beauty-") && stamped[0].ends_with(".hdr")) << stamped[0];
  EXPECT_EQ(Run("render ../scene --quiet --output '" + (root / "b.hdr").string() + "'").status, 0);
  EXPECT_TRUE(fs::exists(root / "b.hdr"));
}

TEST_F(Program, OptionsOverrideTheScene) {
  WriteScene();
  const Outcome outcome = Run(
      "render ../scene --resolution 24x12 --sample 3 --region 0,0,12,6 --output a.hdr --quiet --progress");
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_TRUE(outcome.output.empty()) << outcome.output;
  const ImageBuffer image = LoadTopFirst(work / "a.hdr");
  ASSERT_EQ(image.width, 24);
  ASSERT_EQ(image.height, 12);
  ExpectNear(ReadPixel(image, 2 * 24 + 3), {0.3f, 0.6f, 1.5f}, 0.01f);
  ExpectNear(ReadPixel(image, 2 * 24 + 20), kBlack, 0);
  ExpectNear(ReadPixel(image, 9 * 24 + 3), kBlack, 0);

  // One line, written over and over and ended once.
  EXPECT_EQ(CountLines(outcome.errors), 1U);
  EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\r'), 3);
  for (const char* words : {"pass 1 of 3", "pass 3 of 3", "rays/s", "elapsed 0:0", "remaining 0:00"})
    EXPECT_NE(outcome.errors.find(words), std::string::npos) << words;
}

TEST_F(Program, CameraIsChosenByNameOrNumber) {
  WriteScene();
  std::string side = ReadFile(root / "scene/camera/a.zp");
  side.insert(side.find('\n') + 1, "name \"si/de\"\n");
  WriteFile(root / "scene/camera/b.zp", side.replace(side.find("32 16"), 5, "8 4  "));
  WriteFile(root / "scene/light/b.zp", "sky_light\naov\nimage \"sky.pfm\"\nend\nend\n");
  for (const char* arguments : {"si/de -o a.pfm", "1 -o b.pfm", "all -o c.pfm"})
    EXPECT_EQ(Run("render ../scene --quiet --seed 1 --camera " + std::string(arguments)).status, 0);
  EXPECT_EQ(WorkFiles(), (std::vector<std::string>{"a.pfm", "b.pfm", "c-0.pfm", "c-si_de.pfm", "sky-0.pfm",
                                                   "sky-si_de.pfm", "sky.pfm", "user-0.hdr", "user-si_de.hdr",
                                                   "user.hdr"}));
  for (const auto& [one, other] :
       {std::pair{"a.pfm", "b.pfm"}, {"a.pfm", "c-si_de.pfm"}, {"sky.pfm", "sky-si_de.pfm"}})
    EXPECT_EQ(ReadFile(work / one), ReadFile(work / other)) << one;
  EXPECT_EQ(LoadTopFirst(work / "sky-0.pfm").width, 32);
  ExpectFailure("render ../scene --camera 2", 1);
}

TEST_F(Program, SeedRepeatsThePictureAtAnyThreadCount) {
  // With a floor the light of a point depends on the directions drawn.
  WriteScene("image \"\"\n", true);
  for (const char* arguments : {"--seed 1 --threads 1 --output a.pfm", "--seed 1 --threads 2 --output b.pfm",
                                "--seed 2 --threads 1 --output c.pfm"})
    ASSERT_EQ(Run("render ../scene --quiet " + std::string(arguments)).status, 0);
  const std::string first = ReadFile(work / "a.pfm");
  EXPECT_FALSE(first.empty());
  EXPECT_TRUE(first == ReadFile(work / "b.pfm"));
  EXPECT_FALSE(first == ReadFile(work / "c.pfm"));
}

TEST_F(Program, ViewKeepsOrientationAndAppliesTheCurve) {
  // Linear values whose sRGB bytes are known: the ends, both sides of the curve's linear foot, middle grey,
  // and what lies outside the screen's range.
  struct Sample {
    float linear;
    int encoded;
  };
  constexpr Sample samples[] = {{0, 0},       {0.002f, 7}, {0.0031308f, 10}, {0.01f, 25},
                                {0.18f, 118}, {0.5f, 188}, {1, 255},         {7, 255}};
  for (const char* name : {"in.pfm", "in.exr", "dir.hdr/in.exr", "dir.exr/in.hdr"}) {
    ImageBuffer picture;
    Allocate(picture, 8, 3, 3, 32, false);
    for (std::size_t x = 0; x < 8; x++) WritePixel(picture, samples[x].linear * kWhite, x);
    WritePixel(picture, {1, 0, 0}, 8);   // row 1, left
    WritePixel(picture, {0, 0, 1}, 23);  // last row, right
    const fs::path path = work / name;
    fs::create_directories(path.parent_path());
    // Written by its bare name: a folder's name would take part in the choice of a format.
    const fs::path here = fs::current_path();
    fs::current_path(path.parent_path());
    picture.fileName = path.filename().string();
    const bool saved = SaveImage(picture);
    fs::current_path(here);
    ASSERT_TRUE(saved) << name;

    const Outcome outcome = Run("view " + std::string(name) + " out.png");
    ASSERT_EQ(outcome.status, 0) << name << outcome.errors;
    const ImageBuffer screen = LoadTopFirst(work / "out.png");
    ASSERT_EQ(screen.width, 8) << name;
    ASSERT_EQ(screen.height, 3) << name;
    for (std::size_t x = 0; x < 8; x++)
      EXPECT_NEAR(255 * ReadPixel(screen, x).y, samples[x].encoded, 1.01) << name << " " << x;
    ExpectNear(ReadPixel(screen, 8), {1, 0, 0}, 0);
    ExpectNear(ReadPixel(screen, 16), kBlack, 0);
    ExpectNear(ReadPixel(screen, 23), {0, 0, 1}, 0);
  }
}

// What was rendered is not lost, and all images go together: after whole passes, and in the midst of the
// first, where a budget without end lets only the sky finish.
TEST_F(Program, SignalsEndARenderAtOnce) {
  WriteScene();
  WriteFile(root / "scene/light/b.zp",
            "sky_light\ncolor 0.3 0.6 1.5\naov\nimage \"sky.pfm\"\nend\nend\npoint_light\nposition 4 -9 "
            "0\ndirection 0 1 0\n"
            "sample 2000000000\nblur 1\naov\nimage \"lamp.pfm\"\ntype \"lambertian\"\nend\nend\n");
  struct Case {
    int signal, passes, milliseconds;
    const char *row, *blurOfLamp, *told, *rest;
  };
  for (const Case& c : {Case{SIGINT, 65535, 0, "performance", "0", "after pass ",
                             " of 65535: the images hold what was rendered\n"},
                        Case{SIGHUP, 65535, 100, "performance", "0", "after pass ",
                             " of 65535: the images hold what was rendered\n"},
                        Case{SIGTERM, 1, 1000, "renderer sample", "1", "in pass 1 of 1: the images hold ",
                             " the others are black\n"}}) {
    std::string light = ReadFile(root / "scene/light/b.zp");
    light.replace(light.find("blur ") + 5, 1, c.blurOfLamp);
    WriteFile(root / "scene/light/b.zp", light);
    Child child("'" + std::string(kProgram) + "' render ../scene --sample " + std::to_string(c.passes) +
                    " --seed 1 --output a.pfm",
                work);
    EXPECT_TRUE(Await([&] { return child.Output().find(c.row) != std::string::npos; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(c.milliseconds));
    child.Send(c.signal);
    EXPECT_EQ(child.ExitStatus(), 1) << c.signal;
    const std::string errors = child.Errors();
    EXPECT_TRUE(errors.starts_with(std::string("zephlore: stopped ") + c.told)) << errors;
    EXPECT_TRUE(errors.ends_with(c.rest)) << errors;
    for (const char* name : {"a.pfm", "sky.pfm"})
      ExpectNear(ReadPixel(LoadTopFirst(work / name), 0), {0.3f, 0.6f, 1.5f}, 1e-4f);
    // The lamp has begun with this pixel, and one that is not finished has left no trace.
    const float lamp = ReadPixel(LoadTopFirst(work / "lamp.pfm"), 20).x;
    EXPECT_EQ(lamp > 0.001f, *c.blurOfLamp == '0') << lamp;
    EXPECT_EQ(lamp == 0, *c.blurOfLamp == '1') << lamp;
    EXPECT_TRUE(fs::exists(work / "user.hdr"));
    for (const std::string& name : WorkFiles()) fs::remove(work / name);
  }
}

TEST_F(Program, ViewAppliesStopsAndNeedsAPicture) {
  ImageBuffer picture;
  Allocate(picture, 2, 1, 3, 32, false);
  WritePixel(picture, {0.25f, 0.125f, 2}, 0);
  picture.fileName = (work / "in.pfm").string();
  ASSERT_TRUE(SaveImage(picture));
  ASSERT_EQ(Run("view in.pfm up.png --exposure 1").status, 0);
  ASSERT_EQ(Run("view in.pfm a.hdr.png --exposure -1").status, 0);
  ExpectNear(255 * ReadPixel(LoadTopFirst(work / "up.png"), 0), {188, 137, 255}, 0.01f);
  // The name does not make it a float file.
  EXPECT_TRUE(ReadFile(work / "a.hdr.png").starts_with("\x89PNG"));
  fs::rename(work / "a.hdr.png", work / "down.png");
  ExpectNear(255 * ReadPixel(LoadTopFirst(work / "down.png"), 0), {99, 71, 255}, 0.01f);

  WriteFile(work / "text.hdr", "no picture");
  WriteFile(work / "keep.png", "old");
  for (const char* arguments :
       {"view missing.hdr keep.png", "view text.hdr keep.png", "view in.pfm missing/out.png"})
    ExpectFailure(arguments, 1);
  EXPECT_EQ(ReadFile(work / "keep.png"), "old");
  EXPECT_NE(Run("view text.hdr keep.png").errors.find(ProblemText(PictureProblem::kUnknownFormat)),
            std::string::npos);
}

}  // namespace
}  // namespace zp
