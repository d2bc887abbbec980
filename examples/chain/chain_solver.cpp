// One project's solver for the chain example: integrates its block of masses
// stage by stage as lockstep requests, with the neighbours' boundary
// displacements that lockstep-exchange copies in before each stage.
//
//   chain_solver DIR FIRST COUNT LAST_CYCLE
//
// It ends after the cycle-end request of LAST_CYCLE. At each cycle end it
// saves its state to DIR/state-CYCLE.txt and records a checkpoint; in a run
// resumed after cycle C it starts from DIR/state-C.txt.
// Fields: outputs "first" and "last" (this block's boundary displacements at
// the next stage, for the neighbours), inputs "left" and "right" (the
// neighbours', where the block has them; the chain's ends are walls). In
// DIR: chain.csv, one row per cycle end.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

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

// The number of time steps done, then the displacements and velocities,
// exactly: a temporary file renamed into place.
void save_state(const std::string& directory, long cycle, long steps, const chain::Rk4Block& block) {
  const std::string path = directory + "/state-" + std::to_string(cycle) + ".txt";
  {
    std::ofstream out(path + ".tmp");
    out << steps << "\n";
    for (const double u : block.displacements()) out << exact(u) << "\n";
    for (const double v : block.velocities()) out << exact(v) << "\n";
    if (!out.flush()) {
      std::cerr << "chain_solver: cannot write " << path << ".tmp\n";
      std::exit(1);
    }
  }
  std::rename((path + ".tmp").c_str(), path.c_str());
}

long load_state(lockstep::project::Endpoint& endpoint, long cycle, chain::Rk4Block& block) {
  const std::string path = endpoint.directory() + "/state-" + std::to_string(cycle) + ".txt";
  std::ifstream in(path);
  long steps = 0;
  std::vector<double> u(block.size()), v(block.size());
  in >> steps;
  for (double& value : u) in >> value;
  for (double& value : v) in >> value;
  if (!in) {
    std::cerr << "chain_solver: " << endpoint.cannot_resume(path + " does not hold this solver's state") << "\n";
    std::exit(1);
  }
  block.restore(u, v);
  return steps;
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
  long steps = 0;
  const std::optional<std::int32_t> resumed = endpoint->resumes_after();
  if (resumed) steps = load_state(*endpoint, *resumed, block);
  std::ofstream csv(directory + "/chain.csv", resumed ? std::ios::app : std::ios::trunc);
  if (!resumed) {
    csv << "cycle,time,energy";
    for (std::size_t j = 0; j < count; ++j) csv << ",u" << first + j;
    for (std::size_t j = 0; j < count; ++j) csv << ",v" << first + j;
    csv << "\n" << std::flush;
  }
  export_boundary(*fields, block);

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
      save_state(directory, request.cycle, steps, block);
      if (!endpoint->checkpoint()) {
        std::cerr << "chain_solver: " << endpoint->error() << "\n";
        return 1;
      }
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
