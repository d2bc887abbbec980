// One project's solver for the chain example: integrates its block of masses
// stage by stage as lockstep requests, with the neighbours' boundary
// displacements that the interaction program copies in before each stage.
//
//   chain_solver DIR FIRST COUNT LAST_CYCLE
//
// It ends after the cycle-end request of LAST_CYCLE.
// Files in DIR: left.out / right.out (this block's boundary displacements at
// the next stage, for the neighbours), left.in / right.in (the neighbours'),
// chain.csv (one row per cycle end). A missing .in file is a wall.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "chain_model.h"
#include "project/endpoint.h"

namespace {

std::string exact(double value) {
  char text[40];
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

// The neighbour's displacement, or 0 (the wall) when there is no neighbour.
double neighbour(const std::string& path) {
  std::ifstream in(path);
  std::string text;
  if (!(in >> text)) return 0.0;
  return std::strtod(text.c_str(), nullptr);
}

void export_boundary(const std::string& directory, const chain::Rk4Block& block) {
  std::ofstream(directory + "/left.out.tmp") << exact(block.stage_first()) << "\n";
  std::ofstream(directory + "/right.out.tmp") << exact(block.stage_last()) << "\n";
  std::rename((directory + "/left.out.tmp").c_str(), (directory + "/left.out").c_str());
  std::rename((directory + "/right.out.tmp").c_str(), (directory + "/right.out").c_str());
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
  chain::Rk4Block block(first, count);
  std::ofstream csv(directory + "/chain.csv");
  csv << "cycle,time,energy";
  for (std::size_t j = 0; j < count; ++j) csv << ",u" << first + j;
  for (std::size_t j = 0; j < count; ++j) csv << ",v" << first + j;
  csv << "\n" << std::flush;
  export_boundary(directory, block);

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
      block.stage(request.stage - 1, neighbour(directory + "/left.in"), neighbour(directory + "/right.in"));
      if (request.stage == 4) ++steps;
      export_boundary(directory, block);
    }
    if (endpoint->report_done() != lockstep::project::DoneResult::kDone) {
      std::cerr << "chain_solver: " << endpoint->error() << "\n";
      return 1;
    }
    if (request.cycle_end() && request.cycle >= last_cycle) return 0;
  }
}
