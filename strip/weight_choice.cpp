#include "weight_choice.h"

#include <algorithm>

namespace tavrel::strip {
namespace {

// Agreements that differ by less than this are the same.
constexpr double kTolerance = 0.01;

}  // namespace

WeightChoice chooseWeight(std::span<const WeightTrial> trials, double mostMl) {
  WeightChoice choice;
  const std::size_t n = trials.size();
  for (std::size_t i = 0; i + 1 < n; ++i)
    choice.agreements.push_back(overlap(trials[i].finished, trials[i + 1].finished));
  if (n < 2) return choice;
  const auto rating = [&](std::size_t i) {
    const auto& a = choice.agreements;
    return i == 0 ? a[0] : i + 1 == n ? a[n - 2] : (a[i - 1] + a[i]) / 2;
  };
  // Masks that are too large come after all others.
  const auto better = [&](std::size_t i, std::size_t j) {
    const bool large = trials[i].ml > mostMl, other = trials[j].ml > mostMl;
    return large != other ? other : rating(i) > rating(j);
  };
  std::size_t best = 0;
  for (std::size_t i = 1; i < n; ++i)
    if (better(i, best)) best = i;
  while (choice.chosen < best && (rating(choice.chosen) < rating(best) - kTolerance ||
                                  trials[choice.chosen].ml > mostMl))
    ++choice.chosen;
  choice.agreement = rating(choice.chosen);
  return choice;
}

}  // namespace tavrel::strip
