#include "job/checkpoint.h"

#include <zstd.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>

#include "core/index.h"
#include "imaging/output_file.h"
#include "integrator/integrator.h"

namespace zp {
namespace {

using Json = nlohmann::json;
static_assert(std::endian::native == std::endian::little);

constexpr std::string_view kFirstLine = "zephlore checkpoint\n";
constexpr std::uint32_t kVersion = 2;
constexpr int kCompressionLevel = 1;  // floats with noise shrink little at any

struct NamedNumber {
  const char* name;
  std::int32_t FramePlan::*field;
  const char* option;  // what the program's user would call it
};
constexpr NamedNumber kPlanNumbers[] = {
    {"format", &FramePlan::format, "--format"},   {"camera", &FramePlan::camera, "--camera"},
    {"width", &FramePlan::width, "--resolution"}, {"height", &FramePlan::height, "--resolution"},
    {"left", &FramePlan::left, "--region"},       {"top", &FramePlan::top, "--region"},
    {"right", &FramePlan::right, "--region"},     {"bottom", &FramePlan::bottom, "--region"},
    {"sample", &FramePlan::sample, "--sample"},   {"halves", &FramePlan::halves, "--noise"},
};

// Compresses what it is given into a file.
class Packer {
 public:
  explicit Packer(OutputFile& file)
      : file_(file), context_(ZSTD_createCCtx(), ZSTD_freeCCtx), buffer_(ZSTD_CStreamOutSize()) {
    ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_compressionLevel, kCompressionLevel);
    ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_checksumFlag, 1);
  }
  void Add(const void* bytes, std::size_t size) { Push({bytes, size, 0}, ZSTD_e_continue); }
  void Finish() { Push({nullptr, 0, 0}, ZSTD_e_end); }

 private:
  void Push(ZSTD_inBuffer in, ZSTD_EndDirective directive) {
    std::size_t left = 1;
    while (in.pos < in.size || (directive == ZSTD_e_end && left != 0)) {
      ZSTD_outBuffer out = {buffer_.data(), buffer_.size(), 0};
      left = ZSTD_compressStream2(context_.get(), &out, &in, directive);
      if (ZSTD_isError(left)) throw std::bad_alloc();  // nothing else is wrong with bytes in memory
      file_.Write(buffer_.data(), out.pos);
    }
  }

  OutputFile& file_;
  std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> context_;
  std::vector<char> buffer_;
};

// The reverse, from a stream. False once anything is missing or wrong.
class Unpacker {
 public:
  explicit Unpacker(std::FILE* file)
      : file_(file), context_(ZSTD_createDCtx(), ZSTD_freeDCtx), buffer_(ZSTD_DStreamInSize()) {}

  bool Take(void* bytes, std::size_t size) {
    ZSTD_outBuffer out = {bytes, size, 0};
    while (out.pos < out.size)
      if (!Step(out)) return false;
    return true;
  }
  // In steps, so that a size that lies takes no memory.
  template <class T>
  bool Take(std::vector<T>& values, std::size_t count) {
    constexpr std::size_t kStep = std::size_t{1} << 22;
    values.clear();
    while (values.size() < count) {
      const std::size_t begin = values.size(), step = std::min(kStep, count - begin);
      values.resize(begin + step);
      if (!Take(values.data() + begin, step * sizeof(T))) return false;
    }
    return true;
  }
  // Nothing is left, and the checksum is right.
  bool EndsHere() {
    char more = 0;
    ZSTD_outBuffer out = {&more, 1, 0};
    while (!ended_ && out.pos == 0)
      if (!Step(out)) return false;
    return out.pos == 0 && in_.pos == in_.size && std::fgetc(file_) == EOF;
  }

 private:
  bool Step(ZSTD_outBuffer& out) {
    if (ended_) return false;
    if (in_.pos == in_.size) in_ = {buffer_.data(), std::fread(buffer_.data(), 1, buffer_.size(), file_), 0};
    const std::size_t before = out.pos, taken = in_.pos;
    const std::size_t left = ZSTD_decompressStream(context_.get(), &out, &in_);
    ended_ = left == 0;
    return !ZSTD_isError(left) && (ended_ || out.pos > before || in_.pos > taken);
  }

  std::FILE* file_;
  std::unique_ptr<ZSTD_DCtx, decltype(&ZSTD_freeDCtx)> context_;
  std::vector<char> buffer_;
  ZSTD_inBuffer in_ = {};
  bool ended_ = false;
};

// Paths are bytes, and need not be UTF-8 as JSON is: each byte stands for the character of its number.
std::string TextOf(const std::string& path) {
  std::string text;
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x80) text += static_cast<char>(0xc0 | byte >> 6);
    text += byte < 0x80 ? c : static_cast<char>(0x80 | (byte & 0x3f));
  }
  return text;
}
std::string PathOf(const std::string& text) {
  std::string path;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool leads = byte >= 0xc0 && i + 1 < text.size();
    path += leads ? static_cast<char>((byte & 3) << 6 | (text[++i] & 0x3f)) : text[i];
  }
  return path;
}

void VisitAovs(const FramePlan& plan, const std::function<void(Aov&)>& visit) {
  if (IsIndex(cameras, plan.camera)) VisitFrameAovs(At(cameras, plan.camera), visit);
}

std::string HeaderOf(const Checkpoint& checkpoint) {
  Json plan = {{"seed", checkpoint.plan.seed}};
  for (const NamedNumber& number : kPlanNumbers) plan[number.name] = checkpoint.plan.*number.field;
  Json files = Json::array(), aovs = Json::array();
  for (const SceneFile& file : checkpoint.files)
    files.push_back({{"path", TextOf(file.path)}, {"hash", file.hash}});
  VisitAovs(checkpoint.plan, [&](const Aov& aov) {
    aovs.push_back({{"channel", aov.channel}, {"floats", aov.image.floatPixels.size()}});
  });
  const FrameState& state = checkpoint.state;
  const Json header = {{"program", ZP_VERSION},
                       {"options", Json::parse(checkpoint.options.empty() ? "{}" : checkpoint.options)},
                       {"plan", plan},
                       {"passes", checkpoint.passes},
                       {"seconds", checkpoint.seconds},
                       {"files", files},
                       {"aovs", aovs},
                       {"state",
                        {{"planned", state.planned},
                         {"left", state.left},
                         {"right", state.right},
                         {"tiles", state.tiles.size()},
                         {"strictness", state.strictness},
                         {"target", state.target}}}};
  return header.dump();
}

// Throws what nlohmann::json throws for a header that is not ours.
void TakeHeader(const Json& header, Checkpoint& checkpoint, std::size_t& tiles,
                std::vector<std::size_t>& floats) {
  checkpoint.options = header.at("options").dump();
  checkpoint.plan.seed = header.at("plan").at("seed");
  for (const NamedNumber& number : kPlanNumbers)
    checkpoint.plan.*number.field = header.at("plan").at(number.name);
  checkpoint.passes = header.at("passes");
  checkpoint.seconds = header.at("seconds");
  for (const Json& file : header.at("files"))
    checkpoint.files.push_back({PathOf(file.at("path")), file.at("hash")});
  for (const Json& aov : header.at("aovs")) {
    checkpoint.aovs.push_back({aov.at("channel"), {}});
    floats.push_back(aov.at("floats"));
  }
  checkpoint.state.planned = header.at("state").at("planned");
  checkpoint.state.left = header.at("state").at("left");
  checkpoint.state.right = header.at("state").at("right");
  checkpoint.state.strictness = header.at("state").at("strictness");
  checkpoint.state.target = header.at("state").at("target");
  tiles = header.at("state").at("tiles");
}

bool TakeBody(Unpacker& unpacker, Checkpoint& checkpoint) {
  std::uint64_t size = 0;
  std::vector<char> text;
  if (!unpacker.Take(&size, sizeof size) || !unpacker.Take(text, size)) return false;
  std::vector<std::size_t> floats;
  std::size_t tiles = 0;
  TakeHeader(Json::parse(text.begin(), text.end()), checkpoint, tiles, floats);
  const auto rows = static_cast<std::size_t>(std::max(checkpoint.plan.height, 0));
  if (!unpacker.Take(checkpoint.state.rows, rows) || !unpacker.Take(checkpoint.state.tiles, tiles))
    return false;
  for (std::size_t i = 0; i < floats.size(); ++i)
    if (!unpacker.Take(checkpoint.aovs[i].pixels, floats[i])) return false;
  return unpacker.EndsHere();
}

// What the frame at hand would have to be told to fit; empty if it fits.
std::string DifferentOption(const FramePlan& kept, const FramePlan& plan, std::uint32_t passes) {
  for (const NamedNumber& number : kPlanNumbers) {
    const std::int32_t was = kept.*number.field, is = plan.*number.field;
    const bool goesOn =
        number.field == &FramePlan::sample && plan.format >= 2 && is >= static_cast<std::int32_t>(passes);
    if (was != is && !goesOn)
      return std::string(number.option) + " is not that of the checkpoint (" + number.name + " " +
             std::to_string(is) + ", there " + std::to_string(was) + ")";
  }
  return kept.seed == plan.seed ? ""
                                : "--seed is not that of the checkpoint (" + std::to_string(plan.seed) +
                                      ", there " + std::to_string(kept.seed) + ")";
}

}  // namespace

Checkpoint DescribeFrame(std::uint64_t seed) {
  Checkpoint checkpoint;
  FramePlan& plan = checkpoint.plan;
  plan.seed = seed;
  plan.format = settings.format;
  plan.camera = settings.frame.activeCamera;
  if (IsIndex(cameras, plan.camera)) {
    const Camera& camera = At(cameras, plan.camera);
    plan.width = camera.width;
    plan.height = camera.height;
    plan.left = camera.regionXMin;
    plan.top = camera.regionYMin;
    plan.right = camera.regionXMax;
    plan.bottom = camera.regionYMax;
    plan.sample = camera.sample;
    plan.halves = settings.said.halfSets ? 1 : 0;
  }
  checkpoint.passes = settings.frame.passIndex;
  checkpoint.state = frameState;
  return checkpoint;
}

std::string WriteCheckpoint(const std::string& path, const Checkpoint& checkpoint) {
  OutputFile file;
  if (std::string reason = file.Open(path); !reason.empty()) return reason;
  try {
    file.Write(kFirstLine.data(), kFirstLine.size());
    file.Write(&kVersion, sizeof kVersion);
    Packer packer(file);
    const std::string header = HeaderOf(checkpoint);
    const std::uint64_t size = header.size();
    packer.Add(&size, sizeof size);
    packer.Add(header.data(), header.size());
    std::vector<RowSamples> rows = checkpoint.state.rows;
    rows.resize(static_cast<std::size_t>(std::max(checkpoint.plan.height, 0)));
    packer.Add(rows.data(), rows.size() * sizeof(RowSamples));
    packer.Add(checkpoint.state.tiles.data(), checkpoint.state.tiles.size() * sizeof(TileRests));
    VisitAovs(checkpoint.plan, [&](const Aov& aov) {
      packer.Add(aov.image.floatPixels.data(), aov.image.floatPixels.size() * sizeof(float));
    });
    packer.Finish();
  } catch (const std::bad_alloc&) {
    return "not enough memory";
  }
  if (std::string reason = file.Trouble(); !reason.empty()) return reason;
  return file.Commit();
}

std::string ReadCheckpoint(const std::string& path, Checkpoint& checkpoint) {
  static_assert(sizeof(RowSamples) == 8 && sizeof(TileRests) == 8);
  const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen(path.c_str(), "rbe"), std::fclose);
  if (!file) return std::string("cannot be opened: ") + std::strerror(errno);
  char line[kFirstLine.size()] = {};
  std::uint32_t version = 0;
  if (std::fread(line, 1, sizeof line, file.get()) != sizeof line ||
      std::string_view(line, sizeof line) != kFirstLine)
    return "is no checkpoint";
  if (std::fread(&version, sizeof version, 1, file.get()) != 1) return "is damaged";
  if (version != kVersion)
    return "is of version " + std::to_string(version) + ", and this program knows version " +
           std::to_string(kVersion);
  Unpacker unpacker(file.get());
  try {
    return TakeBody(unpacker, checkpoint) ? "" : "is damaged";
  } catch (const nlohmann::json::exception&) {
    return "is damaged";
  } catch (const std::bad_alloc&) {
    return "takes more memory than there is";
  }
}

std::string RestoreFrame(Checkpoint& checkpoint, const FramePlan& plan, const std::vector<SceneFile>& files) {
  if (const std::string file = FirstDifference(checkpoint.files, files); !file.empty())
    return "the scene has changed: '" + file + "' is not what it was";
  if (std::string reason = DifferentOption(checkpoint.plan, plan, checkpoint.passes); !reason.empty())
    return reason;
  std::size_t count = 0;
  bool fits = true;
  VisitAovs(plan, [&](const Aov& aov) {
    fits = fits && count < checkpoint.aovs.size() && checkpoint.aovs[count].channel == aov.channel &&
           checkpoint.aovs[count].pixels.size() == aov.image.floatPixels.size();
    ++count;
  });
  if (!fits || count != checkpoint.aovs.size()) return "its images are not those of the scene";

  count = 0;
  VisitAovs(plan, [&](Aov& aov) { aov.image.floatPixels = std::move(checkpoint.aovs[count++].pixels); });
  frameState = checkpoint.state;
  frameState.tilesAcross = TilesAlong(plan.width);
  frameState.resumed = checkpoint.passes;
  return {};
}

}  // namespace zp
