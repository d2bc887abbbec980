// A solver for the mapping run test, in C++: publishes its mesh "x" (five
// points on [0, 1]) and, at every request, "u" = x + 10 * requests served,
// and reads "w" mapped onto its mesh. At the cycle end of REMESH_CYCLE it
// re-meshes: as many points, elsewhere. Logs every put and get to
// DIR/mesh.log as "put CYCLE TIME_STEP STAGE x... | u..." and
// "get CYCLE TIME_STEP STAGE w...".
//
//   mesh_solver DIR LAST_CYCLE REMESH_CYCLE
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "fields/solver.h"
#include "project/endpoint.h"

namespace {

using lockstep::fields::Outcome;
using lockstep::fields::Type;

void must(Outcome outcome, const lockstep::fields::SolverFields& fields) {
  if (outcome == Outcome::kOk) return;
  std::cerr << "mesh_solver: " << fields.error() << "\n";
  std::exit(1);
}

std::string line(const std::vector<double>& values) {
  std::string text;
  char number[32];
  for (const double value : values) text += (std::snprintf(number, sizeof number, " %.17g", value), number);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: mesh_solver DIR LAST_CYCLE REMESH_CYCLE\n";
    return 2;
  }
  const std::string directory = argv[1];
  const int last_cycle = std::atoi(argv[2]), remesh_cycle = std::atoi(argv[3]);
  std::string error;
  const auto endpoint = lockstep::project::Endpoint::open(directory, error);
  const auto fields = endpoint ? lockstep::fields::SolverFields::open(*endpoint, error) : nullptr;
  if (!fields) {
    std::cerr << "mesh_solver: " << error << "\n";
    return 1;
  }
  std::ofstream log(directory + "/mesh.log");
  std::vector<double> x = {0, 0.25, 0.5, 0.75, 1}, u(5);
  int served = 0;
  const auto publish = [&](const std::string& when) {
    for (std::size_t i = 0; i < x.size(); ++i) u[i] = x[i] + 10 * served;
    must(fields->put("x", {Type::kFloat64, {5}, false, x.data()}), *fields);
    must(fields->put("u", {Type::kFloat64, {5}, false, u.data()}), *fields);
    log << "put " << when << line(x) << " |" << line(u) << "\n" << std::flush;
  };
  publish("0 0 0");
  for (;;) {
    lockstep::project::Request request;
    if (endpoint->wait(request) != lockstep::project::WaitResult::kRequest) {
      std::cerr << "mesh_solver: " << endpoint->error() << "\n";
      return 1;
    }
    const std::string when =
        std::to_string(request.cycle) + " " + std::to_string(request.time_step) + " " + std::to_string(request.stage);
    std::vector<double> w(5);
    must(fields->get("w", {Type::kFloat64, {5}, false, w.data()}), *fields);
    log << "get " << when << line(w) << "\n";
    ++served;
    if (request.cycle_end() && request.cycle == remesh_cycle) x = {0.05, 0.1, 0.3, 0.6, 0.95};
    publish(when);
    if (endpoint->report_done() != lockstep::project::DoneResult::kDone) {
      std::cerr << "mesh_solver: " << endpoint->error() << "\n";
      return 1;
    }
    if (request.cycle_end() && request.cycle == last_cycle) return 0;
  }
}
