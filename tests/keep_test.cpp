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
