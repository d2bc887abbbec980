// Checks a coupled chain run against the same chain integrated in one
// process: reads every project's chain.csv, prints the largest difference of
// displacement, velocity and total energy, and fails above 1e-12. Writes the
// assembled run to chain_total.csv for plotting.
//
//   chain_check TREE CYCLES TIME_STEPS DIR:FIRST:COUNT...
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "chain_model.h"

namespace {

constexpr double kTolerance = 1e-12;

struct Block {
  std::string directory;
  std::size_t first = 0;
  std::size_t count = 0;
  std::vector<std::vector<double>> rows;  // cycle, time, energy, u..., v...
};

bool load(const std::string& tree, Block& block) {
  std::ifstream in(tree + "/" + block.directory + "/chain.csv");
  std::string line;
  if (!std::getline(in, line)) return false;
  while (std::getline(in, line)) {
    std::vector<double> row;
    std::istringstream fields(line);
    std::string field;
    while (std::getline(fields, field, ',')) row.push_back(std::strtod(field.c_str(), nullptr));
    if (row.size() != 3 + 2 * block.count || row[0] < 1 || row[0] > static_cast<double>(block.rows.size() + 1)) {
      return false;
    }
    // A run resumed after cycle C writes the rows after C again.
    block.rows.resize(static_cast<std::size_t>(row[0]) - 1);
    block.rows.push_back(row);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::cerr << "usage: chain_check TREE CYCLES TIME_STEPS DIR:FIRST:COUNT...\n";
    return 2;
  }
  const std::string tree = argv[1];
  const long cycles = std::strtol(argv[2], nullptr, 10);
  const long time_steps = std::strtol(argv[3], nullptr, 10);
  std::vector<Block> blocks;
  for (int i = 4; i < argc; ++i) {
    Block block;
    const std::string layout = argv[i];
    const auto colon = layout.find(':');
    const auto second = layout.find(':', colon + 1);
    block.directory = layout.substr(0, colon);
    block.first = std::strtoul(layout.substr(colon + 1, second - colon - 1).c_str(), nullptr, 10);
    block.count = std::strtoul(layout.substr(second + 1).c_str(), nullptr, 10);
    if (!load(tree, block) || block.rows.size() != static_cast<std::size_t>(cycles)) {
      std::cerr << "chain_check: " << block.directory << "/chain.csv does not hold " << cycles << " cycle rows\n";
      return 1;
    }
    blocks.push_back(block);
  }

  chain::Rk4Block reference(0, chain::kMasses);
  std::ofstream total(tree + "/chain_total.csv");
  total << "time,energy";
  for (std::size_t i = 0; i < chain::kMasses; ++i) total << ",u" << i;
  total << "\n";
  double worst = 0.0;
  double worst_energy = 0.0;
  for (long cycle = 0; cycle < cycles; ++cycle) {
    for (long step = 0; step < time_steps; ++step) {
      for (int s = 0; s < 4; ++s) reference.stage(s, 0.0, 0.0);
    }
    std::vector<double> u(chain::kMasses), v(chain::kMasses);
    double energy = 0.0;
    for (const Block& block : blocks) {
      const std::vector<double>& row = block.rows[static_cast<std::size_t>(cycle)];
      energy += row[2];
      for (std::size_t j = 0; j < block.count; ++j) {
        u[block.first + j] = row[3 + j];
        v[block.first + j] = row[3 + block.count + j];
      }
    }
    // The springs between blocks and to the walls belong to no block.
    for (std::size_t b = 0; b + 1 < blocks.size(); ++b) {
      const std::size_t last = blocks[b].first + blocks[b].count - 1;
      energy += chain::Rk4Block::spring_energy(u[last], u[last + 1]);
    }
    const auto walls = [](const std::vector<double>& x) {
      return chain::Rk4Block::spring_energy(0.0, x.front()) + chain::Rk4Block::spring_energy(x.back(), 0.0);
    };
    energy += walls(u);
    const double reference_energy = reference.internal_energy() + walls(reference.displacements());
    for (std::size_t i = 0; i < chain::kMasses; ++i) {
      worst = std::fmax(worst, std::fabs(u[i] - reference.displacements()[i]));
      worst = std::fmax(worst, std::fabs(v[i] - reference.velocities()[i]));
    }
    worst_energy = std::fmax(worst_energy, std::fabs(energy - reference_energy));
    total << blocks.front().rows[static_cast<std::size_t>(cycle)][1] << "," << energy;
    for (const double x : u) total << "," << x;
    total << "\n";
  }
  std::printf("largest difference from the one-process integration: %.3g in state, %.3g in energy (limit %g)\n",
              worst, worst_energy, kTolerance);
  if (worst > kTolerance || worst_energy > kTolerance) {
    std::printf("FAILED: the coupled run differs from the one-process integration\n");
    return 1;
  }
  std::printf("OK\n");
  return 0;
}
