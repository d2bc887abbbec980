// A chain of masses joined by springs, fixed to walls at both ends, in
// displacements from rest. The solvers of the coupled run and the one-process
// reference share these functions, so both do the same arithmetic and agree
// to the last bit.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace chain {

inline constexpr std::size_t kMasses = 12;
inline constexpr double kStiffness = 4.0;
inline constexpr double kTimeStep = 0.1;

inline double mass(std::size_t i) { return 1.0 + 0.1 * static_cast<double>(i); }

// Displacement at rest but for a smooth bump and a push on the first mass.
inline double initial_displacement(std::size_t i) {
  const double x = static_cast<double>(i + 1) / static_cast<double>(kMasses + 1);
  return 0.1 * x * (1.0 - x) + (i == 0 ? 0.05 : 0.0);
}

// Acceleration of mass i between displacements `left` and `right`.
inline double acceleration(std::size_t i, double left, double own, double right) {
  return kStiffness * (left - 2.0 * own + right) / mass(i);
}

// Stage weights and offsets of the classical fourth-order Runge-Kutta method.
inline constexpr double kStageOffset[4] = {0.0, 0.5, 0.5, 1.0};
inline constexpr double kStageWeight[4] = {1.0, 2.0, 2.0, 1.0};

// RK4 for the masses first to first + count - 1, with the displacements
// beyond either end supplied from outside at every stage.
class Rk4Block {
 public:
  Rk4Block(std::size_t first, std::size_t count) : first_(first), u_(count), v_(count) {
    for (std::size_t j = 0; j < count; ++j) u_[j] = initial_displacement(first + j);
    stage_u_ = u_;
    stage_v_ = v_;
    sum_u_.assign(count, 0.0);
    sum_v_.assign(count, 0.0);
  }

  std::size_t size() const { return u_.size(); }
  // The state at the start of a time step, as a resumed run loads it.
  void restore(std::vector<double> u, std::vector<double> v) {
    u_ = std::move(u);
    v_ = std::move(v);
    stage_u_ = u_;
    stage_v_ = v_;
  }
  // The displacements at which the next stage is evaluated.
  double stage_first() const { return stage_u_.front(); }
  double stage_last() const { return stage_u_.back(); }
  const std::vector<double>& displacements() const { return u_; }
  const std::vector<double>& velocities() const { return v_; }

  // Stage s (0 to 3) with the neighbours' displacements at this stage.
  void stage(int s, double left, double right) {
    const std::size_t n = size();
    std::vector<double> ku(n), kv(n);
    for (std::size_t j = 0; j < n; ++j) {
      const double l = j == 0 ? left : stage_u_[j - 1];
      const double r = j + 1 == n ? right : stage_u_[j + 1];
      ku[j] = stage_v_[j];
      kv[j] = acceleration(first_ + j, l, stage_u_[j], r);
      sum_u_[j] += kStageWeight[s] * ku[j];
      sum_v_[j] += kStageWeight[s] * kv[j];
    }
    if (s < 3) {
      for (std::size_t j = 0; j < n; ++j) {
        stage_u_[j] = u_[j] + kStageOffset[s + 1] * kTimeStep * ku[j];
        stage_v_[j] = v_[j] + kStageOffset[s + 1] * kTimeStep * kv[j];
      }
      return;
    }
    for (std::size_t j = 0; j < n; ++j) {
      u_[j] += kTimeStep / 6.0 * sum_u_[j];
      v_[j] += kTimeStep / 6.0 * sum_v_[j];
    }
    stage_u_ = u_;
    stage_v_ = v_;
    sum_u_.assign(n, 0.0);
    sum_v_.assign(n, 0.0);
  }

  // Kinetic energy of the block's masses and potential energy of the
  // springs inside it.
  double internal_energy() const {
    double energy = 0.0;
    for (std::size_t j = 0; j < size(); ++j) energy += 0.5 * mass(first_ + j) * v_[j] * v_[j];
    for (std::size_t j = 0; j + 1 < size(); ++j) energy += spring_energy(u_[j], u_[j + 1]);
    return energy;
  }

  static double spring_energy(double a, double b) { return 0.5 * kStiffness * (b - a) * (b - a); }

 private:
  std::size_t first_;
  std::vector<double> u_, v_;              // state at the start of the time step
  std::vector<double> stage_u_, stage_v_;  // state at which the next stage is evaluated
  std::vector<double> sum_u_, sum_v_;      // weighted sum of the stage slopes so far
};

}  // namespace chain
