#include "weight_choice.h"

#include <algorithm>

namespace tavrel::strip {
namespace {

// Agreements that differ by less than this are the same.
constexpr double kTolerance = 0.0075;

/// Masks that are empty agree in nothing that could be chosen.
double agreement(const BitVolume& a, const BitVolume& b) {
  return a.none() && b.none() ? 0 : overlap(a, b);
}

}  // namespace

WeightChoice chooseWeight(std::span<const WeightTrial> trials, double mostMl) {
  WeightChoice choice;
  const std::size_t n = trials.size();
  choice.ratings.assign(n, 1);
  if (n < 2) return choice;
  std::vector<double> withNext;
  for (std::size_t i = 0; i + 1 < n; ++i)
    withNext.push_back(agreement(trials[i].finished, trials[i + 1].finished));
  for (std::size_t i = 0; i < n; ++i)
    choice.ratings[i] = i == 0       ? withNext[0]
                        : i + 1 == n ? withNext[n - 2]
                                     : (withNext[i - 1] + withNext[i]) / 2;
  const auto rating = [&](std::size_t i) { return choice.ratings[i]; };
  // Masks that are too large come after all others.
  const auto better = [&](std::size_t i, std::size_t j) {
    const bool large = trials[i].ml > mostMl, other = trials[j].ml > mostMl;
    return large != other ? other : rating(i) > rating(j);
  };
  for (std::size_t i = 1; i < n; ++i)
    if (better(i, choice.best)) choice.best = i;
  const double enough = rating(choice.best) - kTolerance;
  while (choice.chosen < choice.best &&
         (rating(choice.chosen) < enough || trials[choice.chosen].ml > mostMl))
    ++choice.chosen;
  choice.agreement = rating(choice.chosen);
  return choice;
}

}  // namespace tavrel::strip
