// app/snapshots.h: copies of a frame's images for those who watch it. The thread that renders makes them
// between passes or while a pass is paused, of what somebody has asked for lately and no more often than
// costs a fiftieth of the time; other threads read them as long as they like.

#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "imaging/frame_state.h"
#include "imaging/imaging.h"

namespace zp {

struct Snapshot {
  std::uint64_t version = 0;  // no two have the same
  std::uint32_t passes = 0;   // whole ones that it holds
  ImageBuffer picture;        // as it would be saved now, as floats
  std::vector<bool> missing;  // pixels without a sample; empty: none
};

// One pixel as text: each float in the fewest digits that tell it exactly.
std::array<std::string, 3> ValueTexts(const Snapshot& snapshot, std::int32_t x, std::int32_t y);
// Squares of pixels, each of which becomes one on a screen that has fewer.
struct ScreenSquares {
  std::int32_t side = 1;               // pixels
  std::int32_t width = 0, height = 0;  // squares
};
//   level  each doubles the side
ScreenSquares SquaresOf(const Snapshot& snapshot, int level);
// Red, green, blue and opacity of each square, as `zephlore view` makes them; where no sample was taken, all
// 0.
//   exposure  stops
std::string ScreenBytes(const Snapshot& snapshot, double exposure, const ScreenSquares& squares);

class Snapshots {
 public:
  // By the thread that renders: a frame is initialised; whether somebody waits for a newer copy; copies, of
  // all images where `all` is set.
  void Begin(Camera& camera);
  bool AreDue() const;
  //   waited  seconds that it took to pause
  void Take(double waited, bool all = false);

  // By any thread. The names of the images, those of the camera first; empty before the first frame.
  std::vector<std::string> Names() const;
  // The last copy, if there is one; asks for newer ones.
  std::shared_ptr<const Snapshot> Ask(std::size_t index);
  // Whether anybody has asked within some seconds.
  bool AreWatched() const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Copy;
  struct Entry {
    std::string name;
    Clock::time_point asked = Clock::time_point::min();
    std::shared_ptr<Copy> copy;
  };
  static bool IsRecent(Clock::time_point asked);

  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
  std::uint64_t lastVersion_ = 0;
  Clock::time_point taken_ = Clock::now() - std::chrono::hours(1);
  double cost_ = 0;  // of the last copies, seconds
};

}  // namespace zp
