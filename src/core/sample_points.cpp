#include "core/sample_points.h"

#include "core/random.h"

namespace zp {
namespace {

std::uint32_t seedKey = 0;

constexpr std::uint32_t kShutter = 0x5a7e7e11U, kPhotons = 0x70407025U;  // beside the columns of tiles

// Bit r of column c of Pascal's triangle, turned to stand on its edge, is the parity of (r over c); of the
// square that its diagonals make, of (r + c over c). By Lucas' theorem these are comparisons of bits.
constexpr std::uint64_t ShiftOfPlace(std::uint32_t place) {
  std::uint64_t shift = 0;
  for (std::uint32_t c = 0; c < 8; ++c) {
    if ((place >> (7 - c) & 1U) == 0) continue;
    for (std::uint32_t r = 0; r < 32; ++r) {
      if ((r & c) == c) shift ^= std::uint64_t{1} << r;
      if ((r & c) == 0) shift ^= std::uint64_t{1} << (32 + r);
    }
  }
  return shift;
}

constexpr auto MakePixelShifts() {
  std::array<std::uint64_t, static_cast<std::size_t>(kPointTile * kPointTile)> shifts = {};
  for (std::uint32_t place = 0; place < shifts.size(); ++place) shifts[place] = ShiftOfPlace(place);
  return shifts;
}

// The place of a pixel in the Z order of its tile, its bits in reverse.
std::uint8_t PlaceOf(std::uint32_t x, std::uint32_t y) {
  std::uint32_t place = 0;
  for (std::uint32_t bit = 0; bit < 4; ++bit)
    place |= (x >> bit & 1U) << (7 - 2 * bit) | (y >> bit & 1U) << (6 - 2 * bit);
  return static_cast<std::uint8_t>(place);
}

}  // namespace

constinit const std::array<std::uint64_t, static_cast<std::size_t>(kPointTile* kPointTile)>
    points::pixelShifts = MakePixelShifts();

void StartSamplePoints() {
  const std::optional<std::uint64_t> seed = RandomSeed();
  seedKey = seed ? MixKeys(static_cast<std::uint32_t>(*seed >> 32U), static_cast<std::uint32_t>(*seed))
                 : RandomBits();
}

PointSource PointSourceOf(int x, int y) {
  const auto column = static_cast<std::uint32_t>(x), row = static_cast<std::uint32_t>(y);
  return {MixKeys(MixKeys(seedKey, column / kPointTile), row / kPointTile), PlaceOf(column, row)};
}

PointSource PhotonPoints() { return {MixKeys(seedKey, kPhotons), 0}; }

float ShutterInstant(std::uint32_t pass) {
  const std::uint32_t key = MixKeys(seedKey, kShutter);
  const std::uint32_t middle = points::Permute(0, key) ^ 1U;  // shifts the first pass there
  return UnitFloat(points::Mirror(points::Permute(pass, key) ^ middle));
}

}  // namespace zp
