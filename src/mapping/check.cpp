#include "mapping/check.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "mapping/search.h"

namespace lockstep::mapping {
namespace {

std::string point_text(const Points& points, std::size_t i) {
  std::string text = "(";
  char number[32];
  for (int k = 0; k < points.dimension; ++k) {
    std::snprintf(number, sizeof number, "%s%.9g", k == 0 ? "" : ", ", points.at(i)[k]);
    text += number;
  }
  return text + ")";
}

double extent_of(const Points& points) {
  double squared = 0;
  for (int k = 0; k < points.dimension; ++k) {
    double low = points.at(0)[k], high = low;
    for (std::size_t i = 1; i < points.count; ++i) {
      low = std::min(low, points.at(i)[k]);
      high = std::max(high, points.at(i)[k]);
    }
    squared += (high - low) * (high - low);
  }
  return std::sqrt(squared);
}

}  // namespace

bool reproduces_constants(const Method& method) {
  return method.polynomial || (method.kind != Kind::kRbf && method.kind != Kind::kRbfPum);
}

std::string check_weights(const Method& method, const Points& from, const Points& to, const WeightsView& weights,
                          Deviation& largest) {
  largest = {};
  // A conservative map transposes the consistent one from `to` to `from`:
  // its rows are this matrix's columns.
  const Points& sources = method.conservative ? to : from;
  const Points& targets = method.conservative ? from : to;
  const auto d = static_cast<std::size_t>(targets.dimension);
  // Per target: the row sum, the absolute row sum, mapped position - target.
  std::vector<double> sum(targets.count, 0.0), magnitude(targets.count, 0.0), position(targets.count * d, 0.0);
  for (std::size_t row = 0; row < weights.rows; ++row) {
    for (auto at = static_cast<std::size_t>(weights.row_start[row]);
         at < static_cast<std::size_t>(weights.row_start[row + 1]); ++at) {
      const auto column = static_cast<std::size_t>(weights.column_of[at]);
      const std::size_t target = method.conservative ? column : row, source = method.conservative ? row : column;
      if (target >= targets.count || source >= sources.count) return "the weights name a point outside the meshes";
      const double value = weights.value[at];
      sum[target] += value;
      magnitude[target] += std::abs(value);
      // Offsets from the target: the same for a mesh anywhere in space.
      for (std::size_t k = 0; k < d; ++k) {
        position[target * d + k] += value * (sources.at(source)[k] - targets.at(target)[k]);
      }
    }
  }
  const bool constants = reproduces_constants(method);
  const PointSearch search(sources);
  // Rounding in a solve grows with the weights' size and the mesh's extent.
  const double extent = extent_of(sources) + extent_of(targets);
  for (std::size_t t = 0; t < targets.count; ++t) {
    const std::string where = "the weights of target point " + std::to_string(t) + " " + point_text(targets, t);
    if (!std::isfinite(sum[t]) || !std::isfinite(magnitude[t])) return where + " are not finite";
    if (!constants) continue;
    const double off = std::abs(sum[t] - 1);
    largest.row_sum = std::max(largest.row_sum, off);
    char text[160];
    if (!(off <= kRowSumTolerance * std::max(1.0, magnitude[t]))) {
      std::snprintf(text, sizeof text, " sum to %.17g, not 1", sum[t]);
      return where + text + ": the method failed on this mesh";
    }
    double squared = 0;
    for (std::size_t k = 0; k < d; ++k) squared += position[t * d + k] * position[t * d + k];
    const double nearest = std::sqrt(search.nearest(targets.at(t), 1).front().second);
    const double excess = std::max(0.0, std::sqrt(squared) - nearest);
    largest.position = std::max(largest.position, excess);
    if (!(excess <= 1e-8 * std::max(1.0, magnitude[t]) * extent)) {
      std::snprintf(text, sizeof text, " map it to a point %.3g from it, farther than its nearest source point (%.3g)",
                    std::sqrt(squared), nearest);
      return where + text + ": the method failed on this mesh";
    }
  }
  return {};
}

}  // namespace lockstep::mapping
