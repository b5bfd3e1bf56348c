// `zephlore check`: every kind of mistake is found where it stands, and sound scenes are silent.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "program_fixture.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

const fs::path kCases = fs::path(kSources) / "tests/check";

class Check : public ProgramTest {
 protected:
  // The lines of the report; paths count from the scene folder. Sets the exit status.
  std::vector<std::string> Run(const fs::path& scene, const std::string& option = "") {
    const Outcome outcome = ProgramTest::Run("check " + option + " '" + scene.string() + "'");
    status = outcome.status;
    std::istringstream rows(outcome.output);
    std::vector<std::string> lines;
    for (std::string line; std::getline(rows, line);)
      lines.push_back(line.starts_with("scene/") ? line.substr(6) : line);
    return lines;
  }

  // The same findings in the other form, whatever bytes the text holds.
  void ExpectJson(const fs::path& scene, const std::vector<std::string>& lines) {
    const std::vector<std::string> objects = Run(scene, "--json");
    ASSERT_EQ(objects.size() + 1, lines.size());
    for (std::size_t i = 0; i < objects.size(); ++i) {
      const auto object = nlohmann::json::parse(objects[i]);
      const std::string text = object["file"].get<std::string>().substr(6) + ":" +
                               std::to_string(object["line"].get<int>()) + ": " +
                               object["severity"].get<std::string>() + ": ";
      EXPECT_TRUE(lines[i].starts_with(text) && object["code"].is_string() && object["text"].is_string())
          << lines[i] << objects[i];
      const bool suggests =
          lines[i].find("did you mean") != text.npos || lines[i].find("; write") != text.npos;
      EXPECT_EQ(object["suggestion"].get<std::string>().empty(), !suggests) << lines[i] << objects[i];
    }
  }

  int status = -1;
};

// What must be said of a scene, in the order of the report, by file.
using Remarks = std::map<std::string, std::vector<std::string>>;

// Copies a file of text without its remarks: they follow their line, each behind a '~'.
void CopyText(const fs::path& from, const fs::path& to, const std::string& name, Remarks& remarks) {
  fs::create_directories(to.parent_path());
  std::ofstream file(to, std::ios::binary);
  std::istringstream lines(ReadFile(from));
  int number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    std::istringstream parts(line);
    std::getline(parts, line, '~');
    file << line << (lines.eof() ? "" : "\n");
    for (std::string part; std::getline(parts, part, '~');)
      remarks[name].push_back(name + ":" + std::to_string(number) + ": " + part);
  }
}

// What is too long to be kept: a chain of objects, the last of too many parts, and a model of many faces.
void WriteLongFiles(const fs::path& scene, bool withChain) {
  std::ofstream faces(scene / "model/faces.obj");
  faces << ReadFile(scene / "model/square.obj");
  for (int i = 1; i < 700; ++i) faces << "f 1 2 3 4\n";
  if (!withChain) return;
  std::ofstream chain(scene / "geometry/chain.zp");
  for (int i = 0; i < 18; ++i)
    chain << "object\n name level" << i << "\n instance\n  object level" << i + 1 << "\n end\nend\n";
  chain << "object\n name level18\n";
  for (int i = 0; i < 65536; ++i) chain << " particle_texture \"\"\n";
  chain << "end\n";
}

// Each folder of tests/check is laid over the common scene. Its expected.txt tells the remarks that no line
// of text can carry, and at last the sum.
TEST_F(Check, MistakesAreFoundWhereTheyStand) {
  int count = 0;
  for (const fs::directory_entry& test : fs::directory_iterator(kCases)) {
    const std::string name = test.path().filename().string();
    if (name == "common") continue;
    SCOPED_TRACE(name);
    ++count;
    std::istringstream expected(ReadFile(test.path() / "expected.txt"));
    Remarks remarks;
    std::string sum;
    for (std::string line; std::getline(expected, line); sum = line)
      if (const std::size_t colon = line.find(':'); colon != line.npos)
        remarks[line.substr(0, colon)].push_back(line);
    const fs::path scene = work / "scene";
    fs::remove_all(scene);
    for (const fs::path& layer : {kCases / "common", test.path()})
      for (const fs::directory_entry& file : fs::recursive_directory_iterator(layer))
        if (const fs::path inside = fs::relative(file.path(), layer); file.is_regular_file())
          CopyText(file.path(), scene / inside, inside.string(), remarks);
    fs::remove(scene / "expected.txt");
    WriteLongFiles(scene, name == "models");

    std::vector<std::string> beginnings;
    for (const auto& [file, ofFile] : remarks)
      beginnings.insert(beginnings.end(), ofFile.begin(), ofFile.end());
    beginnings.push_back(sum);
    const std::vector<std::string> lines = Run("scene");
    std::vector<std::string> compared = lines;  // cut where they begin as they should
    for (std::size_t i = 0; i + 1 < std::min(lines.size(), beginnings.size()); ++i)
      if (lines[i].starts_with(beginnings[i])) compared[i] = beginnings[i];
    EXPECT_EQ(compared, beginnings);
    EXPECT_EQ(status, sum.starts_with("0 errors") ? 0 : 1);
    EXPECT_FALSE(fs::exists(work / "b.pfm") || fs::exists(scene / "b.pfm"));  // nothing is written
    ExpectJson("scene", lines);
  }
  EXPECT_GE(count, 12);
}

// But for one of format 1, of which every remark names the cure.
TEST_F(Check, ShippedScenesAreSilent) {
  for (const fs::directory_entry& scene : fs::directory_iterator(fs::path(kSources) / "scenes")) {
    if (!fs::is_directory(scene.path() / "camera")) continue;
    const std::vector<std::string> lines = Run(scene.path());
    const bool old = scene.path().filename() == "relief";
    EXPECT_EQ(lines.back(), old ? "0 errors, 2 warnings" : "0 errors, 0 warnings") << scene;
    for (std::size_t i = 0; i + 1 < lines.size(); ++i)
      EXPECT_TRUE(lines[i].ends_with("; write \"format 2\"")) << lines[i];
    EXPECT_EQ(status, 0) << scene;
  }
}

TEST_F(Check, ScenesThatAreNotThere) {
  EXPECT_TRUE(Run("missing").empty());
  EXPECT_EQ(status, 1);
  fs::create_directories(work / "empty");
  EXPECT_EQ(Run("empty"),
            (std::vector<std::string>{"empty/camera:0: error: there is no camera", "1 error, 0 warnings"}));
  EXPECT_EQ(status, 1);
}

}  // namespace
}  // namespace zp
