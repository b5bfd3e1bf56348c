#include "job/merge.h"

#include <algorithm>
#include <tuple>

#include "core/index.h"
#include "job/checkpoint_file.h"

namespace zp {
namespace {

constexpr std::int32_t kMostPixels = 65535;  // along a side

std::string Quoted(const FramePart& part) { return '\'' + part.path + '\''; }

std::size_t PixelCount(const FramePlan& plan) {
  return static_cast<std::size_t>(plan.width) * static_cast<std::size_t>(plan.height);
}

std::string RangeText(PassRange range) {
  return std::to_string(range.begin) + ":" + std::to_string(range.end);
}
std::string RangesText(const std::vector<PassRange>& ranges) {
  std::string text;
  for (const PassRange range : ranges) text += (text.empty() ? "" : ", ") + RangeText(range);
  return text;
}

// What no render writes, though the checksum be right.
bool IsSound(const Checkpoint& head, const CheckpointReader& reader) {
  const FramePlan& plan = head.plan;
  if (plan.width < 1 || plan.height < 1 || plan.width > kMostPixels || plan.height > kMostPixels ||
      plan.sample < 1 || plan.sample > kMostSamples || plan.begin < 0 || head.aovs.empty())
    return false;
  for (std::size_t i = 0; i < head.aovs.size(); ++i)
    if (reader.Count(i) != 0 && reader.Count(i) != 3 * PixelCount(plan)) return false;
  std::uint32_t last = 0;
  for (const PassRange range : head.whole) {
    if (range.begin < last || range.end <= range.begin) return false;
    last = range.end;
  }
  return last <= static_cast<std::uint32_t>(plan.sample);
}

// Each share has passes of its own, and sets of photons may differ; in format 2 passes do not know how many
// are planned.
bool MayDiffer(const NamedNumber& number, const FramePlan& plan) {
  return number.field == &FramePlan::begin || number.field == &FramePlan::end ||
         number.field == &FramePlan::photons || (number.field == &FramePlan::sample && plan.format >= 2);
}

bool HaveSameAovs(const Checkpoint& a, const Checkpoint& b) {
  return std::equal(
      a.aovs.begin(), a.aovs.end(), b.aovs.begin(), b.aovs.end(), [](const Aov& x, const Aov& y) {
        return x.channel == y.channel && x.mean == y.mean && x.nearest == y.nearest && x.layer == y.layer;
      });
}

// Why b is no share of the frame that a belongs to; else empty.
std::string Difference(const FramePart& a, const FramePart& b) {
  const auto tell = [&](const std::string& what) {
    return Quoted(b) + " is of another render than " + Quoted(a) + ": " + what;
  };
  if (a.head.program != b.head.program)
    return tell("by program version " + b.head.program + ", there " + a.head.program);
  if (const std::string file = FirstDifference(a.head.files, b.head.files); !file.empty())
    return tell("the scene's '" + file + "' is not the same");
  for (const NamedNumber& number : kPlanNumbers) {
    const std::int32_t first = a.head.plan.*number.field, second = b.head.plan.*number.field;
    if (first != second && !MayDiffer(number, a.head.plan))
      return tell(std::string(number.option) + ", " + number.name + " " + std::to_string(second) +
                  ", there " + std::to_string(first));
  }
  if (a.head.plan.seed != b.head.plan.seed)
    return tell("--seed " + std::to_string(b.head.plan.seed) + ", there " + std::to_string(a.head.plan.seed));
  return HaveSameAovs(a.head, b.head) ? "" : tell("it has other images");
}

// All passes that have added anything, in order, with the part that they stand in.
std::vector<std::pair<PassRange, const FramePart*>> TakenPasses(const std::vector<FramePart>& parts) {
  std::vector<std::pair<PassRange, const FramePart*>> taken;
  for (const FramePart& part : parts) {
    for (const PassRange range : part.head.whole) taken.emplace_back(range, &part);
    for (const std::uint32_t pass : part.head.begun) taken.push_back({{pass, pass + 1}, &part});
  }
  std::sort(taken.begin(), taken.end(), [](const auto& a, const auto& b) {
    return std::tie(a.first.begin, a.first.end) < std::tie(b.first.begin, b.first.end);
  });
  return taken;
}

std::string FirstOverlap(const std::vector<FramePart>& parts) {
  const auto taken = TakenPasses(parts);
  for (std::size_t i = 1; i < taken.size(); ++i) {
    const auto& [a, first] = taken[i - 1];
    const auto& [b, second] = taken[i];
    if (a.end > b.begin)
      return Quoted(*first) + " and " + Quoted(*second) + " both hold passes " +
             RangeText({b.begin, std::min(a.end, b.end)});
  }
  return {};
}

// Whole passes of all parts; neighbours that touch are one range.
std::vector<PassRange> WholePasses(const std::vector<FramePart>& parts) {
  std::vector<PassRange> all, ranges;
  for (const FramePart& part : parts) all.insert(all.end(), part.head.whole.begin(), part.head.whole.end());
  std::sort(all.begin(), all.end(), [](PassRange a, PassRange b) { return a.begin < b.begin; });
  for (const PassRange range : all)
    if (!ranges.empty() && ranges.back().end == range.begin)
      ranges.back().end = range.end;
    else
      ranges.push_back(range);
  return ranges;
}

// How a part's numbers become sums over samples.
class Weigher {
 public:
  Weigher(const Checkpoint& head, std::size_t aov)
      : head_(head), aov_(head.aovs[aov]), width_(static_cast<std::size_t>(head.plan.width)) {}
  double At(std::size_t number) const {
    if (IsDrawnByPhotons(aov_)) return head_.drawn;
    const std::size_t pixel = number / 3;
    return SampleWeight(aov_, head_.state,
                        SamplesOf(head_.state, static_cast<std::int32_t>(pixel % width_),
                                  static_cast<std::int32_t>(pixel / width_)));
  }

 private:
  const Checkpoint& head_;
  const Aov& aov_;
  std::size_t width_;
};

// Adds numbers of a file to sums, which grow with them: what a size promises takes no memory. They are
// doubles of a merge or floats of any other checkpoint.
template <class Number, class Weight>
bool AddNumbers(CheckpointReader& reader, std::size_t count, std::vector<double>& sums,
                const Weight& weight) {
  constexpr std::size_t kStep = std::size_t{1} << 18;
  std::vector<Number> numbers;
  for (std::size_t begin = 0; begin < count; begin += kStep) {
    const std::size_t step = std::min(kStep, count - begin);
    if (!reader.Take(numbers, step)) return false;
    if (sums.size() < begin + step) sums.resize(begin + step);
    for (std::size_t i = 0; i < step; ++i)
      sums[begin + i] += weight(begin + i) * static_cast<double>(numbers[i]);
  }
  return true;
}

// Takes the pixels that the part knows a nearer sample of; the first such AOV tells which.
template <class Number>
bool TakeNearest(CheckpointReader& reader, std::size_t count, bool decides, std::vector<bool>& isNearer,
                 std::vector<double>& sums) {
  std::vector<Number> numbers;
  if (!reader.Take(numbers, count)) return false;
  sums.resize(std::max(sums.size(), count));
  if (decides) isNearer.assign(count / 3, false);
  if (isNearer.size() < count / 3) return false;
  for (std::size_t i = 0; i < count; ++i) {
    if (decides && i % 3 == 0) isNearer[i / 3] = static_cast<double>(numbers[i]) > sums[i];
    if (isNearer[i / 3]) sums[i] = static_cast<double>(numbers[i]);
  }
  return true;
}

bool AddSamples(CheckpointReader& reader, const Checkpoint& head, std::vector<std::uint32_t>& samples) {
  const std::size_t pixels = PixelCount(head.plan);
  std::vector<std::uint32_t> own;
  if (head.merged && !reader.Take(own, pixels)) return false;
  samples.resize(pixels);
  const auto width = static_cast<std::size_t>(head.plan.width);
  for (std::size_t i = 0; i < pixels; ++i)
    samples[i] += head.merged ? own[i]
                              : SamplesOf(head.state, static_cast<std::int32_t>(i % width),
                                          static_cast<std::int32_t>(i / width));
  return true;
}

std::string AddPart(const FramePart& part, MergedFrame& frame) {
  const std::string damage = Quoted(part) + " is damaged";
  CheckpointReader reader;
  Checkpoint head;
  if (const std::string reason = reader.Open(part.path, head); !reason.empty())
    return Quoted(part) + " " + reason;
  if (!(head.plan == part.head.plan) || head.whole != part.head.whole || head.begun != part.head.begun ||
      head.aovs.size() != part.head.aovs.size())
    return Quoted(part) + " has changed in the meantime";
  std::vector<bool> isNearer;
  for (std::size_t i = 0; i < head.aovs.size(); ++i) {
    const Weigher weigher(head, i);
    const bool decides = head.aovs[i].channel == kChannelNearness;
    const bool added =
        head.aovs[i].nearest
            ? (head.merged ? TakeNearest<double>(reader, reader.Count(i), decides, isNearer, frame.sums[i])
                           : TakeNearest<float>(reader, reader.Count(i), decides, isNearer, frame.sums[i]))
        : head.merged
            ? AddNumbers<double>(reader, reader.Count(i), frame.sums[i], [](std::size_t) { return 1.0; })
            : AddNumbers<float>(reader, reader.Count(i), frame.sums[i],
                                [&](std::size_t number) { return weigher.At(number); });
    if (!added) return damage;
  }
  const bool isWhole = AddSamples(reader, head, frame.samples) && reader.TakeMattes(head, frame.head.aovs);
  return isWhole && reader.EndsHere() ? "" : damage;
}

// What all parts are together.
Checkpoint HeadOf(const std::vector<FramePart>& parts) {
  Checkpoint head = parts.front().head;
  head.merged = true;
  head.plan.begin = head.plan.end = 0;
  head.begun.clear();
  head.passes = 0;
  head.drawn = head.seconds = 0;
  bool samePhotons = true;
  for (const FramePart& part : parts) {
    head.plan.sample = std::max(head.plan.sample, part.head.plan.sample);
    head.begun.insert(head.begun.end(), part.head.begun.begin(), part.head.begun.end());
    head.drawn += part.head.drawn;
    head.seconds += part.head.seconds;
    samePhotons = samePhotons && part.head.plan.photons == head.plan.photons;
  }
  head.whole = WholePasses(parts);
  std::sort(head.begun.begin(), head.begun.end());
  head.state.rows.clear();
  if (head.plan.format < 2) head.state.planned = static_cast<std::uint32_t>(head.plan.sample);
  // A render that goes on casts photons that none of the parts has cast.
  if (!samePhotons && !head.whole.empty())
    head.plan.photons = static_cast<std::int32_t>(head.whole.back().end);
  return head;
}

}  // namespace

std::string OpenParts(const std::vector<std::string>& paths, std::vector<FramePart>& parts) {
  for (const std::string& path : paths) {
    FramePart part = {path, {}};
    CheckpointReader reader;
    std::string reason = reader.Open(path, part.head);
    if (reason.empty() && !IsSound(part.head, reader)) reason = "is damaged";
    if (reason.empty() && part.head.plan.halves != 0)
      reason = "was rendered with --noise, as parts cannot be";
    if (!reason.empty()) return Quoted(part) + " " + reason;
    if (!parts.empty())
      if (std::string difference = Difference(parts.front(), part); !difference.empty()) return difference;
    parts.push_back(std::move(part));
  }
  const auto first = [](const FramePart& part) {
    const Checkpoint& head = part.head;
    if (!head.whole.empty()) return head.whole[0].begin;
    return head.begun.empty() ? static_cast<std::uint32_t>(head.plan.begin) : head.begun[0];
  };
  std::stable_sort(parts.begin(), parts.end(),
                   [&](const FramePart& a, const FramePart& b) { return first(a) < first(b); });
  return FirstOverlap(parts);
}

std::string MissingPasses(const std::vector<FramePart>& parts) {
  std::int32_t planned = 0;
  for (const FramePart& part : parts) planned = std::max(planned, part.head.plan.sample);
  std::vector<PassRange> whole = WholePasses(parts), missing;
  const auto end = static_cast<std::uint32_t>(planned);
  whole.push_back({end, end});
  std::uint32_t next = 0;
  for (const PassRange range : whole) {
    if (range.begin > next) missing.push_back({next, range.begin});
    next = range.end;
  }
  return RangesText(missing);
}

std::string PassesOf(const std::vector<FramePart>& parts) { return RangesText(WholePasses(parts)); }

std::string MergeParts(const std::vector<FramePart>& parts, MergedFrame& frame) {
  if (parts.empty()) return "there are no parts";
  frame.head = HeadOf(parts);
  frame.sums.assign(frame.head.aovs.size(), {});
  try {
    for (const FramePart& part : parts)
      if (std::string reason = AddPart(part, frame); !reason.empty()) return reason;
  } catch (const std::bad_alloc&) {
    return "not enough memory";
  }
  return {};
}

std::string WriteMerge(const std::string& path, const MergedFrame& frame) {
  return WriteMergedCheckpoint(path, frame.head, frame.sums, frame.samples);
}

ImageBuffer MergedPicture(const MergedFrame& frame, std::size_t aov) {
  const Aov& told = frame.head.aovs[aov];
  const std::vector<double>& sums = frame.sums[aov];
  ImageBuffer picture;
  Allocate(picture, frame.head.plan.width, frame.head.plan.height, 3, 32, false);
  picture.fileName = told.image.fileName;
  for (std::size_t i = 0; i < sums.size() && i < picture.floatPixels.size(); ++i) {
    if (told.channel == kChannelSamples) {
      picture.floatPixels[i] = static_cast<float>(frame.samples[i / 3]);
      continue;
    }
    const double count = told.nearest ? 1 : IsDrawnByPhotons(told) ? frame.head.drawn : frame.samples[i / 3];
    picture.floatPixels[i] = count > 0 ? static_cast<float>(sums[i] / count) : 0.0f;
  }
  return picture;
}

}  // namespace zp
