// What is installed beside the program tells the truth about it.

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "built_files.h"
#include "surroundings.h"

namespace zp {
namespace {

// The words of small letters and hyphens that follow `mark` in the text.
std::set<std::string> WordsBehind(const std::string& text, const std::string& mark) {
  std::set<std::string> words;
  for (std::size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at)) {
    at += mark.size();
    const std::size_t end = text.find_first_not_of("abcdefghijklmnopqrstuvwxyz-", at);
    if (end != at) words.insert(text.substr(at, end - at));
  }
  return words;
}

TEST(Manual, ExplainsEveryCommandAndOption) {
  const std::string manual = ReadFile(std::string(kSources) + "/docs/zephlore.1");
  const std::string program = "'" + std::string(kProgram) + "' ";

  std::string help = OutputOf(program + "--help");
  const std::set<std::string> commands = WordsBehind(help.substr(help.find("Subcommands:")), "\n  ");
  EXPECT_GE(commands.size(), 3U);
  for (const std::string& command : commands) {
    EXPECT_NE(manual.find("\n.It Cm " + command + " "), std::string::npos) << command;
    const std::string shown = OutputOf(program + command + " --help");
    help += shown;
    EXPECT_EQ(WordsBehind(OutputOf(program + "__complete " + command + " --"), "--"),
              WordsBehind(shown, "--"));
    const std::string page = OutputOf("awk -v verb=" + command + " -f '" + kSources +
                                      "/cmake/verb_page.awk' '" + kSources + "/docs/zephlore.1'");
    EXPECT_TRUE(page.find("\n.Cm " + command) != page.npos && page.find("\n.Nd ") != page.npos) << page;
  }
  const std::string shell =
      "bash -c '. \"" + std::string(kSources) + "/app/completion.bash\"; COMP_CWORD=5; " +
      "COMP_WORDS=(zephlore view in.hdr --curve = f); _zephlore \"" + kProgram + "\"; echo $COMPREPLY'";
  EXPECT_EQ(OutputOf(shell), "filmic\n");

  std::string items;  // the lines that begin the explanation of an option
  std::istringstream lines(manual);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(".It Fl ")) items += line + "\n";
  const std::set<std::string> options = WordsBehind(help, "--"), explained = WordsBehind(items, " -");
  EXPECT_GE(options.size(), 11U);
  for (const std::string& option : options) EXPECT_TRUE(explained.contains(option)) << option;
}

}  // namespace
}  // namespace zp
