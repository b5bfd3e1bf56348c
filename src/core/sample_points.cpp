#include "core/sample_points.h"

#include "core/random.h"
#include "core/settings.h"

namespace zp {
namespace {

std::uint32_t seedKey = 0;

constexpr std::uint32_t kShutter = 0x5a7e7e11U, kPhotons = 0x70407025U;  // beside the columns of tiles
constexpr std::uint32_t kOddPasses = 0x3c6ef372U;

// Of all points of a pass that half sets are kept apart by.
std::uint32_t KeyOfPass(std::uint32_t pass) {
  return settings.said.halfSets && HalfOfPass(pass) != 0 ? MixKeys(seedKey, kOddPasses) : seedKey;
}

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
  constexpr std::uint8_t kSpread[kPointTile] = {0x00, 0x80, 0x20, 0xa0, 0x08, 0x88, 0x28, 0xa8,
                                                0x02, 0x82, 0x22, 0xa2, 0x0a, 0x8a, 0x2a, 0xaa};
  return static_cast<std::uint8_t>(kSpread[x % kPointTile] | kSpread[y % kPointTile] >> 1U);
}

PointSource Start(std::uint32_t key, std::uint32_t number) {
  PointSource source;
  source.key = source.order = key;
  source.number = number;
  source.shuffled = points::Shuffle(number, key);
  return source;
}

// Columns of a triangular matrix, so that it keeps (0,2)-sequences what they are. Found by search: of the
// four coordinates that numbers and their products with it have, as few elementary intervals as possible are
// empty, of 4 to 2048 points, those of two coordinates counting six times.
constexpr std::uint16_t kSecondColumns[16] = {0x0001, 0x0002, 0x0006, 0x000b, 0x0013, 0x0021, 0x0076, 0x00ad,
                                              0x0102, 0x031c, 0x0733, 0x0dc7, 0x16d1, 0x3b2f, 0x6ee1, 0xa130};

constexpr auto MakeSecondNumbers() {
  std::array<std::array<std::uint16_t, 256>, 2> numbers = {};
  for (std::uint32_t half = 0; half < 2; ++half)
    for (std::uint32_t byte = 0; byte < 256; ++byte)
      for (std::uint32_t bit = 0; bit < 8; ++bit)
        if ((byte >> bit & 1U) != 0) numbers[half][byte] ^= kSecondColumns[8 * half + bit];
  return numbers;
}

}  // namespace

constinit const std::array<std::array<std::uint16_t, 256>, 2> points::secondNumbers = MakeSecondNumbers();
constinit const std::array<std::uint64_t, static_cast<std::size_t>(kPointTile* kPointTile)>
    points::pixelShifts = MakePixelShifts();

void StartSamplePoints() {
  const std::optional<std::uint64_t> seed = RandomSeed();
  seedKey = seed ? MixKeys(static_cast<std::uint32_t>(*seed >> 32U), static_cast<std::uint32_t>(*seed))
                 : RandomBits();
}

std::uint32_t NumberOfPass(std::uint32_t pass) { return settings.said.halfSets ? pass / 2 : pass; }

PointSource PointSourceOf(int x, int y, std::uint32_t pass) {
  const auto column = static_cast<std::uint32_t>(x), row = static_cast<std::uint32_t>(y);
  PointSource source =
      Start(MixKeys(KeyOfPass(pass) ^ column / kPointTile << 16U, row / kPointTile), NumberOfPass(pass));
  source.place = PlaceOf(column, row);
  return source;
}

PointSource PhotonPoints(std::uint32_t number) { return Start(MixKeys(seedKey, kPhotons), number); }

float ShutterInstant(std::uint32_t pass) {
  // Doubling the points doubles how far into its interval each stands, modulo 1: these stay a sixth of it off
  // the middle for ever, and none do better. The other half set, and every other seed, goes the other way.
  constexpr std::uint32_t kTwoThirds = 0xaaaaaaaaU;
  const std::uint32_t half = settings.said.halfSets ? HalfOfPass(pass) : 0;
  const std::uint32_t shift = ((MixKeys(seedKey, kShutter) ^ half) & 1U) != 0 ? ~kTwoThirds : kTwoThirds;
  // The third coordinate of the numbers that the pixel's place takes as they come.
  return UnitFloat(points::Mirror(points::SecondNumber(NumberOfPass(pass))) ^ shift);
}

}  // namespace zp
