// What tests share that compare random draws with their density.

#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "core/index.h"
#include "core/vec.h"

namespace zp {

inline constexpr double kTau = 6.283185307179586;

// Draws by bin against the share that each should have (alike for all, without shares): Pearson's chi-square
// within five standard deviations, as Wilson and Hilferty give them in "The Distribution of Chi-square",
// 1931. Bins that expect fewer than ten draws count as one.
inline void ExpectShares(const std::vector<double>& counts, std::vector<double> shares = {}) {
  shares.resize(counts.size(), 1 / static_cast<double>(counts.size()));
  const double draws = std::accumulate(counts.begin(), counts.end(), 0.0);
  double chiSquare = 0, degrees = -1, restCount = 0, restExpected = 0;
  const auto add = [&](double count, double expected) {
    chiSquare += (count - expected) * (count - expected) / expected;
    ++degrees;
  };
  for (std::size_t i = 0; i < counts.size(); ++i) {
    if (shares[i] * draws >= 10) {
      add(counts[i], shares[i] * draws);
      continue;
    }
    restCount += counts[i];
    restExpected += shares[i] * draws;
  }
  const double missing = std::max(0.0, 10 - restExpected);
  add(restCount + missing, restExpected + missing);
  ASSERT_GE(degrees, 2);
  const double spread = 2 / (9 * degrees);
  EXPECT_LT(chiSquare, degrees * std::pow(1 - spread + 5 * std::sqrt(spread), 3.0)) << degrees;
}

inline Vec3 FromPolar(double cosine, double phi) {
  const double sine = std::sqrt(std::max(0.0, 1 - cosine * cosine));
  return {static_cast<float>(sine * std::cos(phi)), static_cast<float>(sine * std::sin(phi)),
          static_cast<float>(cosine)};
}

// Bins over the sphere that are polar around an axis: equal steps of angle both ways.
struct SphereGrid {
  explicit SphereGrid(Vec3 axis = {0, 0, 1}, int ringCount = 60, int sectorCount = 90)
      : z(axis), x(UnitPerpendicular(axis)), y(Cross(z, x)), rings(ringCount), sectors(sectorCount) {}

  std::size_t Bin(Vec3 d) const {
    const double angle = std::atan2(std::hypot(Dot(d, x), Dot(d, y)), Dot(d, z));
    double turn = std::atan2(Dot(d, y), Dot(d, x)) / kTau;
    if (turn < 0) turn += 1;
    const int ring = std::min(rings - 1, static_cast<int>(angle / (kTau / 2) * rings));
    const int sector = std::min(sectors - 1, static_cast<int>(turn * sectors));
    return static_cast<std::size_t>(ring * sectors + sector);
  }

  // The integral of `density` over each bin, by the midpoints of `fine` times `fine` pieces.
  template <class Density>
  std::vector<double> Integrate(const Density& density, int fine = 6) const {
    std::vector<double> shares(static_cast<std::size_t>(rings * sectors));
    const double step = kTau / 2 / (rings * fine), turn = kTau / (sectors * fine);
    for (int i = 0; i < rings * fine; ++i) {
      const double angle = (i + 0.5) * step;
      for (int j = 0; j < sectors * fine; ++j) {
        const Vec3 local = FromPolar(std::cos(angle), (j + 0.5) * turn);
        const Vec3 d = local.x * x + local.y * y + local.z * z;
        At(shares, i / fine * sectors + j / fine) +=
            static_cast<double>(density(d)) * std::sin(angle) * step * turn;
      }
    }
    return shares;
  }

  Vec3 z, x, y;
  int rings, sectors;
};

inline double Sum(const std::vector<double>& values) {
  return std::accumulate(values.begin(), values.end(), 0.0);
}

template <class Value>
double OverSphere(const Value& value, int fine = 4) {
  return Sum(SphereGrid().Integrate(value, fine));
}

// A mean and its standard error.
struct RunningMean {
  void Add(double value) {
    sum += value;
    squares += value * value;
    ++count;
  }
  double Mean() const { return sum / count; }
  double Error() const { return std::sqrt(std::max(0.0, squares / count - Mean() * Mean()) / count); }

  double sum = 0, squares = 0, count = 0;
};

}  // namespace zp
