// What a render tells to programs: lines of JSON, and its report.

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "program_fixture.h"

namespace zp {
namespace {

using Json = nlohmann::json;

class Watching : public ProgramTest {
 protected:
  static constexpr char kRender[] = "render ../scene --quiet --output a.pfm --report r.json --progress=json ";

  void SetUp() override {
    ProgramTest::SetUp();
    WriteScene("resolution 64 32\nsample 20\n", true);
  }
  Json Report() const { return Json::parse(ReadFile(work / "r.json")); }
  // Every line of the error stream; throws where one is no JSON.
  static std::vector<Json> Lines(const std::string& errors) {
    std::vector<Json> lines;
    std::istringstream text(errors);
    for (std::string line; std::getline(text, line);) lines.push_back(Json::parse(line));
    return lines;
  }
};

TEST_F(Watching, LinesAndReportTellOfAWholeRender) {
  WriteFile(root / "scene/render/b.zp", "render\nclamp 0.5 0.5 0.5\nend\n");
  WriteFile(root / "scene/light/b.zp", "sky_light\ncolor 1 1 1\nimage \"lost.hdr\"\nend\n");
  const Outcome outcome = Run(std::string(kRender) + "--save-every 0.001 --format 2 --threads 2");
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  std::vector<std::string> phases;
  double elapsed = 0;
  for (const Json& line : Lines(outcome.errors)) {
    if (line.at("type") == "message") {
      EXPECT_EQ(line.at("code"), "image-unread");
      EXPECT_EQ(line.at("file"), "lost.hdr");
      continue;
    }
    if (phases.empty() || phases.back() != line.at("phase")) phases.push_back(line.at("phase"));
    EXPECT_LE(line.at("done"), line.at("total"));
    EXPECT_GE(line.at("elapsed_s"), elapsed);
    EXPECT_GT(line.at("memory_bytes"), 1'000'000);
    elapsed = line.at("elapsed_s");
  }
  for (const char* phase : {"reading", "building", "casting", "passes", "writing"})
    EXPECT_EQ(std::count(phases.begin(), phases.end(), phase) > 0, true) << phase;
  EXPECT_EQ(phases.back(), "writing");

  const Json report = Report();
  EXPECT_EQ(report.at("status"), 0);
  EXPECT_TRUE(report.at("failure").is_null());
  EXPECT_EQ(report.at("passes"), 20);
  EXPECT_GT(report.at("rays"), 64 * 32 * 20);
  EXPECT_EQ(report.at("files_written"), Json::array({"a.pfm"}));
  EXPECT_EQ(report.at("warnings").at(0).at("code"), "image-unread");
  // The sky is above the limit wherever it is seen, from the first pixel on; nothing else is as bright.
  EXPECT_EQ(report.at("not_a_number").at("samples"), 0);
  EXPECT_GE(report.at("clamped").at("samples"), 64 / 2 * 10 * 20);
  EXPECT_EQ(report.at("clamped").at("pixels").size(), 16U);
  EXPECT_EQ(report.at("clamped").at("pixels").at(1), Json::array({1, 0}));
  // The drawn seed repeats the picture; another text is another scene.
  const std::string picture = ReadFile(work / "a.pfm");
  EXPECT_EQ(Run(std::string(kRender) + "--format 2 --threads 1 --seed " + report.at("seed").dump()).status,
            0);
  EXPECT_EQ(ReadFile(work / "a.pfm"), picture);
  EXPECT_EQ(Report().at("scene").at("hash"), report.at("scene").at("hash"));
  EXPECT_EQ(Report().at("clamped"), report.at("clamped"));
  WriteFile(root / "scene/render/c.zp", "");
  Run(std::string(kRender) + "--format 2 --sample 1");
  EXPECT_NE(Report().at("scene").at("hash"), report.at("scene").at("hash"));
}

// What it sends out and reflects are finite; their sum is not.
TEST_F(Watching, SamplesThatAreNoNumbersAreCounted) {
  WriteFile(root / "scene/light/b.zp", "sky_light\ncolor 3e38 1 1\nend\n");
  WriteFile(root / "scene/shader/b.zp",
            "shader\nname \"red\"\nsurface_shader\nlambertian\ncolor 0.9 0.9 "
            "0.9\nend\nemissive\ncolor 3e38 1 1\nend\nend\nend\n");
  ASSERT_EQ(Run(std::string(kRender) + "--sample 2 --threads 2").status, 0);
  const Json odd = Report().at("not_a_number");
  EXPECT_GE(odd.at("samples"), 2 * 16);
  EXPECT_EQ(odd.at("pixels").at(0).at(1), 0) << odd;
}

// However a run ends, its report and the last line of JSON say why.
TEST_F(Watching, FailuresAreReported) {
  std::filesystem::create_directories(work / "folder.hdr");
  WriteFile(root / "other/render/a.zp", "render\nend\n");
  for (const auto& [arguments, status, code] : {std::tuple{"render ../missing", 1, "failed"},
                                                {"render ../other", 1, "failed"},
                                                {"render ../scene --output folder.hdr", 1, "failed"},
                                                {"render ../scene --colour 3", 2, "usage"},
                                                {"render ../scene --sample 0", 2, "usage"},
                                                {"render ../other --strict", 1, "scene-errors"}}) {
    std::filesystem::remove(work / "r.json");
    const Outcome outcome = Run(std::string(arguments) + " --quiet --report=r.json --progress=json");
    EXPECT_EQ(outcome.status, status) << arguments;
    const std::vector<Json> lines = Lines(outcome.errors);
    ASSERT_FALSE(lines.empty()) << arguments;
    EXPECT_EQ(lines.back().at("severity"), "fatal") << arguments;
    EXPECT_EQ(lines.back().at("code"), code) << lines.back();
    EXPECT_EQ(Report().at("failure").at("text"), lines.back().at("text"));
    EXPECT_EQ(Report().at("status"), status);
  }
  EXPECT_EQ(Run("render ../scene --report missing/r.json").status, 1);
  EXPECT_EQ(Run("render ../scene --progress=xml").status, 2);
}

TEST_F(Watching, StopsAreReported) {
  for (const bool twice : {false, true}) {
    Child child("'" + std::string(kProgram) + "' " + kRender + "--sample 65535", work);
    EXPECT_TRUE(Await([&] { return child.Errors().find("\"passes\",\"done\":1") != std::string::npos; }));
    child.Send(SIGINT);
    if (twice) child.Send(SIGTERM);
    const int status = child.ExitStatus();
    const std::vector<Json> lines = Lines(child.Errors());
    EXPECT_EQ(Report().at("failure").at("text"), lines.back().at("text"));
    if (twice) continue;  // which of the two ends it is a matter of chance
    EXPECT_EQ(status, 1);
    EXPECT_EQ(lines.back().at("code"), "stopped");
    EXPECT_GT(Report().at("passes"), 0);
    EXPECT_EQ(Report().at("files_written"), Json::array({"a.pfm"}));
  }
}

}  // namespace
}  // namespace zp
