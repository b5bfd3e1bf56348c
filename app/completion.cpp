#include "completion.h"

#include <CLI/CLI.hpp>
#include <sstream>

namespace zp {
namespace {

const CLI::App* VerbOf(const CLI::App& app, const std::string& word) {
  for (const CLI::App* verb : app.get_subcommands([](const CLI::App*) { return true; }))
    if (verb->get_name() == word) return verb;
  return nullptr;
}

// The option of a word like "--curve", if a value stands behind it.
const CLI::Option* OptionWithValue(const CLI::App& app, const std::string& word) {
  if (!word.starts_with('-')) return nullptr;
  const CLI::Option* option = app.get_option_no_throw(word);
  return option != nullptr && option->get_items_expected_max() > 0 ? option : nullptr;
}

// "CURVE:{srgb,filmic}" is what an option says of its values.
std::vector<std::string> ValuesOf(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  const std::size_t open = type.find('{');
  std::vector<std::string> values;
  if (open == type.npos) return values;
  std::istringstream list(type.substr(open + 1, type.find('}', open) - open - 1));
  for (std::string value; std::getline(list, value, ',');) values.push_back(value);
  return values;
}

}  // namespace

std::vector<std::string> Completions(const CLI::App& app, const std::vector<std::string>& words) {
  const CLI::App* verb = &app;
  const CLI::Option* option = nullptr;  // whose value comes next
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    if (words[i] == "=") continue;  // a shell's own break
    const CLI::App* inner = option == nullptr ? VerbOf(*verb, words[i]) : nullptr;
    if (inner != nullptr) verb = inner;
    option = option == nullptr ? OptionWithValue(*verb, words[i]) : nullptr;
  }
  const std::string begun = words.empty() || words.back() == "=" ? "" : words.back();
  std::vector<std::string> all, fitting;
  if (option != nullptr)
    all = ValuesOf(*option);
  else if (begun.starts_with('-'))
    for (const CLI::Option* each : verb->get_options())
      for (const std::string& name : each->get_lnames()) all.push_back("--" + name);
  else
    for (const CLI::App* each : verb->get_subcommands([](const CLI::App*) { return true; }))
      all.push_back(each->get_name());
  for (const std::string& word : all)
    if (word.starts_with(begun)) fitting.push_back(word);
  return fitting;
}

}  // namespace zp
