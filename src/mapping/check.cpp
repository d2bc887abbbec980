#include "mapping/check.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <optional>
#include <vector>

#include "mapping/cores.h"
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

double distance(const std::vector<double>& offsets, std::size_t t, std::size_t d) {
  double squared = 0;
  for (std::size_t k = 0; k < d; ++k) squared += offsets[t * d + k] * offsets[t * d + k];
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
  std::atomic<bool> outside{false};
  // A consistent map's row is its target's: summed in registers, one row
  // at a time, since the sums held in memory could alias the weights.
  const auto accumulate_rows = [&](std::size_t first_row, std::size_t end_row) {
    for (std::size_t row = first_row; row < end_row; ++row) {
      double row_sum = 0, row_magnitude = 0, offset[3] = {0, 0, 0};
      const double* const target = targets.at(row);
      const auto end = static_cast<std::size_t>(weights.row_start[row + 1]);
      for (auto at = static_cast<std::size_t>(weights.row_start[row]); at < end; ++at) {
        const auto column = static_cast<std::size_t>(weights.column_of[at]);
        if (column >= sources.count) {
          outside = true;
          return;
        }
        const double value = weights.value[at];
        row_sum += value;
        row_magnitude += std::abs(value);
        const double* const source = sources.at(column);
        for (std::size_t k = 0; k < d; ++k) offset[k] += value * (source[k] - target[k]);
      }
      sum[row] = row_sum;
      magnitude[row] = row_magnitude;
      for (std::size_t k = 0; k < d; ++k) position[row * d + k] = offset[k];
    }
  };
  const auto accumulate = [&](std::size_t first_row, std::size_t end_row) {
    for (std::size_t row = first_row; row < end_row; ++row) {
      for (auto at = static_cast<std::size_t>(weights.row_start[row]);
           at < static_cast<std::size_t>(weights.row_start[row + 1]); ++at) {
        const auto column = static_cast<std::size_t>(weights.column_of[at]);
        const std::size_t target = method.conservative ? column : row, source = method.conservative ? row : column;
        if (target >= targets.count || source >= sources.count) {
          outside = true;
          return;
        }
        const double value = weights.value[at];
        sum[target] += value;
        magnitude[target] += std::abs(value);
        // Offsets from the target: the same for a mesh anywhere in space.
        for (std::size_t k = 0; k < d; ++k) {
          position[target * d + k] += value * (sources.at(source)[k] - targets.at(target)[k]);
        }
      }
    }
  };
  // A conservative map's rows add into any target: they are summed on one
  // core. A consistent map's row is its target's, summed where it is checked.
  if (method.conservative) accumulate(0, weights.rows);
  if (!method.conservative && weights.rows > targets.count) outside = true;
  const bool constants = reproduces_constants(method);
  // Nearest-neighbour rows are the nearest point by construction.
  const bool positions = constants && method.kind != Kind::kNearestNeighbour;
  // Built when a target first needs its nearest source point.
  std::once_flag search_built;
  std::optional<PointSearch> search;
  const auto nearest = [&](std::size_t t) {
    std::call_once(search_built, [&] { search.emplace(sources); });
    return std::sqrt(search->nearest(targets.at(t), 1).front().second);
  };
  // Rounding in a solve grows with the weights' size and the mesh's extent.
  const double extent = extent_of(sources) + extent_of(targets);
  // Targets in blocks on every core; the first failing target is reported.
  const unsigned cores = core_count();
  std::atomic<std::size_t> first_failure{targets.count};
  std::vector<Deviation> found(cores);
  run_parts(cores, [&](unsigned part) {
    const std::size_t begin = part_begin(targets.count, part, cores), end = part_begin(targets.count, part + 1, cores);
    if (!method.conservative && !outside) accumulate_rows(std::min(begin, weights.rows), std::min(end, weights.rows));
    for (std::size_t t = begin; t < end && t < first_failure && !outside; ++t) {
      const auto fail = [&] {
        std::size_t seen = first_failure;
        while (t < seen && !first_failure.compare_exchange_weak(seen, t)) {}
      };
      if (!std::isfinite(sum[t]) || !std::isfinite(magnitude[t])) return fail();
      if (!constants) continue;
      const double off = std::abs(sum[t] - 1);
      found[part].row_sum = std::max(found[part].row_sum, off);
      if (!(off <= kRowSumTolerance * std::max(1.0, magnitude[t]))) return fail();
      if (!positions) continue;
      // The excess is at most the offset itself: where that passes, as it
      // does wherever a method reproduces coordinates, the search is spared
      // and the offset counted as the excess.
      const double offset = distance(position, t, d), tolerance = 1e-8 * std::max(1.0, magnitude[t]) * extent;
      const double excess = offset <= tolerance ? offset : std::max(0.0, offset - nearest(t));
      found[part].position = std::max(found[part].position, excess);
      if (!(excess <= tolerance)) return fail();
    }
  });
  if (outside) return "the weights name a point outside the meshes";
  for (const Deviation& part : found) {
    largest.row_sum = std::max(largest.row_sum, part.row_sum);
    largest.position = std::max(largest.position, part.position);
  }
  const std::size_t t = first_failure;
  if (t == targets.count) return {};
  const std::string where = "the weights of target point " + std::to_string(t) + " " + point_text(targets, t);
  if (!std::isfinite(sum[t]) || !std::isfinite(magnitude[t])) return where + " are not finite";
  char text[160];
  if (!(std::abs(sum[t] - 1) <= kRowSumTolerance * std::max(1.0, magnitude[t]))) {
    std::snprintf(text, sizeof text, " sum to %.17g, not 1", sum[t]);
    return where + text + ": the method failed on this mesh";
  }
  std::snprintf(text, sizeof text, " map it to a point %.3g from it, farther than its nearest source point (%.3g)",
                distance(position, t, d), nearest(t));
  return where + text + ": the method failed on this mesh";
}

}  // namespace lockstep::mapping
