// Plays one project for whole-program tests: waits until go2.dat holds the
// reset record and go.dat a request, appends the go.dat bytes to a log, then
// reports done. Usage:
//   fake_project DIR LOG REQUESTS [--rename] [--random SEED]
// It ends after REQUESTS requests. --random answers each request after 0 to
// 2 ms and reports done in place or by rename, at random.
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "process.h"

namespace {

void write_in_place(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!(out << content).flush()) std::exit(3);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string go = std::string(argv[1]) + "/go.dat";
  const std::string go2 = std::string(argv[1]) + "/go2.dat";
  const long requests = std::strtol(argv[3], nullptr, 10);
  bool by_rename = false;
  bool random = false;
  std::mt19937 generator;
  for (int i = 4; i < argc; ++i) {
    if (std::strcmp(argv[i], "--rename") == 0) by_rename = true;
    if (std::strcmp(argv[i], "--random") == 0 && i + 1 < argc) {
      random = true;
      generator.seed(static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10)));
    }
  }
  std::uniform_int_distribution<int> delay_us(0, 2000);
  std::bernoulli_distribution coin;
  for (long served = 0; served < requests;) {
    // go2.dat first: the driver resets go.dat before go2.dat, so once go2.dat
    // holds the reset, go.dat holds the reset or the new request, never the
    // request already served.
    const std::string done_file = lockstep::testing::read_file(go2);
    const std::string request = lockstep::testing::read_file(go);
    if (std::atol(done_file.c_str()) != -1000 || request.empty() || request.back() != '\n' ||
        std::atol(request.c_str()) != 1) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
      continue;
    }
    std::ofstream(argv[2], std::ios::app | std::ios::binary) << request;
    if (random) {
      std::this_thread::sleep_for(std::chrono::microseconds(delay_us(generator)));
      by_rename = coin(generator);
    }
    write_in_place(by_rename ? go2 + ".tmp" : go2, "0\n");
    if (by_rename && std::rename((go2 + ".tmp").c_str(), go2.c_str()) != 0) return 3;
    ++served;
  }
  return 0;
}
