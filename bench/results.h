// bench/results.h: the samples of a run, and the closing table made of them.

#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zp {

// One line of the closing table: one case on some number of threads, on both sides.
struct CaseResult {
  std::string name;
  std::string unit;  // of the rate
  int threads = 1;
  double amount = 0;          // work of one sample, in units: its share of a second gives the rate
  std::vector<double> ours;   // seconds, one a sample
  std::vector<double> other;  // of Embree, or of the plain read for a load
};

// Rays of one set through both sides.
struct Agreement {
  std::string name;
  std::size_t rays = 0;
  std::size_t ourHits = 0, otherHits = 0;
  double ourDistance = 0, otherDistance = 0;
  std::size_t different = 0;  // rays that hit on one side alone, or at another distance
  double tolerance = 0;       // share by which the rest may differ, and share of rays that may be different
};

// Two sides with different triangle tests part at edges; with different curves, all along them: one side's
// are eight straight pieces, and it counts a hit where the ray is nearest to their axis.
inline constexpr double kAgreementTolerance = 1e-4, kCurveTolerance = 0.05;

double Median(std::vector<double> values);  // 0 of none
double Minimum(const std::vector<double>& values);
bool Agrees(const Agreement& agreement);

void PrintResults(const std::vector<CaseResult>& results);
// Says for each set whether the sides agree. False if any set does not.
bool PrintAgreements(const std::vector<Agreement>& agreements);

}  // namespace zp
