#include "results.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace zp {
namespace {

// A rate or a ratio; a dash where a side was not measured.
std::string Cell(double value, int decimals) {
  if (!(value > 0) || !std::isfinite(value)) return "-";
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

double RelativeDifference(double a, double b) {
  const double larger = std::max(std::abs(a), std::abs(b));
  return larger > 0 ? std::abs(a - b) / larger : 0;
}

}  // namespace

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : 0.5 * (values[middle - 1] + values[middle]);
}

double Minimum(const std::vector<double>& values) {
  return values.empty() ? 0 : *std::min_element(values.begin(), values.end());
}

bool Agrees(const Agreement& agreement) {
  return RelativeDifference(static_cast<double>(agreement.ourHits),
                            static_cast<double>(agreement.otherHits)) <= agreement.tolerance &&
         RelativeDifference(agreement.ourDistance, agreement.otherDistance) <= agreement.tolerance &&
         static_cast<double>(agreement.different) <=
             agreement.tolerance * static_cast<double>(agreement.rays);
}

void PrintResults(const std::vector<CaseResult>& results) {
  std::printf("\n%-24s %7s %8s | %9s %9s | %9s %9s | %7s %7s\n", "case", "threads", "unit", "ours", "ours",
              "Embree", "Embree", "ratio", "ratio");
  std::printf("%-24s %7s %8s | %9s %9s | %9s %9s | %7s %7s\n", "", "", "", "median", "best", "median", "best",
              "median", "best");
  for (const CaseResult& r : results) {
    const double ourMedian = Median(r.ours), ourBest = Minimum(r.ours);
    const double otherMedian = Median(r.other), otherBest = Minimum(r.other);
    std::printf("%-24s %7d %8s | %9s %9s | %9s %9s | %7s %7s\n", r.name.c_str(), r.threads, r.unit.c_str(),
                Cell(r.amount / ourMedian, 2).c_str(), Cell(r.amount / ourBest, 2).c_str(),
                Cell(r.amount / otherMedian, 2).c_str(), Cell(r.amount / otherBest, 2).c_str(),
                Cell(otherMedian / ourMedian, 3).c_str(), Cell(otherBest / ourBest, 3).c_str());
  }
}

bool PrintAgreements(const std::vector<Agreement>& agreements) {
  bool allAgree = true;
  for (const Agreement& a : agreements) {
    const bool agrees = Agrees(a);
    allAgree = allAgree && agrees;
    std::printf(
        "%-24s %zu rays: hits %zu, Embree %zu; sum of distances %.9g, Embree %.9g; %zu rays differ: %s "
        "within %g %%\n",
        a.name.c_str(), a.rays, a.ourHits, a.otherHits, a.ourDistance, a.otherDistance, a.different,
        agrees ? "agrees" : "DOES NOT AGREE", 100 * a.tolerance);
  }
  return allAgree;
}

}  // namespace zp
