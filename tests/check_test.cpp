// `zephlore check`: every kind of mistake is found where it stands, and sound scenes are silent.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "built_files.h"
#include "surroundings.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

const fs::path kCases = fs::path(kSources) / "tests/check";

class Check : public testing::Test {
 protected:
  // The lines of the report; paths count from the scene folder. Sets the exit status.
  std::vector<std::string> Run(const fs::path& scene) {
    const std::string command =
        "cd '" + root.string() + "' && '" + kProgram + "' check '" + scene.string() + "' >out 2>err";
    const int raw = std::system(command.c_str());
    status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    std::ifstream file(root / "out");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
      lines.push_back(line.starts_with("scene/") ? line.substr(6) : line);
    return lines;
  }

  const TemporaryFolder own;
  const fs::path root = own.path;
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
    const fs::path scene = root / "scene";
    fs::remove_all(scene);
    for (const fs::path& layer : {kCases / "common", test.path()})
      for (const fs::directory_entry& file : fs::recursive_directory_iterator(layer))
        if (const fs::path inside = fs::relative(file.path(), layer); file.is_regular_file())
          CopyText(file.path(), scene / inside, inside.string(), remarks);
    fs::remove(scene / "expected.txt");

    std::vector<std::string> lines = Run("scene");
    for (const auto& [file, beginnings] : remarks)
      for (const std::string& beginning : beginnings) {
        EXPECT_TRUE(!lines.empty() && lines[0].starts_with(beginning)) << beginning;
        if (!lines.empty()) lines.erase(lines.begin());
      }
    EXPECT_EQ(lines, std::vector<std::string>{sum});
    EXPECT_EQ(status, sum.starts_with("0 errors") ? 0 : 1);
    EXPECT_FALSE(fs::exists(root / "b.pfm") || fs::exists(scene / "b.pfm"));  // nothing is written
  }
  EXPECT_GE(count, 8);
}

TEST_F(Check, ShippedScenesAreSilent) {
  for (const fs::directory_entry& scene : fs::directory_iterator(fs::path(kSources) / "scenes")) {
    if (!fs::is_directory(scene.path() / "camera")) continue;
    EXPECT_EQ(Run(scene.path()), std::vector<std::string>{"0 errors, 0 warnings"}) << scene;
    EXPECT_EQ(status, 0) << scene;
  }
}

TEST_F(Check, ScenesThatAreNotThere) {
  EXPECT_TRUE(Run("missing").empty());
  EXPECT_EQ(status, 1);
  fs::create_directories(root / "empty");
  EXPECT_EQ(Run("empty"),
            (std::vector<std::string>{"empty/camera:0: error: there is no camera", "1 error, 0 warnings"}));
  EXPECT_EQ(status, 1);
}

}  // namespace
}  // namespace zp
