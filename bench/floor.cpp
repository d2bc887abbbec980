// The floor for the driver's stage throughput: only what the protocol itself
// demands of a stage, with raw system calls and no checks: the progress
// line, the readiness reads and pauses, the shell launches, the go-file
// writes. Usage, from the run directory:
//   floor NUM_SUBPROJECTS CYCLES TIME_STEPS PROGRAM
#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

void replace(const std::string& path, const std::string& record) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
  static_cast<void>(write(fd, record.data(), record.size()));
  close(fd);
}

long done_value(const std::string& path) {
  for (;;) {
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) continue;
    char buffer[64];
    const ssize_t n = read(fd, buffer, sizeof buffer - 1);
    close(fd);
    if (n <= 0) continue;
    buffer[n] = '\0';
    char* end = nullptr;
    const long value = std::strtol(buffer, &end, 10);
    if (end != buffer) return value;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const int subprojects = std::atoi(argv[1]);
  const int cycles = std::atoi(argv[2]);
  const int time_steps = std::atoi(argv[3]);
  const std::string program = argv[4];
  std::vector<std::string> directories;
  for (int i = 0; i <= subprojects; ++i) {
    directories.push_back(i == 0 ? "../main/" : i < 100 ? "../sub" + std::to_string(i) + "/" : "../sub**/");
  }
  const std::string reset = " -1000 0 0 0\n";
  char text[160];
  for (int k = 1; k <= cycles; ++k) {
    for (int t = 1; t <= time_steps + 1; ++t) {
      const bool closing = t == time_steps + 1;
      for (int s = 1; s <= (closing ? 1 : 4); ++s) {
        const int length = std::snprintf(text, sizeof text, "cycle=%4d      time step=%5d      runge-kutta step=%2d\n",
                                         k, t, s);
        static_cast<void>(write(1, text, static_cast<std::size_t>(length)));
        for (long pass = 1; pass <= 1000000; ++pass) {
          long sum = 0;
          for (const std::string& directory : directories) sum += done_value(directory + "go2.dat");
          if (sum == 0) break;
          timeval pause{0, 1000};  // the protocol's 1 ms between passes
          select(5, nullptr, nullptr, nullptr, &pause);
        }
        if (!closing) {
          for (int i = 0; i <= subprojects; ++i) {
            std::snprintf(text, sizeof text, "\"%s%s\"  %d %5d %5d %5d", directories[static_cast<std::size_t>(i)].c_str(),
                          program.c_str(), i, k, t, s);
            static_cast<void>(std::system(text));
          }
        }
        for (const std::string& directory : directories) {
          replace(directory + "go.dat", reset);
          replace(directory + "go2.dat", reset);
        }
        if (closing) {
          std::snprintf(text, sizeof text, " 1 %12d  -1  5\n", k);
        } else {
          std::snprintf(text, sizeof text, " 1 %12d%12d%12d\n", k, t, s);
        }
        for (const std::string& directory : directories) replace(directory + "go.dat", text);
      }
    }
  }
  return 0;
}
