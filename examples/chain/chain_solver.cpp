// One project's solver for the chain example: integrates its block of masses
// stage by stage as lockstep requests, with the neighbours' boundary
// displacements that lockstep-exchange copies in before each stage.
//
//   chain_solver DIR FIRST COUNT LAST_CYCLE
//
// It ends after the cycle-end request of LAST_CYCLE.
// Fields: outputs "first" and "last" (this block's boundary displacements at
// the next stage, for the neighbours), inputs "left" and "right" (the
// neighbours', where the block has them; the chain's ends are walls). In
// DIR: chain.csv, one row per cycle end.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "chain_model.h"
#include "fields/solver.h"
#include "project/endpoint.h"

namespace {

std::string exact(double value) {
  char text[40];
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

// The neighbour's displacement, or 0 (the wall) when there is none.
double neighbour(lockstep::fields::SolverFields& fields, const char* name, bool present) {
  double value = 0.0;
  if (!present) return value;
  if (fields.get(name, {lockstep::fields::Type::kFloat64, {1}, false, &value}) != lockstep::fields::Outcome::kOk) {
    std::cerr << "chain_solver: " << fields.error() << "\n";
    std::exit(1);
  }
  return value;
}

void export_boundary(lockstep::fields::SolverFields& fields, const chain::Rk4Block& block) {
  for (auto [name, value] : {std::pair{"first", block.stage_first()}, std::pair{"last", block.stage_last()}}) {
    if (fields.put(name, {lockstep::fields::Type::kFloat64, {1}, false, &value}) != lockstep::fields::Outcome::kOk) {
      std::cerr << "chain_solver: " << fields.error() << "\n";
      std::exit(1);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: chain_solver DIR FIRST COUNT LAST_CYCLE\n";
    return 2;
  }
  const std::string directory = argv[1];
  const auto first = static_cast<std::size_t>(std::strtoul(argv[2], nullptr, 10));
  const auto count = static_cast<std::size_t>(std::strtoul(argv[3], nullptr, 10));
  const long last_cycle = std::strtol(argv[4], nullptr, 10);

  std::string error;
  const auto endpoint = lockstep::project::Endpoint::open(directory, error);
  if (!endpoint || !endpoint->lock()) {
    std::cerr << "chain_solver: " << (endpoint ? endpoint->error() : error) << "\n";
    return 1;
  }
  const auto fields = lockstep::fields::SolverFields::open(*endpoint, error);
  if (!fields) {
    std::cerr << "chain_solver: " << error << "\n";
    return 1;
  }
  const bool has_left = first > 0;
  const bool has_right = first + count < chain::kMasses;
  chain::Rk4Block block(first, count);
  std::ofstream csv(directory + "/chain.csv");
  csv << "cycle,time,energy";
  for (std::size_t j = 0; j < count; ++j) csv << ",u" << first + j;
  for (std::size_t j = 0; j < count; ++j) csv << ",v" << first + j;
  csv << "\n" << std::flush;
  export_boundary(*fields, block);

  long steps = 0;
  for (;;) {
    lockstep::project::Request request;
    if (endpoint->wait(request) != lockstep::project::WaitResult::kRequest) {
      std::cerr << "chain_solver: " << endpoint->error() << "\n";
      return 1;
    }
    if (request.cycle_end()) {
      csv << request.cycle << "," << exact(static_cast<double>(steps) * chain::kTimeStep) << ","
          << exact(block.internal_energy());
      for (const double u : block.displacements()) csv << "," << exact(u);
      for (const double v : block.velocities()) csv << "," << exact(v);
      csv << "\n" << std::flush;
    } else {
      block.stage(request.stage - 1, neighbour(*fields, "left", has_left), neighbour(*fields, "right", has_right));
      if (request.stage == 4) ++steps;
      export_boundary(*fields, block);
    }
    if (endpoint->report_done() != lockstep::project::DoneResult::kDone) {
      std::cerr << "chain_solver: " << endpoint->error() << "\n";
      return 1;
    }
    if (request.cycle_end() && request.cycle >= last_cycle) return 0;
  }
}
