#include "snapshots.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <new>

#include "core/index.h"
#include "core/settings.h"
#include "integrator/integrator.h"

namespace zp {
namespace {

constexpr auto kLately = std::chrono::seconds(5);
constexpr double kLeastPause = 0.5;  // seconds between two copies
constexpr double kMostShare = 0.02;  // of the time

double SecondsSince(std::chrono::steady_clock::time_point begin) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Of the file, which its owner has chosen; else of what it records.
std::string NameOf(const Aov& aov, std::size_t number) {
  if (number == 0) return "beauty";
  if (aov.image.fileName.empty() && !aov.layer.empty()) return aov.layer;
  for (const ChannelWord& row : kChannelWords)
    if (aov.image.fileName.empty() && aov.channel == row.channel) return std::string(row.word);
  return aov.image.fileName.empty() ? "image " + std::to_string(number) : aov.image.fileName;
}

std::string FloatText(float value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  char text[32];
  return {text, std::to_chars(text, text + sizeof text, value).ptr};
}

// The mean of a square of pixels, those without a sample left out.
struct Square {
  Vec3 sum;
  int pixels = 0;
};
Square SquareAt(const Snapshot& snapshot, std::int32_t left, std::int32_t top, std::int32_t side) {
  const ImageBuffer& picture = snapshot.picture;
  Square square;
  for (std::int32_t y = top; y < std::min(top + side, picture.height); ++y)
    for (std::int32_t x = left; x < std::min(left + side, picture.width); ++x) {
      const auto pixel =
          static_cast<std::size_t>(y) * static_cast<std::size_t>(picture.width) + static_cast<std::size_t>(x);
      if (!snapshot.missing.empty() && snapshot.missing[pixel]) continue;
      square.sum += ReadPixel(picture, pixel);
      ++square.pixels;
    }
  return square;
}

}  // namespace

// What was copied becomes a picture when the first reader asks for it, on that reader's thread.
struct Snapshots::Copy {
  std::mutex mutex;
  Aov aov;
  FrameState state;
  std::shared_ptr<Snapshot> finished;
  std::uint64_t version = 0;
  std::uint32_t passes = 0;

  std::shared_ptr<const Snapshot> Finish() {
    const std::lock_guard lock(mutex);
    if (finished) return finished;
    finished = std::make_shared<Snapshot>();
    finished->version = version;
    finished->passes = passes;
    finished->picture = IsFinished(aov, state) ? std::move(aov.image) : FinishedPicture(aov, state);
    aov.image = {};
    if (aov.channel != kChannelLightPath) FindMissing();
    return finished;
  }
  void FindMissing() {
    const ImageBuffer& picture = finished->picture;
    std::vector<bool> missing;
    missing.reserve(static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height));
    bool any = false;
    for (std::int32_t y = 0; y < picture.height; ++y)
      for (std::int32_t x = 0; x < picture.width; ++x) {
        missing.push_back(SamplesOf(state, x, y) == 0);
        any = any || missing.back();
      }
    if (any) finished->missing = std::move(missing);
  }
};

std::array<std::string, 3> ValueTexts(const Snapshot& snapshot, std::int32_t x, std::int32_t y) {
  const ImageBuffer& picture = snapshot.picture;
  if (x < 0 || y < 0 || x >= picture.width || y >= picture.height) return {};
  const auto pixel =
      static_cast<std::size_t>(y) * static_cast<std::size_t>(picture.width) + static_cast<std::size_t>(x);
  if (!snapshot.missing.empty() && snapshot.missing[pixel]) return {};
  const Vec3 value = ReadPixel(picture, pixel);
  return {FloatText(value.x), FloatText(value.y), FloatText(value.z)};
}

ScreenSquares SquaresOf(const Snapshot& snapshot, int level) {
  const std::int32_t side = 1 << std::clamp(level, 0, 16);
  const auto count = [side](std::int32_t pixels) { return std::max((pixels + side - 1) / side, 1); };
  return {side, count(snapshot.picture.width), count(snapshot.picture.height)};
}

std::string ScreenBytes(const Snapshot& snapshot, double exposure, const ScreenSquares& squares) {
  ImageBuffer linear;
  Allocate(linear, squares.width, squares.height, 3, 32, false);
  const std::size_t pixels = static_cast<std::size_t>(linear.width) * static_cast<std::size_t>(linear.height);
  std::string bytes(4 * pixels, '\0');
  for (std::size_t i = 0; i < pixels; ++i) {
    const auto x = static_cast<std::int32_t>(i % static_cast<std::size_t>(linear.width));
    const auto y = static_cast<std::int32_t>(i / static_cast<std::size_t>(linear.width));
    const Square square = SquareAt(snapshot, x * squares.side, y * squares.side, squares.side);
    if (square.pixels == 0) continue;
    WritePixel(linear, square.sum / static_cast<float>(square.pixels), i);
    bytes[4 * i + 3] = static_cast<char>(255);
  }
  const double scale = std::exp2(exposure);
  const ImageBuffer screen = ScreenPicture(linear, {scale, scale, scale});
  for (std::size_t i = 0; i < pixels; ++i)
    if (bytes[4 * i + 3] != 0)
      std::copy_n(screen.bytePixels.begin() + static_cast<std::ptrdiff_t>(3 * i), 3,
                  bytes.begin() + static_cast<std::ptrdiff_t>(4 * i));
  return bytes;
}

bool Snapshots::IsRecent(Clock::time_point asked) {
  return asked != Clock::time_point::min() && Clock::now() - asked < kLately;
}

void Snapshots::Begin(Camera& camera) {
  const std::lock_guard lock(mutex_);
  entries_.clear();
  VisitFrameAovs(camera, [this](const Aov& aov) {
    const std::size_t number = entries_.size();
    entries_.emplace_back().name = NameOf(aov, number);
  });
}

bool Snapshots::AreDue() const {
  const std::lock_guard lock(mutex_);
  if (SecondsSince(taken_) < std::max(kLeastPause, cost_ / kMostShare)) {
    // Whoever comes late, or asks for another image, has not to wait as long.
    if (SecondsSince(taken_) < kLeastPause) return false;
    return std::any_of(entries_.begin(), entries_.end(),
                       [](const Entry& entry) { return IsRecent(entry.asked) && !entry.copy; });
  }
  return std::any_of(entries_.begin(), entries_.end(),
                     [](const Entry& entry) { return IsRecent(entry.asked); });
}

void Snapshots::Take(double waited, bool all) {
  if (!IsIndex(cameras, settings.frame.activeCamera)) return;
  const auto begin = Clock::now();
  std::vector<bool> wanted;
  {
    const std::lock_guard lock(mutex_);
    for (const Entry& entry : entries_) wanted.push_back(all || IsRecent(entry.asked));
  }
  std::size_t index = 0;
  VisitFrameAovs(At(cameras, settings.frame.activeCamera), [&](const Aov& aov) {
    const std::size_t i = index++;
    if (i >= wanted.size() || !wanted[i] || aov.image.width <= 0) return;
    std::shared_ptr<Copy> copy;
    try {
      copy = std::make_shared<Copy>();
      copy->aov = aov;
      copy->state = frameState;
    } catch (const std::bad_alloc&) {
      return;  // who looks on shall not end what is looked at
    }
    copy->passes = settings.frame.passIndex - PassesToRender().begin;
    const std::lock_guard lock(mutex_);
    copy->version = ++lastVersion_;
    entries_[i].copy = std::move(copy);
  });
  const std::lock_guard lock(mutex_);
  taken_ = Clock::now();
  // On the average threads wait for half of what the last one takes to end its row.
  cost_ = waited / 2 + std::chrono::duration<double>(taken_ - begin).count();
}

std::vector<std::string> Snapshots::Names() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (const Entry& entry : entries_) names.push_back(entry.name);
  return names;
}

std::shared_ptr<const Snapshot> Snapshots::Ask(std::size_t index) {
  std::shared_ptr<Copy> copy;
  {
    const std::lock_guard lock(mutex_);
    if (index >= entries_.size()) return nullptr;
    entries_[index].asked = Clock::now();
    copy = entries_[index].copy;
  }
  return copy ? copy->Finish() : nullptr;
}

bool Snapshots::AreWatched() const {
  const std::lock_guard lock(mutex_);
  return std::any_of(entries_.begin(), entries_.end(),
                     [](const Entry& entry) { return IsRecent(entry.asked); });
}

}  // namespace zp
