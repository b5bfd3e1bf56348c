#include "job/checkpoint.h"

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
#include "job/checkpoint_file.h"

namespace zp {
namespace {

using Json = nlohmann::json;
static_assert(std::endian::native == std::endian::little);

constexpr std::string_view kFirstLine = "zephlore checkpoint\n";
constexpr std::uint32_t kVersion = 2;

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

// Of a part or a merge, which can tell what it holds.
Json MergedPasses(const Checkpoint& checkpoint) {
  Json whole = Json::array();
  for (const PassRange& range : checkpoint.whole) whole.push_back({range.begin, range.end});
  return {{"whole", whole}, {"begun", checkpoint.begun}, {"drawn", checkpoint.drawn}};
}

//   counts  numbers of each AOV
std::string HeaderOf(const Checkpoint& checkpoint, const std::vector<std::size_t>& counts) {
  Json plan = {{"seed", checkpoint.plan.seed}};
  for (const NamedNumber& number : kPlanNumbers) plan[number.name] = checkpoint.plan.*number.field;
  Json files = Json::array(), aovs = Json::array();
  for (const SceneFile& file : checkpoint.files)
    files.push_back({{"path", TextOf(file.path)}, {"hash", file.hash}});
  for (std::size_t i = 0; i < counts.size(); ++i) {
    const Aov& aov = checkpoint.aovs[i];
    aovs.push_back({{"channel", aov.channel},
                    {"floats", counts[i]},
                    {"name", TextOf(aov.image.fileName)},
                    {"layer", TextOf(aov.layer)},
                    {"mean", aov.mean},
                    {"nearest", aov.nearest},
                    {"light", aov.ofLight}});
  }
  const FrameState& state = checkpoint.state;
  Json exposure = Json::array();  // by their bits: JSON has no infinity
  for (int c = 0; c < 3; ++c) exposure.push_back(std::bit_cast<std::uint32_t>(checkpoint.exposure[c]));
  Json header = {{"program", checkpoint.program},
                 {"options", Json::parse(checkpoint.options.empty() ? "{}" : checkpoint.options)},
                 {"plan", plan},
                 {"passes", checkpoint.passes},
                 {"seconds", checkpoint.seconds},
                 {"files", files},
                 {"aovs", aovs},
                 {"exposure", exposure},
                 {"linear", checkpoint.linear},
                 {"state",
                  {{"planned", state.planned},
                   {"left", state.left},
                   {"right", state.right},
                   {"tiles", state.tiles.size()},
                   {"strictness", state.strictness},
                   {"target", state.target}}}};
  if (checkpoint.merged) header["merged"] = MergedPasses(checkpoint);
  return header.dump();
}

// Throws what nlohmann::json throws for a header that is not ours.
void TakeHeader(const Json& header, Checkpoint& checkpoint, std::size_t& tiles,
                std::vector<std::size_t>& counts) {
  checkpoint.program = header.at("program");
  checkpoint.options = header.at("options").dump();
  checkpoint.plan.seed = header.at("plan").at("seed");
  for (const NamedNumber& number : kPlanNumbers)
    checkpoint.plan.*number.field = header.at("plan").at(number.name);
  checkpoint.passes = header.at("passes");
  checkpoint.seconds = header.at("seconds");
  for (const Json& file : header.at("files"))
    checkpoint.files.push_back({PathOf(file.at("path")), file.at("hash")});
  for (const Json& row : header.at("aovs")) {
    Aov& aov = checkpoint.aovs.emplace_back();
    aov.channel = row.at("channel");
    aov.image.fileName = PathOf(row.at("name"));
    aov.layer = PathOf(row.at("layer"));
    aov.mean = row.at("mean");
    aov.nearest = row.value("nearest", false);
    aov.ofLight = row.at("light");
    counts.push_back(row.at("floats"));
  }
  for (int c = 0; c < 3; ++c)
    checkpoint.exposure[c] = std::bit_cast<float>(header.at("exposure").at(c).get<std::uint32_t>());
  checkpoint.linear = header.at("linear");
  checkpoint.state.planned = header.at("state").at("planned");
  checkpoint.state.left = header.at("state").at("left");
  checkpoint.state.right = header.at("state").at("right");
  checkpoint.state.strictness = header.at("state").at("strictness");
  checkpoint.state.target = header.at("state").at("target");
  tiles = header.at("state").at("tiles");
  if (!header.contains("merged")) return;
  checkpoint.merged = true;
  for (const Json& range : header["merged"].at("whole"))
    checkpoint.whole.push_back({range.at(0), range.at(1)});
  checkpoint.begun = header["merged"].at("begun").get<std::vector<std::uint32_t>>();
  checkpoint.drawn = header["merged"].at("drawn");
}

// Which passes the sums of a checkpoint hold that is no merge.
void TellPasses(Checkpoint& checkpoint) {
  const FramePlan& plan = checkpoint.plan;
  const auto begin = static_cast<std::uint32_t>(plan.begin), end = begin + checkpoint.passes;
  if (end > begin) checkpoint.whole = {{begin, end}};
  const double pixels = double(plan.right - plan.left) * double(plan.bottom - plan.top);
  if (!(pixels > 0)) return;
  checkpoint.drawn = static_cast<double>(CountSamples(checkpoint.state)) / pixels;
  if (checkpoint.drawn > checkpoint.passes) checkpoint.begun = {end};
}

std::string WritePacked(const std::string& path, const Checkpoint& checkpoint,
                        const std::vector<std::size_t>& counts, const std::function<void(Packer&)>& addSums) {
  OutputFile file;
  if (std::string reason = file.Open(path); !reason.empty()) return reason;
  try {
    file.Write(kFirstLine.data(), kFirstLine.size());
    file.Write(&kVersion, sizeof kVersion);
    Packer packer(file);
    const std::string header = HeaderOf(checkpoint, counts);
    const std::uint64_t size = header.size();
    packer.Add(&size, sizeof size);
    packer.Add(header.data(), header.size());
    std::vector<RowSamples> rows = checkpoint.state.rows;
    rows.resize(static_cast<std::size_t>(std::max(checkpoint.plan.height, 0)));
    packer.Add(rows.data(), rows.size() * sizeof(RowSamples));
    packer.Add(checkpoint.state.tiles.data(), checkpoint.state.tiles.size() * sizeof(TileRests));
    addSums(packer);
    packer.Finish();
  } catch (const std::bad_alloc&) {
    return "not enough memory";
  }
  if (std::string reason = file.Trouble(); !reason.empty()) return reason;
  return file.Commit();
}

void PackMatte(const MatteLists& matte, Packer& packer) {
  std::vector<std::uint16_t> numbers;
  std::vector<MatteEntry> entries;
  for (std::int32_t y = 0; y < matte.Height(); ++y) {
    matte.TakeRow(y, numbers, entries);
    packer.Add(numbers.data(), numbers.size() * sizeof(std::uint16_t));
    packer.Add(entries.data(), entries.size() * sizeof(MatteEntry));
  }
}

// Sums over whole samples become those that a render of them would have.
std::string TakeMergedSums(CheckpointReader& reader, Checkpoint& checkpoint) {
  if (checkpoint.whole.size() != 1 || checkpoint.whole[0].begin != 0 || !checkpoint.begun.empty())
    return "is a merge with gaps, which only 'zephlore merge' can fill";
  checkpoint.passes = checkpoint.whole[0].end;
  FrameState& state = checkpoint.state;
  for (std::int32_t y = checkpoint.plan.top; y < checkpoint.plan.bottom; ++y)
    if (IsIndex(state.rows, y)) At(state.rows, y).whole = checkpoint.passes;
  std::vector<double> sums;
  for (std::size_t i = 0; i < checkpoint.aovs.size(); ++i) {
    Aov& aov = checkpoint.aovs[i];
    if (!reader.Take(sums, reader.Count(i))) return "is damaged";
    const double scale =
        IsDrawnByPhotons(aov) ? checkpoint.drawn : SampleWeight(aov, state, checkpoint.passes);
    for (const double sum : sums) aov.image.floatPixels.push_back(static_cast<float>(sum / scale));
  }
  std::vector<std::uint32_t> samples;
  const auto pixels = static_cast<std::size_t>(std::max(checkpoint.plan.width, 0)) * state.rows.size();
  const bool isWhole = reader.Take(samples, pixels) && reader.TakeMattes(checkpoint, checkpoint.aovs);
  return isWhole && reader.EndsHere() ? "" : "is damaged";
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
    checkpoint.exposure = camera.exposure;
    plan.halves = settings.said.halfSets ? 1 : 0;
  }
  if (frameShare.passes) {
    plan.begin = static_cast<std::int32_t>(frameShare.passes->begin);
    plan.end = static_cast<std::int32_t>(frameShare.passes->end);
  }
  plan.photons = static_cast<std::int32_t>(frameShare.photons);
  plan.transparentSky = settings.said.transparentSky ? 1 : 0;
  checkpoint.linear = settings.said.linearFiles;
  checkpoint.passes = settings.frame.passIndex - std::min(settings.frame.passIndex, PassesToRender().begin);
  checkpoint.state = frameState;
  VisitAovs(plan, [&](const Aov& aov) {
    Aov& told = checkpoint.aovs.emplace_back();
    told.image.fileName = aov.image.fileName;
    told.channel = aov.channel;
    told.layer = aov.layer;
    told.mean = aov.mean;
    told.nearest = aov.nearest;
    told.ofLight = aov.ofLight;
  });
  return checkpoint;
}

std::string WriteCheckpoint(const std::string& path, const Checkpoint& checkpoint) {
  std::vector<std::size_t> counts;
  VisitAovs(checkpoint.plan, [&](const Aov& aov) { counts.push_back(aov.image.floatPixels.size()); });
  return WritePacked(path, checkpoint, counts, [&](Packer& packer) {
    VisitAovs(checkpoint.plan, [&](const Aov& aov) {
      packer.Add(aov.image.floatPixels.data(), aov.image.floatPixels.size() * sizeof(float));
    });
    VisitAovs(checkpoint.plan, [&](const Aov& aov) { PackMatte(aov.matte, packer); });
  });
}

std::string WriteMergedCheckpoint(const std::string& path, const Checkpoint& checkpoint,
                                  const std::vector<std::vector<double>>& sums,
                                  const std::vector<std::uint32_t>& samples) {
  std::vector<std::size_t> counts;
  for (const std::vector<double>& values : sums) counts.push_back(values.size());
  return WritePacked(path, checkpoint, counts, [&](Packer& packer) {
    for (const std::vector<double>& values : sums) packer.Add(values.data(), values.size() * sizeof(double));
    packer.Add(samples.data(), samples.size() * sizeof(std::uint32_t));
    for (const Aov& aov : checkpoint.aovs) PackMatte(aov.matte, packer);
  });
}

bool CheckpointReader::TakeHead(Checkpoint& checkpoint) {
  std::uint64_t size = 0;
  std::vector<char> text;
  if (!unpacker_->Take(&size, sizeof size) || !unpacker_->Take(text, size)) return false;
  std::size_t tiles = 0;
  TakeHeader(Json::parse(text.begin(), text.end()), checkpoint, tiles, counts_);
  const auto rows = static_cast<std::size_t>(std::max(checkpoint.plan.height, 0));
  if (!unpacker_->Take(checkpoint.state.rows, rows) || !unpacker_->Take(checkpoint.state.tiles, tiles))
    return false;
  if (!checkpoint.merged) TellPasses(checkpoint);
  return true;
}

bool CheckpointReader::TakeMattes(const Checkpoint& head, std::vector<Aov>& into) {
  static_assert(sizeof(MatteEntry) == 8);
  const std::int32_t width = std::max(head.plan.width, 0), height = std::max(head.plan.height, 0);
  std::vector<std::uint16_t> numbers;
  std::vector<MatteEntry> entries;
  for (Aov& aov : into) {
    if (!IsMatte(aov)) continue;
    if (aov.matte.Height() == 0) aov.matte.Resize(width, height);
    for (std::int32_t y = 0; y < height; ++y) {
      if (!Take(numbers, static_cast<std::size_t>(width))) return false;
      std::size_t sum = 0;
      for (const std::uint16_t number : numbers) sum += number;
      if (!Take(entries, sum) || !aov.matte.AddRow(y, numbers, entries)) return false;
    }
  }
  return true;
}

std::string CheckpointReader::Open(const std::string& path, Checkpoint& checkpoint) {
  static_assert(sizeof(RowSamples) == 8 && sizeof(TileRests) == 8);
  file_.reset(std::fopen(path.c_str(), "rbe"));
  if (!file_) return std::string("cannot be opened: ") + std::strerror(errno);
  char line[kFirstLine.size()] = {};
  std::uint32_t version = 0;
  if (std::fread(line, 1, sizeof line, file_.get()) != sizeof line ||
      std::string_view(line, sizeof line) != kFirstLine)
    return "is no checkpoint";
  if (std::fread(&version, sizeof version, 1, file_.get()) != 1) return "is damaged";
  if (version != kVersion)
    return "is of version " + std::to_string(version) + ", and this program knows version " +
           std::to_string(kVersion);
  unpacker_.emplace(file_.get());
  try {
    return TakeHead(checkpoint) ? "" : "is damaged";
  } catch (const nlohmann::json::exception&) {
    return "is damaged";
  } catch (const std::bad_alloc&) {
    return "takes more memory than there is";
  }
}

std::string ReadCheckpoint(const std::string& path, Checkpoint& checkpoint) {
  CheckpointReader reader;
  if (std::string reason = reader.Open(path, checkpoint); !reason.empty()) return reason;
  try {
    if (checkpoint.merged) return TakeMergedSums(reader, checkpoint);
    for (std::size_t i = 0; i < checkpoint.aovs.size(); ++i)
      if (!reader.Take(checkpoint.aovs[i].image.floatPixels, reader.Count(i))) return "is damaged";
    return reader.TakeMattes(checkpoint, checkpoint.aovs) && reader.EndsHere() ? "" : "is damaged";
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
           checkpoint.aovs[count].layer == aov.layer && checkpoint.aovs[count].nearest == aov.nearest &&
           checkpoint.aovs[count].image.floatPixels.size() == aov.image.floatPixels.size();
    ++count;
  });
  if (!fits || count != checkpoint.aovs.size()) return "its images are not those of the scene";

  count = 0;
  VisitAovs(plan, [&](Aov& aov) {
    aov.matte = std::move(checkpoint.aovs[count].matte);
    aov.image.floatPixels = std::move(checkpoint.aovs[count++].image.floatPixels);
  });
  frameState = checkpoint.state;
  frameState.tilesAcross = TilesAlong(plan.width);
  frameState.resumed = static_cast<std::uint32_t>(plan.begin) + checkpoint.passes;
  return {};
}

}  // namespace zp
