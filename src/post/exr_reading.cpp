// OpenEXR to layers.

#include <ImfChannelList.h>
#include <ImfDoubleAttribute.h>
#include <ImfFloatAttribute.h>
#include <ImfFrameBuffer.h>
#include <ImfInputPart.h>
#include <ImfIntAttribute.h>
#include <ImfMatrixAttribute.h>
#include <ImfMultiPartInputFile.h>
#include <ImfRgbaFile.h>
#include <ImfStringAttribute.h>
#include <ImfVecAttribute.h>
#include <ImfVersion.h>

#include <algorithm>
#include <limits>
#include <map>
#include <set>

#include "imaging/exr_bytes.h"
#include "post/exr_layers.h"

namespace zp {
namespace {

// What the library reads of a value, whatever size the file tells.
constexpr std::pair<std::string_view, std::size_t> kFixedSizes[] = {
    {"box2f", 16},      {"box2i", 16},   {"chromaticities", 32},
    {"compression", 1}, {"double", 8},   {"envmap", 1},
    {"float", 4},       {"int", 4},      {"keycode", 28},
    {"lineOrder", 1},   {"m33d", 72},    {"m33f", 36},
    {"m44d", 128},      {"m44f", 64},    {"rational", 8},
    {"tiledesc", 9},    {"timecode", 8}, {"v2d", 16},
    {"v2f", 8},         {"v2i", 8},      {"v3d", 24},
    {"v3f", 12},        {"v3i", 12},     {"deepImageState", 1},
};

// The bytes' own headers, before the library sees them: it takes what they claim for true, and makes room.
class HeaderCheck {
 public:
  explicit HeaderCheck(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  // Throws unless all headers are whole and the pixels that they claim can be in so many bytes.
  void Run() {
    constexpr std::uint32_t kMultiPart = 0x1000;
    Skip(4);
    const bool isMultiPart = (Number() & kMultiPart) != 0;
    do Header();
    while (isMultiPart && bytes_[Need(1)] != 0);
    if (most_.Width() > 0) Require(double(most_.Width()) * most_.Height() * channels_);
  }

 private:
  [[noreturn]] static void Refuse() { throw std::runtime_error("the header is damaged"); }
  std::size_t Need(std::size_t count) const {
    if (count > bytes_.size() - at_) Refuse();
    return at_;
  }
  void Skip(std::size_t count) { at_ = Need(count) + count; }
  std::uint32_t Number() {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes_.data() + Need(4), 4);
    at_ += 4;
    return value;
  }
  std::int32_t Signed() { return static_cast<std::int32_t>(Number()); }
  std::string Text() {
    std::string text;
    for (; bytes_[Need(1)] != 0; ++at_) text += static_cast<char>(bytes_[at_]);
    ++at_;
    return text;
  }
  // A row that is compressed to nothing still has its share of a table of offsets, and no method compresses
  // pixels better than a thousand times.
  void Require(double numbers) const {
    if (!(numbers * sizeof(float) <= 0x1p26 + 2048.0 * static_cast<double>(bytes_.size()))) Refuse();
  }

  void Header() {
    double channels = 0, tile = 0;
    for (std::string name = Text(); !name.empty(); name = Text()) {
      const std::string type = Text();
      const std::size_t size = Number(), end = Need(size) + size;
      for (const auto& [fixed, bytes] : kFixedSizes)
        if (type == fixed && size != bytes) Refuse();
      if (type == "box2i" && size == 16 && name == "dataWindow") {
        const std::int32_t left = Signed(), top = Signed(), right = Signed(), bottom = Signed();
        Grow(left, top, right, bottom);
      } else if (type == "tiledesc" && size >= 8) {
        const double width = Number(), height = Number();
        tile = width * height;
      } else if (type == "chlist") {
        for (; at_ < end && bytes_[at_] != 0; Skip(16), ++channels) Text();
      } else if (type == "stringvector") {
        while (at_ < end) Skip(Number());
      } else if (type == "preview") {
        const double width = Number(), height = Number();
        if (width * height * 4 + 8 != double(size)) Refuse();
      } else if (type == "idmanifest") {
        Require(Number());
      }
      if (at_ > end) Refuse();
      at_ = end;
    }
    channels_ += channels;
    Require(tile * std::max(channels, 1.0));
  }
  void Grow(std::int32_t left, std::int32_t top, std::int32_t right, std::int32_t bottom) {
    constexpr std::int32_t kFarthestPixel = 1 << 24;
    for (const std::int32_t edge : {left, top, right, bottom})
      if (edge < -kFarthestPixel || edge > kFarthestPixel) Refuse();
    if (right < left || bottom < top) Refuse();
    const bool isFirst = most_.Width() == 0;
    most_ = {isFirst ? left : std::min(left, most_.left), isFirst ? top : std::min(top, most_.top),
             isFirst ? right + 1 : std::max(right + 1, most_.right),
             isFirst ? bottom + 1 : std::max(bottom + 1, most_.bottom)};
  }

  std::span<const std::uint8_t> bytes_;
  std::size_t at_ = 0;
  PixelWindow most_;
  double channels_ = 0;
};

PixelWindow WindowOf(const Imath::Box2i& box) { return {box.min.x, box.min.y, box.max.x + 1, box.max.y + 1}; }

PixelWindow Union(const PixelWindow& a, const PixelWindow& b) {
  return {std::min(a.left, b.left), std::min(a.top, b.top), std::max(a.right, b.right),
          std::max(a.bottom, b.bottom)};
}

AttributeValue ValueOf(const Imf::Attribute& attribute) {
  if (const auto* text = dynamic_cast<const Imf::StringAttribute*>(&attribute)) return text->value();
  if (const auto* whole = dynamic_cast<const Imf::IntAttribute*>(&attribute)) return whole->value();
  if (const auto* number = dynamic_cast<const Imf::FloatAttribute*>(&attribute)) return number->value();
  if (const auto* number = dynamic_cast<const Imf::DoubleAttribute*>(&attribute)) return number->value();
  if (const auto* v = dynamic_cast<const Imf::V2fAttribute*>(&attribute))
    return std::array<float, 2>{v->value().x, v->value().y};
  if (const auto* v = dynamic_cast<const Imf::V3fAttribute*>(&attribute))
    return std::array<float, 3>{v->value().x, v->value().y, v->value().z};
  if (const auto* matrix = dynamic_cast<const Imf::M44fAttribute*>(&attribute)) {
    std::array<float, 16> values;
    std::copy_n(&matrix->value()[0][0], values.size(), values.begin());
    return values;
  }
  BytesOut bytes;
  attribute.writeValueTo(bytes, Imf::EXR_VERSION);
  return OtherValue{attribute.typeName(), std::move(bytes.bytes)};
}

// All but what tells how the pixels lie in this one file.
void TakeAttributes(const Imf::Header& header, LayeredPicture& picture) {
  static const std::set<std::string_view> kOfFile = {
      "channels", "compression", "dataWindow", "displayWindow", "lineOrder", "tiles",
      "type",     "version",     "chunkCount", "preview",       "name"};
  for (auto i = header.begin(); i != header.end(); ++i)
    if (!kOfFile.contains(i.name())) picture.attributes.push_back({i.name(), ValueOf(i.attribute())});
}

// Where a channel of a file goes.
struct Place {
  std::string layer, channel;
};

Place PlaceOf(const std::string& name) {
  const std::size_t dot = name.rfind('.');
  if (dot != name.npos && dot > 0 && dot + 1 < name.size())
    return {name.substr(0, dot), name.substr(dot + 1)};
  const bool isBeauty = name.size() == 1 && std::string_view("RGBAY").find(name[0]) != std::string_view::npos;
  return {isBeauty ? "" : name, name};
}

// Files hold channels by the alphabet; people say them so.
std::size_t RankOf(const std::string& channel) {
  static constexpr std::string_view kOrder = "RGBrgbXYZxyzUVWuvwAa";
  return channel.size() == 1 ? kOrder.find(channel[0]) : kOrder.npos;
}

LayerKind KindOf(Imf::PixelType type) {
  if (type == Imf::UINT) return LayerKind::kWhole;
  return type == Imf::HALF ? LayerKind::kHalf : LayerKind::kFloat;
}

// One channel of one part, by its name there and its place.
struct Source {
  int part;
  std::string name;
  Place place;
  LayerKind kind;
};

// Of equal names, the part's own tells them apart; what is still equal is left out.
void CollectSources(const Imf::Header& header, int part, std::set<std::string>& taken,
                    std::vector<Source>& sources) {
  const bool hasColor = header.channels().findChannel("RY") && header.channels().findChannel("BY");
  int count = 0;
  for (auto i = header.channels().begin(); i != header.channels().end(); ++i) ++count;
  for (auto i = header.channels().begin(); i != header.channels().end(); ++i) {
    std::string name = i.name();
    if (hasColor && (name == "Y" || name == "RY" || name == "BY" || name == "A")) continue;
    if (i.channel().xSampling != 1 || i.channel().ySampling != 1)
      throw std::invalid_argument("a channel is not of full size");
    const bool isPartOf =
        PlaceOf(name).layer == name && count > 1;  // "X" of a part "normal", not "Z" of "depth"
    if (part > 0 && header.hasName() && (isPartOf || taken.contains(name))) name = header.name() + "." + name;
    if (taken.insert(name).second)
      sources.push_back({part, i.name(), PlaceOf(name), KindOf(i.channel().type)});
  }
}

// Layers without numbers, and the sources' numbers in them.
void MakeLayers(std::vector<Source>& sources, LayeredPicture& picture) {
  std::stable_sort(sources.begin(), sources.end(), [](const Source& a, const Source& b) {
    return std::pair(RankOf(a.place.channel), a.place.channel) <
           std::pair(RankOf(b.place.channel), b.place.channel);
  });
  std::map<std::string, Layer> layers;
  for (const Source& source : sources) {
    Layer& layer = layers[source.place.layer];
    if (layer.channels.empty()) layer.kind = source.kind;
    if (layer.kind != source.kind) layer.kind = LayerKind::kFloat;
    layer.channels.push_back(source.place.channel);
  }
  for (auto& [name, layer] : layers) {
    layer.name = name;
    layer.numbers.resize(PixelCount(picture) * layer.channels.size());
    picture.layers.push_back(std::move(layer));
  }
}

void ReadPart(Imf::MultiPartInputFile& file, int part, const std::vector<Source>& sources,
              LayeredPicture& picture) {
  Imf::FrameBuffer frame;
  const PixelWindow& data = picture.data;
  for (const Source& source : sources) {
    if (source.part != part) continue;
    Layer& layer = *FindLayer(picture, source.place.layer);
    const std::size_t step = layer.channels.size() * sizeof(float);
    float* first = layer.numbers.data() + FindChannel(layer, source.place.channel);
    frame.insert(source.name,
                 Imf::Slice::Make(Imf::FLOAT, first, Imath::V2i(data.left, data.top), data.Width(),
                                  data.Height(), step, step * static_cast<std::size_t>(data.Width())));
  }
  if (frame.begin() == frame.end()) return;
  Imf::InputPart input(file, part);
  const Imath::Box2i box = input.header().dataWindow();
  input.setFrameBuffer(frame);
  input.readPixels(box.min.y, box.max.y);
}

// Reads some rows into one and drops them: headers that lie have rows of another length, or too few. Before
// room is made for all.
void ProbePart(Imf::MultiPartInputFile& file, int part) {
  Imf::InputPart input(file, part);
  const Imath::Box2i box = input.header().dataWindow();
  const Imath::V2i size = box.size() + Imath::V2i(1);
  std::vector<float> row(static_cast<std::size_t>(size.x));
  Imf::FrameBuffer frame;
  const Imf::ChannelList& channels = input.header().channels();
  for (auto i = channels.begin(); i != channels.end(); ++i) {
    char* start = reinterpret_cast<char*>(row.data()) - box.min.x * std::ptrdiff_t{sizeof(float)};
    if (i.channel().xSampling == 1 && i.channel().ySampling == 1)
      frame.insert(i.name(), Imf::Slice(Imf::FLOAT, start, sizeof(float), 0));
  }
  input.setFrameBuffer(frame);
  for (const int y : {box.min.y, box.min.y + size.y / 2, box.max.y}) input.readPixels(y, y);
}

// Luminance with two colour differences of half the size, which only the library's own reader puts together.
void ReadLuminanceChroma(std::span<const std::uint8_t> bytes, LayeredPicture& picture) {
  BytesIn stream(bytes);
  Imf::RgbaInputFile file(stream);
  const Imath::Box2i box = file.dataWindow();
  const auto width = static_cast<std::size_t>(picture.data.Width());
  std::vector<Imf::Rgba> colors(PixelCount(picture));
  file.setFrameBuffer(colors.data() - box.min.x - box.min.y * static_cast<std::ptrdiff_t>(width), 1, width);
  file.readPixels(box.min.y, box.max.y);
  const bool hasAlpha = (file.channels() & Imf::WRITE_A) != 0;
  Layer layer = {"", {"R", "G", "B"}, LayerKind::kHalf, {}};
  if (hasAlpha) layer.channels.push_back("A");
  for (const Imf::Rgba& color : colors) {
    layer.numbers.insert(layer.numbers.end(), {color.r, color.g, color.b});
    if (hasAlpha) layer.numbers.push_back(color.a);
  }
  picture.layers.insert(picture.layers.begin(), std::move(layer));
}

bool IsDeep(const Imf::Header& header) { return header.hasType() && header.type().starts_with("deep"); }

// Cryptomatte 1.2.0: "cryptomatte/KEY/name" tells the layers' name, behind which two digits stand.
void MarkMattes(LayeredPicture& picture) {
  for (const Attribute& attribute : picture.attributes) {
    const auto* name = std::get_if<std::string>(&attribute.value);
    if (name == nullptr || !attribute.name.starts_with("cryptomatte/") || !attribute.name.ends_with("/name"))
      continue;
    for (Layer& layer : picture.layers)
      if (layer.name.size() == name->size() + 2 && layer.name.starts_with(*name) &&
          layer.kind == LayerKind::kFloat)
        layer.kind = LayerKind::kId;
  }
}

}  // namespace

LayeredPicture DecodeLayers(std::span<const std::uint8_t> bytes) {
  HeaderCheck(bytes).Run();
  const ExrThreads threads;
  BytesIn stream(bytes);
  Imf::MultiPartInputFile file(stream, omp_get_max_threads());
  LayeredPicture picture;
  std::vector<Source> sources;
  std::set<std::string> taken;
  bool isLuminanceChroma = false, isFirst = true;
  for (int part = 0; part < file.parts(); ++part) {
    const Imf::Header& header = file.header(part);
    if (IsDeep(header)) continue;
    const PixelWindow data = WindowOf(header.dataWindow());
    picture.data = isFirst ? data : Union(picture.data, data);
    if (isFirst)
      picture.display =
          WindowOf(header.displayWindow().intersects(header.dataWindow()) ? header.displayWindow()
                                                                          : header.dataWindow());
    if (isFirst) TakeAttributes(header, picture);
    isFirst = false;
    CollectSources(header, part, taken, sources);
    ProbePart(file, part);
    isLuminanceChroma = isLuminanceChroma || (file.parts() == 1 && header.channels().findChannel("RY") &&
                                              header.channels().findChannel("BY"));
  }
  if (sources.empty() && !isLuminanceChroma) throw std::invalid_argument("there are no flat pixels");
  MakeLayers(sources, picture);
  for (int part = 0; part < file.parts(); ++part) ReadPart(file, part, sources, picture);
  if (isLuminanceChroma) ReadLuminanceChroma(bytes, picture);
  MarkMattes(picture);
  return picture;
}

}  // namespace zp
