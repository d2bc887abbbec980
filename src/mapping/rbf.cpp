#include <Eigen/Dense>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "mapping/kernels.h"

namespace lockstep::mapping {
namespace {

double wendland(Basis basis, double rho) {
  if (rho >= 1) return 0;
  const double s = 1 - rho;
  switch (basis) {
    case Basis::kWendlandC2: return std::pow(s, 4) * (4 * rho + 1);
    case Basis::kWendlandC4: return std::pow(s, 6) * (35 * rho * rho + 18 * rho + 3) / 3;
    default: return std::pow(s, 8) * (32 * rho * rho * rho + 25 * rho * rho + 8 * rho + 1);
  }
}

// The basis with its scale settled: phi(r).
struct Kernel {
  Basis basis;
  double shape = 1, radius = 1;
  double operator()(double r) const {
    switch (basis) {
      case Basis::kThinPlateSpline: return r > 0 ? r * r * std::log(r) : 0.0;
      case Basis::kGaussian: return std::exp(-(shape * r) * (shape * r));
      default: return wendland(basis, r / radius);
    }
  }
};

// Defaults from the point spacing h: a Gaussian as wide as a few points, a
// Wendland support holding a few dozen.
Kernel kernel_for(const Method& method, double spacing) {
  return {method.basis_for(0), method.shape.value_or(1 / (3 * spacing)), method.radius.value_or(6 * spacing)};
}

// The Gaussian's shape times the cluster radius, by default: flat enough
// for accuracy (a relative error of 6e-5 on Franke's function from 20,000
// points), not so flat that 50 points make the system ill-conditioned.
constexpr double kPumShape = 0.4;

// Runs `work` on every core, at most eight, and waits for all.
template <typename Work>
void run_on_every_core(const Work& work) {
  const unsigned cores = std::clamp(std::thread::hardware_concurrency(), 1u, 8u);
  std::vector<std::thread> threads;
  for (unsigned i = 1; i < cores; ++i) threads.emplace_back(work);
  work();
  for (std::thread& thread : threads) thread.join();
}

double distance(const double* a, const double* b, int dimension) {
  double sum = 0;
  for (int k = 0; k < dimension; ++k) sum += (a[k] - b[k]) * (a[k] - b[k]);
  return std::sqrt(sum);
}

// The local interpolant's weights: for each target row t of `targets`, the
// coefficients on `sources` that give its value. Points by index into
// `from` and `to`. False when the system cannot be solved.
bool solve_local(const Kernel& phi, bool polynomial, const Points& from, const std::vector<std::size_t>& sources,
                 const Points& to, const std::vector<std::size_t>& targets, Eigen::MatrixXd& result) {
  const int d = from.dimension;
  const auto n = static_cast<Eigen::Index>(sources.size());
  const Eigen::Index p = polynomial ? d + 1 : 0;
  Eigen::MatrixXd system = Eigen::MatrixXd::Zero(n + p, n + p);
  for (Eigen::Index i = 0; i < n; ++i) {
    const double* xi = from.at(sources[static_cast<std::size_t>(i)]);
    for (Eigen::Index j = 0; j <= i; ++j) {
      system(i, j) = system(j, i) = phi(distance(xi, from.at(sources[static_cast<std::size_t>(j)]), d));
    }
    if (polynomial) {
      system(i, n) = system(n, i) = 1;
      for (int k = 0; k < d; ++k) system(i, n + 1 + k) = system(n + 1 + k, i) = xi[k];
    }
  }
  const auto m = static_cast<Eigen::Index>(targets.size());
  Eigen::MatrixXd evaluation(n + p, m);
  for (Eigen::Index t = 0; t < m; ++t) {
    const double* x = to.at(targets[static_cast<std::size_t>(t)]);
    for (Eigen::Index j = 0; j < n; ++j) {
      evaluation(j, t) = phi(distance(x, from.at(sources[static_cast<std::size_t>(j)]), d));
    }
    if (polynomial) {
      evaluation(n, t) = 1;
      for (int k = 0; k < d; ++k) evaluation(n + 1 + k, t) = x[k];
    }
  }
  // The system is symmetric: the weights are evaluation^T system^-1.
  result = system.partialPivLu().solve(evaluation).topRows(n);
  return result.allFinite();
}

}  // namespace

std::string rbf_weights(const Method& method, const Points& from, const PointSearch& search, const Points& to,
                        Weights& weights) {
  if (std::string duplicate = duplicate_points(from, search); !duplicate.empty()) return duplicate;
  if (from.count > 20000) {
    return "map=rbf solves one dense system over all " + std::to_string(from.count) +
           " source points, too many: use map=rbf-pum";
  }
  if (method.polynomial && from.count < static_cast<std::size_t>(from.dimension) + 1) {
    return "polynomial=on needs at least " + std::to_string(from.dimension + 1) + " source points";
  }
  std::vector<std::size_t> sources(from.count), targets(to.count);
  for (std::size_t i = 0; i < from.count; ++i) sources[i] = i;
  for (std::size_t i = 0; i < to.count; ++i) targets[i] = i;
  Eigen::MatrixXd local;
  if (!solve_local(kernel_for(method, mean_spacing(from, search)), method.polynomial, from, sources, to, targets,
                   local)) {
    return "the RBF system is singular: the source points may lie on a line or plane (try polynomial=off)";
  }
  weights = Weights{};
  weights.columns = from.count;
  std::vector<Column> columns(from.count);
  for (std::size_t i = 0; i < from.count; ++i) columns[i] = static_cast<Column>(i);
  std::vector<double> row(from.count);
  for (std::size_t t = 0; t < to.count; ++t) {
    for (std::size_t i = 0; i < from.count; ++i) {
      row[i] = local(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(t));
    }
    weights.add_row(columns, row);
  }
  return {};
}

std::string rbf_pum_weights(const Method& method, const Points& from, const PointSearch& search, const Points& to,
                            Weights& weights) {
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
  // Centres on a grid over the source points' box, close enough that the
  // balls cover it.
  std::vector<double> low(static_cast<std::size_t>(d), std::numeric_limits<double>::infinity());
  std::vector<double> high(static_cast<std::size_t>(d), -std::numeric_limits<double>::infinity());
  for (std::size_t i = 0; i < from.count; ++i) {
    for (int k = 0; k < d; ++k) {
      low[static_cast<std::size_t>(k)] = std::min(low[static_cast<std::size_t>(k)], from.at(i)[k]);
      high[static_cast<std::size_t>(k)] = std::max(high[static_cast<std::size_t>(k)], from.at(i)[k]);
    }
  }
  const double spacing = 2 * radius / std::sqrt(static_cast<double>(d)) / (1 + method.overlap);
  std::vector<std::size_t> steps(static_cast<std::size_t>(d));
  std::size_t total = 1;
  for (int k = 0; k < d; ++k) {
    steps[static_cast<std::size_t>(k)] =
        static_cast<std::size_t>(std::floor((high[static_cast<std::size_t>(k)] - low[static_cast<std::size_t>(k)]) /
                                            spacing)) + 1;
    total *= steps[static_cast<std::size_t>(k)];
  }
  Points centres;
  centres.dimension = d;
  std::vector<std::vector<std::size_t>> members;
  for (std::size_t g = 0; g < total; ++g) {
    double centre[3];
    std::size_t rest = g;
    for (int k = 0; k < d; ++k) {
      const std::size_t step = rest % steps[static_cast<std::size_t>(k)];
      rest /= steps[static_cast<std::size_t>(k)];
      centre[k] = low[static_cast<std::size_t>(k)] + (static_cast<double>(step) + 0.5) * spacing;
    }
    std::vector<std::size_t> inside;
    for (const auto& [index, ignored] : search.within(centre, radius)) inside.push_back(index);
    if (inside.size() < static_cast<std::size_t>(d) + 2) continue;
    std::sort(inside.begin(), inside.end());
    centres.coordinates.insert(centres.coordinates.end(), centre, centre + d);
    members.push_back(std::move(inside));
    ++centres.count;
  }
  if (centres.count == 0) return "too few source points for rbf-pum's clusters: use map=rbf";
  const PointSearch centre_search(centres);
  // The defaults scale with the clusters: a Gaussian 0.4 / R wide, a
  // Wendland support of the cluster's diameter.
  const Kernel phi{method.basis_for(d), method.shape.value_or(kPumShape / radius), method.radius.value_or(2 * radius)};
  // Each target's clusters and blending weights, summing to one; a point
  // beyond every ball takes its nearest cluster's interpolant alone. Every
  // (cluster, target) pair gets its own place in the target's row before
  // duplicates are merged, so that clusters can be solved in parallel.
  struct Share {
    std::size_t target;
    double weight;
    std::size_t offset;  // where its entries go in the target's row
  };
  std::vector<std::vector<Share>> targets_of(centres.count);
  std::vector<std::size_t> row_begin(to.count + 1, 0);
  std::vector<std::pair<std::size_t, double>> blend;
  for (std::size_t t = 0; t < to.count; ++t) {
    blend.clear();
    double sum = 0;
    for (const auto& [c, squared] : centre_search.within(to.at(t), radius)) {
      const double w = wendland(Basis::kWendlandC2, std::sqrt(squared) / radius);
      if (w <= 0) continue;
      blend.push_back({c, w});
      sum += w;
    }
    if (blend.empty()) {
      blend.push_back({centre_search.nearest(to.at(t), 1).front().first, 1.0});
      sum = 1;
    }
    std::size_t size = 0;
    for (const auto& [c, w] : blend) {
      targets_of[c].push_back({t, w / sum, size});
      size += members[c].size();
    }
    row_begin[t + 1] = row_begin[t] + size;
  }
  // Left uninitialised: every place is written once by its cluster.
  struct Entry {
    Column column;
    double value;
  };
  const std::unique_ptr<Entry[]> entries(new Entry[row_begin.back()]);
  std::atomic<std::size_t> next_cluster{0};
  std::atomic<std::size_t> singular{centres.count};
  const auto solve_clusters = [&] {
    Eigen::MatrixXd local;
    std::vector<std::size_t> targets;
    for (std::size_t c = next_cluster++; c < centres.count; c = next_cluster++) {
      if (targets_of[c].empty()) continue;
      targets.clear();
      for (const Share& share : targets_of[c]) targets.push_back(share.target);
      const bool polynomial = method.polynomial && members[c].size() > static_cast<std::size_t>(d) + 1;
      if (!solve_local(phi, polynomial, from, members[c], to, targets, local)) {
        singular = c;
        return;
      }
      for (std::size_t k = 0; k < targets.size(); ++k) {
        const Share& share = targets_of[c][k];
        Entry* out = entries.get() + row_begin[share.target] + share.offset;
        for (std::size_t j = 0; j < members[c].size(); ++j) {
          out[j] = {static_cast<Column>(members[c][j]),
                    share.weight * local(static_cast<Eigen::Index>(j), static_cast<Eigen::Index>(k))};
        }
      }
    }
  };
  run_on_every_core(solve_clusters);
  if (singular < centres.count) {
    return "the RBF system of the cluster around source point " + std::to_string(members[singular].front()) +
           " is singular: its points may lie on a line or plane (try polynomial=off)";
  }
  // Each row's duplicates merged in place, in parallel, through a map from
  // column to place in the row (no sort: rows keep their first-seen order);
  // then packed.
  std::vector<std::size_t> merged(to.count);
  std::atomic<std::size_t> next_row{0};
  run_on_every_core([&] {
    std::vector<std::int64_t> place(from.count, -1);
    for (std::size_t t = next_row++; t < to.count; t = next_row++) {
      Entry* first = entries.get() + row_begin[t];
      Entry* last = entries.get() + row_begin[t + 1];
      std::int64_t kept = 0;
      for (Entry* entry = first; entry != last; ++entry) {
        std::int64_t& at = place[static_cast<std::size_t>(entry->column)];
        if (at >= 0) {
          first[at].value += entry->value;
        } else {
          at = kept;
          first[kept++] = *entry;
        }
      }
      for (std::int64_t k = 0; k < kept; ++k) place[static_cast<std::size_t>(first[k].column)] = -1;
      merged[t] = static_cast<std::size_t>(kept);
    }
  });
  weights = Weights{};
  weights.rows = to.count;
  weights.columns = from.count;
  weights.row_start.resize(to.count + 1);
  for (std::size_t t = 0; t < to.count; ++t) {
    weights.row_start[t + 1] = weights.row_start[t] + static_cast<std::int64_t>(merged[t]);
  }
  weights.column_of.resize(static_cast<std::size_t>(weights.row_start.back()));
  weights.value.resize(weights.column_of.size());
  next_row = 0;
  run_on_every_core([&] {
    for (std::size_t t = next_row++; t < to.count; t = next_row++) {
      for (std::size_t k = 0; k < merged[t]; ++k) {
        const auto at = static_cast<std::size_t>(weights.row_start[t]) + k;
        weights.column_of[at] = entries[row_begin[t] + k].column;
        weights.value[at] = entries[row_begin[t] + k].value;
      }
    }
  });
  return {};
}

}  // namespace lockstep::mapping
