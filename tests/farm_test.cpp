// Frames in parts by jobs, which stand-ins for Slurm's commands run at once.

#include <gtest/gtest.h>

#include "program_fixture.h"

namespace zp {
namespace {

namespace fs = std::filesystem;

class Farm : public ProgramTest {
 protected:
  void SetUp() override {
    ProgramTest::SetUp();
    WriteScene("resolution 32 16\nsample 10\n", true);
    fs::rename(root / "scene", root / "it's a \"scene\"");
    WriteTool("sbatch",
              "for word; do case $word in --chdir=*) folder=${word#--chdir=};; esac; done\n"
              "cd \"$folder\" || exit 1\n"
              "case $word in */part.sh) echo 12; for i in 0 1 2; do\n"
              "SLURM_ARRAY_TASK_ID=$i sh \"$word\" >>part-$i.log 2>&1; done; true;;\n"
              "*) echo 13; if [ \"$(cat state-[0-2] | sort -u)\" = done ]; then sh \"$word\"; fi >>merge.log "
              "2>&1;;\n"
              "esac\n");
    WriteTool("squeue", "");
  }
  void WriteTool(const char* name, const std::string& text) const {
    fs::create_directories(root / "tools");
    WriteFile(root / "tools" / name, "#!/bin/sh\n" + text);
    fs::permissions(root / "tools" / name, fs::perms::owner_all);
  }
  Outcome RunWithTools(const std::string& arguments) const {
    const std::string path = (root / "tools").string() + ":/usr/bin:/bin";
    Child child("env PATH='" + path + "' '" + std::string(kProgram) + "' " + arguments, work);
    const int status = child.ExitStatus();
    return {status, child.Output(), child.Errors()};
  }
};

TEST_F(Farm, RendersWhatOneRenderDoes) {
  const std::string scene = R"('../it'\''s a "scene"' )", name = "$HOME's %a \"look\".pfm";
  const std::string words = "farm " + scene + R"(--wait --output '$HOME'\''s %a "look".pfm' )";
  ASSERT_EQ(Run("render " + scene + "--seed 5 --quiet --output one.pfm").status, 0);
  const Outcome outcome = RunWithTools(words + "--parts 3 --seed 5");
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_NE(outcome.output.find("3 parts are job 12, their merge is job 13"), std::string::npos);
  ImageBuffer one, merged;
  one.allowPacked = merged.allowPacked = false;
  ASSERT_TRUE(LoadImage(one, work / "one.pfm") && LoadImage(merged, work / name));
  for (std::size_t i = 0; i < one.floatPixels.size(); ++i)
    ASSERT_NEAR(one.floatPixels[i], merged.floatPixels[i], 1e-5f);

  // The same words go on with the parts, which the scene's new text does not fit.
  EXPECT_EQ(RunWithTools(words + "--parts 3").status, 0);
  WriteFile(root / "it's a \"scene\"/light/c.zp", "");
  const Outcome changed = RunWithTools(words + "--parts 3");
  EXPECT_EQ(changed.status, 1);
  EXPECT_NE(changed.errors.find("part 0 has failed: cannot resume"), std::string::npos) << changed.errors;
  EXPECT_EQ(ReadFile(work / (name + ".farm/failures-0")), "4\n");
  EXPECT_EQ(RunWithTools(words + "--parts 3 --seed 6").status, 1) << "the folder is another's";
  EXPECT_EQ(RunWithTools(words + "--parts 11").status, 1) << "of ten passes";
}

}  // namespace
}  // namespace zp
