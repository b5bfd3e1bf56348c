#include "integrator/photon_aim.h"

#include <algorithm>
#include <atomic>
#include <cmath>

namespace zp {
namespace {

constexpr std::int64_t kTrialShare = 16;     // one photon in so many is a trial
constexpr std::int64_t kTrialsInCell = 32;   // on average, at least
constexpr std::int64_t kFewestTrials = 256;  // the grid is of some use
constexpr int kMostAlong[2] = {256, 16};     // cells along each of two or four numbers

std::size_t Digit(float number, int edge) {
  return static_cast<std::size_t>(
      std::clamp(static_cast<int>(number * static_cast<float>(edge)), 0, edge - 1));
}

// Calls visit(neighbour) for the cell itself and those that share a side with it; ends meet.
template <class Visit>
void VisitAround(const PhotonAim& aim, std::size_t cell, const Visit& visit) {
  visit(cell);
  const auto edge = static_cast<std::size_t>(aim.edge);
  std::size_t stride = 1;
  for (int axis = 0; axis < aim.axes; ++axis, stride *= edge) {
    const std::size_t digit = cell / stride % edge, rest = cell - digit * stride;
    visit(rest + (digit + 1) % edge * stride);
    visit(rest + (digit + edge - 1) % edge * stride);
  }
}

}  // namespace

PhotonAim MakePhotonAim(std::int64_t count, int axes) {
  PhotonAim aim;
  aim.trials = count;
  const std::int64_t trials = count / kTrialShare;
  if (trials < kFewestTrials) return aim;
  aim.trials = trials;
  aim.axes = axes;
  const double cells = static_cast<double>(trials) / static_cast<double>(kTrialsInCell);
  aim.edge = std::min(static_cast<int>(std::pow(cells, 1.0 / axes)), kMostAlong[axes > 2 ? 1 : 0]);
  std::size_t all = 1;
  for (int axis = 0; axis < axes; ++axis) all *= static_cast<std::size_t>(aim.edge);
  aim.tried.resize(all);
  aim.useful.resize(all);
  return aim;
}

std::size_t AimCell(const PhotonAim& aim, const PhotonNumbers& numbers) {
  const auto edge = static_cast<std::size_t>(aim.edge);
  const Vec2 first = numbers.First();
  std::size_t cell = Digit(first.x, aim.edge) * edge + Digit(first.y, aim.edge);
  if (aim.axes <= 2) return cell;
  const Vec2 second = numbers.Second();
  cell = (cell * edge + Digit(second.x, aim.edge)) * edge + Digit(second.y, aim.edge);
  return cell;
}

void CountTrial(PhotonAim& aim, std::size_t cell, bool useful) {
  std::atomic_ref(aim.tried[cell]).fetch_add(1, std::memory_order_relaxed);
  if (useful) std::atomic_ref(aim.useful[cell]).store(1, std::memory_order_relaxed);
}

// A share s of useful photons is best followed with a chance of about the root of s times what a useful one
// costs by what another does, say four; where n trials were in vain the share is about 1 / (n + 2).
void SettleChances(PhotonAim& aim) {
  aim.chances.resize(aim.tried.size());
  for (std::size_t cell = 0; cell < aim.chances.size(); ++cell) {
    std::uint32_t tried = 0;
    bool useful = false;
    VisitAround(aim, cell, [&](std::size_t neighbour) {
      tried += aim.tried[neighbour];
      useful = useful || aim.useful[neighbour] != 0;
    });
    aim.chances[cell] = useful ? 1.0f : std::min(2 / std::sqrt(static_cast<float>(tried) + 2), 1.0f);
  }
}

}  // namespace zp
