// What is installed beside the program tells the truth about it.

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>

namespace {

// What a command line prints on both streams.
std::string OutputOf(const std::string& command) {
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return {};
  std::string text;
  std::array<char, 4096> block;
  while (const std::size_t size = std::fread(block.data(), 1, block.size(), pipe))
    text.append(block.data(), size);
  pclose(pipe);
  return text;
}

// The first group of every match.
std::set<std::string> Matches(const std::string& text, const std::string& pattern) {
  const std::regex regex(pattern, std::regex::multiline);
  std::set<std::string> words;
  for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match)
    words.insert((*match)[1]);
  return words;
}

TEST(Manual, ExplainsEveryCommandAndOption) {
  std::ifstream file(ZP_SOURCES "/docs/zephlore.1");
  const std::string manual{std::istreambuf_iterator<char>(file), {}};
  const std::string program = "'" ZP_PROGRAM "' ";

  std::string help = OutputOf(program + "--help");
  const std::set<std::string> commands = Matches(help.substr(help.find("Subcommands:")), "^  ([a-z]+) ");
  EXPECT_GE(commands.size(), 3U);
  for (const std::string& command : commands) {
    EXPECT_NE(manual.find("\n.It Cm " + command + " "), std::string::npos) << command;
    help += OutputOf(program + command + " --help");
  }

  const std::set<std::string> options = Matches(help, "(?:^ +|,)--([a-z][a-z-]*)");
  EXPECT_GE(options.size(), 11U);
  const std::set<std::string> explained =
      Matches(manual, "^\\.It Fl (?:[a-z] (?:Ar file )?, (?:Fl )?)?-([a-z-]+)");
  for (const std::string& option : options) EXPECT_TRUE(explained.contains(option)) << option;
}

}  // namespace
