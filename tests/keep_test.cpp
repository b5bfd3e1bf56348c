// Frames that end before their time, and go on.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "program_fixture.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

class Keeping : public ProgramTest {
 protected:
  static constexpr char kPasses[] = "300";
  const std::vector<std::string> images = {"a.pfm", "depth.pfm", "sky.pfm", "samples.pfm"};

  void SetUp() override {
    ProgramTest::SetUp();
    WriteScene(
        "resolution 64 32\naov\nimage \"depth.pfm\"\ntype \"depth\"\nend\n"
        "aov\nimage \"samples.pfm\"\ntype \"samples\"\nend\n",
        true);
    WriteFile(root / "scene/light/b.zp", "sky_light\ncolor 1 1 1\naov\nimage \"sky.pfm\"\nend\nend\n");
  }

  std::vector<std::string> Pictures() const {
    std::vector<std::string> bytes;
    for (const std::string& image : images) bytes.push_back(ReadFile(work / image));
    return bytes;
  }
  static std::string Begin(const std::string& format) {
    return "render ../scene --quiet --seed 5 --threads 2 --output a.pfm --sample " + std::string(kPasses) +
           " --format " + format;
  }
};

// Killed at once or told to stop, early or late, a frame is its checkpoint's, and ends as if nothing had
// been.
TEST_F(Keeping, ResumedFramesAreThoseOfOneRun) {
  for (const std::string format : {"1", "2", "2 --noise 0.004"}) {
    ASSERT_EQ(Run(Begin(format)).status, 0);
    const std::vector<std::string> whole = Pictures();
    const std::string counts = whole.back().substr(whole.back().size() - 64 * 32 * 12);
    const bool rested = counts != std::string(counts, 0, 12) + counts.substr(0, counts.size() - 12);
    EXPECT_EQ(rested, format.size() > 1) << "tiles have passes of their own";
    for (const std::string& image : images) fs::remove(work / image);
    std::string arguments = Begin(format) + " --checkpoint c.zpc";
    for (const int signal : {SIGKILL, SIGTERM, SIGINT}) {
      const std::string before = ReadFile(work / "c.zpc");
      Child child("'" + std::string(kProgram) + "' " + arguments + " --save-every 0.02", work);
      EXPECT_TRUE(Await([&] { return child.Ended() || ReadFile(work / "c.zpc") != before; }));
      child.Send(signal);
      EXPECT_NE(child.ExitStatus(), 0) << child.Errors();
      arguments = "render --quiet --resume c.zpc --threads 1";
    }
    for (const std::string& image : images) EXPECT_TRUE(fs::exists(work / image)) << image;
    EXPECT_EQ(Run(arguments).status, 0);
    EXPECT_EQ(Pictures(), whole) << format;
    fs::remove(work / images[1]);
    EXPECT_EQ(Run(arguments).status, 0) << "the finished one is written again";
    EXPECT_EQ(Pictures(), whole) << format;
    fs::remove(work / "c.zpc");
  }
}

TEST_F(Keeping, WhatWouldChangePassesIsRefusedByName) {
  for (const std::string format : {"1", "2"}) {
    ASSERT_EQ(Run(Begin(format) + " --checkpoint c.zpc --time 0").status, 0);
    const std::string kept = ReadFile(work / "c.zpc");
    const auto expectRefusal = [&](const std::string& arguments, const std::string& reason) {
      const Outcome outcome = Run("render --quiet --resume c.zpc --checkpoint d.zpc --time 0 " + arguments);
      EXPECT_EQ(outcome.status, 1) << arguments << reason;
      EXPECT_NE(outcome.errors.find(reason), std::string::npos) << outcome.errors;
      EXPECT_FALSE(fs::exists(work / "d.zpc"));
    };
    expectRefusal("--seed 6", "--seed is not");
    expectRefusal("--resolution 64x33", "--resolution is not");
    expectRefusal("--noise 0.1", "--noise is not");
    expectRefusal("--region 0,0,4,4", "--region is not");
    expectRefusal(format == "1" ? "--format 2" : "--format 1", "--format is not");
    if (format == "1")
      expectRefusal("--sample 400", "--sample is not");
    else
      EXPECT_EQ(Run("render --quiet --resume c.zpc --time 0 --sample 400").status, 0);
    WriteFile(work / "c.zpc", kept);

    const std::string model = ReadFile(root / "scene/model/square.obj");
    WriteFile(root / "scene/model/square.obj", model + "# another\n");
    expectRefusal("", "'model/square.obj' is not what it was");
    WriteFile(root / "scene/model/square.obj", model);
    WriteFile(root / "scene/light/c.zp", "");
    expectRefusal("", "'light/c.zp' is not what it was");
    fs::remove(root / "scene/light/c.zp");

    for (std::size_t i = 0; i < kept.size(); i += 1 + kept.size() / 12) {
      // Of single bits some hold nothing: the window's size, what pads a stream.
      std::string damaged = kept;
      for (std::size_t k = i; k < std::min(i + 16, kept.size()); ++k)
        damaged[k] = static_cast<char>(damaged[k] ^ 0x24);
      WriteFile(work / "c.zpc", damaged);
      expectRefusal("", i < 20 ? "is no checkpoint" : i < 24 ? "is of version" : "cannot resume: ");
      WriteFile(work / "c.zpc", kept.substr(0, i));
      expectRefusal("", i < 20 ? "is no checkpoint" : "is damaged");
    }
    WriteFile(work / "c.zpc", kept);
  }
  EXPECT_EQ(Run("render ../scene --camera all --checkpoint c.zpc").status, 2);
  EXPECT_EQ(Run("render --resume missing.zpc").status, 1);
  EXPECT_EQ(Run("render ../scene --checkpoint missing/c.zpc --quiet").status, 1);
  for (const char* time : {"", "x", "1m1h", "5 s", "-1", "1h5"})
    EXPECT_EQ(Run("render ../scene --time '" + std::string(time) + "'").status, 2) << time;
  for (const char* noise : {"x", "-0.1", "nan"})
    EXPECT_EQ(Run("render ../scene --noise " + std::string(noise)).status, 2) << noise;
}

// Merged in any order, or by twos, parts are the frame, but for the rounding of its sums; a merge of its
// beginning goes on as a render.
TEST_F(Keeping, PartsMakeTheFrame) {
  for (const std::string format : {"1", "2"}) {
    const std::string begin = "render ../scene --quiet --sample 30 --format " + format;
    ASSERT_EQ(Run(begin + " --seed 5 --output a.pfm").status, 0);
    std::vector<ImageBuffer> whole(images.size()), merged(images.size());
    for (std::size_t i = 0; i < images.size(); ++i) {
      whole[i].allowPacked = merged[i].allowPacked = false;
      ASSERT_TRUE(LoadImage(whole[i], work / images[i]));
    }
    for (const std::string& image : images) fs::remove(work / image);
    const auto render = [&](const std::string& passes, const std::string& file,
                            const std::string& seed = "5") {
      EXPECT_EQ(Run(begin + " --passes " + passes + " --checkpoint " + file + " --seed " + seed).status, 0);
    };
    render("0:10", "a.zpc");
    render("10:21", "b.zpc");
    render("21:30", "c.zpc");
    EXPECT_FALSE(fs::exists(work / images[1])) << "parts have no images";
    ASSERT_EQ(Run("merge a.pfm c.zpc a.zpc b.zpc").status, 0);
    const std::vector<std::string> bytes = Pictures();
    for (std::size_t i = 0; i < images.size(); ++i) {
      ASSERT_TRUE(LoadImage(merged[i], work / images[i]));
      for (std::size_t k = 0; k < whole[i].floatPixels.size(); ++k)
        ASSERT_NEAR(merged[i].floatPixels[k], whole[i].floatPixels[k], 2e-5f) << images[i];
    }
    EXPECT_EQ(Run("merge e.zpc c.zpc a.zpc").status, 0);
    EXPECT_EQ(Run("merge a.pfm b.zpc e.zpc").status, 0);
    EXPECT_EQ(Pictures(), bytes) << "of a tree";
    EXPECT_EQ(Run("merge d.zpc b.zpc a.zpc").status, 0);
    EXPECT_EQ(Run("render --resume d.zpc --quiet --output a.pfm").status, 0);
    ASSERT_TRUE(LoadImage(merged[0], work / images[0]));
    EXPECT_NEAR(merged[0].floatPixels[0], whole[0].floatPixels[0], 2e-5f);

    render("10:21", "seed.zpc", "6");
    const std::string sound = ReadFile(work / "b.zpc");
    WriteFile(work / "damaged.zpc", sound.substr(0, sound.size() - 9));
    WriteFile(root / "scene/light/c.zp", "");
    render("10:21", "scene.zpc");
    fs::remove(root / "scene/light/c.zp");
    const std::pair<const char*, const char*> refusals[] = {
        {"out.pfm a.zpc c.zpc", "passes 10:21 are missing"},
        {"out.pfm a.zpc a.zpc", "'a.zpc' and 'a.zpc' both hold passes 0:10"},
        {"out.pfm a.zpc e.zpc", "both hold passes 0:10"},
        {"out.pfm a.zpc seed.zpc c.zpc", "'seed.zpc' is of another render than 'a.zpc': --seed 6"},
        {"out.pfm a.zpc scene.zpc c.zpc", "the scene's 'light/c.zp'"},
        {"out.pfm a.zpc damaged.zpc c.zpc", "'damaged.zpc' is damaged"},
        {"a.zpc b.zpc", "'a.zpc' is a part and no merge"}};
    for (const auto& [words, reason] : refusals) {
      const Outcome outcome = Run("merge " + std::string(words));
      EXPECT_EQ(outcome.status, 1) << words;
      EXPECT_NE(outcome.errors.find(reason), std::string::npos) << outcome.errors;
    }
    EXPECT_FALSE(fs::exists(work / "out.pfm"));
    EXPECT_EQ(Run("merge b.pfm --partial c.zpc a.zpc").status, 0);
    EXPECT_EQ(Run("render --quiet --resume e.zpc").status, 1) << "it has a gap";
    for (const fs::directory_entry& file : fs::directory_iterator(work)) fs::remove(file);
  }
  for (const char* words : {"--passes 1:1 --seed 5", "--passes 0:8", "--passes 0:9 --sample 8 --seed 5"})
    EXPECT_EQ(Run("render ../scene --checkpoint a.zpc " + std::string(words)).status, 2) << words;
}

// The passes that a limit of time leaves are those of a render that was asked for as many.
TEST_F(Keeping, TimeEndsAFrameBehindAPass) {
  const Outcome outcome = Run("render ../scene --format 2 --seed 5 --output a.pfm --time 0.2s --progress");
  ASSERT_EQ(outcome.status, 0);
  const std::vector<std::string> timed = Pictures();
  const std::string last = outcome.errors.substr(outcome.errors.rfind("pass "));
  const std::string passes = last.substr(5, last.find(' ', 5) - 5);
  EXPECT_EQ(Run("render ../scene --format 2 --quiet --seed 5 --output a.pfm --sample " + passes).status, 0);
  EXPECT_EQ(Pictures()[0], timed[0]) << passes;
}

}  // namespace
}  // namespace zp
