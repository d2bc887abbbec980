#include "bench_tree.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>

#include "config/project_tree.h"

namespace lockstep::bench {

BenchTree::BenchTree(int subprojects, const std::string& settings, bool answered, const std::string& done)
    : subprojects_(subprojects) {
  testing::write_file(run() / "analysis_settings.dat", settings);
  std::vector<std::string> responder = {RESPONDER_BINARY};
  for (int index = 0; index <= subprojects; ++index) {
    testing::write_file(project(index) / "CalculateInteraction.dat", "noop\n");
    testing::write_file(project(index) / "noop", "#!/bin/sh\n");
    testing::make_executable(project(index) / "noop");
    testing::write_file(project(index) / "go2.dat", done);
    responder.push_back(project(index).string());
  }
  if (answered) responder_ = std::make_unique<testing::Background>(responder, run());
}

// The directory the driver uses, sub project 100's "../sub**/" included.
std::filesystem::path BenchTree::project(int index) const { return run() / config::project_directory(index); }

void replace(const std::string& path, const std::string& record) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
  static_cast<void>(write(fd, record.data(), record.size()));
  close(fd);
}

bool done(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return false;
  char buffer[16];
  const ssize_t n = read(fd, buffer, sizeof buffer);
  close(fd);
  return n >= 2 && buffer[0] == '0' && buffer[1] == '\n';
}

double timed_run(const std::vector<std::string>& argv, const std::filesystem::path& directory) {
  const auto start = std::chrono::steady_clock::now();
  static_cast<void>(testing::run_program(argv, directory, std::chrono::seconds(600)));
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace lockstep::bench
