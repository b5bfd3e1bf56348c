// app/completion.h: what a shell offers while a command line is typed, by the very words that the program
// takes.

#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace zp {

// Behind this word a shell hands over the words so far.
constexpr std::string_view kCompleteWord = "__complete";

// Words that may stand in place of the last one, which may be empty; none where any file may.
std::vector<std::string> Completions(const CLI::App& app, const std::vector<std::string>& words);

}  // namespace zp
