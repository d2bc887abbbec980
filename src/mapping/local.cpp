// Built twice: as it is, and, for processors with AVX2 and FMA, with
// LOCKSTEP_LOCAL_VARIANT=wide and Eigen's namespace renamed, so that the
// linker never takes one build's Eigen code for the other's (see
// CMakeLists.txt).
#include <Eigen/Dense>

#include <cmath>
#include <limits>
#include <optional>

#include "mapping/local.h"

#ifndef LOCKSTEP_LOCAL_VARIANT
#define LOCKSTEP_LOCAL_VARIANT baseline
#endif

namespace lockstep::mapping::LOCKSTEP_LOCAL_VARIANT {
namespace {

// phi(r) for each entry, r^2, in place: the Gaussian, rbf-pum's default,
// in one vectorised pass.
void apply(const Kernel& phi, Eigen::Ref<Eigen::MatrixXd> squared) {
  switch (phi.basis) {
    case Basis::kGaussian: squared.array() = (-(phi.shape * phi.shape) * squared.array()).exp(); return;
    case Basis::kThinPlateSpline:  // r^2 log r = r^2 log(r^2) / 2
      squared = squared.unaryExpr([](double s) { return s > 0 ? 0.5 * s * std::log(s) : 0.0; });
      return;
    case Basis::kQuintic:  // -r^5, as SciPy's; the sign leaves the weights as they are
      squared.array() = -(squared.array().square() * squared.array().sqrt());
      return;
    default: squared = squared.unaryExpr([&phi](double s) { return wendland(phi.basis, std::sqrt(s) / phi.radius); });
  }
}

// Points one axis a row, so that distances vectorise over the points.
using Coordinates = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

// The squared distances from `x` to each point of `points`.
void squared_distances(const Coordinates& points, const double* x, Eigen::Ref<Eigen::VectorXd> out) {
  out = (points.row(0).array() - x[0]).square().transpose();
  for (Eigen::Index k = 1; k < points.rows(); ++k) out.array() += (points.row(k).array() - x[k]).square().transpose();
}

// The polynomial part of an RBF system: 1, the coordinates and, for the
// quintic, their products, in the sources' principal axes, centred and
// scaled. Only what the sources determine is kept:
// - axes the points do not spread along (a plane or a line in space);
// - combinations of the terms that vanish on every source (a sphere under
//   a quadratic), by an orthonormal basis of the terms over the sources.
// Linear fields on the points' span are then reproduced exactly.
class Polynomial {
 public:
  Polynomial(const Coordinates& at, bool quadratic) : quadratic_(quadratic) {
    const Eigen::Index d = at.rows(), n = at.cols();
    centre_ = at.rowwise().sum() / static_cast<double>(n);
    const Eigen::MatrixXd centred = at.colwise() - centre_;
    const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> spread(centred * centred.transpose() / static_cast<double>(n));
    const Eigen::VectorXd& variance = spread.eigenvalues();  // ascending
    const double widest = std::sqrt(std::max(variance[d - 1], 0.0));
    Eigen::Index axes = 0;
    while (axes < d && widest > 0 && std::sqrt(std::max(variance[d - 1 - axes], 0.0)) > kFlat * widest) ++axes;
    frame_ = spread.eigenvectors().rightCols(axes).transpose() / std::max(widest, std::numeric_limits<double>::min());
    Eigen::MatrixXd terms(n, size());
    for (Eigen::Index j = 0; j < n; ++j) {
      double x[3];  // `at` holds an axis a row: a point's coordinates are apart
      for (Eigen::Index k = 0; k < d; ++k) x[k] = at(k, j);
      fill(x, terms.row(j));
    }
    // terms = U S V^T through the eigenvectors of terms^T terms.
    const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> gram(terms.transpose() * terms);
    const Eigen::VectorXd& squared = gram.eigenvalues();  // ascending
    Eigen::Index rank = 0;
    while (rank < size() && squared[size() - 1 - rank] > kIndependent * kIndependent * squared[size() - 1]) ++rank;
    to_basis_ = gram.eigenvectors().rightCols(rank) * squared.tail(rank).cwiseSqrt().cwiseInverse().asDiagonal();
  }
  // The number of kept combinations: the polynomial block's width.
  Eigen::Index rank() const { return to_basis_.cols(); }
  // The kept combinations at each point, a column each: one product for
  // all the points.
  void evaluate(const Eigen::Ref<const Coordinates>& points, Eigen::Ref<Eigen::MatrixXd> out) const {
    Eigen::MatrixXd terms(size(), points.cols());
    for (Eigen::Index j = 0; j < points.cols(); ++j) {
      double x[3];
      for (Eigen::Index k = 0; k < points.rows(); ++k) x[k] = points(k, j);
      fill(x, terms.col(j));
    }
    out.noalias() = to_basis_.transpose() * terms;
  }

 private:
  // An axis whose spread is below this fraction of the widest is none.
  static constexpr double kFlat = 1e-6;
  // A singular value below this fraction of the largest is rounding: the
  // eigenvalues of terms^T terms are exact to about 1e-16 of the largest.
  static constexpr double kIndependent = 1e-7;

  Eigen::Index size() const {
    const Eigen::Index axes = frame_.rows();
    return 1 + axes + (quadratic_ ? axes * (axes + 1) / 2 : 0);
  }
  template <typename Row>
  void fill(const double* x, Row&& row) const {
    const Eigen::Index axes = frame_.rows();
    double u[3];
    for (Eigen::Index a = 0; a < axes; ++a) {
      u[a] = 0;
      for (Eigen::Index k = 0; k < frame_.cols(); ++k) u[a] += frame_(a, k) * (x[k] - centre_[k]);
    }
    Eigen::Index at = 0;
    row(at++) = 1;
    for (Eigen::Index k = 0; k < axes; ++k) row(at++) = u[k];
    if (!quadratic_) return;
    for (Eigen::Index k = 0; k < axes; ++k) {
      for (Eigen::Index l = k; l < axes; ++l) row(at++) = u[k] * u[l];
    }
  }

  bool quadratic_;
  Eigen::VectorXd centre_;
  Eigen::MatrixXd frame_;     // the kept principal axes, a row each, scaled
  Eigen::MatrixXd to_basis_;  // terms -> kept combinations
};

// Targets solved for at once: a few megabytes of right-hand sides for a
// system of a few thousand points.
constexpr Eigen::Index kTargetChunk = 1024;

// The quintic is conditionally positive definite of order 3: it takes a
// quadratic polynomial, which needs more points than terms to be of use.
bool quadratic_for(const Kernel& phi, std::size_t sources, int dimension) {
  const auto terms = static_cast<std::size_t>(1 + dimension + dimension * (dimension + 1) / 2);
  return phi.basis == Basis::kQuintic && sources >= 2 * terms;
}

}  // namespace

// The local interpolant's weights: for each target t (a column of
// `result`), the coefficients on the sources that give its value.
bool solve(const Local& local, double* result) {
  const int d = local.dimension;
  const auto n = static_cast<Eigen::Index>(local.source_count);
  const auto source = [&](Eigen::Index j) { return local.from + local.sources[j] * static_cast<std::size_t>(d); };
  Coordinates at(d, n);
  for (Eigen::Index j = 0; j < n; ++j) {
    for (int k = 0; k < d; ++k) at(k, j) = source(j)[k];
  }
  std::optional<Polynomial> terms;
  if (local.polynomial) terms.emplace(at, quadratic_for(local.phi, local.source_count, d));
  const Eigen::Index p = terms ? terms->rank() : 0;
  Eigen::MatrixXd system(n + p, n + p);
  for (Eigen::Index j = 0; j < n; ++j) squared_distances(at, source(j), system.col(j).head(n));
  apply(local.phi, system.topLeftCorner(n, n));
  if (terms) {
    terms->evaluate(at, system.bottomLeftCorner(p, n));
    system.topRightCorner(n, p) = system.bottomLeftCorner(p, n).transpose();
    system.bottomRightCorner(p, p).setZero();
  }
  // The system is symmetric: the weights are evaluation^T system^-1,
  // solved in place, as solve() would, without its copies.
  const Eigen::PartialPivLU<Eigen::Ref<Eigen::MatrixXd>> lu(system);
  // Targets in chunks: a global system's evaluation at every target at once
  // would take as much memory as its weights.
  const auto m = static_cast<Eigen::Index>(local.target_count);
  const Eigen::Index chunk = std::min<Eigen::Index>(m, kTargetChunk);
  Eigen::MatrixXd evaluation(n + p, chunk);
  Coordinates targets(d, chunk);
  bool finite = true;
  for (Eigen::Index first = 0; first < m; first += chunk) {
    const Eigen::Index count = std::min(chunk, m - first);
    auto block = evaluation.leftCols(count);
    for (Eigen::Index t = 0; t < count; ++t) {
      const double* x = local.to + local.targets[first + t] * static_cast<std::size_t>(d);
      for (int k = 0; k < d; ++k) targets(k, t) = x[k];
      squared_distances(at, x, block.col(t).head(n));
    }
    if (terms) terms->evaluate(targets.leftCols(count), block.bottomRows(p));
    apply(local.phi, block.topRows(n));
    block = lu.permutationP() * block;
    lu.matrixLU().triangularView<Eigen::UnitLower>().solveInPlace(block);
    lu.matrixLU().triangularView<Eigen::Upper>().solveInPlace(block);
    Eigen::Map<Eigen::MatrixXd> weights(result + first * n, n, count);
    weights = block.topRows(n);
    finite = finite && weights.allFinite();
  }
  return finite;
}

}  // namespace lockstep::mapping::LOCKSTEP_LOCAL_VARIANT
