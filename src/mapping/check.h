// Weights are checked before they are kept or applied: a method that
// failed on a mesh it does not suit must be an error, never finite garbage.
#pragma once

#include <string>

#include "mapping/method.h"

namespace lockstep::mapping {

// The largest deviations the check found.
struct Deviation {
  double row_sum = 0;   // |row sum - 1|, where rows must sum to 1
  double position = 0;  // how much farther a mapped position lies from its target than the nearest source point
};

// Whether every row of `weights` (from `from` to `to` by `method`) is
// sound: finite; summing to 1 where the method reproduces constants; and
// its mapped position (the weights applied to the source coordinates) no
// farther from the target than the target's nearest source point. A
// conservative map is checked as the consistent map it transposes. Empty
// on success, else the first row that fails, named by its target point.
std::string check_weights(const Method& method, const Points& from, const Points& to, const WeightsView& weights,
                          Deviation& largest);

// Whether the method's rows sum to 1: every consistent map but an RBF
// without its polynomial.
bool reproduces_constants(const Method& method);

// The most a row sum may differ from 1.
inline constexpr double kRowSumTolerance = 1e-8;

}  // namespace lockstep::mapping
