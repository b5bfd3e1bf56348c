// app/image_info.cpp: what a picture file holds, in text.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "image_commands.h"

namespace zp {
namespace {

void PrintWindow(const char* name, const PixelWindow& window) {
  std::printf("%-16s %dx%d from %d,%d\n", name, window.Width(), window.Height(), window.left, window.top);
}

const char* KindWord(LayerKind kind) {
  switch (kind) {
    case LayerKind::kHalf:
      return "half";
    case LayerKind::kFloat:
      return "float";
    case LayerKind::kId:
      return "id";
    case LayerKind::kWhole:
      break;
  }
  return "whole";
}

// Of the finite numbers; how many are not is told where there are any.
void PrintChannel(const Layer& layer, std::size_t channel) {
  const std::size_t step = layer.channels.size();
  double least = std::numeric_limits<double>::infinity(), most = -least, sum = 0;
  std::size_t count = 0;
  for (std::size_t i = channel; i < layer.numbers.size(); i += step) {
    const auto number = static_cast<double>(layer.numbers[i]);
    if (!std::isfinite(number)) continue;
    least = std::min(least, number);
    most = std::max(most, number);
    sum += number;
    ++count;
  }
  std::printf("%-16s %-5s", ChannelName(layer, channel).c_str(), KindWord(layer.kind));
  if (count > 0 && layer.kind != LayerKind::kId)
    std::printf("  least %-12.6g most %-12.6g mean %.6g", least, most, sum / static_cast<double>(count));
  if (const std::size_t odd = layer.numbers.size() / step - count; odd > 0 && layer.kind != LayerKind::kId)
    std::printf("  not finite %zu", odd);
  std::printf("\n");
}

// Long texts, such as manifests of mattes, are cut.
struct ValuePrinter {
  void operator()(const std::string& text) const {
    constexpr std::size_t kLongest = 200;
    std::string line = text.substr(0, kLongest);
    std::replace_if(
        line.begin(), line.end(), [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; },
        ' ');
    std::printf("%s%s", line.c_str(), text.size() > kLongest ? " ..." : "");
  }
  void operator()(std::int32_t value) const { std::printf("%d", value); }
  void operator()(float value) const { std::printf("%.7g", static_cast<double>(value)); }
  void operator()(double value) const { std::printf("%.10g", value); }
  template <std::size_t kCount>
  void operator()(const std::array<float, kCount>& values) const {
    for (const float value : values) std::printf("%.7g ", static_cast<double>(value));
  }
  void operator()(const OtherValue& value) const { std::printf("(%s)", value.type.c_str()); }
};

}  // namespace

int RunInfo(const std::string& input) {
  LayeredPicture picture;
  if (const auto status = ReadPicture(input, picture)) return *status;
  PrintWindow("picture", picture.display);
  PrintWindow("pixels", picture.data);
  if (picture.isEncoded) std::printf("%-16s by the curve of sRGB\n", "numbers");
  for (const Layer& layer : picture.layers)
    for (std::size_t c = 0; c < layer.channels.size(); ++c) PrintChannel(layer, c);
  for (const Attribute& attribute : picture.attributes) {
    std::printf("%-16s ", attribute.name.c_str());
    std::visit(ValuePrinter(), attribute.value);
    std::printf("\n");
  }
  return kExitDone;
}

}  // namespace zp
