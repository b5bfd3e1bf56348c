// Frames with layers: what they hold, and that whoever keeps or shares a frame keeps them.

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>

#include "imaging/mattes.h"
#include "post/layers.h"
#include "program_fixture.h"

namespace zp {
namespace {

class FrameLayers : public ProgramTest {
 protected:
  static constexpr char kAll[] =
      " --sample 8 --seed 3 --float --aov normal,depth,position,uv,motion,albedo,samples,lambertian ";

  // The camera goes by one unit to the right, five units before the square.
  void SetUp() override {
    ProgramTest::SetUp();
    WriteScene("resolution 32 16\npose\nposition -1 -5 0\ntarget -1 0 0\nup_vector 0 0 1\nend\n", false);
    WriteFile(root / "scene/light/b.zp",
              "parallel_light\ndirection 0 1 0\naov\ntype \"lambertian\"\nend\nend\n");
  }
  LayeredPicture Read(const std::string& name) const {
    LayeredPicture picture;
    EXPECT_EQ(ReadLayers(work / name, picture), "") << name;
    return picture;
  }
  // Of the first layer's channel at a pixel.
  static float At(const LayeredPicture& picture, const std::string& layer, std::size_t channel, int x,
                  int y) {
    const Layer* found = FindLayer(picture, layer);
    if (found == nullptr) return std::nanf("");
    const PixelWindow& data = picture.data;
    const auto pixel = static_cast<std::size_t>((y - data.top) * data.Width() + x - data.left);
    return found->numbers[pixel * found->channels.size() + channel];
  }
  static void ExpectSame(const LayeredPicture& a, const LayeredPicture& b, float tolerance) {
    ASSERT_EQ(a.layers.size(), b.layers.size());
    for (std::size_t i = 0; i < a.layers.size(); ++i)
      for (std::size_t k = 0; k < a.layers[i].numbers.size(); ++k) {
        const float x = a.layers[i].numbers[k], y = b.layers[i].numbers[k];
        ASSERT_TRUE(x == y || std::fabs(x - y) <= tolerance)
            << a.layers[i].name << ' ' << k << ' ' << x << ' ' << y;
      }
  }
};

TEST_F(FrameLayers, HoldWhatTheCameraSees) {
  const float motion = -16 / std::tan(30 * kPi / 180) / 5;  // pixels
  for (const char* format : {"1", "2"}) {
    const std::string words = "render ../scene --quiet --format " + std::string(format) + kAll;
    ASSERT_EQ(Run(words + "--output a.exr --transparent-sky").status, 0);
    const LayeredPicture picture = Read("a.exr");
    const struct {
      const char* layer;
      std::size_t channel;
      float square, sky;
    } cases[] = {{"", 3, 1, 0},
                 {"", 0, NAN, 0},
                 {"N", 0, 0, 0},
                 {"N", 1, -1, 0},
                 {"Z", 0, 5, HUGE_VALF},
                 {"P", 1, 0, 0},
                 {"motion", 0, motion, 0},
                 {"motion", 1, 0, 0},
                 {"albedo", 1, 0.5f, 0},
                 {"samples", 0, 8, 8},
                 {"uv", 0, 0, 0},
                 {"aov_parallel0", 2, 0.3f, 0}};
    for (const auto& row : cases) {
      const float seen = At(picture, row.layer, row.channel, 27, 8);
      EXPECT_TRUE(std::isnan(row.square) || std::fabs(seen - row.square) < 2e-4f) << row.layer << ' ' << seen;
      EXPECT_EQ(At(picture, row.layer, row.channel, 1, 8), row.sky) << row.layer << format;
    }
    // A pixel that the edge of the square goes through has the depth of the square and a part of its alpha.
    EXPECT_NEAR(At(picture, "Z", 0, 17, 8), 5, 1e-4f);
    EXPECT_GT(At(picture, "", 3, 17, 8), 0);
    EXPECT_LT(At(picture, "", 3, 17, 8), 1);

    ASSERT_EQ(Run(words + "--output b.exr --transparent-sky --region 10,2,30,9").status, 0);
    const LayeredPicture crop = Read("b.exr");
    EXPECT_EQ(crop.data, (PixelWindow{10, 2, 30, 9}));
    EXPECT_EQ(crop.display, picture.display);
    EXPECT_EQ(At(crop, "lambertian", 1, 28, 8), At(picture, "lambertian", 1, 28, 8));

    ASSERT_EQ(Run(words + "--output c.pfm").status, 0);
    EXPECT_EQ(At(Read("c.depth.pfm"), "", 0, 27, 8), At(picture, "Z", 0, 27, 8));
    EXPECT_EQ(At(Read("c.normal.pfm"), "", 1, 27, 8), At(picture, "N", 1, 27, 8));
    EXPECT_NE(At(Read("c.pfm"), "", 0, 1, 8), 0) << "the sky";
  }
}

// Of each layer's colours; the difference of the beauty from the sum of the light groups, at most.
struct Sums {
  std::map<std::string, double> means;
  double error = 0;
};
Sums SumGroups(const LayeredPicture& picture) {
  Sums sums;
  const Layer& beauty = picture.layers[0];
  for (std::size_t pixel = 0; pixel < PixelCount(picture); ++pixel)
    for (std::size_t c = 0; c < 3; ++c) {
      double sum = 0;
      for (const Layer& layer : picture.layers) {
        if (layer.channels.size() < 3) continue;
        const double value = layer.numbers[layer.channels.size() * pixel + c];
        sums.means[layer.name] += value / (3.0 * static_cast<double>(PixelCount(picture)));
        if (layer.name.starts_with("light_")) sum += value;
      }
      const double whole = beauty.numbers[beauty.channels.size() * pixel + c];
      sums.error = std::max(sums.error, std::fabs(sum - whole) / std::max(whole, 0.01));
    }
  return sums;
}

// All kinds of light, with a pane before the square that casts caustics, by photons or without.
class LightGroups : public FrameLayers {
 protected:
  void SetUp() override {
    FrameLayers::SetUp();
    WriteScene("resolution 24 14\n", true);
    WriteFile(root / "scene/model/lamps.obj",
              "v -3 -1 1\nv -2 -1 1\nv -2 -2 1\nv -3 -2 1\nusemtl lamp\nf 1 2 3 4\n"
              "v 3 -3 1\nv 4 -3 1\nv 4 -3 2\nv 3 -3 2\nusemtl bulb\nf 5 6 7 8\n"
              "v -1 -2 -0.5\nv 2 -2 -0.5\nv 2 -1 -0.4\nv -1 -1 -0.4\nusemtl glass\nf 9 10 11 12\n");
    WriteFile(root / "scene/geometry/b.zp", "object\nname lamps\nobj \"model/lamps.obj\"\nend\n");
    WriteFile(root / "scene/shader/b.zp",
              "shader\nname \"lamp\"\ngroup \"lamp\"\nsurface_shader\nvirtual_light\nemissive\ncolor 9 8 7\n"
              "end\nend\nend\n"
              "shader\nname \"bulb\"\nsurface_shader\nemissive\ncolor 2 3 4\nend\nend\nend\n"
              "shader\nname \"glass\"\nsurface_shader\ndielectric\nior\ncolor 1.5 1.5 1.5\nend\n"
              "specular\ncolor 0.9 0.9 0.9\nend\nend\nend\n"
              "shader\nname \"red\"\nsurface_shader\nlambertian\ncolor 0.6 0.5 0.3\nend\nglossy\n"
              "color 0.3 0.3 0.3\nend\nroughness\ncolor 0.3 0.3 0.3\nend\nend\nend\n");
    WriteLights("3 3 3");
  }
  void WriteLights(const std::string& sun, const std::string& photons = "2000") const {
    const std::string photon = "photon " + photons + "\n";
    WriteFile(root / "scene/light/b.zp",
              "sky_light\ncolor 0.3 0.6 1.5\ngroup \"sky\"\n" + photon +
                  "end\nparallel_light\ndirection 0.1 1 -1\ncolor " + sun + "\ngroup \"sun\"\n" + photon +
                  "end\npoint_light\nposition 1 -2 1\ncolor 2 2 2\ngroup \"a.b\"\n" + photon +
                  "end\ngeometry_light\nsample 1\n" + photon + "end\n");
  }
  void WriteRender(const std::string& words, bool gathers) const {
    WriteFile(root / "scene/render/b.zp",
              "render\n" + words + "final_gather\nradius 0.5\n" +
                  (gathers ? "distance 0.1\nresolution 0.04\n" : "distance 0\nresolution 0\n") +
                  "end\nend\n");
  }
  static constexpr char kWords[] = "render ../scene --quiet --threads 1 --seed 5 --sample 6 --float ";
};

TEST_F(LightGroups, AddUpToTheBeauty) {
  for (const bool gathers : {false, true})
    for (const std::string words : {"", "clamp 1.5 1.5 1.5\nclamp_indirect 0.5 0.5 0.5\n"})
      for (const char* format : {"1", "2"}) {
        WriteRender(words, gathers);
        const std::string run = kWords + std::string("--format ") + format;
        ASSERT_EQ(Run(run + " --output a.exr --report a.json --transparent-sky").status, 0);
        const LayeredPicture picture = Read("a.exr");
        const Sums sums = SumGroups(picture);
        EXPECT_LT(sums.error, 1e-5) << gathers << words << format;
        for (const char* name : {"light_sky", "light_sun", "light_a.b", "light_lamp", "light_rest"})
          EXPECT_GT(sums.means.at(name), 1e-4) << name << gathers << format;
        EXPECT_EQ(FindLayer(picture, "light_sun")->kind, LayerKind::kFloat);
        // Who asks changes nothing, in gathering but for the order in which photons are added up.
        ASSERT_EQ(Run(run + " --output b.pfm --transparent-sky").status, 0);
        for (const int x : {0, 7, 12, 20})
          EXPECT_NEAR(At(Read("b.pfm"), "", 1, x, 9), At(picture, "", 1, x, 9), gathers ? 1e-5f : 0.0f);
        if (words.empty() || *format == '1') continue;
        // What limits take is told.
        const auto report = nlohmann::json::parse(ReadFile(work / "a.json"));
        double taken = 0;
        for (const char* limit : {"clamped", "clamped_indirect"})
          for (const double light : report.at(limit).at("taken")) taken += light / 3;
        WriteRender("", gathers);
        ASSERT_EQ(Run(run + " --output c.exr --transparent-sky").status, 0);
        EXPECT_GT(report.at("clamped_indirect").at("samples"), 100);
        EXPECT_NEAR(sums.means.at("") + taken, SumGroups(Read("c.exr")).means.at(""), 1e-5);
      }
}

TEST_F(LightGroups, CanBeWeighedKeptAndMerged) {
  const std::string run = kWords + std::string("--format 2 --aov lights ");
  for (const bool gathers : {false, true}) {
    const float noise = gathers ? 0.02f : 1e-5f;  // of caustics: other photons are the nearest
    const std::string photons = gathers ? "2000" : "0";
    WriteRender("", gathers);
    WriteLights("3 3 3", photons);
    ASSERT_EQ(Run(run + "--output a.exr --denoise-layers").status, 0);
    ASSERT_EQ(Run("image mix a.exr b.exr --light sun=0").status, 0);
    ASSERT_EQ(Run("denoise a.exr d.exr --light-groups").status, 0);
    EXPECT_LT(SumGroups(Read("a.exr")).error, 1e-5) << "of half sets";
    EXPECT_LT(SumGroups(Read("d.exr")).error, 1e-5);
    const LayeredPicture mixed = Read("b.exr");
    EXPECT_EQ(FindLayer(mixed, "half0"), nullptr);
    WriteLights("0 0 0", photons);
    ASSERT_EQ(Run(run + "--output c.exr --denoise-layers").status, 0);
    const LayeredPicture dark = Read("c.exr");
    for (const char* layer : {"", "light_sun", "light_sky", "light_rest"})
      for (std::size_t i = 0; i < FindLayer(dark, layer)->numbers.size(); ++i)
        EXPECT_NEAR(FindLayer(mixed, layer)->numbers[i], FindLayer(dark, layer)->numbers[i], noise) << layer;
  }
  ASSERT_EQ(Run(run + "--output a.exr").status, 0);
  for (const char* passes : {"0:3", "3:6"})
    ASSERT_EQ(Run(run + "--passes " + passes + " --checkpoint " + passes[0] + ".zpc").status, 0);
  ASSERT_EQ(Run("merge b.exr 3.zpc 0.zpc").status, 0);
  ExpectSame(Read("a.exr"), Read("b.exr"), 1e-5f);
  ASSERT_EQ(Run("merge c.zpc 0.zpc").status, 0);
  ASSERT_EQ(Run("render --quiet --resume c.zpc --output d.pfm").status, 0);
  EXPECT_NEAR(At(Read("d.light_a.b.pfm"), "", 1, 20, 9), At(Read("a.exr"), "light_a.b", 1, 20, 9), 1e-5f);
}

TEST_F(FrameLayers, KeepLargeNumbers) {
  WriteFile(root / "scene/model/square.obj",
            "v -9e5 1e5 -9e5\nv 9e5 1e5 -9e5\nv 9e5 1e5 9e5\nv -9e5 1e5 9e5\n"
            "usemtl red\nf 1 2 3 4\n");
  WriteFile(root / "scene/shader/b.zp",
            "shader\nname \"red\"\nsurface_shader\nemissive\ncolor 100000 100000 100000\nend\nend\nend\n");
  for (const bool floats : {false, true}) {
    ASSERT_EQ(Run("render ../scene --quiet --format 2 --sample 2 --aov depth,position,lights --output a.exr" +
                  std::string(floats ? " --float" : ""))
                  .status,
              0);
    const LayeredPicture picture = Read("a.exr");
    EXPECT_EQ(At(picture, "", 0, 9, 8), floats ? 1e5f : 65504.0f);
    EXPECT_EQ(At(picture, "light_rest", 0, 9, 8), 1e5f);
    EXPECT_NEAR(At(picture, "Z", 0, 9, 8), 100005, 0.02);
    EXPECT_NEAR(At(picture, "P", 1, 9, 8), 100000, 0.02);
  }
}

// A catcher's alpha is what a white ground lacks of its light, below a black wall; its picture lies over
// the sky.
TEST_F(FrameLayers, CatchersShowWhatIsDeniedAGround) {
  const auto writeFloor = [&](const std::string& layer, bool hasWall) {
    WriteFile(root / "scene/model/floor.obj", "v -9 -9 -1\nv 9 -9 -1\nv 9 9 -1\nv -9 9 -1\nf 1 2 3 4\n");
    WriteFile(root / "scene/geometry/a.zp",
              "object\nname floor\nobj \"model/floor.obj\"\nshader \"floor\"\nend\n" +
                  std::string(hasWall ? "object\nname wall\nobj \"model/square.obj\"\nend\n" : ""));
    WriteFile(root / "scene/shader/a.zp", "shader\nname \"floor\"\nsurface_shader\n" + layer +
                                              "\nend\nend\nshader\nname \"red\"\nsurface_shader\nend\nend\n");
  };
  WriteFile(root / "scene/light/b.zp",
            "sky_light\ncolor 0.6 0.6 0.6\nend\nparallel_light\ndirection -1 -1 -1\nblur 9\nend\n");
  std::filesystem::remove(root / "scene/light/a.zp");
  const std::string words = "render ../scene --quiet --format 2 --seed 4 --float --sample 64 ";
  const std::string real = "lambertian\ncolor 1 1 1\nend";
  for (const char* mode : {"", "distance 2\nresolution 0.5\n"}) {
    WriteFile(root / "scene/render/a.zp", "render\nfinal_gather\n" + std::string(mode) + "end\nend\n");
    for (const auto& [name, layer, hasWall] :
         {std::tuple("shaded.exr", real, true), {"lit.exr", real, false}}) {
      writeFloor(layer, hasWall);
      ASSERT_EQ(Run(words + "--output " + name).status, 0);
    }
    writeFloor("shadow_catcher", true);
    ASSERT_EQ(Run(words + "--output caught.exr").status, 0);
    ASSERT_EQ(Run(words + "--transparent-sky --output clear.exr --checkpoint whole.zpc").status, 0);
    const LayeredPicture shaded = Read("shaded.exr"), lit = Read("lit.exr"), caught = Read("caught.exr"),
                         clear = Read("clear.exr");
    double difference = 0, most = 0;
    for (int i = 0; i < 48; ++i) {
      const int x = i % 16, y = 13 + i / 16;  // beside the wall
      const float alpha = At(caught, "", 3, x, y);
      const float denied = 1 - At(shaded, "", 1, x, y) / At(lit, "", 1, x, y);
      EXPECT_NEAR(alpha, denied, 0.12f) << mode << x << ' ' << y;
      EXPECT_NEAR(At(caught, "", 2, x, y), (1 - alpha) * 0.6f, 1e-5f);
      EXPECT_EQ(At(clear, "", 2, x, y), 0);
      EXPECT_EQ(At(clear, "", 3, x, y), alpha);
      difference += (alpha - denied) / 48;
      most = std::max<double>(most, alpha);
    }
    EXPECT_NEAR(difference, 0, 0.01);
    EXPECT_GT(most, 0.4);
  }
  for (const char* passes : {"0:24", "24:64"})
    ASSERT_EQ(
        Run(words + "--transparent-sky --passes " + passes + " --checkpoint " + passes[0] + ".zpc").status,
        0);
  ASSERT_EQ(Run("merge merged.exr 0.zpc 2.zpc").status, 0);
  ExpectSame(Read("clear.exr"), Read("merged.exr"), 1e-5f);
}

// What Cryptomatte means by a name's share of a pixel, read apart from what writes it.
float Matte(const LayeredPicture& picture, const std::string& layer, const std::string& name,
            std::size_t pixel) {
  unsigned long id = 0;
  for (const Attribute& attribute : picture.attributes) {
    const auto* text = std::get_if<std::string>(&attribute.value);
    const std::string key = attribute.name.substr(0, attribute.name.rfind('/'));
    if (!attribute.name.ends_with("/name") || text == nullptr || *text != layer) continue;
    const auto& manifest = std::get<std::string>(*FindAttribute(picture, key + "/manifest"));
    const std::size_t at = manifest.find('"' + name + "\":\"");
    if (at != manifest.npos) id = std::stoul(manifest.substr(at + name.size() + 4, 8), nullptr, 16);
  }
  float sum = 0;
  for (const char* rank : {"00", "01", "02"})
    for (const std::size_t first : {4 * pixel, 4 * pixel + 2}) {
      const std::vector<float>& numbers = FindLayer(picture, layer + rank)->numbers;
      if (std::bit_cast<std::uint32_t>(numbers[first]) == id) sum += numbers[first + 1];
    }
  return id == 0 ? NAN : sum;
}

// Faces that shine in the three primaries, before one another, moving and out of focus: the picture is
// coverage.
TEST_F(FrameLayers, MattesAreWhatIsSeen) {
  std::string shaders;
  for (const char* shader : {"red\"|1 0 0", "green\"\nopacity 0.7|0 1 0", "blue\"|0 0 1"}) {
    const std::string text = shader;
    shaders += "shader\nname \"" + text.substr(0, text.find('|')) + "\nsurface_shader\nemissive\ncolor " +
               text.substr(text.find('|') + 1) + "\nend\nend\nend\n";
  }
  WriteFile(root / "scene/shader/a.zp", shaders);
  WriteFile(root / "scene/model/face.obj", "v -1 0 -1\nv 1 0 -1\nv 1 0 1\nv -1 0 1\nf 1 2 3 4\n");
  const std::string model = "obj \"model/face.obj\"\nshader ";
  WriteFile(root / "scene/geometry/a.zp",
            "object\nname a\n" + model + "\"red\"\nend\nobject\nname b\n" + model +
                "\"green\"\nend\nobject\n" + model +
                "\"blue\"\nend\nobject\nname group\n"
                "instance\nobject a\nmatrix 1 0 0 0 0 1 0 -1 0 0 1 0 0 0 0 1\n"
                "matrix_end 1 0 0 1 0 1 0 -1 0 0 1 0.3 0 0 0 1\nend\n"
                "instance\nobject b\nmatrix 1 0 0 -1 0 1 0 -2 0 0 1 0.5 0 0 0 1\nend\nend\n"
                "object\nname scene\ninstance\nobject group\nend\nend\n");
  WriteFile(root / "scene/light/a.zp", "sky_light\ncolor 0 0 0\nend\n");
  std::filesystem::remove(root / "scene/light/b.zp");
  WriteFile(root / "scene/camera/a.zp",
            "camera\nresolution 32 16\npose\nposition 0 -5 0\ntarget 0 0 0\nup_vector 0 0 1\nbokeh 5\n"
            "field_of_view 60\nend\nend\n");
  const std::string words =
      "render ../scene --quiet --format 2 --seed 5 --float --aov object,shader,position ";
  ASSERT_EQ(Run(words + "--sample 64 --aov-nearest --output a.exr").status, 0);
  const LayeredPicture picture = Read("a.exr");
  const std::tuple<const char*, const char*, std::size_t> names[] = {
      {"group/a", "red", 0}, {"group/b", "green", 1}, {"object3", "blue", 2}};
  int mixed = 0;
  for (std::size_t pixel = 0; pixel < 512; ++pixel)
    for (const auto& [object, shader, channel] : names) {
      const float seen = FindLayer(picture, "")->numbers[4 * pixel + channel];
      ASSERT_NEAR(Matte(picture, "object", object, pixel), seen, 1e-5f) << object << pixel;
      ASSERT_NEAR(Matte(picture, "shader", shader, pixel), seen, 1e-5f) << shader << pixel;
      mixed += seen > 0 && seen < 1 ? 1 : 0;
    }
  EXPECT_GT(mixed, 100);
  // One sample is on one face, and those of the face in focus are near the middle of their pixels.
  int sharp = 0;
  for (int i = 0; i < 512; ++i) {
    const int x = i % 32, y = i / 32;
    if (At(picture, "P", 0, x, y) == 0 || At(picture, "P", 1, x, y) != 0)
      continue;  // nothing, or out of focus
    const float place = (static_cast<float>(x) - 15.5f) * 5 * std::tan(30 * kPi / 180) / 16;
    sharp += std::fabs(At(picture, "P", 0, x, y) - place) < 0.03f ? 1 : -100;
  }
  EXPECT_GT(sharp, 3);

  // More names in a pixel than ranks, and than a render keeps; and values of the hash that others tell.
  EXPECT_EQ(IdOf("hello"), 0x248bfa47U);
  EXPECT_EQ(IdOf("The quick brown fox jumps over the lazy dog"), 0x2e4ff723U);
  MatteLists lists;
  lists.Resize(2, 1);
  for (std::uint32_t i = 0; i < 4000; ++i) {
    lists.MakeRoom();
    lists.Count(1, 0, i % 4 == 0 ? 1 + i / 4 % 8 : 100 + i);
  }
  const std::vector<MatteEntry> ranked = lists.Ranked(1, 0);
  EXPECT_EQ(ranked.size(), MatteLists::kMostIds);
  for (std::size_t i = 0; i < 6; ++i) EXPECT_GE(ranked[i].count, 110U) << ranked[i].id;
  EXPECT_TRUE(lists.Ranked(0, 0).empty());
}

TEST_F(FrameLayers, AreKeptSharedAndMerged) {
  const std::string words =
      "render ../scene --quiet --format 2" + std::string(kAll) + "--aov-nearest --aov object ";
  ASSERT_EQ(Run(words + "--output a.exr").status, 0);
  const LayeredPicture whole = Read("a.exr");
  for (const char* passes : {"0:3", "3:8"})
    ASSERT_EQ(Run(words + "--passes " + passes + " --checkpoint " + passes[0] + ".zpc").status, 0);
  ASSERT_EQ(Run("merge b.exr 3.zpc 0.zpc").status, 0);
  ExpectSame(whole, Read("b.exr"), 1e-5f);
  ASSERT_EQ(Run("merge c.zpc 0.zpc").status, 0);
  ASSERT_EQ(Run("render --quiet --resume c.zpc --output d.exr").status, 0);
  ExpectSame(whole, Read("d.exr"), 1e-5f);
  const AttributeValue* passes = FindAttribute(whole, "zephlore:passes");
  ASSERT_NE(passes, nullptr);
  EXPECT_EQ(std::get<std::int32_t>(*passes), 8);
  EXPECT_NE(FindAttribute(whole, "worldToNDC"), nullptr);

  // The half sets are the picture, and what is denoised keeps them and its layers.
  const std::string few =
      "render ../scene --quiet --format 2 --sample 8 --resolution 32x18 --seed 1 --float ";
  ASSERT_EQ(Run(few + "--aov half0,half1 --denoise-layers --output h.exr").status, 0);
  ASSERT_EQ(Run(few + "--denoise --output i.exr").status, 0);
  const LayeredPicture noisy = Read("h.exr"), smooth = Read("i.exr");
  for (const int x : {1, 17, 27}) {
    EXPECT_NEAR(At(noisy, "", 0, x, 8), 0.5f * (At(noisy, "half0", 0, x, 8) + At(noisy, "half1", 0, x, 8)),
                1e-5f);
    EXPECT_EQ(At(noisy, "half1", 0, x, 8), At(smooth, "half1", 0, x, 8));
  }
  EXPECT_NE(FindAttribute(smooth, "zephlore:denoised"), nullptr);
  EXPECT_EQ(Run(few + "--denoise --output i.png").status, 2);

  const std::pair<const char*, const char*> wrong[] = {{"norml", "did you mean 'normal'?"},
                                                       {"depth,shader", "--output FILE.exr is missing"}};
  for (const auto& [word, reason] : wrong) {
    const Outcome outcome = Run("render ../scene --aov " + std::string(word));
    EXPECT_EQ(outcome.status, 2);
    EXPECT_NE(outcome.errors.find(reason), std::string::npos) << outcome.errors;
  }
}

}  // namespace
}  // namespace zp
