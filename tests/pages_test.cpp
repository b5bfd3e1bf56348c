// The hand-written pages know every keyword that the scene reader reads, every message and row that is
// printed, and every word of output images. Whoever adds one tells the page.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "built_files.h"
#include "imaging/imaging.h"
#include "scene/findings.h"
#include "shading/shading.h"
#include "surroundings.h"

namespace zp {
namespace {

namespace fs = std::filesystem;
const fs::path kRoot = kSources;

// The first group of every match.
std::vector<std::string> FindAll(const std::string& text, const std::string& pattern) {
  const std::regex regex(pattern);
  std::vector<std::string> found;
  for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at)
    found.push_back((*at)[1]);
  return found;
}

// A word in backticks, with the quotes of a string or without.
bool Tells(const std::string& page, const std::string& word) {
  return page.find('`' + word + '`') != page.npos || page.find("`\"" + word + "\"`") != page.npos;
}

// What stands under the heading that names `block`, up to the next heading.
std::string SectionOf(const std::string& page, const std::string& block) {
  const std::string name = block == "element" ? "Element blocks" : '`' + block + '`';
  std::size_t heading = page.find("\n##");
  while (heading != page.npos &&
         page.substr(heading, page.find('\n', heading + 1) - heading).find(name) == page.npos)
    heading = page.find("\n##", heading + 1);
  return heading == page.npos ? "" : page.substr(heading, page.find("\n##", heading + 1) - heading);
}

TEST(Pages, CheckTellsEveryFinding) {
  const std::string page = ReadFile(kRoot / "docs/check.md");
  std::string rows;
  for (const FindingRow& row : kFindings)
    rows += std::string(row.word) + " " + std::string(SeverityWord(row.severity)) + "\n";
  std::string told;
  for (const std::string& row : FindAll(page, "\\| (`[a-z-]+` \\| (?:error|warning|note)) \\|"))
    told += row.substr(1, row.find('`', 1) - 1) + row.substr(row.rfind(' ')) + "\n";
  EXPECT_EQ(told, rows);
}

// The third column of the table of folders.
TEST(Pages, ArchitectureTellsWhichHeadersOthersInclude) {
  const std::string page = ReadFile(kRoot / "docs/architecture.md");
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(kRoot / "src"))
    for (const fs::path header :
         FindAll(entry.is_directory() ? "" : ReadFile(entry.path()), "\n#include \"(\\w+/\\w+\\.h)\"")) {
      const std::string folder = header.parent_path(), file = header.filename();
      if (folder == "core" || folder == entry.path().parent_path().filename()) continue;
      EXPECT_FALSE(FindAll(page, "\n(\\| `" + folder + "` \\|.*`" + file + "`)").empty()) << header;
    }
}

TEST(Pages, SceneFormatTellsEveryKeywordUnderItsBlock) {
  const std::string page = ReadFile(kRoot / "docs/scene-format.md");
  int blocks = 0, words = 0;
  for (const fs::directory_entry& entry : fs::directory_iterator(kRoot / "src/scene")) {
    const std::string name = entry.path().filename().string();
    if (!name.ends_with("_block.cpp") && name != "scene_folder.cpp" && name != "fur_reader.cpp") continue;
    const std::string source = ReadFile(entry.path());
    for (const std::string& word :
         FindAll(source, "(?:keyword == \"|\\{\"(?=[a-z_]+\", [A-Z]))([a-z_]+)\"")) {
      EXPECT_TRUE(Tells(page, word)) << word << " of " << name;
      ++words;
    }
    // From the line that opens a block to the end of its handler.
    for (std::size_t at = source.find("ReadBlock(text, "); at != source.npos;
         at = source.find("ReadBlock(text, ", at + 1)) {
      const std::string body = source.substr(at, source.find("\n  });", at) - at);
      const std::vector<std::string> names = FindAll(body, "^ReadBlock\\(text, \"([a-z_]+)\"");
      const std::string block = names.empty() ? "element" : names[0], section = SectionOf(page, block);
      ASSERT_FALSE(section.empty()) << "no heading for " << block;
      for (const std::string& word : FindAll(body, "keyword == \"([a-z_]+)\""))
        EXPECT_TRUE(Tells(section, word)) << word << " of " << block;
      ++blocks;
    }
  }
  EXPECT_GE(blocks, 15);
  EXPECT_GE(words, 100);
  const std::string elements = SectionOf(page, "surface_shader");
  for (const ElementRow& row : kElements)
    EXPECT_TRUE(row.keyword.empty() || Tells(elements, std::string(row.keyword))) << row.keyword;
}

TEST(Pages, ConsoleTellsEveryMessageAndRow) {
  std::vector<std::string> lines;
  std::istringstream page(ReadFile(kRoot / "docs/console.md"));
  for (std::string line; std::getline(page, line);) lines.push_back(line);
  int messages = 0;
  for (const char* folder : {"src", "app"})
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(kRoot / folder)) {
      if (entry.path().extension() != ".cpp" || entry.path().filename() == "console.cpp") continue;
      const std::string source = ReadFile(entry.path());
      // The fixed parts of each message stand in one line of the page.
      for (const std::string& call : FindAll(
               source, "\\b(?:Print(?:Error|Warning|Line|Lights|\\w*Row)|row|Fail)\\(([^;]*\"[^;]*)\\);")) {
        const std::vector<std::string> parts =
            FindAll(std::regex_replace(call, std::regex("\\\\[tn]| +(?=\")|(\") +"), "$1"), "\"([^\"]*)\"");
        const auto tells = [&](const std::string& line) {
          return std::all_of(parts.begin(), parts.end(),
                             [&](const std::string& part) { return line.find(part) != line.npos; });
        };
        EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), tells)) << entry.path() << ": " << call;
        ++messages;
      }
    }
  EXPECT_GE(messages, 70);
}

TEST(Pages, AovGuideTellsEveryChannel) {
  const std::string page = ReadFile(kRoot / "docs/aov-guide.md");
  for (const ChannelWord& row : kChannelWords)
    EXPECT_NE(page.find("| " + std::to_string(row.channel) + " | `" + std::string(row.word) + "` |"),
              page.npos)
        << row.word;
}

}  // namespace
}  // namespace zp
