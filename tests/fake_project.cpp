// Plays one project for whole-program tests: waits until go2.dat holds the
// reset record and go.dat a request, appends the go.dat bytes to a log, then
// reports done. Usage:
//   fake_project DIR LOG REQUESTS [--rename] [--random SEED]
// It ends after REQUESTS requests. --random answers each request after 0 to
// 2 ms and reports done in place or by rename, at random.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>

namespace {

std::string read_all(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

bool first_integer(const std::string& text, long& value) {
  char* end = nullptr;
  value = std::strtol(text.c_str(), &end, 10);
  return end != text.c_str();
}

void write_in_place(const std::string& path, const std::string& content) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
  if (fd < 0 || write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) std::exit(3);
  close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: fake_project DIR LOG REQUESTS [--rename] [--random SEED]\n");
    return 2;
  }
  const std::string directory = argv[1];
  const std::string log = argv[2];
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
  const std::string done = "0\n";
  std::uniform_int_distribution<int> delay_us(0, 2000);
  std::bernoulli_distribution coin;
  const std::string go = directory + "/go.dat";
  const std::string go2 = directory + "/go2.dat";

  for (long served = 0; served < requests;) {
    long reset = 0;
    long command = 0;
    // go2.dat first: the driver resets go.dat before go2.dat, so once go2.dat
    // holds the reset, go.dat holds the reset or the new request, never the
    // request already served.
    const std::string done_file = read_all(go2);
    const std::string request = read_all(go);
    if (first_integer(done_file, reset) && reset == -1000 && !request.empty() && request.back() == '\n' &&
        first_integer(request, command) && command == 1) {
      std::ofstream(log, std::ios::app | std::ios::binary) << request;
      if (random) {
        std::this_thread::sleep_for(std::chrono::microseconds(delay_us(generator)));
        by_rename = coin(generator);
      }
      if (by_rename) {
        write_in_place(go2 + ".tmp", done);
        if (std::rename((go2 + ".tmp").c_str(), go2.c_str()) != 0) return 3;
      } else {
        write_in_place(go2, done);
      }
      ++served;
    } else {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }
  return 0;
}
