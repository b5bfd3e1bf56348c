#include "camera_choice.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <numeric>

#include "imaging/imaging.h"

namespace zp {
namespace {

// Bytes above ASCII are letters of some language.
bool FitsIntoName(char c) {
  const bool letter = ('a' <= c && c <= 'z') || ('A' <= c && c <= 'Z') || static_cast<unsigned char>(c) > 127;
  return letter || ('0' <= c && c <= '9') || c == '-' || c == '_';
}

}  // namespace

std::vector<std::size_t> ChooseCameras(std::string_view word) {
  std::vector<std::size_t> chosen;
  if (word == kAllCameras) {
    chosen.resize(cameras.size());
    std::iota(chosen.begin(), chosen.end(), std::size_t{0});
    return chosen;
  }
  for (std::size_t i = 0; i < cameras.size() && !word.empty(); ++i)
    if (cameras[i].name == word) return {i};
  std::size_t number = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  const bool isNumber = error == std::errc{} && end == word.data() + word.size();
  if ((word.empty() || isNumber) && number < cameras.size()) chosen.push_back(number);
  return chosen;
}

std::vector<std::string> CameraLabels() {
  std::vector<std::string> labels;
  for (std::size_t i = 0; i < cameras.size(); ++i) {
    const std::string number = std::to_string(i);
    std::string label = cameras[i].name.empty() ? number : cameras[i].name;
    std::replace_if(
        label.begin(), label.end(), [](char c) { return !FitsIntoName(c); }, '_');
    while (std::find(labels.begin(), labels.end(), label) != labels.end()) label += "-" + number;
    labels.push_back(std::move(label));
  }
  return labels;
}

std::string LabelledName(const std::string& name, const std::string& label) {
  if (name.empty() || label.empty()) return name;
  const std::filesystem::path path = name;
  const std::string file = path.stem().string() + "-" + label + path.extension().string();
  return (path.parent_path() / file).string();
}

}  // namespace zp
