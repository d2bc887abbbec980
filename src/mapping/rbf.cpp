#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <cmath>
#include <limits>
#include <optional>
#include <vector>

#include "mapping/cores.h"
#include "mapping/kernels.h"
#include "mapping/local.h"

namespace lockstep::mapping {

double wendland(Basis basis, double rho) {
  if (rho >= 1) return 0;
  const double s = 1 - rho;
  switch (basis) {
    case Basis::kWendlandC2: return std::pow(s, 4) * (4 * rho + 1);
    case Basis::kWendlandC4: return std::pow(s, 6) * (35 * rho * rho + 18 * rho + 3) / 3;
    default: return std::pow(s, 8) * (32 * rho * rho * rho + 25 * rho * rho + 8 * rho + 1);
  }
}

LocalSolver local_solver() {
#ifdef LOCKSTEP_WIDE_LOCAL
  // Eigen's products and solves then take four doubles an instruction, not
  // two, and fuse each multiply with its add.
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return wide::solve;
#endif
  return baseline::solve;
}

// In space the nearer of a cube's centre and its nearest corner: balls
// around body-centred cubic cells cover space overlapping about half as
// much as around cubes (1.46 times space against 2.72). A target then takes
// from two clusters rather than four for the same ball, which halves the
// solve (bench/mapping.py).
std::optional<std::array<std::int64_t, 3>> lattice_cell(const double* u, std::size_t d) {
  std::array<std::int64_t, 3> floor{}, corner{};
  double off_centre = 0, off_corner = 0;
  for (std::size_t k = 0; k < d; ++k) {
    const double below = std::floor(u[k]), nearest = std::round(u[k]);
    // Far beyond any mesh's extent in clusters.
    if (!(below < 0x1p61)) return std::nullopt;
    floor[k] = static_cast<std::int64_t>(below);
    corner[k] = 2 * static_cast<std::int64_t>(nearest);
    off_centre += (u[k] - below - 0.5) * (u[k] - below - 0.5);
    off_corner += (u[k] - nearest) * (u[k] - nearest);
  }
  if (d < 3) return floor;
  if (off_corner < off_centre) return corner;
  for (std::int64_t& step : floor) step = 2 * step + 1;
  return floor;
}

namespace {

// Defaults from the point spacing h: a Gaussian as wide as a few points, a
// Wendland support holding a few dozen.
Kernel kernel_for(const Method& method, double spacing) {
  return {method.basis_for(0), method.shape.value_or(1 / (3 * spacing)), method.radius.value_or(6 * spacing)};
}

// The Gaussian's shape times the cluster radius, by default: flat enough
// for accuracy (a relative error of 6e-5 on Franke's function from 20,000
// points), not so flat that 50 points make the system ill-conditioned.
constexpr double kPumShape = 0.4;

// A cluster's points reach this much beyond the ball its interpolant is
// blended over: an interpolant is least accurate at the edge of its
// points, so no target is taken from there. The error on Franke's function
// in the cube falls by a third; a mesh takes 3.6 times the clusters, which
// costs a third more time in the same build of the solve (bench/mapping.py).
constexpr double kPumMargin = 0.5;

// A cell's circumradius in grid steps: a square's half diagonal, or a
// body-centred cell's (a truncated octahedron's) sqrt(5) / 4.
double cell_reach(std::size_t d) { return d < 3 ? std::sqrt(static_cast<double>(d)) / 2 : std::sqrt(5.0) / 4; }

// Cluster centres where the source points are: the points are sorted into
// the cells of a lattice fine enough that balls of `blend_radius` around
// the cells' centres would cover them, and each cell that holds points
// gives one centre, at its points' mean. On a surface the mean lies on it
// (give or take its curvature), so a cluster holds a whole patch, never a
// sliver at the edge of its ball; patches far apart cost no more than near
// ones. Each centre's members: the source points within `radius`, when
// there are enough for a system.
std::string cluster(const Points& from, const PointSearch& search, double radius, double blend_radius, double overlap,
                    Points& centres, std::vector<std::vector<std::size_t>>& members) {
  const auto d = static_cast<std::size_t>(from.dimension);
  std::array<double, 3> low{};
  for (std::size_t k = 0; k < d; ++k) {
    low[k] = from.at(0)[k];
    for (std::size_t i = 1; i < from.count; ++i) low[k] = std::min(low[k], from.at(i)[k]);
  }
  const double spacing = blend_radius / cell_reach(d) / (1 + overlap);
  // Points sorted by cell, each cell's points in their order. Ordered by
  // cell: neighbouring clusters stay near each other in the batches that
  // solve them.
  std::vector<std::pair<std::array<std::int64_t, 3>, std::size_t>> by_cell(from.count);
  for (std::size_t i = 0; i < from.count; ++i) {
    std::array<double, 3> u{};
    for (std::size_t k = 0; k < d; ++k) u[k] = (from.at(i)[k] - low[k]) / spacing;
    const std::optional<std::array<std::int64_t, 3>> cell = lattice_cell(u.data(), d);
    if (!cell) {
      return "the source points lie too far apart for rbf-pum's clusters: use map=rbf-pum lines of their own for "
             "far-apart patches";
    }
    by_cell[i] = {*cell, i};
  }
  std::sort(by_cell.begin(), by_cell.end());
  std::vector<double> means;
  for (std::size_t first = 0, last = 0; first < by_cell.size(); first = last) {
    std::array<double, 3> total{};
    for (last = first; last < by_cell.size() && by_cell[last].first == by_cell[first].first; ++last) {
      for (std::size_t k = 0; k < d; ++k) total[k] += from.at(by_cell[last].second)[k];
    }
    for (std::size_t k = 0; k < d; ++k) means.push_back(total[k] / static_cast<double>(last - first));
  }
  // Each centre's members, found on every core.
  std::vector<std::vector<std::size_t>> inside(means.size() / d);
  std::atomic<std::size_t> next{0};
  run_parts(core_count(), [&](unsigned) {
    for (std::size_t c = next++; c < inside.size(); c = next++) {
      for (const auto& [index, ignored] : search.within(&means[c * d], radius)) inside[c].push_back(index);
      std::sort(inside[c].begin(), inside[c].end());
    }
  });
  centres = Points{};
  centres.dimension = from.dimension;
  members.clear();
  for (std::size_t c = 0; c < inside.size(); ++c) {
    if (inside[c].size() < d + 2) continue;
    centres.coordinates.insert(centres.coordinates.end(), &means[c * d], &means[c * d] + d);
    members.push_back(std::move(inside[c]));
    ++centres.count;
  }
  if (centres.count == 0) return "too few source points for rbf-pum's clusters: use map=rbf";
  return {};
}

// Each target's clusters with their blending weights, summing to one (a
// point beyond every ball takes its nearest cluster alone), and how many
// distinct source points its row will hold. A cluster's weight falls from
// its centre to the edge of its ball as the square root of Wendland's C2
// function, smooth at the centre and once at the edge: flatter than C2
// itself, so that a target takes more evenly from its clusters and their
// errors average out (a tenth less error in the cube, bench/mapping.py).
struct Blend {
  struct Share {
    std::size_t cluster;
    double weight;
  };
  std::vector<std::size_t> first;  // target t's shares: [first[t], first[t + 1])
  std::vector<Share> shares;
  std::vector<std::size_t> distinct;
};

Blend blend_clusters(const Points& from, const Points& to, const std::vector<std::vector<std::size_t>>& members,
                     const PointSearch& centre_search, double radius) {
  // Targets in chunks, found on every core, joined in order.
  constexpr std::size_t kChunk = 4096;
  const std::size_t chunks = (to.count + kChunk - 1) / kChunk;
  std::vector<std::vector<Blend::Share>> found(chunks);
  Blend blend;
  blend.first.assign(to.count + 1, 0);
  blend.distinct.resize(to.count);
  std::atomic<std::size_t> next_chunk{0};
  run_parts(core_count(), [&](unsigned) {
    // Source point j is in target t's row already when seen[j] == t + 1.
    std::vector<std::size_t> seen(from.count, 0);
    for (std::size_t chunk = next_chunk++; chunk < chunks; chunk = next_chunk++) {
      std::vector<Blend::Share>& shares = found[chunk];
      for (std::size_t t = chunk * kChunk; t < std::min(to.count, (chunk + 1) * kChunk); ++t) {
        const std::size_t begin = shares.size();
        double sum = 0;
        for (const auto& [c, squared] : centre_search.within(to.at(t), radius)) {
          const double w = std::sqrt(wendland(Basis::kWendlandC2, std::sqrt(squared) / radius));
          if (w <= 0) continue;
          shares.push_back({c, w});
          sum += w;
        }
        if (shares.size() == begin) {
          shares.push_back({centre_search.nearest(to.at(t), 1).front().first, 1.0});
          sum = 1;
        }
        for (std::size_t s = begin; s < shares.size(); ++s) {
          shares[s].weight /= sum;
          for (const std::size_t j : members[shares[s].cluster]) {
            blend.distinct[t] += seen[j] != t + 1;
            seen[j] = t + 1;
          }
        }
        blend.first[t + 1] = shares.size() - begin;
      }
    }
  });
  for (std::size_t t = 0; t < to.count; ++t) blend.first[t + 1] += blend.first[t];
  blend.shares.reserve(blend.first.back());
  for (const std::vector<Blend::Share>& shares : found) {
    blend.shares.insert(blend.shares.end(), shares.begin(), shares.end());
  }
  return blend;
}

// Clusters are solved in batches of consecutive clusters (neighbours on
// the grid); a batch's columns live in one of a few buffers, taken when the
// batch is solved and given back once every row that reads them is merged.
// Rows are merged after the batch of their last cluster.
struct Batches {
  static constexpr std::size_t kClusters = 128;
  std::size_t count = 0;
  std::vector<std::size_t> buffer_of;    // per batch
  std::vector<std::size_t> buffer_size;  // values per buffer
  std::vector<std::size_t> offset;       // per cluster: where its columns start in its buffer
  std::vector<std::size_t> rows_first;   // batch b merges rows[rows_first[b]] to rows[rows_first[b + 1] - 1]
  std::vector<std::size_t> rows;
};

Batches plan_batches(const Blend& blend, const std::vector<std::vector<std::size_t>>& members,
                     const std::vector<std::vector<std::size_t>>& targets_of) {
  const std::size_t clusters = members.size(), targets = blend.first.size() - 1;
  Batches plan;
  plan.count = (clusters + Batches::kClusters - 1) / Batches::kClusters;
  std::vector<std::size_t> last_batch(targets, 0), needed_until(plan.count, 0);
  for (std::size_t t = 0; t < targets; ++t) {
    for (std::size_t s = blend.first[t]; s < blend.first[t + 1]; ++s) {
      last_batch[t] = std::max(last_batch[t], blend.shares[s].cluster / Batches::kClusters);
    }
    for (std::size_t s = blend.first[t]; s < blend.first[t + 1]; ++s) {
      std::size_t& until = needed_until[blend.shares[s].cluster / Batches::kClusters];
      until = std::max(until, last_batch[t]);
    }
  }
  plan.rows_first.assign(plan.count + 1, 0);
  for (std::size_t t = 0; t < targets; ++t) ++plan.rows_first[last_batch[t] + 1];
  for (std::size_t b = 0; b < plan.count; ++b) plan.rows_first[b + 1] += plan.rows_first[b];
  plan.rows.resize(targets);
  std::vector<std::size_t> next(plan.rows_first.begin(), plan.rows_first.end() - 1);
  for (std::size_t t = 0; t < targets; ++t) plan.rows[next[last_batch[t]]++] = t;
  plan.offset.resize(clusters);
  std::vector<std::size_t> free_buffers;
  std::vector<std::pair<std::size_t, std::size_t>> held;  // (needed until batch, buffer)
  for (std::size_t b = 0; b < plan.count; ++b) {
    for (auto it = held.begin(); it != held.end();) {
      if (it->first < b) {
        free_buffers.push_back(it->second);
        it = held.erase(it);
      } else {
        ++it;
      }
    }
    std::size_t size = 0;
    for (std::size_t c = b * Batches::kClusters; c < std::min(clusters, (b + 1) * Batches::kClusters); ++c) {
      plan.offset[c] = size;
      size += members[c].size() * targets_of[c].size();
    }
    if (free_buffers.empty()) {
      free_buffers.push_back(plan.buffer_size.size());
      plan.buffer_size.push_back(0);
    }
    plan.buffer_of.push_back(free_buffers.back());
    free_buffers.pop_back();
    plan.buffer_size[plan.buffer_of[b]] = std::max(plan.buffer_size[plan.buffer_of[b]], size);
    held.emplace_back(needed_until[b], plan.buffer_of[b]);
  }
  return plan;
}

// Places for `count` columns and values: in `room` where it takes them,
// else in the weights' own memory.
void take_room(Weights& weights, std::size_t count, Room* room, Column*& columns, double*& values) {
  if (room != nullptr && room->take(count, columns, values)) return;
  weights.column_of.resize(count);
  weights.value.resize(count);
  columns = weights.column_of.data();
  values = weights.value.data();
}

}  // namespace

std::string rbf_weights(const Method& method, const Points& from, const PointSearch& search, const Points& to,
                        Weights& weights, Room* room) {
  if (std::string duplicate = duplicate_points(from, search); !duplicate.empty()) return duplicate;
  if (from.count > kMostRbfSources) {
    return "map=rbf solves one dense system over all " + std::to_string(from.count) +
           " source points, too many: use map=rbf-pum";
  }
  // Every target takes a weight from every source point.
  if (from.count != 0 && to.count > kMostRbfWeights / from.count) {
    return "map=rbf gives each of the " + std::to_string(to.count) + " target points a weight for each of the " +
           std::to_string(from.count) + " source points, more than " + std::to_string(kMostRbfWeights) +
           " weights in all: use map=rbf-pum";
  }
  std::vector<std::size_t> sources(from.count), targets(to.count);
  for (std::size_t i = 0; i < from.count; ++i) sources[i] = i;
  for (std::size_t i = 0; i < to.count; ++i) targets[i] = i;
  weights = Weights{};
  weights.rows = to.count;
  weights.columns = from.count;
  weights.row_start.resize(to.count + 1);
  for (std::size_t t = 0; t <= to.count; ++t) weights.row_start[t] = static_cast<std::int64_t>(t * from.count);
  const std::size_t count = from.count * to.count;
  Column* columns_out = nullptr;
  double* values_out = nullptr;
  take_room(weights, count, room, columns_out, values_out);
  for (std::size_t at = 0; at < count; ++at) columns_out[at] = static_cast<Column>(at % from.count);
  // The solve's coefficients, target after target, are the rows.
  const Local all{kernel_for(method, mean_spacing(from, search)), method.polynomial, from.dimension,
                  from.coordinates.data(), sources.data(), from.count, to.coordinates.data(), targets.data(), to.count};
  if (!local_solver()(all, values_out)) return "the RBF system is singular";
  return {};
}

std::string rbf_pum_weights(const Method& method, const Points& from, const PointSearch& search, const Points& to,
                            Weights& weights, Room* room) {
  if (std::string duplicate = duplicate_points(from, search); !duplicate.empty()) return duplicate;
  const int d = from.dimension;
  const std::size_t wanted = std::min(method.cluster_size, from.count);
  // The cluster radius: what holds `wanted` source points around a sample
  // of them (the median, so that clusters in sparse parts grow below).
  std::vector<double> reach;
  const std::size_t stride = std::max<std::size_t>(1, from.count / 256);
  for (std::size_t i = 0; i < from.count; i += stride) {
    reach.push_back(std::sqrt(search.nearest(from.at(i), wanted).back().second));
  }
  std::nth_element(reach.begin(), reach.begin() + static_cast<std::ptrdiff_t>(reach.size() / 2), reach.end());
  const double radius = std::max(reach[reach.size() / 2], std::numeric_limits<double>::min());
  std::vector<std::vector<std::size_t>> members;
  Points centres;
  const double blend_radius = radius / (1 + kPumMargin);
  if (std::string error = cluster(from, search, radius, blend_radius, method.overlap, centres, members);
      !error.empty()) {
    return error;
  }
  const PointSearch centre_search(centres);
  // The defaults scale with the clusters: a Gaussian 0.4 / R wide, a
  // Wendland support of the cluster's diameter.
  const Kernel phi{method.basis_for(d), method.shape.value_or(kPumShape / radius), method.radius.value_or(2 * radius)};
  const Blend blend = blend_clusters(from, to, members, centre_search, blend_radius);
  // Each cluster's interpolant at its targets: a column of source
  // coefficients per target.
  std::vector<std::vector<std::size_t>> targets_of(centres.count);
  std::vector<std::size_t> slot(blend.shares.size());
  for (std::size_t t = 0; t < to.count; ++t) {
    for (std::size_t s = blend.first[t]; s < blend.first[t + 1]; ++s) {
      slot[s] = targets_of[blend.shares[s].cluster].size();
      targets_of[blend.shares[s].cluster].push_back(t);
    }
  }
  const Batches batches = plan_batches(blend, members, targets_of);
  std::vector<Array<double>> buffers(batches.buffer_size.size());
  for (std::size_t i = 0; i < buffers.size(); ++i) buffers[i].resize(batches.buffer_size[i]);
  const auto columns_of = [&](std::size_t c) {
    return buffers[batches.buffer_of[c / Batches::kClusters]].data() + batches.offset[c];
  };
  weights = Weights{};
  weights.rows = to.count;
  weights.columns = from.count;
  weights.row_start.resize(to.count + 1);
  for (std::size_t t = 0; t < to.count; ++t) {
    weights.row_start[t + 1] = weights.row_start[t] + static_cast<std::int64_t>(blend.distinct[t]);
  }
  const auto count = static_cast<std::size_t>(weights.row_start.back());
  Column* columns_out = nullptr;
  double* values_out = nullptr;
  take_room(weights, count, room, columns_out, values_out);
  // Row t: its clusters' columns, blended, a source point met in several
  // clusters summed into its first place. `place`: where each source point
  // sits in the row, counted from 1; 0 when not yet, as it is left.
  const auto merge_row = [&](std::size_t t, std::vector<std::uint32_t>& place) {
    const auto begin = static_cast<std::size_t>(weights.row_start[t]);
    Column* row_columns = columns_out + begin;
    double* row_values = values_out + begin;
    std::uint32_t size = 0;
    for (std::size_t s = blend.first[t]; s < blend.first[t + 1]; ++s) {
      const Blend::Share& share = blend.shares[s];
      const std::vector<std::size_t>& sources = members[share.cluster];
      const double* column = columns_of(share.cluster) + slot[s] * sources.size();
      for (std::size_t j = 0; j < sources.size(); ++j) {
        const double value = share.weight * column[j];
        if (const std::uint32_t at = place[sources[j]]; at != 0) {
          row_values[at - 1] += value;
          continue;
        }
        place[sources[j]] = ++size;
        row_columns[size - 1] = static_cast<Column>(sources[j]);
        row_values[size - 1] = value;
      }
    }
    for (std::uint32_t k = 0; k < size; ++k) place[static_cast<std::size_t>(row_columns[k])] = 0;
  };
  // The same threads through every batch: solve its clusters, wait for all,
  // merge the rows it completes, wait for all.
  std::atomic<std::size_t> next{0};
  std::atomic<std::size_t> singular{centres.count};
  const LocalSolver solve = local_solver();
  std::barrier all_done(static_cast<std::ptrdiff_t>(core_count()), [&next]() noexcept { next = 0; });
  run_parts(core_count(), [&](unsigned) {
    std::vector<std::uint32_t> place(from.count, 0);
    for (std::size_t b = 0; b < batches.count; ++b) {
      const std::size_t first = b * Batches::kClusters, end = std::min(centres.count, first + Batches::kClusters);
      for (std::size_t c = first + next++; c < end && singular == centres.count; c = first + next++) {
        if (targets_of[c].empty()) continue;
        const Local local{phi,           method.polynomial,        d, from.coordinates.data(), members[c].data(),
                          members[c].size(), to.coordinates.data(), targets_of[c].data(), targets_of[c].size()};
        if (!solve(local, columns_of(c))) singular = c;
      }
      all_done.arrive_and_wait();
      const std::size_t rows = batches.rows_first[b + 1] - batches.rows_first[b];
      for (std::size_t i = next++; i < rows && singular == centres.count; i = next++) {
        merge_row(batches.rows[batches.rows_first[b] + i], place);
      }
      all_done.arrive_and_wait();
    }
  });
  if (singular < centres.count) {
    return "the RBF system of the cluster around source point " + std::to_string(members[singular].front()) +
           " is singular";
  }
  return {};
}

}  // namespace lockstep::mapping
