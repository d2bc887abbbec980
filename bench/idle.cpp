// What waiting costs: agents with nothing to do (go2.dat reports done, no
// request pending), woken by inotify or polling, 1, 11 and 101 at a time.
// Prints the CPU each agent uses and how many files each opens per second
// (counted by strace on one of them, where strace is installed).
#include <benchmark/benchmark.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "process.h"

namespace lockstep::bench {
namespace {

constexpr auto kSettle = std::chrono::seconds(2);
constexpr auto kMeasured = std::chrono::seconds(10);

// Time `pid` has spent on a CPU, in seconds (from the scheduler, to the
// nanosecond; clock ticks would round an idle agent to zero).
double cpu_seconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/schedstat");
  double nanoseconds = 0;
  in >> nanoseconds;
  return nanoseconds / 1e9;
}

// Files `pid` opens per second, or -1 without strace.
double opens_per_second(pid_t pid, const std::filesystem::path& scratch) {
  if (access("/usr/bin/strace", X_OK) != 0) return -1;
  const std::string summary = (scratch / "strace.txt").string();
  testing::Background tracer({"/usr/bin/strace", "-qq", "-c", "-e", "trace=open,openat", "-o", summary, "-p",
                              std::to_string(pid)},
                             scratch);
  std::this_thread::sleep_for(kMeasured);
  kill(tracer.pid(), SIGINT);  // strace writes its summary as it ends
  tracer.wait(kMeasured);
  std::ifstream in(summary);
  long calls = 0;
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::vector<std::string> fields;
    for (std::string word; words >> word;) fields.push_back(word);
    if (fields.size() >= 5 && (fields.back() == "openat" || fields.back() == "open")) calls += std::stol(fields[3]);
  }
  return static_cast<double>(calls) / std::chrono::duration<double>(kMeasured).count();
}

void idle_agents(benchmark::State& state) {
  const auto count = static_cast<int>(state.range(0));
  const bool polling = state.range(1) == 1;
  testing::TempDir dir;
  std::vector<std::unique_ptr<testing::Background>> agents;
  for (int i = 0; i < count; ++i) {
    std::string name = "p";
    name += std::to_string(i);
    const auto project = dir.path() / name;
    testing::write_file(project / "go2.dat", "0\n");
    std::vector<std::string> argv = {LOCKSTEPCTL_BINARY, "agent", "--dir", project.string()};
    if (polling) argv.push_back("--poll");
    argv.insert(argv.end(), {"--", "true"});
    agents.push_back(std::make_unique<testing::Background>(argv, dir.path()));
  }
  for (auto _ : state) {
    std::this_thread::sleep_for(kSettle);
    double before = 0;
    for (const auto& agent : agents) before -= cpu_seconds(agent->pid());
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(kMeasured);
    double cpu = before;
    for (const auto& agent : agents) cpu += cpu_seconds(agent->pid());
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.counters["cpu_percent_per_agent"] = 100 * cpu / elapsed / count;
    state.counters["opens_per_second_per_agent"] = opens_per_second(agents.front()->pid(), dir.path());
  }
}

BENCHMARK(idle_agents)
    ->ArgNames({"agents", "polling"})
    ->ArgsProduct({{1, 11, 101}, {0, 1}})
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

}  // namespace
}  // namespace lockstep::bench

BENCHMARK_MAIN();
