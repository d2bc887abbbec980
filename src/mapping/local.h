// One RBF system over a cluster of source points, solved for its targets:
// the arithmetic that rbf and rbf-pum spend most of their time in. It is
// built twice, for every x86-64 processor and for those with AVX2 and FMA,
// and the program takes the one its processor runs.
#pragma once

#include <cstddef>

#include "mapping/method.h"

namespace lockstep::mapping {

// The basis with its scale settled.
struct Kernel {
  Basis basis;
  double shape = 1, radius = 1;
};

// A cluster: its source points by index into `from`, its targets by index
// into `to`, each point `dimension` coordinates.
struct Local {
  Kernel phi;
  bool polynomial;
  int dimension;
  const double* from;
  const std::size_t* sources;
  std::size_t source_count;
  const double* to;
  const std::size_t* targets;
  std::size_t target_count;
};

// Writes the interpolant's coefficients on the sources that give each
// target's value into `result`, source_count a target, target after target.
// False when the system cannot be solved.
using LocalSolver = bool (*)(const Local& local, double* result);

// The variant this processor runs.
LocalSolver local_solver();

namespace baseline {
bool solve(const Local& local, double* result);
}  // namespace baseline

#ifdef LOCKSTEP_WIDE_LOCAL
namespace wide {
bool solve(const Local& local, double* result);
}  // namespace wide
#endif

// Wendland's compactly supported function at rho = r / radius.
double wendland(Basis basis, double rho);

}  // namespace lockstep::mapping
