// Fields: a put and a get through the library against the floor (the same
// bytes written to a temporary file, renamed, and read back with plain
// POSIX calls), at 10^3, 10^5 and 10^7 doubles; and one stage of
// interaction programs (lockstep-exchange copying one field, a no-op
// compiled program, the shell script that copied text before fields) at 1,
// 11 and 101 projects, each launched through the shell as the driver does.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "fields/fields.h"
#include "process.h"
#include "project/endpoint.h"

namespace {

using lockstep::fields::Outcome;
using lockstep::fields::Type;
using lockstep::fields::Values;
namespace fs = std::filesystem;

void write_text(const fs::path& path, const std::string& text) { lockstep::testing::write_file(path, text); }

// A run tree of `projects` projects, in whose run directory the process
// works meanwhile.
class FieldTree {
 public:
  explicit FieldTree(int projects) {
    write_text(run() / "analysis_settings.dat", "time_step=\n1\ncycle_num=\n1\nnum_subprojects=\n" +
                                                    std::to_string(projects - 1) + "\n");
    for (int index = 0; index < projects; ++index) write_text(project(index) / "go2.dat", "0\n");
    previous_ = fs::current_path();
    fs::current_path(run());
  }
  ~FieldTree() { fs::current_path(previous_); }
  fs::path run() const { return root_.path() / "run"; }
  fs::path project(int index) const { return root_.path() / project_name(index); }
  // lockstep's name of a project directory: "main", "sub1", ... "sub**".
  static std::string project_name(int index) {
    return index == 0 ? "main" : index >= 100 ? "sub**" : "sub" + std::to_string(index);
  }

 private:
  lockstep::testing::TempDir root_;
  fs::path previous_;
};

void put_and_get(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  FieldTree tree(2);
  lockstep::testing::hand_out(tree.project(1), " 1 1 1 1\n");
  std::string error;
  auto endpoint = lockstep::project::Endpoint::open(tree.project(1).string(), error);
  lockstep::project::Request request;
  endpoint->wait(request);
  auto solver = lockstep::fields::SolverFields::open(*endpoint, error);
  const char* argv[] = {"1", "1", "1", "1"};
  auto step = lockstep::fields::InteractionFields::open(4, argv, error);
  std::vector<double> out(count, 1.5), in(count);
  const auto size = static_cast<std::int64_t>(count);
  // Earlier benchmarks' writes flushed first, for the floor and the library alike.
  ::sync();
  for (auto _ : state) {
    if (step->put("x", Values{Type::kFloat64, {size}, false, out.data()}) != Outcome::kOk ||
        solver->get("x", Values{Type::kFloat64, {size}, false, in.data()}) != Outcome::kOk) {
      state.SkipWithError(step->error().empty() ? solver->error().c_str() : step->error().c_str());
      break;
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * size * 8);
}

// The floor: the same bytes (a 192-byte header and the values) through a
// temporary file, a rename and a read.
void floor_put_and_get(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  lockstep::testing::TempDir dir;
  const std::string temporary = (dir.path() / ".x.tmp").string(), path = (dir.path() / "x").string();
  std::vector<char> out(192 + count * 8, 'x'), in(out.size());
  ::sync();
  for (auto _ : state) {
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    bool ok = ::write(fd, out.data(), out.size()) == static_cast<ssize_t>(out.size());
    ok = ::close(fd) == 0 && ok && ::rename(temporary.c_str(), path.c_str()) == 0;
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ok = ::read(fd, in.data(), in.size()) == static_cast<ssize_t>(in.size()) && ok;
    ::close(fd);
    if (!ok) {
      state.SkipWithError("the floor's file operations failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(count) * 8);
}

// One stage's interaction programs: `projects` launches through the shell,
// one after another, each copying its left neighbour's boundary.
void interaction_stage(benchmark::State& state) {
  const int program = static_cast<int>(state.range(0));
  const int projects = static_cast<int>(state.range(1));
  FieldTree tree(projects);
  std::string table;
  for (int index = 0; index < projects; ++index) {
    const fs::path directory = tree.project(index);
    const int left = index == 0 ? projects - 1 : index - 1;
    table += (left == 0 ? std::string("main") : "sub" + std::to_string(left)) + " last " +
             (index == 0 ? std::string("main") : "sub" + std::to_string(index)) + " left\n";
    // Starting outputs: what the first stage's programs copy.
    std::string error;
    auto endpoint = lockstep::project::Endpoint::open(directory.string(), error);
    auto solver = endpoint ? lockstep::fields::SolverFields::open(*endpoint, error) : nullptr;
    double value = index;
    if (!solver || solver->put("last", Values{Type::kFloat64, {1}, false, &value}) != Outcome::kOk) {
      state.SkipWithError(("cannot publish " + directory.string() + "'s output: " + error).c_str());
      return;
    }
    write_text(directory / "left.out", "0.5\n");
    write_text(directory / "right.out", "0.5\n");
    const char* target = program == 0 ? NOOP_BINARY : program == 1 ? EXCHANGE_BINARY : EXCHANGE_TEXT_SCRIPT;
    fs::create_symlink(target, directory / "interaction");
  }
  write_text(tree.run() / "exchange.dat", table);
  // The text script names sub project 100's directory by its number.
  if (projects > 100) fs::create_directory_symlink(tree.project(100), tree.project(100).parent_path() / "sub100");
  std::vector<std::string> commands;
  for (int index = 0; index < projects; ++index) {
    commands.push_back("\"../" + FieldTree::project_name(index) + "/interaction\"  " + std::to_string(index) +
                       "     1     1     1");
  }
  for (auto _ : state) {
    for (const std::string& command : commands) {
      if (std::system(command.c_str()) != 0) {
        state.SkipWithError(("failed: " + command).c_str());
        return;
      }
    }
  }
}

BENCHMARK(put_and_get)->Arg(1000)->Arg(100000)->Arg(10000000)->Unit(benchmark::kMicrosecond);
BENCHMARK(floor_put_and_get)->Arg(1000)->Arg(100000)->Arg(10000000)->Unit(benchmark::kMicrosecond);
BENCHMARK(interaction_stage)
    ->ArgsProduct({{0, 1, 2}, {1, 11, 101}})
    ->ArgNames({"program", "projects"})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
